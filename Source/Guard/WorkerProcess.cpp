#include "WorkerProcess.h"

#include <algorithm>
#include <cstring>
#include <iterator>
#include <vector>

#include "GuardFailures.h"
#include "Utils/vdPolicy.h"
#include "WorkerRights.h"

namespace {
constexpr wchar_t workerFile[] = L"Clipforge_Worker.exe";
/// A worker that has shown a picture of more bytes is not kept: its section would stay as large.
constexpr size_t keptPictureBytes = size_t{16} << 20;
constexpr DWORD endMilliseconds = 1000;

/// Held while handles can be inherited, so that no other worker gets them.
SRWLOCK g_startLock = SRWLOCK_INIT;

/// Makes the handles inheritable for as long as it lives.
class InheritableHandles {
public:
    explicit InheritableHandles(const WorkerHandles& handles)
        : m_handles{handles.section, handles.question, handles.answer, handles.guard} {
        AcquireSRWLockExclusive(&g_startLock);
        set(HANDLE_FLAG_INHERIT);
    }
    ~InheritableHandles() {
        set(0);
        ReleaseSRWLockExclusive(&g_startLock);
    }
    InheritableHandles(const InheritableHandles&) = delete;
    InheritableHandles& operator=(const InheritableHandles&) = delete;
    HANDLE* data() { return m_handles; }
    size_t bytes() const { return sizeof m_handles; }

private:
    void set(DWORD flag) {
        for (const HANDLE handle : m_handles)
            SetHandleInformation(handle, HANDLE_FLAG_INHERIT, flag);
    }
    HANDLE m_handles[4];
};

/// Attributes of a process to be made: the handles that it inherits, the job that it is born in, and on
/// demand that it starts no others. The job's handle is looked at when the process is made; null: it has none
/// yet.
class StartAttributes {
public:
    StartAttributes(InheritableHandles& handles, const HANDLE& job, bool restricted) {
        // Both known since Windows 10; the job's limit of one process says the same as the policy.
        constexpr DWORD_PTR jobList = 0x0002000D, childProcessPolicy = 0x0002000E;
        static DWORD noChildProcesses = 1;
        SIZE_T bytes = 0;
        InitializeProcThreadAttributeList(nullptr, 3, 0, &bytes);
        m_memory.resize(bytes);
        m_initialised = InitializeProcThreadAttributeList(get(), 3, 0, &bytes);
        m_complete =
            m_initialised && UpdateProcThreadAttribute(get(), 0, PROC_THREAD_ATTRIBUTE_HANDLE_LIST,
                                                       handles.data(), handles.bytes(), nullptr, nullptr);
        if (m_complete && job != nullptr)
            UpdateProcThreadAttribute(get(), 0, jobList, const_cast<HANDLE*>(&job), sizeof job, nullptr,
                                      nullptr);
        if (m_complete && restricted)
            UpdateProcThreadAttribute(get(), 0, childProcessPolicy, &noChildProcesses,
                                      sizeof noChildProcesses, nullptr, nullptr);
    }
    ~StartAttributes() {
        if (m_initialised)
            DeleteProcThreadAttributeList(get());
    }
    StartAttributes(const StartAttributes&) = delete;
    StartAttributes& operator=(const StartAttributes&) = delete;
    /// Null when they could not be made: a worker that inherits everything is not to be.
    LPPROC_THREAD_ATTRIBUTE_LIST complete() { return m_complete ? get() : nullptr; }

private:
    LPPROC_THREAD_ATTRIBUTE_LIST get() {
        return reinterpret_cast<LPPROC_THREAD_ATTRIBUTE_LIST>(m_memory.data());
    }
    std::vector<char> m_memory;
    bool m_initialised = false;
    bool m_complete = false;
};

/// Starts the program suspended, in its own folder (another one would be held open), without a window.
bool startSuspended(const std::wstring& folder, const WorkerHandles& handles, HANDLE job,
                    PROCESS_INFORMATION& process) {
    const bool restricted = policyValue(vdPolicy::workerLowIntegrity) != 0;
    OwnedHandle token;
    if (restricted && !(token = createLowIntegrityToken()))
        return false;
    const std::wstring program = folder + workerFile;
    std::wstring line = L"\"" + program + L"\" " + workerArguments(handles);
    InheritableHandles inherited(handles);
    StartAttributes attributes(inherited, job, restricted);
    STARTUPINFOEXW startup = {};
    startup.StartupInfo.cb = sizeof startup;
    startup.StartupInfo.dwFlags = STARTF_FORCEOFFFEEDBACK; // no busy pointer
    startup.lpAttributeList = attributes.complete();
    if (startup.lpAttributeList == nullptr)
        return false;
    constexpr DWORD flags = CREATE_SUSPENDED | CREATE_NO_WINDOW | EXTENDED_STARTUPINFO_PRESENT;
    if (restricted)
        return CreateProcessAsUserW(token.get(), program.c_str(), line.data(), nullptr, nullptr, TRUE, flags,
                                    nullptr, folder.c_str(), &startup.StartupInfo, &process);
    return CreateProcessW(program.c_str(), line.data(), nullptr, nullptr, TRUE, flags, nullptr,
                          folder.c_str(), &startup.StartupInfo, &process);
}

HRESULT startFailure(DWORD error) {
    const bool missing = error == ERROR_FILE_NOT_FOUND || error == ERROR_PATH_NOT_FOUND;
    return missing ? GUARD_E_WORKER_MISSING : GUARD_E_WORKER_NOT_STARTED;
}

HBITMAP createBitmap(uint32_t width, uint32_t height, void*& pixels) {
    BITMAPINFO info = {};
    info.bmiHeader.biSize = sizeof info.bmiHeader;
    info.bmiHeader.biWidth = static_cast<LONG>(width);
    info.bmiHeader.biHeight = static_cast<LONG>(height); // positive: bottom row first
    info.bmiHeader.biPlanes = 1;
    info.bmiHeader.biBitCount = 8 * WorkerChannel::bytesPerPixel;
    info.bmiHeader.biCompression = BI_RGB;
    return CreateDIBSection(nullptr, &info, DIB_RGB_COLORS, &pixels, nullptr, 0);
}

WorkerReply reply(Asked asked, HRESULT result) {
    WorkerReply reply;
    reply.asked = asked;
    reply.result = result;
    return reply;
}
} // namespace

HRESULT WorkerProcess::create(const std::wstring& folder, WorkerJob job,
                              std::unique_ptr<WorkerProcess>& worker) {
    std::unique_ptr<WorkerProcess> made(new WorkerProcess);
    OwnedHandle section;
    const OwnedHandle guard(OpenProcess(SYNCHRONIZE, FALSE, GetCurrentProcessId()));
    if (!guard || !made->openChannel(section))
        return E_OUTOFMEMORY;
    if (const HRESULT hr = made->start(folder, job, section.get(), guard.get()); FAILED(hr))
        return hr;
    worker = std::move(made);
    return S_OK;
}

bool WorkerProcess::openChannel(OwnedHandle& section) noexcept {
    constexpr uint64_t bytes = WorkerChannel::sectionBytes;
    m_question = OwnedHandle(CreateEventW(nullptr, FALSE, FALSE, nullptr));
    m_answer = OwnedHandle(CreateEventW(nullptr, FALSE, FALSE, nullptr));
    section =
        OwnedHandle(CreateFileMappingW(INVALID_HANDLE_VALUE, nullptr, PAGE_READWRITE | SEC_RESERVE,
                                       static_cast<DWORD>(bytes >> 32), static_cast<DWORD>(bytes), nullptr));
    if (!m_question || !m_answer || !section)
        return false;
    m_channel.reset(
        static_cast<WorkerChannel*>(MapViewOfFile(section.get(), FILE_MAP_READ | FILE_MAP_WRITE, 0, 0, 0)));
    if (m_channel == nullptr ||
        VirtualAlloc(m_channel.get(), sizeof(WorkerChannel), MEM_COMMIT, PAGE_READWRITE) == nullptr)
        return false;
    m_channel->idleMilliseconds = policyValue(vdPolicy::workerIdleSeconds) * 1000;
    m_channel->memoryLimit = m_memoryLimit = size_t{policyValue(vdPolicy::workerMegabytes)} << 20;
    m_workMilliseconds = policyValue(vdPolicy::workerSeconds) * 1000;
    return true;
}

HRESULT WorkerProcess::start(const std::wstring& folder, WorkerJob job, HANDLE section, HANDLE guard) {
    PROCESS_INFORMATION process = {};
    m_job = createWorkerJob(m_memoryLimit);
    if (!startSuspended(folder, {section, m_question.get(), m_answer.get(), guard},
                        job == WorkerJob::fromBirth ? m_job.get() : nullptr, process))
        return startFailure(GetLastError());
    m_process = OwnedHandle(process.hProcess);
    m_thread = OwnedHandle(process.hThread);
    // Where it is refused (a host that lies in a job of its own, before Windows 8) the worker looks itself
    // whether the guard still lives.
    BOOL isInJob = FALSE;
    if (m_job && !(IsProcessInJob(m_process.get(), m_job.get(), &isInJob) && isInJob))
        AssignProcessToJobObject(m_job.get(), m_process.get());
    return S_OK;
}

WorkerProcess::~WorkerProcess() {
    if (m_process)
        TerminateProcess(m_process.get(), 0);
}

void WorkerProcess::endAndWait() noexcept {
    TerminateProcess(m_process.get(), 0);
    WaitForSingleObject(m_process.get(), endMilliseconds);
}

WorkerReply WorkerProcess::ask(const std::wstring& path, UINT size, uint64_t killerState) noexcept {
    putQuestion(path, size, killerState);
    WorkerReply reply = awaitAnswer();
    reply.clipState = m_channel->clipState;
    return reply;
}

WorkerReply WorkerProcess::awaitAnswer() noexcept {
    // Plainly: a shell's thread that handled messages here could be asked the next question in the midst of
    // this one.
    const HANDLE handles[] = {m_answer.get(), m_process.get()};
    switch (WaitForMultipleObjects(2, handles, FALSE, m_workMilliseconds)) {
    case WAIT_OBJECT_0:
        return takeAnswer();
    case WAIT_OBJECT_0 + 1:
        return ended();
    case WAIT_TIMEOUT:
        return reply(hasTaken() ? Asked::killed : Asked::diedUnasked, GUARD_E_WORKER_TIMED_OUT);
    default:
        return reply(Asked::spent, HRESULT_FROM_WIN32(GetLastError()));
    }
}

void WorkerProcess::putQuestion(const std::wstring& path, UINT size, uint64_t killerState) noexcept {
    WorkerQuestion& question = m_channel->question;
    question.number = ++m_number;
    question.size = size;
    question.killerState = m_killerState = killerState;
    m_channel->clipState = 0;
    question.pathLength = static_cast<uint32_t>(path.size());
    std::copy(path.begin(), path.end(), question.path);
    SetEvent(m_question.get());
    if (m_thread) {
        ResumeThread(m_thread.get());
        m_thread = {};
    }
}

/// A worker that is no longer there. One that was idle before may have been ended by anybody.
WorkerReply WorkerProcess::ended() noexcept {
    if (DWORD code = 0; GetExitCodeProcess(m_process.get(), &code) && code == workerOfOtherVersion)
        return reply(Asked::spent, GUARD_E_WORKER_VERSION);
    if (hasTaken())
        return reply(Asked::killed, GUARD_E_WORKER_DIED);
    return reply(Asked::diedUnasked, GUARD_E_WORKER_NOT_STARTED);
}

WorkerReply WorkerProcess::takeAnswer() noexcept {
    // Copied once: whatever the worker changes from here on is not looked at.
    WorkerAnswer answer;
    const auto* const source = reinterpret_cast<const volatile uint8_t*>(&m_channel->answer);
    std::copy(source, source + sizeof answer, reinterpret_cast<uint8_t*>(&answer));
    if (answer.number != m_number)
        return reply(Asked::killed, GUARD_E_WORKER_LIED);
    switch (answer.outcome) {
    case WorkerOutcome::answered:
        break;
    case WorkerOutcome::handlerMissing:
        return reply(Asked::spent, GUARD_E_HANDLER_MISSING);
    case WorkerOutcome::handlerNotLoaded:
        return reply(Asked::spent, GUARD_E_HANDLER_NOT_LOADED);
    case WorkerOutcome::pictureTooLarge:
        return reply(Asked::spent, GUARD_E_PICTURE_TOO_LARGE);
    case WorkerOutcome::clipUnchanged:
        return m_killerState != 0 ? reply(Asked::notAsked, GUARD_E_CLIP_KILLS)
                                  : reply(Asked::killed, GUARD_E_WORKER_LIED);
    default:
        return reply(Asked::killed, GUARD_E_WORKER_LIED);
    }
    if (answer.alpha > WTSAT_ARGB || (answer.result != S_OK && SUCCEEDED(answer.result)))
        return reply(Asked::killed, GUARD_E_WORKER_LIED);

    WorkerReply picture = reply(Asked::answered, answer.result);
    picture.alpha = static_cast<WTS_ALPHATYPE>(answer.alpha);
    if (answer.result != S_OK)
        return picture;
    picture.result = takePicture(answer, picture.bitmap);
    if (picture.result == GUARD_E_WORKER_LIED)
        picture.asked = Asked::killed;
    else if (uint64_t{answer.width} * answer.height * WorkerChannel::bytesPerPixel > keptPictureBytes)
        picture.asked = Asked::spent;
    return picture;
}

HRESULT WorkerProcess::takePicture(const WorkerAnswer& answer, OwnedBitmap& bitmap) noexcept {
    const uint64_t pixels = uint64_t{answer.width} * answer.height;
    if (pixels == 0 || answer.width > INT32_MAX || answer.height > INT32_MAX ||
        pixels > WorkerChannel::maximumPixels)
        return GUARD_E_WORKER_LIED;
    const size_t bytes = static_cast<size_t>(pixels) * WorkerChannel::bytesPerPixel;
    // A worker that did not commit what it claims to have written would have us fault.
    if (VirtualAlloc(m_channel->pixels(), bytes, MEM_COMMIT, PAGE_READWRITE) == nullptr)
        return E_OUTOFMEMORY;
    void* bits = nullptr;
    *bitmap.put() = createBitmap(answer.width, answer.height, bits);
    if (bitmap.get() == nullptr)
        return E_OUTOFMEMORY;
    std::memcpy(bits, m_channel->pixels(), bytes);
    return S_OK;
}
