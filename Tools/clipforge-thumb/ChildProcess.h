// This program once more, for work that may end a process or never end.
#pragma once

#include <span>
#include <string>

#include <windows.h>

class ChildProcess {
public:
    /// Starts this program with the arguments, which hold no quotes (no Windows path does). It gets no
    /// window, no standard handles, and every inheritable handle. It ends with this object at the latest, and
    /// with this process where the system allows that. Throws CommandError.
    explicit ChildProcess(std::span<const std::wstring> arguments);
    ~ChildProcess();
    ChildProcess(const ChildProcess&) = delete;
    ChildProcess& operator=(const ChildProcess&) = delete;

    bool hasEnded(DWORD milliseconds) const;
    void terminate() const;
    /// Of a child that has ended.
    DWORD exitCode() const;

private:
    HANDLE m_job;
    PROCESS_INFORMATION m_process{};
};
