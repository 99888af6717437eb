// What the first object of a process starts, and what all objects of a process share.
#pragma once

#include <atomic>

#include <windows.h>

/// There is one decode manager, one options record and one log in the process, and the shell's apartments all
/// share them. A lock without constructor and destructor works at any moment of the module's life.
inline SRWLOCK g_processWideState = SRWLOCK_INIT;
inline std::atomic<DWORD> g_processWideOwner = 0; ///< the thread that holds it

/// Not had by the thread that has it already. Whoever waits in an apartment, a decoder or a driver, may serve
/// its messages meanwhile, and among them may be the shell's next question to this very thread, which would
/// then wait for itself.
class ProcessWideLock {
public:
    ProcessWideLock() noexcept : m_isHad(g_processWideOwner != GetCurrentThreadId()) {
        if (!m_isHad)
            return;
        AcquireSRWLockExclusive(&g_processWideState);
        g_processWideOwner = GetCurrentThreadId();
    }
    ~ProcessWideLock() {
        if (!m_isHad)
            return;
        g_processWideOwner = 0;
        ReleaseSRWLockExclusive(&g_processWideState);
    }
    ProcessWideLock(const ProcessWideLock&) = delete;
    ProcessWideLock& operator=(const ProcessWideLock&) = delete;
    explicit operator bool() const noexcept { return m_isHad; }

private:
    const bool m_isHad;
};

/// Called before each object is made, on any thread: in a build that is to tell its whole road, reads the
/// settings and starts the log.
void startSession() noexcept;
