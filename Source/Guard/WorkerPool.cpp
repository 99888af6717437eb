#include "WorkerPool.h"

#include <algorithm>
#include <memory>
#include <utility>

#include "GuardFailures.h"
#include "KillerClips.h"
#include "Utils/vdModule.h"
#include "Utils/vdPolicy.h"

namespace {
/// A place for a worker; whoever holds it has the only say over what stands there.
struct Slot {
    WorkerProcess* worker; ///< idle, or the holder's; null: none started yet, or it has ended
    bool held;
};

/// All of it zero at first, and without a destructor: when the process ends nothing of it is to be touched,
/// and when the library is unloaded DllMain ends the workers itself.
struct Pool {
    static constexpr size_t maximumWorkers = 16;

    SRWLOCK lock; ///< for all below
    CONDITION_VARIABLE freed;
    Slot slots[maximumWorkers];
    KillerClips killers;
};
Pool g_pool;

class PoolLock {
public:
    PoolLock() noexcept { AcquireSRWLockExclusive(&g_pool.lock); }
    ~PoolLock() { ReleaseSRWLockExclusive(&g_pool.lock); }
    PoolLock(const PoolLock&) = delete;
    PoolLock& operator=(const PoolLock&) = delete;
};

size_t workerLimit() {
    const size_t chosen = policyValue(vdPolicy::workers);
    SYSTEM_INFO system = {};
    GetSystemInfo(&system);
    return chosen != 0 ? std::min(chosen, Pool::maximumWorkers)
                       : std::clamp<size_t>(system.dwNumberOfProcessors, 1, 4);
}

/// A place in the pool, waited for, and given back at the end together with the worker in it.
class Lease {
public:
    Lease() {
        const PoolLock lock;
        while (heldPlaces() >= workerLimit())
            SleepConditionVariableSRW(&g_pool.freed, &g_pool.lock, INFINITE, 0);
        if ((m_slot = findWorker()) == nullptr) // then a place that is not held is empty
            m_slot = std::ranges::find(g_pool.slots, false, &Slot::held);
        m_slot->held = true;
        m_worker.reset(std::exchange(m_slot->worker, nullptr));
    }
    ~Lease() {
        {
            const PoolLock lock;
            m_slot->worker = m_worker.release();
            m_slot->held = false;
        }
        WakeConditionVariable(&g_pool.freed);
    }
    Lease(const Lease&) = delete;
    Lease& operator=(const Lease&) = delete;

    std::unique_ptr<WorkerProcess>& worker() { return m_worker; }

private:
    /// A place with an idle worker. Clears the places of those that have left.
    static Slot* findWorker() {
        Slot* found = nullptr;
        for (Slot& slot : g_pool.slots) {
            if (slot.held || slot.worker == nullptr)
                continue;
            if (slot.worker->hasLeft())
                delete std::exchange(slot.worker, nullptr);
            else
                found = &slot;
        }
        return found;
    }
    static size_t heldPlaces() {
        return static_cast<size_t>(std::ranges::count(g_pool.slots, true, &Slot::held));
    }

    Slot* m_slot = nullptr;
    std::unique_ptr<WorkerProcess> m_worker;
};

struct Question {
    const std::wstring& path;
    UINT size;
    uint64_t killerState; ///< as in WorkerQuestion
};

HRESULT refusal(Question& question) {
    const PoolLock lock;
    return g_pool.killers.refusal(question.path, question.killerState);
}

/// Draws the conclusions from how a question went.
void settle(const Question& question, const WorkerReply& reply, std::unique_ptr<WorkerProcess>& worker) {
    if (reply.asked == Asked::notAsked)
        return;
    if (reply.asked != Asked::answered) {
        worker->endAndWait(); // the clip is free again when the shell gets its answer
        worker.reset();
    }
    const PoolLock lock;
    switch (reply.asked) {
    case Asked::killed:
        return g_pool.killers.killed(question.path, reply.clipState);
    case Asked::diedUnasked:
        return g_pool.killers.diedUnasked();
    default:
        return g_pool.killers.answered();
    }
}

WorkerReply failed(HRESULT result) {
    WorkerReply reply;
    reply.result = result;
    return reply;
}

/// Asks a worker that is still there from the last question; nothing when it is not.
bool askIdle(std::unique_ptr<WorkerProcess>& worker, const Question& question, WorkerReply& reply) {
    if (worker != nullptr && worker->claim()) {
        reply = worker->ask(question.path, question.size, question.killerState);
        if (reply.asked != Asked::diedUnasked)
            return true;
    }
    worker.reset(); // it has left, or somebody ended it
    return false;
}

/// Asks a new worker. One that cannot be started, or is gone before it has begun, is tried a second time: a
/// busy machine refuses a process now and then, and a host's job the worker's own. Without a worker
/// afterwards none could be made.
WorkerReply askNew(std::unique_ptr<WorkerProcess>& worker, const Question& question) {
    WorkerReply reply;
    for (const WorkerJob job : {WorkerJob::fromBirth, WorkerJob::afterwards}) {
        worker.reset();
        const HRESULT hr = WorkerProcess::create(folderOf(ownModulePath()), job, worker);
        reply = SUCCEEDED(hr) ? worker->ask(question.path, question.size, question.killerState) : failed(hr);
        if (reply.result != GUARD_E_WORKER_NOT_STARTED)
            break;
    }
    return reply;
}
} // namespace

WorkerReply askWorkers(const std::wstring& path, UINT size) {
    if (path.size() > WorkerQuestion::maximumPath) { // no file has such a path; as the handler answers it
        WorkerReply reply = failed(E_FAIL);
        reply.alpha = WTSAT_ARGB;
        return reply;
    }
    Lease lease;
    // Only now: while we waited, another question may have shown that this one is not to be asked.
    Question question{path, size, 0};
    if (const HRESULT hr = refusal(question); FAILED(hr))
        return failed(hr);
    std::unique_ptr<WorkerProcess>& worker = lease.worker();
    WorkerReply reply;
    if (!askIdle(worker, question, reply))
        reply = askNew(worker, question);
    if (worker != nullptr)
        settle(question, reply, worker);
    return reply;
}

void endIdleWorkers() noexcept {
    const PoolLock lock;
    for (Slot& slot : g_pool.slots)
        if (!slot.held)
            delete std::exchange(slot.worker, nullptr);
}

void endWorkersAtUnload() noexcept {
    for (Slot& slot : g_pool.slots)
        delete std::exchange(slot.worker, nullptr);
}
