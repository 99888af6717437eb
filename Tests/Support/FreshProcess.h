// Runs a test that needs a process of its own, because of what it loads, changes for good or dies of.
#pragma once

#include <string>

#include <gtest/gtest.h>
#include <windows.h>

/// Starts the disabled test "Suite.DISABLED_Name" of this program in another process; both handles are the
/// caller's, and null when there is no process.
inline PROCESS_INFORMATION startFreshProcess(const std::string& test) {
    wchar_t program[MAX_PATH] = {};
    GetModuleFileNameW(nullptr, program, MAX_PATH);
    std::wstring line = L"\"" + std::wstring(program) +
                        L"\" --gtest_brief=1 --gtest_also_run_disabled_tests --gtest_filter=" +
                        std::wstring(test.begin(), test.end());
    STARTUPINFOW startup = {};
    startup.cb = sizeof startup;
    PROCESS_INFORMATION process = {};
    if (!CreateProcessW(program, line.data(), nullptr, nullptr, TRUE, 0, nullptr, nullptr, &startup,
                        &process))
        ADD_FAILURE() << "no process for " << test << ", error " << GetLastError();
    return process;
}

/// Runs a test that shall pass.
inline void runInFreshProcess(const std::string& test) {
    const PROCESS_INFORMATION process = startFreshProcess(test);
    DWORD exitCode = 1;
    WaitForSingleObject(process.hProcess, INFINITE);
    GetExitCodeProcess(process.hProcess, &exitCode);
    CloseHandle(process.hThread);
    CloseHandle(process.hProcess);
    EXPECT_EQ(exitCode, 0u) << test;
}
