// One worker as the guard sees it: a process that may die, hang or lie at any moment.
#pragma once

#include <memory>
#include <string>

#include <thumbcache.h>
#include <windows.h>

#include "HandlerHost.h"
#include "OwnedHandle.h"
#include "Transport.h"

/// How a question went.
enum class Asked {
    answered,    ///< the worker is ready for the next one
    spent,       ///< answered, but the worker should not be kept
    diedUnasked, ///< the worker ended, or has to be, before it began with the question
    killed,      ///< the worker ended over it, or has to be
    notAsked,    ///< the worker is ready for the next one; this clip was left alone
};

struct WorkerReply {
    Asked asked = Asked::killed;
    HRESULT result = E_FAIL;
    OwnedBitmap bitmap; ///< when the result is S_OK, and only then
    WTS_ALPHATYPE alpha = WTSAT_UNKNOWN;
    uint64_t clipState = 0; ///< as in WorkerChannel
};

/// When a worker enters its job. One that enters it afterwards would stay for good, suspended, if the host
/// died in between; but Windows before 10 knows no other way, and a job of the host's own may allow no other.
enum class WorkerJob { fromBirth, afterwards };

/// The destructor ends the process and lets go of everything, without waiting. Used by one thread at a time.
class WorkerProcess {
public:
    /// Makes a worker that will run from `folder`, where its program lies. It is busy from its start on, and
    /// starts with its first question. On failure nothing is left. May throw std::bad_alloc.
    static HRESULT create(const std::wstring& folder, WorkerJob job, std::unique_ptr<WorkerProcess>& worker);
    ~WorkerProcess();
    WorkerProcess(const WorkerProcess&) = delete;
    WorkerProcess& operator=(const WorkerProcess&) = delete;

    /// The worker is free for a question from here on; false when it has left.
    bool claim() noexcept { return m_channel->claim(); }
    bool hasLeft() const noexcept { return m_channel->state == WorkerState::gone; }

    /// Asks the claimed worker for a picture of the clip at `path`, of at most maximumPath characters, unless
    /// the clip's state is `killerState`, and waits for its answer or its end as long as a worker may take.
    WorkerReply ask(const std::wstring& path, UINT size, uint64_t killerState) noexcept;
    /// Ends the process, and waits a little for its files to be free again.
    void endAndWait() noexcept;

private:
    WorkerProcess() = default;
    bool openChannel(OwnedHandle& section) noexcept;
    HRESULT start(const std::wstring& folder, WorkerJob job, HANDLE section, HANDLE guard);
    void putQuestion(const std::wstring& path, UINT size, uint64_t killerState) noexcept;
    WorkerReply awaitAnswer() noexcept;
    bool hasTaken() const noexcept { return m_channel->taken == m_number; }
    WorkerReply takeAnswer() noexcept;
    WorkerReply ended() noexcept;
    HRESULT takePicture(const WorkerAnswer& answer, OwnedBitmap& bitmap) noexcept;

    MappedView<WorkerChannel> m_channel;
    OwnedHandle m_question, m_answer, m_job, m_process;
    OwnedHandle m_thread; ///< as long as it has not begun to run
    DWORD m_workMilliseconds = 0;
    size_t m_memoryLimit = 0;   ///< in bytes
    uint64_t m_number = 0;      ///< of the last question
    uint64_t m_killerState = 0; ///< put with it
};
