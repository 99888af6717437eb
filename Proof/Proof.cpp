#include "Proof.h"

#include <chrono>
#include <csignal>
#include <cstdio>

#include "ChildProcess.h"
#include "ExceptionText.h"
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
    wchar_t what[256];
    char how[300];
    describeException(*exception->ExceptionRecord, what);
    std::snprintf(how, sizeof how, "crashed: %ls", what);
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
void runChild(const std::vector<std::string>& arguments) {
    const std::string trouble = tryLastingFault(arguments);
    std::printf("%s%s", trouble.c_str(), trouble.empty() ? "" : "\n");
    std::fflush(stdout);
    // Without an orderly end: what was left for good would be taken down under its users.
    TerminateProcess(GetCurrentProcess(), trouble.empty() ? 0 : 1);
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

std::string tryLastingFaultInChild(const std::vector<std::string>& arguments) {
    constexpr DWORD limitMilliseconds = 100'000;
    wchar_t program[MAX_PATH] = {};
    GetModuleFileNameW(nullptr, program, MAX_PATH);
    std::vector<std::wstring> words = {L"--child"};
    for (const std::string& argument : arguments)
        words.emplace_back(argument.begin(), argument.end());
    const ChildProcess process(program, words, GetStdHandle(STD_OUTPUT_HANDLE),
                               GetStdHandle(STD_ERROR_HANDLE));
    if (!process.hasEnded(limitMilliseconds))
        return process.started() == S_OK ? "its process does not end" : "no process for it";
    return process.exitCode() == 0 ? "" : "its process ended with " + std::to_string(process.exitCode());
}

int main(int argc, char** argv) {
    ProofForm form = ProofForm::full;
    std::string only;
    char** child = nullptr; ///< where its arguments begin
    for (int i = 1; i < argc; ++i) {
        if (!std::strcmp(argv[i], "--brief"))
            form = ProofForm::brief;
        else if (!std::strcmp(argv[i], "--only") && i + 1 < argc)
            only = argv[++i];
        else if (!std::strcmp(argv[i], "--child")) { // ourselves
            child = argv + i + 1;
            break;
        } else
            return usage();
    }
    SetUnhandledExceptionFilter(reportCrash);
    std::signal(SIGABRT, [](int) { lose("aborted", 3); }); // an exception that nobody took
    CloseHandle(CreateThread(nullptr, 0, watch, nullptr, 0, nullptr));
    if (child != nullptr)
        runChild(std::vector<std::string>(child, argv + argc));
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
