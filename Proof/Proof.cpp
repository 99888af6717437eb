#include "Proof.h"

#include <algorithm>
#include <atomic>
#include <chrono>
#include <csignal>
#include <cstdio>
#include <cstring>

#include <windows.h>

#include "ReferenceDecoderControl.h"

namespace {

constexpr uint64_t maximumShown = 20;
constexpr int64_t longestSilenceSeconds = 90;

/// What is being tried, for when the program cannot go on.
char g_attempt[256] = "(nothing yet)";
std::atomic<int64_t> g_silentSeconds{0};

/// The program cannot go on. Takes no memory, of which there may be none.
void lose(const char* how, UINT exitCode) {
    std::printf("  LOST  %s: %s\n", g_attempt, how);
    std::fflush(stdout);
    TerminateProcess(GetCurrentProcess(), exitCode);
}

LONG WINAPI reportCrash(EXCEPTION_POINTERS* exception) {
    const auto* const address = static_cast<const char*>(exception->ExceptionRecord->ExceptionAddress);
    HMODULE module = nullptr;
    char name[MAX_PATH] = "?", how[MAX_PATH + 64];
    GetModuleHandleExA(GET_MODULE_HANDLE_EX_FLAG_FROM_ADDRESS | GET_MODULE_HANDLE_EX_FLAG_UNCHANGED_REFCOUNT,
                       address, &module);
    GetModuleFileNameA(module, name, MAX_PATH);
    std::snprintf(how, sizeof how, "crashed with 0x%08lX at offset 0x%llX of %s",
                  exception->ExceptionRecord->ExceptionCode,
                  static_cast<unsigned long long>(address - reinterpret_cast<const char*>(module)), name);
    lose(how, 3);
    return EXCEPTION_EXECUTE_HANDLER;
}

DWORD WINAPI watch(void*) {
    while (++g_silentSeconds < longestSilenceSeconds)
        Sleep(1000);
    char how[128];
    std::snprintf(how, sizeof how, "does not end; the decoder's latest call: %s",
                  referenceDecoderLatestCall());
    lose(how, 4);
    return 0;
}

/// In the child: makes the attempt, which is told like any other.
int runChild(const std::string& name, const std::vector<std::string>& arguments) {
    for (const ProofChild& child : proofChildren())
        if (name == child.name) {
            const std::string trouble = child.run(arguments);
            std::printf("%s%s", trouble.c_str(), trouble.empty() ? "" : "\n");
            std::fflush(stdout);
            // Without an orderly end: what was left for good would be taken down under its users.
            TerminateProcess(GetCurrentProcess(), trouble.empty() ? 0 : 1);
        }
    return 2;
}

int usage() {
    std::fputs("usage: proof [--brief] [--only NAME]\n", stderr);
    return 2;
}

} // namespace

void ProofTally::begin(const std::string& attempt) {
    std::strncpy(g_attempt, attempt.c_str(), sizeof g_attempt - 1);
    g_silentSeconds = 0;
}

void ProofTally::count(const std::string& attempt, const std::string& trouble) {
    begin(attempt);
    ++m_tried;
    if (trouble.empty())
        ++m_survived;
    else if (m_tried - m_survived <= maximumShown)
        std::printf("  LOST  %s: %s\n", attempt.c_str(), trouble.c_str());
    std::fflush(stdout);
}

std::vector<ProofCheck>& proofChecks() {
    static std::vector<ProofCheck> checks;
    return checks;
}

std::vector<ProofChild>& proofChildren() {
    static std::vector<ProofChild> children;
    return children;
}

std::string troubleInChild(const ProofChild& child, const std::vector<std::string>& arguments) {
    constexpr DWORD limitMilliseconds = 100'000;
    char program[MAX_PATH] = {};
    GetModuleFileNameA(nullptr, program, MAX_PATH);
    std::string line = "\"" + std::string(program) + "\" --child \"" + child.name + "\"";
    for (const std::string& argument : arguments)
        line += " \"" + argument + "\"";
    STARTUPINFOA startup{};
    startup.cb = sizeof startup;
    PROCESS_INFORMATION process{};
    if (!CreateProcessA(program, line.data(), nullptr, nullptr, TRUE, 0, nullptr, nullptr, &startup,
                        &process))
        return "no process for it";
    DWORD exitCode = 0;
    const bool hasEnded = WaitForSingleObject(process.hProcess, limitMilliseconds) == WAIT_OBJECT_0;
    if (!hasEnded)
        TerminateProcess(process.hProcess, 4);
    WaitForSingleObject(process.hProcess, INFINITE);
    GetExitCodeProcess(process.hProcess, &exitCode);
    CloseHandle(process.hThread);
    CloseHandle(process.hProcess);
    if (!hasEnded)
        return "its process does not end";
    return exitCode == 0 ? "" : "its process ended with " + std::to_string(exitCode);
}

int main(int argc, char** argv) {
    ProofForm form = ProofForm::full;
    std::string only, child;
    std::vector<std::string> childArguments;
    for (int i = 1; i < argc; ++i) {
        if (!std::strcmp(argv[i], "--brief"))
            form = ProofForm::brief;
        else if (!std::strcmp(argv[i], "--only") && i + 1 < argc)
            only = argv[++i];
        else if (!std::strcmp(argv[i], "--child") && i + 1 < argc) { // ourselves
            child = argv[i + 1];
            childArguments.assign(argv + i + 2, argv + argc);
            break;
        } else
            return usage();
    }
    SetUnhandledExceptionFilter(reportCrash);
    std::signal(SIGABRT, [](int) { lose("aborted", 3); }); // an exception that nobody took
    CloseHandle(CreateThread(nullptr, 0, watch, nullptr, 0, nullptr));
    if (!child.empty())
        return runChild(child, childArguments);
    auto checks = proofChecks();
    std::erase_if(checks, [&](const ProofCheck& check) { return !only.empty() && only != check.name; });
    if (checks.empty())
        return usage();
    std::sort(checks.begin(), checks.end(),
              [](const ProofCheck& a, const ProofCheck& b) { return std::strcmp(a.name, b.name) < 0; });

    std::vector<std::string> table;
    bool allSurvived = true;
    for (const ProofCheck& check : checks) {
        std::printf("%s: %s\n", check.name, check.what);
        std::fflush(stdout);
        ProofTally tally;
        const auto start = std::chrono::steady_clock::now();
        check.run(form, tally);
        const std::chrono::duration<double> seconds = std::chrono::steady_clock::now() - start;
        char row[256];
        std::snprintf(row, sizeof row, "%-14s %-64s %8llu %8llu %7.1f s", check.name, check.what,
                      static_cast<unsigned long long>(tally.tried()),
                      static_cast<unsigned long long>(tally.survived()), seconds.count());
        table.emplace_back(row);
        allSurvived = allSurvived && tally.tried() > 0 && tally.survived() == tally.tried();
    }
    std::printf("\n%-14s %-64s %8s %8s %9s\n", "check", "what", "tried", "survived", "time");
    for (const std::string& row : table)
        std::printf("%s\n", row.c_str());
    std::printf("%s\n", allSurvived ? "all survived" : "NOT ALL SURVIVED");
    return allSurvived ? 0 : 1;
}
