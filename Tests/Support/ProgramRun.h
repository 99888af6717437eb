// Runs a program of the build to its end, and keeps what it said.
#pragma once

#include <gtest/gtest.h>

#include "ChildProcess.h"
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

/// Arguments hold no quotes. A program that runs longer than `limit` is ended and fails the test.
inline ProgramRun runProgram(const std::filesystem::path& program, const std::vector<std::wstring>& arguments,
                             DWORD limit = 60'000) {
    const TemporaryFolder folder;
    const HANDLE output = createForChild(folder.path() / "output"),
                 errors = createForChild(folder.path() / "errors");
    ProgramRun run;
    {
        const ChildProcess process(program.wstring(), arguments, output, errors);
        EXPECT_TRUE(process.hasEnded(limit)) << "not within " << limit << " ms, or not started";
        run.exitCode = process.exitCode();
    }
    CloseHandle(output);
    CloseHandle(errors);
    run.output = readFileBytes(folder.path() / "output");
    run.errors = readFileBytes(folder.path() / "errors");
    std::erase(run.output, '\r');
    std::erase(run.errors, '\r');
    return run;
}
