// What passes between the guard and a worker: one question and its answer in memory that both have mapped,
// and two events that say which of the two is there.
//
// The guard makes the section, without a name, and hands the worker the handles; nobody else can reach it.
// The guard trusts nothing in it: it copies an answer out once, checks the copy, and uses that alone.
#pragma once

#include <atomic>
#include <cstddef>
#include <cstdint>
#include <optional>
#include <string>

#include <windows.h>

/// Whose turn it is. The guard claims an idle worker and a worker that has had nothing to do for long leaves,
/// each by an exchange with `idle`: one of the two wins, and a question is never put to a worker on its way
/// out.
enum class WorkerState : uint32_t { busy, idle, gone };

/// What became of a question.
enum class WorkerOutcome : uint32_t {
    answered,         ///< the handler's own result, with its picture when that is S_OK
    handlerMissing,   ///< no handler lies beside the worker
    handlerNotLoaded, ///< there is one, and it cannot be loaded
    pictureTooLarge,  ///< for the section
    clipUnchanged,    ///< since it ended a worker: the handler was not asked
};

struct WorkerQuestion {
    /// The longest path that Windows knows, in characters; the field has room for its terminator.
    static constexpr uint32_t maximumPath = 32767;

    uint64_t number;
    uint32_t size; ///< asked of the handler
    uint32_t pathLength;
    uint64_t killerState; ///< WorkerChannel::clipState when the clip ended a worker; 0: it ended none
    wchar_t path[maximumPath + 1];
};

struct WorkerAnswer {
    uint64_t number; ///< the question's
    WorkerOutcome outcome;
    int32_t result; ///< HRESULT
    uint32_t alpha; ///< WTS_ALPHATYPE
    uint32_t width; ///< of the picture, in pixels; the pixels follow the channel, bottom row first
    uint32_t height;
};

/// At the section's start; all bytes zero is its first state, a worker that is busy with the first question.
struct WorkerChannel {
    static constexpr size_t bytesPerPixel = 4;
    static constexpr size_t pixelsOffset = size_t{128} << 10;
    /// Reserved, and committed as far as pictures need it. Larger pictures than fit here are no thumbnails.
    static constexpr size_t sectionBytes = size_t{512} << 20;
    static constexpr size_t maximumPixels = (sectionBytes - pixelsOffset) / bytesPerPixel;

    std::atomic<WorkerState> state;
    std::atomic<uint64_t> taken; ///< number of the last question that the worker has begun with: one that
                                 ///< dies before does not die of the question
    /// Stands for size and time of the clip, as the worker found it before it asked the handler; 0 until
    /// then. The guard looks at no clip: it may lie on a drive that does not answer.
    std::atomic<uint64_t> clipState;
    uint32_t idleMilliseconds; ///< after which the worker leaves
    size_t memoryLimit;        ///< of the worker, in bytes
    WorkerAnswer answer;
    WorkerQuestion question;

    uint8_t* pixels() noexcept { return reinterpret_cast<uint8_t*>(this) + pixelsOffset; }
    /// The idle worker is the guard's from here on; false when it has left.
    bool claim() noexcept { return exchange(WorkerState::busy); }
    /// The idle worker may leave; false when a question is on its way.
    bool leave() noexcept { return exchange(WorkerState::gone); }

private:
    bool exchange(WorkerState next) noexcept {
        WorkerState expected = WorkerState::idle;
        return state.compare_exchange_strong(expected, next);
    }
};
static_assert(sizeof(WorkerChannel) <= WorkerChannel::pixelsOffset);
static_assert(std::atomic<WorkerState>::is_always_lock_free);

/// What a worker inherits. The values are the same in both processes.
struct WorkerHandles {
    HANDLE section = nullptr;
    HANDLE question = nullptr; ///< auto-reset; set by the guard
    HANDLE answer = nullptr;   ///< auto-reset; set by the worker
    HANDLE guard = nullptr;    ///< the guard's process, to be waited for only
};

/// The exit code of a worker that was started by a guard of another version.
constexpr DWORD workerOfOtherVersion = 0xE0CF0001;

/// FNV-1a with 64 bits (draft-eastlake-fnv), for what a guard remembers of clips. Never 0.
uint64_t transportHash(const void* data, size_t bytes) noexcept;

/// A worker's arguments: our version, which guard and worker must share, and the handles.
std::wstring workerArguments(const WorkerHandles& handles);
/// The handles again; nothing when the arguments are another version's, or no such arguments.
std::optional<WorkerHandles> parseWorkerArguments(const wchar_t* arguments);
