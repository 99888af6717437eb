// Runs a test that needs a process of its own, because of what it loads, changes for good or dies of.
#pragma once

#include <gtest/gtest.h>

#include "ChildProcess.h"
#include "Common.h"

/// Starts the disabled test "Suite.DISABLED_Name" of this program in another process.
inline ChildProcess startFreshProcess(const std::string& test) {
    wchar_t program[MAX_PATH] = {};
    GetModuleFileNameW(nullptr, program, MAX_PATH);
    return {program,
            {L"--gtest_brief=1", L"--gtest_also_run_disabled_tests",
             L"--gtest_filter=" + std::wstring(test.begin(), test.end())},
            GetStdHandle(STD_OUTPUT_HANDLE),
            GetStdHandle(STD_ERROR_HANDLE)};
}

/// Runs a test that shall pass.
inline void runInFreshProcess(const std::string& test) {
    const ChildProcess process = startFreshProcess(test);
    EXPECT_TRUE(process.hasEnded(INFINITE)) << process.started();
    EXPECT_EQ(process.exitCode(), 0u) << test;
}
