// The worker: asks the handler beside it for one picture after the other, as the shell would, and for the
// guard that started it. It is the place where a decoder may crash.
//
// Its threads: the main one, an apartment of its own that asks the handler; one that waits for the guard's
// end; and whatever the handler starts. It always leaves by TerminateProcess, since an orderly end can hang
// in a library.
#include <algorithm>
#include <cstdlib>
#include <cstring>
#include <new>

#include <objbase.h>
#include <psapi.h>

#include "HandlerHost.h"
#include "OwnedHandle.h"
#include "Transport.h"
#include "Utils/vdModule.h"

namespace {
constexpr wchar_t handlerFile[] = L"Clipforge_Thumbnails.dll";
/// How long the unloading of the decoder may go on after its last thumbnail.
constexpr DWORD unloadMilliseconds = 2000;
/// What a worker may have grown by and still be kept after a failure, which may be one for want of memory.
constexpr size_t growthAfterFailure = size_t{32} << 20;

[[noreturn]] void leave(DWORD exitCode) {
    TerminateProcess(GetCurrentProcess(), exitCode);
    std::abort();
}

LONG WINAPI leaveCrashed(EXCEPTION_POINTERS* exception) {
    leave(exception->ExceptionRecord->ExceptionCode);
}

/// A thread whose stack has ended has hardly room for a search for handlers: seen, it hung in there.
LONG WINAPI leaveWithoutStack(EXCEPTION_POINTERS* exception) {
    if (exception->ExceptionRecord->ExceptionCode == EXCEPTION_STACK_OVERFLOW)
        leave(EXCEPTION_STACK_OVERFLOW);
    return EXCEPTION_CONTINUE_SEARCH;
}

/// Neither a dialog nor a debugger is to keep a worker that has crashed.
void crashQuietly() {
    SetErrorMode(SEM_FAILCRITICALERRORS | SEM_NOGPFAULTERRORBOX | SEM_NOOPENFILEERRORBOX);
    SetUnhandledExceptionFilter(leaveCrashed);
    AddVectoredExceptionHandler(1, leaveWithoutStack);
    _set_error_mode(_OUT_TO_STDERR);
}

struct Watch {
    HANDLE guard;
    HANDLE begun;
};

DWORD WINAPI watchGuard(void* parameter) {
    const Watch watch = *static_cast<const Watch*>(parameter);
    SetEvent(watch.begun);
    WaitForSingleObject(watch.guard, INFINITE);
    leave(0);
}

/// Waits until the thread runs: a library that hangs while it is loaded would keep it from starting.
void startWatch(HANDLE guard) {
    const OwnedHandle begun(CreateEventW(nullptr, TRUE, FALSE, nullptr));
    Watch watch{guard, begun.get()};
    const OwnedHandle thread(CreateThread(nullptr, 0, watchGuard, &watch, 0, nullptr));
    if (!begun || !thread)
        leave(ERROR_NOT_ENOUGH_MEMORY);
    WaitForSingleObject(begun.get(), INFINITE);
}

/// Bytes that this process alone has committed.
size_t committedBytes() {
    PROCESS_MEMORY_COUNTERS memory = {};
    GetProcessMemoryInfo(GetCurrentProcess(), &memory, sizeof memory);
    return memory.PagefileUsage;
}

/// A thread can begin only while nobody loads or unloads a library.
bool canLoadLibraries() {
    const OwnedHandle thread(CreateThread(
        nullptr, 0, [](void*) -> DWORD { return 0; }, nullptr, 0, nullptr));
    return WaitForSingleObject(thread.get(), unloadMilliseconds) == WAIT_OBJECT_0;
}

/// A hash of the file's size and time; one that cannot be seen has a state, too.
uint64_t stateOf(const std::wstring& path) {
    WIN32_FILE_ATTRIBUTE_DATA data = {};
    GetFileAttributesExW(path.c_str(), GetFileExInfoStandard, &data);
    const DWORD state[] = {data.nFileSizeHigh, data.nFileSizeLow, data.ftLastWriteTime.dwHighDateTime,
                           data.ftLastWriteTime.dwLowDateTime};
    return transportHash(state, sizeof state);
}

class Worker {
public:
    Worker(const WorkerHandles& handles, WorkerChannel& channel) : m_handles(handles), m_channel(channel) {}

    [[noreturn]] void serve() {
        const WorkerOutcome loaded = load();
        m_committedAtStart = committedBytes();
        for (;;) {
            waitForQuestion();
            answer(loaded);
            // One that hangs while it unloads the decoder would hang with the next question.
            if (!canLoadLibraries())
                leave(0);
        }
    }

private:
    WorkerOutcome load() {
        const std::wstring path = folderOf(ownModulePath()) + handlerFile;
        if (GetFileAttributesW(path.c_str()) == INVALID_FILE_ATTRIBUTES)
            return WorkerOutcome::handlerMissing;
        return m_handler.load(path) == S_OK ? WorkerOutcome::answered : WorkerOutcome::handlerNotLoaded;
    }

    /// Handles the apartment's messages meanwhile. Leaves when nothing comes for long.
    void waitForQuestion() {
        DWORD index = 0;
        const HRESULT hr =
            CoWaitForMultipleHandles(0, m_channel.idleMilliseconds, 1, &m_handles.question, &index);
        if (hr == S_OK)
            return;
        if (hr != RPC_S_CALLPENDING || m_channel.leave())
            leave(0);
        WaitForSingleObject(m_handles.question, INFINITE); // it was about to come
    }

    void answer(WorkerOutcome loaded) {
        const WorkerQuestion& question = m_channel.question;
        WorkerAnswer& answer = m_channel.answer;
        answer = {};
        answer.outcome = loaded;
        m_channel.taken = question.number;
        if (loaded == WorkerOutcome::answered)
            ask(question, answer);
        answer.number = question.number;
        const bool isSpent = hasGrown(answer);
        m_channel.state = isSpent ? WorkerState::gone : WorkerState::idle;
        SetEvent(m_handles.answer);
        if (isSpent)
            leave(0);
    }

    /// Nothing is kept between two thumbnails: what is still there was lost, and the next one would lack it.
    bool hasGrown(const WorkerAnswer& answer) const {
        const size_t now = committedBytes();
        const size_t growth = now - std::min(now, m_committedAtStart);
        return growth > m_channel.memoryLimit / 4 || (answer.result != S_OK && growth > growthAfterFailure);
    }

    void ask(const WorkerQuestion& question, WorkerAnswer& answer) {
        const std::wstring path(question.path, question.pathLength);
        m_channel.clipState = stateOf(path);
        if (m_channel.clipState == question.killerState) {
            answer.outcome = WorkerOutcome::clipUnchanged;
            return;
        }
        const ThumbnailAnswer picture = askForThumbnail(path, question.size, &m_handler);
        answer.result = picture.result;
        answer.alpha = static_cast<uint32_t>(picture.alpha);
        if (picture.result == S_OK)
            answer.outcome = show(picture.bitmap.get(), answer);
    }

    WorkerOutcome show(HBITMAP bitmap, WorkerAnswer& answer) {
        DIBSECTION section = {};
        if (!isThumbnailBitmap(bitmap, section)) {
            answer.result = E_UNEXPECTED;
            return WorkerOutcome::answered;
        }
        answer.width = static_cast<uint32_t>(section.dsBmih.biWidth);
        answer.height = static_cast<uint32_t>(section.dsBmih.biHeight);
        const size_t pixels = size_t{answer.width} * answer.height;
        if (pixels > WorkerChannel::maximumPixels)
            return WorkerOutcome::pictureTooLarge;
        const size_t bytes = pixels * WorkerChannel::bytesPerPixel;
        if (VirtualAlloc(m_channel.pixels(), bytes, MEM_COMMIT, PAGE_READWRITE) != nullptr)
            std::memcpy(m_channel.pixels(), section.dsBm.bmBits, bytes);
        else
            answer.result = E_OUTOFMEMORY;
        return WorkerOutcome::answered;
    }

    WorkerHandles m_handles;
    WorkerChannel& m_channel;
    HandlerLibrary m_handler;
    size_t m_committedAtStart = 0;
};
} // namespace

int WINAPI wWinMain(HINSTANCE, HINSTANCE, LPWSTR lpCmdLine, int) {
    crashQuietly();
    const std::optional<WorkerHandles> handles = parseWorkerArguments(lpCmdLine);
    if (!handles)
        leave(workerOfOtherVersion);
    startWatch(handles->guard);
    auto* const channel =
        static_cast<WorkerChannel*>(MapViewOfFile(handles->section, FILE_MAP_READ | FILE_MAP_WRITE, 0, 0, 0));
    if (channel == nullptr || FAILED(CoInitializeEx(nullptr, COINIT_APARTMENTTHREADED)))
        leave(ERROR_NOT_ENOUGH_MEMORY);
    try {
        Worker(*handles, *channel).serve();
    } catch (const std::bad_alloc&) {
        leave(ERROR_NOT_ENOUGH_MEMORY);
    }
}
