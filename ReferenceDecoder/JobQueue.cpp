#include "JobQueue.h"

#include <algorithm>
#include <thread>

namespace reference {

namespace {

/// What a new thread is given. The thread keeps the library in memory until its last instruction: a callback
/// may give up the codec's last reference and the process unload the library while the thread is ending.
struct ThreadStart {
    std::shared_ptr<JobQueue> queue;
    HMODULE module = nullptr;
};

/// How long a late completion is.
constexpr DWORD lateness = 3;

using Manners = ReferenceDecoderManners;

/// Null where threads are not to hold it.
HMODULE holdThisModule() {
    HMODULE module = nullptr;
    if (referenceDecoderHas(Manners::threadsDoNotHoldLibrary))
        return nullptr;
    GetModuleHandleExW(GET_MODULE_HANDLE_EX_FLAG_FROM_ADDRESS, reinterpret_cast<LPCWSTR>(&holdThisModule),
                       &module);
    return module;
}

} // namespace

HRESULT Job::Submit() {
    return cross<"IBlackmagicRawJob::Submit">([&] {
        if (m_isSubmitted.exchange(true))
            return badArgument(E_UNEXPECTED);
        const HRESULT result = m_queue->submit(*this);
        if (FAILED(result))
            m_isSubmitted = false;
        return result;
    });
}

HRESULT Job::SetUserData(void* userData) {
    return cross<"IBlackmagicRawJob::SetUserData">([&] {
        m_userData = userData;
        return S_OK;
    });
}

HRESULT Job::GetUserData(void** userData) {
    return cross<"IBlackmagicRawJob::GetUserData">(
        [&] {
            *userData = m_userData;
            return S_OK;
        },
        userData);
}

void Job::run(IBlackmagicRawCallback* callback) noexcept {
    if (const DWORD delay = referenceDecoderControl().jobDelayMilliseconds)
        Sleep(delay);
    const HRESULT result = guarded([&] { return work(); });
    if (referenceDecoderHas(Manners::lateCompletions))
        Sleep(lateness);
    if (callback)
        report(*callback, result);
}

JobQueue::JobQueue() : m_threadLimit(std::max(2u, std::thread::hardware_concurrency())) {}

JobQueue::~JobQueue() {
    for (const Worker& worker : m_workers)
        CloseHandle(worker.handle);
    setCallback(nullptr);
}

void JobQueue::setCallback(IBlackmagicRawCallback* callback) {
    bool isCounted = callback && !referenceDecoderHas(Manners::callbackIsNotCounted);
    if (isCounted)
        callback->AddRef();
    IBlackmagicRawCallback* previous = callback;
    {
        const Lock::Guard guard(m_lock);
        std::swap(previous, m_callback);
        std::swap(isCounted, m_countsCallback);
    }
    if (isCounted)
        previous->Release();
}

HRESULT JobQueue::submit(Job& job) {
    const HRESULT result = enqueue(job);
    if (FAILED(result) || !referenceDecoderHas(Manners::submitCompletesFirst))
        return result;
    bool isInCompletion;
    {
        const Lock::Guard guard(m_lock);
        isInCompletion = isWorkerThread();
        while (!isInCompletion && !job.m_isDone)
            m_oneDone.wait(m_lock);
    }
    if (isInCompletion) // whose locks the next one may need
        Sleep(lateness);
    return result;
}

HRESULT JobQueue::enqueue(Job& job) {
    const Lock::Guard guard(m_lock);
    if (m_isStopping && m_unfinished == 0)
        return E_UNEXPECTED;
    // A thread for each waiting job up to the limit; one that submits from a callback will be free next. What
    // the system refuses beyond the first thread is only speed.
    const size_t freeWorkers = m_idleWorkers + (isWorkerThread() ? 1u : 0u);
    if (referenceDecoderHas(Manners::changingThreads | Manners::submitCompletesFirst) ||
        (freeWorkers <= m_jobs.size() && m_workers.size() < m_threadLimit) || m_workers.empty())
        startWorker();
    if (m_workers.empty())
        return E_OUTOFMEMORY;
    m_jobs.push_back(&job);
    job.addReference();
    ++m_unfinished;
    ++account().jobsSubmitted;
    m_work.wakeOne();
    return S_OK;
}

void JobQueue::flush() {
    {
        const Lock::Guard guard(m_lock);
        while (m_unfinished > 0)
            m_idle.wait(m_lock);
    }
    if (referenceDecoderHas(Manners::lastReleaseDoesNotWait | Manners::threadsDoNotHoldLibrary |
                            Manners::changingThreads))
        endWorkers();
}

/// Not on a worker.
void JobQueue::endWorkers() {
    std::vector<Worker> workers;
    {
        const Lock::Guard guard(m_lock);
        m_isEnding = true;
        m_work.wakeAll();
        workers.swap(m_workers);
    }
    for (const Worker& worker : workers) {
        WaitForSingleObject(worker.handle, INFINITE);
        CloseHandle(worker.handle);
    }
    const Lock::Guard guard(m_lock);
    m_isEnding = false;
}

void JobQueue::stop() {
    std::vector<Worker> workers;
    bool waits = !referenceDecoderHas(Manners::lastReleaseDoesNotWait);
    {
        const Lock::Guard guard(m_lock);
        waits = waits && !isWorkerThread();
        while (waits && m_unfinished > 0)
            m_idle.wait(m_lock);
        m_isStopping = true;
        m_work.wakeAll();
        workers.swap(m_workers);
    }
    for (const Worker& worker : workers) {
        if (waits)
            WaitForSingleObject(worker.handle, INFINITE);
        CloseHandle(worker.handle);
    }
    if (waits)
        setCallback(nullptr);
}

bool JobQueue::isWorkerThread() const {
    return std::any_of(m_workers.begin(), m_workers.end(),
                       [](const Worker& worker) { return worker.id == GetCurrentThreadId(); });
}

void JobQueue::startWorker() {
    m_workers.reserve(m_workers.size() + 1);
    auto start = std::make_unique<ThreadStart>(ThreadStart{shared_from_this()});
    start->module = holdThisModule(); // once nothing can throw any more
    Worker worker{};
    worker.handle = CreateThread(nullptr, 0, threadEntry, start.get(), 0, &worker.id);
    if (worker.handle) {
        static_cast<void>(start.release());
        m_workers.push_back(worker);
    } else if (start->module)
        FreeLibrary(start->module);
}

DWORD WINAPI JobQueue::threadEntry(void* given) {
    std::unique_ptr<ThreadStart> start(static_cast<ThreadStart*>(given));
    const HMODULE module = start->module;
    start->queue->work();
    start.reset();
    if (module)
        FreeLibraryAndExitThread(module, 0);
    return 0;
}

void JobQueue::work() {
    while (Job* job = takeJob()) {
        runOne(job);
        if (referenceDecoderHas(Manners::changingThreads))
            return;
    }
}

/// Null when there will be no more.
Job* JobQueue::takeJob() {
    const Lock::Guard guard(m_lock);
    while (m_jobs.empty()) {
        if (m_isEnding || (m_isStopping && m_unfinished == 0))
            return nullptr;
        ++m_idleWorkers;
        m_work.wait(m_lock);
        --m_idleWorkers;
    }
    Job* job = m_jobs.front();
    m_jobs.pop_front();
    return job;
}

void JobQueue::runOne(Job* job) {
    IBlackmagicRawCallback* callback;
    bool isCounted;
    {
        const Lock::Guard guard(m_lock);
        callback = m_callback;
        isCounted = m_countsCallback;
        if (isCounted)
            callback->AddRef();
    }
    job->run(callback);
    if (isCounted)
        callback->Release();
    ++account().jobsCompleted;
    {
        const Lock::Guard guard(m_lock);
        job->m_isDone = true;
        m_oneDone.wakeAll();
    }
    job->Release(); // before the job counts as finished: after a flush the account is balanced
    const Lock::Guard guard(m_lock);
    if (--m_unfinished == 0) {
        m_idle.wakeAll();
        if (m_isStopping)
            m_work.wakeAll();
    }
}

} // namespace reference
