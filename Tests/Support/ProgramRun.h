// Runs a program of the build to its end, and keeps what it said.
#pragma once

#include <algorithm>
#include <filesystem>
#include <string>
#include <thread>
#include <vector>

#include <gtest/gtest.h>
#include <windows.h>

struct ProgramRun {
    DWORD exitCode = ~0u;
    std::string output; ///< UTF-8, without carriage returns
    std::string errors;

    size_t errorLines() const { return static_cast<size_t>(std::ranges::count(errors, '\n')); }
};

/// One end of a pipe that a child writes to, read to its end on a thread.
class CapturedStream {
public:
    explicit CapturedStream(std::string& text) : m_text(text) {
        SECURITY_ATTRIBUTES inheritable{sizeof inheritable, nullptr, TRUE};
        EXPECT_TRUE(CreatePipe(&m_ours, &m_childs, &inheritable, 0));
        SetHandleInformation(m_ours, HANDLE_FLAG_INHERIT, 0);
    }
    ~CapturedStream() { CloseHandle(m_ours); }
    CapturedStream(const CapturedStream&) = delete;
    CapturedStream& operator=(const CapturedStream&) = delete;

    HANDLE forChild() const { return m_childs; }
    /// The child runs: our copy of its end goes, so that the stream ends with it.
    void start() {
        CloseHandle(m_childs);
        m_reader = std::jthread([this] {
            char bytes[4096];
            for (DWORD count = 0; ReadFile(m_ours, bytes, sizeof bytes, &count, nullptr) && count > 0;)
                m_text.append(bytes, count);
            std::erase(m_text, '\r');
        });
    }
    void finish() { m_reader.join(); }

private:
    std::string& m_text;
    HANDLE m_ours = nullptr, m_childs = nullptr;
    std::jthread m_reader;
};

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
    ProgramRun run;
    CapturedStream output(run.output), errors(run.errors);
    STARTUPINFOW startup{};
    startup.cb = sizeof startup;
    startup.dwFlags = STARTF_USESTDHANDLES;
    startup.hStdOutput = output.forChild();
    startup.hStdError = errors.forChild();
    PROCESS_INFORMATION process{};
    const bool started = CreateProcessW(program.c_str(), line.data(), nullptr, nullptr, TRUE, 0, nullptr,
                                        nullptr, &startup, &process);
    EXPECT_TRUE(started) << GetLastError();
    output.start();
    errors.start();
    if (started) {
        if (WaitForSingleObject(process.hProcess, limit) != WAIT_OBJECT_0) {
            ADD_FAILURE() << "still running after " << limit << " ms";
            TerminateProcess(process.hProcess, ~0u);
        }
        WaitForSingleObject(process.hProcess, INFINITE);
        GetExitCodeProcess(process.hProcess, &run.exitCode);
        CloseHandle(process.hThread);
        CloseHandle(process.hProcess);
    }
    output.finish();
    errors.finish();
    return run;
}
