// Another process, for work that may end it or never end.
#pragma once

#include <string>
#include <vector>

#include <windows.h>

class ChildProcess {
public:
    /// The arguments hold no quotes (no Windows path does). The child gets no window, these files for what it
    /// writes, and every inheritable handle. It ends with this object at the latest, and with this process
    /// where the system allows that. A start that fails with ERROR_INTERNAL_ERROR is tried once more: Wine on
    /// a busy machine refuses one in some thousands so, and starts the next.
    ChildProcess(const std::wstring& program, const std::vector<std::wstring>& arguments,
                 HANDLE output = nullptr, HANDLE errors = nullptr);
    ~ChildProcess();
    ChildProcess(const ChildProcess&) = delete;
    ChildProcess& operator=(const ChildProcess&) = delete;

    /// S_OK, or why there is no child: it never ends then.
    HRESULT started() const { return m_started; }
    bool hasEnded(DWORD milliseconds) const;
    /// Waits for its end, two seconds at most.
    void terminate() const;
    /// Of a child that has ended; else STILL_ACTIVE, or ~0 when there is none.
    DWORD exitCode() const;
    DWORD id() const { return m_process.dwProcessId; }

private:
    HANDLE m_job;
    PROCESS_INFORMATION m_process{};
    HRESULT m_started = S_OK;
};
