// Runs a program of the build to its end, and keeps what it said.
#pragma once

#include <algorithm>
#include <filesystem>
#include <string>
#include <vector>

#include <gtest/gtest.h>
#include <windows.h>

#include "TemporaryFolder.h"

struct ProgramRun {
    DWORD exitCode = ~0u;
    std::string output; ///< UTF-8, without carriage returns
    std::string errors;

    size_t errorLines() const { return static_cast<size_t>(std::ranges::count(errors, '\n')); }
};

/// A new file that a child can be given to write to.
inline HANDLE createForChild(const std::filesystem::path& path) {
    SECURITY_ATTRIBUTES inheritable{sizeof inheritable, nullptr, TRUE};
    const HANDLE file =
        CreateFileW(path.c_str(), GENERIC_WRITE, FILE_SHARE_READ, &inheritable, CREATE_NEW, 0, nullptr);
    EXPECT_NE(INVALID_HANDLE_VALUE, file);
    return file;
}

inline std::wstring quoted(const std::wstring& argument) {
    // A backslash before the closing quote would escape it.
    const size_t end = argument.find_last_not_of(L'\\') + 1;
    return L"\"" + argument + std::wstring(argument.size() - end, L'\\') + L"\"";
}

/// Arguments hold no quotes. A program that runs longer than `limit` is ended and fails the test.
inline ProgramRun runProgram(const std::filesystem::path& program, const std::vector<std::wstring>& arguments,
                             DWORD limit = 60'000) {
    std::wstring line = quoted(program.wstring());
    for (const std::wstring& argument : arguments)
        line += L" " + quoted(argument);
    const TemporaryFolder folder;
    STARTUPINFOW startup{};
    startup.cb = sizeof startup;
    startup.dwFlags = STARTF_USESTDHANDLES;
    startup.hStdOutput = createForChild(folder.path() / "output");
    startup.hStdError = createForChild(folder.path() / "errors");
    PROCESS_INFORMATION process{};
    ProgramRun run;
    if (!CreateProcessW(program.c_str(), line.data(), nullptr, nullptr, TRUE, 0, nullptr, nullptr, &startup,
                        &process))
        ADD_FAILURE() << "not started: " << GetLastError();
    else if (WaitForSingleObject(process.hProcess, limit) != WAIT_OBJECT_0) {
        ADD_FAILURE() << "still running after " << limit << " ms";
        TerminateProcess(process.hProcess, ~0u);
        WaitForSingleObject(process.hProcess, INFINITE);
    }
    GetExitCodeProcess(process.hProcess, &run.exitCode);
    for (const HANDLE handle : {process.hThread, process.hProcess, startup.hStdOutput, startup.hStdError})
        CloseHandle(handle);
    run.output = readFileBytes(folder.path() / "output");
    run.errors = readFileBytes(folder.path() / "errors");
    std::erase(run.output, '\r');
    std::erase(run.errors, '\r');
    return run;
}
