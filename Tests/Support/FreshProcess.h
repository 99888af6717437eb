// Runs a test that needs a process of its own, because of what it loads or changes for good.
#pragma once

#include <string>

#include <gtest/gtest.h>
#include <windows.h>

/// Runs the disabled test "Suite.DISABLED_Name" of this program in another process and expects it to pass.
inline void runInFreshProcess(const std::string& test) {
    wchar_t program[MAX_PATH] = {};
    GetModuleFileNameW(nullptr, program, MAX_PATH);
    std::wstring line = L"\"" + std::wstring(program) +
                        L"\" --gtest_brief=1 --gtest_also_run_disabled_tests --gtest_filter=" +
                        std::wstring(test.begin(), test.end());
    STARTUPINFOW startup = {};
    startup.cb = sizeof startup;
    PROCESS_INFORMATION process = {};
    ASSERT_TRUE(CreateProcessW(program, line.data(), nullptr, nullptr, TRUE, 0, nullptr, nullptr, &startup,
                               &process));
    WaitForSingleObject(process.hProcess, INFINITE);
    DWORD exitCode = 1;
    GetExitCodeProcess(process.hProcess, &exitCode);
    CloseHandle(process.hThread);
    CloseHandle(process.hProcess);
    EXPECT_EQ(exitCode, 0u) << test;
}
