#include "ChildProcess.h"

namespace {

constexpr UINT terminatedCode = 1;

std::wstring quoted(const std::wstring& text) {
    if (!text.empty() && text.find_first_of(L" \t") == std::wstring::npos)
        return text;
    // A backslash before the closing quote would escape it.
    const size_t end = text.find_last_not_of(L'\\') + 1;
    return L"\"" + text + std::wstring(text.size() - end, L'\\') + L"\"";
}

/// The line is a copy: the system may change it.
HRESULT create(const std::wstring& program, std::wstring line, STARTUPINFOW& startup,
               PROCESS_INFORMATION& process) {
    const BOOL created =
        CreateProcessW(program.c_str(), line.data(), nullptr, nullptr, TRUE,
                       CREATE_SUSPENDED | CREATE_NO_WINDOW, nullptr, nullptr, &startup, &process);
    return created ? S_OK : HRESULT_FROM_WIN32(GetLastError());
}

} // namespace

ChildProcess::ChildProcess(const std::wstring& program, const std::vector<std::wstring>& arguments,
                           HANDLE output, HANDLE errors)
    : m_job(CreateJobObjectW(nullptr, nullptr)) {
    std::wstring line = quoted(program);
    for (const std::wstring& argument : arguments)
        line += L" " + quoted(argument);
    STARTUPINFOW startup{};
    startup.cb = sizeof startup;
    startup.dwFlags = STARTF_USESTDHANDLES;
    startup.hStdOutput = output;
    startup.hStdError = errors;
    m_started = create(program, line, startup, m_process);
    if (m_started == HRESULT_FROM_WIN32(ERROR_INTERNAL_ERROR))
        m_started = create(program, line, startup, m_process);
    if (FAILED(m_started))
        return;
    JOBOBJECT_EXTENDED_LIMIT_INFORMATION limits{};
    limits.BasicLimitInformation.LimitFlags = JOB_OBJECT_LIMIT_KILL_ON_JOB_CLOSE;
    SetInformationJobObject(m_job, JobObjectExtendedLimitInformation, &limits, sizeof limits);
    AssignProcessToJobObject(m_job, m_process.hProcess);
    ResumeThread(m_process.hThread);
}

ChildProcess::~ChildProcess() {
    terminate();
    for (const HANDLE handle : {m_process.hThread, m_process.hProcess, m_job})
        if (handle != nullptr)
            CloseHandle(handle);
}

bool ChildProcess::hasEnded(DWORD milliseconds) const {
    return WaitForSingleObject(m_process.hProcess, milliseconds) == WAIT_OBJECT_0;
}

void ChildProcess::terminate() const {
    TerminateProcess(m_process.hProcess, terminatedCode);
    WaitForSingleObject(m_process.hProcess, 2'000);
}

DWORD ChildProcess::exitCode() const {
    DWORD code = ~0u;
    GetExitCodeProcess(m_process.hProcess, &code);
    return code;
}
