#include "ChildProcess.h"

#include "Console.h"
#include "Paths.h"

namespace {

std::wstring quoted(const std::wstring& text) {
    // A backslash before the closing quote would escape it.
    const size_t end = text.find_last_not_of(L'\\') + 1;
    return L"\"" + text + std::wstring(text.size() - end, L'\\') + L"\"";
}

} // namespace

ChildProcess::ChildProcess(std::span<const std::wstring> arguments)
    : m_job(CreateJobObjectW(nullptr, nullptr)) {
    const std::wstring program = programPath();
    std::wstring line = quoted(program);
    for (const std::wstring& argument : arguments)
        line += L" " + quoted(argument);
    STARTUPINFOW startup{};
    startup.cb = sizeof startup;
    startup.dwFlags = STARTF_USESTDHANDLES;
    if (!CreateProcessW(program.c_str(), line.data(), nullptr, nullptr, TRUE,
                        CREATE_SUSPENDED | CREATE_NO_WINDOW, nullptr, nullptr, &startup, &m_process)) {
        const HRESULT result = lastError();
        CloseHandle(m_job);
        throw CommandError(L"a child process cannot be started: " + describe(result));
    }
    JOBOBJECT_EXTENDED_LIMIT_INFORMATION limits{};
    limits.BasicLimitInformation.LimitFlags = JOB_OBJECT_LIMIT_KILL_ON_JOB_CLOSE;
    SetInformationJobObject(m_job, JobObjectExtendedLimitInformation, &limits, sizeof limits);
    AssignProcessToJobObject(m_job, m_process.hProcess);
    ResumeThread(m_process.hThread);
}

ChildProcess::~ChildProcess() {
    terminate();
    CloseHandle(m_process.hThread);
    CloseHandle(m_process.hProcess);
    CloseHandle(m_job);
}

bool ChildProcess::hasEnded(DWORD milliseconds) const {
    return WaitForSingleObject(m_process.hProcess, milliseconds) == WAIT_OBJECT_0;
}

void ChildProcess::terminate() const {
    TerminateProcess(m_process.hProcess, EXIT_FAILED);
    WaitForSingleObject(m_process.hProcess, 2'000);
}

DWORD ChildProcess::exitCode() const {
    DWORD code = 0;
    GetExitCodeProcess(m_process.hProcess, &code);
    return code;
}
