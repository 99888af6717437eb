// The guard, with the decoder behind it crashing, hanging and eating memory at every call; with workers and
// hosts that somebody ends; and for thousands of thumbnails. The shell's process must not notice.
#include <chrono>
#include <cstdio>
#include <random>

#include <windows.h>

#include <psapi.h>

#include "ChildProcess.h"
#include "GuardFailures.h"
#include "GuardWorkers.h"
#include "Proof.h"
#include "Scenario.h"

namespace {

using Kind = ReferenceDecoderFaultKind;
/// What a shell's process has, and what a guard that leaks would add to.
class Holdings {
public:
    /// What there is more of now, in words; empty when there is nothing. Windows may take a moment to let go
    /// of what belonged to a thread or a process that has ended.
    std::string growth(int64_t toleratedHandles = 0) const {
        std::string found;
        for (const ULONGLONG end = GetTickCount64() + 1000; GetTickCount64() < end; Sleep(20))
            if ((found = difference(Holdings(), toleratedHandles)).empty())
                break;
        return found;
    }

private:
    std::string difference(const Holdings& now, int64_t toleratedHandles) const {
        constexpr const char* names[] = {" handles", " threads", " GDI objects"};
        std::string found;
        for (size_t i = 0; i < m_counts.size(); ++i)
            if (now.m_counts[i] > m_counts[i] + (i == 0 ? toleratedHandles : 0))
                found += std::to_string(now.m_counts[i] - m_counts[i]) + names[i] + " more; ";
        return found;
    }
    std::array<int64_t, 3> m_counts{countHandles(), countThreads(), countGdiObjects()};
};

/// A shell with the guard loaded. The decoder in its workers takes its faults from here.
class GuardedShell {
public:
    GuardedShell() {
        setPolicy(L"KillerMinutes", 0);
        setPolicy(L"PauseSeconds", 0);
        m_decoder.shareWithChildProcesses();
        load();
    }
    ~GuardedShell() {
        m_library.unload();
        workersBecome(0);
        m_decoder.reset();
        m_decoder.writeOffLosses();
    }
    void load() { m_library.load(builtFile("bin", L"Clipforge_Guard.dll")); }
    HandlerLibrary& library() { return m_library; }
    ReferenceDecoderSession& decoder() { return m_decoder; }
    const KnownQuestions& questions() const { return m_questions; }
    std::string ask(std::optional<HRESULT> orFailure = {}) {
        return m_questions.good().trouble(&m_library, orFailure);
    }
    /// The calls of a good thumbnail, the library's loading and unloading among them: all, or three.
    std::vector<ReferenceDecoderCall> crossings(ProofForm form) {
        m_decoder.reset();
        ask();
        std::vector<ReferenceDecoderCall> calls = m_decoder.recording();
        calls.insert(calls.begin(), {"DllMain::attach", 1});
        calls.push_back({"DllMain::detach", 1});
        return form == ProofForm::full ? calls
                                       : std::vector{calls.front(), calls[calls.size() / 2], calls.back()};
    }
    /// The fault costs this thumbnail at most; the next one is right, and nothing is left behind.
    std::string troubleWith(const ReferenceDecoderFault& fault, HRESULT expected) {
        using Clock = std::chrono::steady_clock;
        if (const std::string good = childProcesses(workerName).empty() ? ask() : ""; !good.empty())
            return "the one before: " + good;
        const Holdings before;
        m_decoder.reset();
        m_decoder.arm(fault);
        const Clock::time_point start = Clock::now();
        std::string trouble = ask(expected);
        lastMilliseconds = std::chrono::duration<double, std::milli>(Clock::now() - start).count();
        // There Windows takes an exception for a refusal to be loaded.
        if (fault.name == "DllMain::attach" && trouble.starts_with("0x8"))
            trouble.clear();
        const bool fired = m_decoder.account().faultsFired > 0;
        m_decoder.reset();
        m_decoder.writeOffLosses();
        if (!fired)
            return "the fault was never reached";
        if (trouble.empty() && !(trouble = ask()).empty())
            trouble = "the next one: " + trouble;
        if (trouble.empty() && !workersBecome(1, 1000))
            trouble = std::to_string(childProcesses(workerName).size()) + " workers are left";
        return trouble.empty() ? before.growth() : trouble;
    }
    double lastMilliseconds = 0;

private:
    StandInRegistry m_registry;
    KnownQuestions m_questions;
    ReferenceDecoderSession m_decoder;
    HandlerLibrary m_library;
};

void printMilliseconds(const char* what, std::vector<double> values) {
    std::sort(values.begin(), values.end());
    std::printf("  %s: answered after %.1f ms in the middle, %.1f ms at the most\n", what,
                values[values.size() / 2], values.back());
}

std::string nameOf(const ReferenceDecoderCall& call, const char* what) {
    return call.name + " #" + std::to_string(call.occurrence) + ": " + what;
}

void tryCrashes(ProofForm form, ProofTally& tally) {
    constexpr struct {
        const char* what;
        Kind kind;
    } crashes[] = {{"null write", Kind::nullWrite},
                   {"stack overflow", Kind::stackOverflow},
                   {"abort", Kind::abort},
                   {"fail-fast", Kind::failFast},
                   {"TerminateProcess", Kind::terminate},
                   {"exception on a thread", Kind::exceptionOnThread}};
    const size_t sample = form == ProofForm::full ? 1 : 37;
    GuardedShell shell;
    const std::vector<ReferenceDecoderCall> calls = shell.crossings(ProofForm::full);
    shell.troubleWith({calls[1].name, 1, Kind::terminate, 1},
                      GUARD_E_WORKER_DIED); // the first costs a bit more
    std::vector<double> milliseconds;
    size_t number = 0;
    for (const auto& [what, kind] : crashes)
        for (const ReferenceDecoderCall& call : calls) {
            // No thread begins inside DllMain: there this is a hang, and tried as one.
            const bool isHang = kind == Kind::exceptionOnThread && call.name.starts_with("DllMain");
            if (number++ % sample != 0 || isHang)
                continue;
            tally.attempt(nameOf(call, what), [&] {
                return shell.troubleWith({call.name, call.occurrence, kind, 1}, GUARD_E_WORKER_DIED);
            });
            milliseconds.push_back(shell.lastMilliseconds);
        }
    printMilliseconds("crashes", milliseconds);
}
PROOF_CHECK("guard crash", "the decoder crashes in a worker, at each call", tryCrashes);

void tryHangs(ProofForm form, ProofTally& tally) {
    GuardedShell shell;
    setPolicy(L"WorkerSeconds", 1);
    const std::vector<ReferenceDecoderCall> calls = shell.crossings(form);
    shell.library().call("DllCanUnloadNow"); // the next worker knows its time
    std::vector<double> milliseconds;
    for (const ReferenceDecoderCall& call : calls)
        tally.attempt(nameOf(call, "hangs"), [&] {
            const std::string trouble =
                shell.troubleWith({call.name, call.occurrence, Kind::hang, 0}, GUARD_E_WORKER_TIMED_OUT);
            milliseconds.push_back(shell.lastMilliseconds);
            return trouble.empty() && milliseconds.back() > 3000 ? "the answer came late" : trouble;
        });
    printMilliseconds("hangs, of which each may last 1 s", milliseconds);
}
PROOF_CHECK("guard hang", "the decoder hangs in a worker, at each call", tryHangs);

/// Whether something limits this process's memory, and so a worker's.
bool isMemoryLimited() {
    void* const memory = HeapAlloc(GetProcessHeap(), 0, size_t{512} << 20);
    if (memory != nullptr)
        HeapFree(GetProcessHeap(), 0, memory);
    return memory == nullptr;
}

/// Under a limit all there is, else as much as a worker is not kept with.
void tryMemory(ProofForm form, ProofTally& tally) {
    GuardedShell shell;
    setPolicy(L"WorkerMegabytes", 256);
    shell.library().call("DllCanUnloadNow"); // the next worker knows its limit
    const bool isLimited = isMemoryLimited();
    std::printf("  %s\n", isLimited ? "all the memory there is" : "100 MiB: nothing limits a process here");
    const std::vector<ReferenceDecoderCall> calls = shell.crossings(form);
    for (const ReferenceDecoderCall& call : calls)
        tally.attempt(nameOf(call, "eats memory"), [&]() -> std::string {
            const std::vector<DWORD> before = childProcesses(workerName);
            const ReferenceDecoderFault fault{call.name, call.occurrence, Kind::eatMemory,
                                              isLimited ? 100000 : 100};
            std::string trouble = shell.troubleWith(fault, E_FAIL);
            for (const HRESULT other : {E_OUTOFMEMORY, E_UNEXPECTED, GUARD_E_WORKER_DIED})
                if (isLimited && trouble.starts_with(resultText(other)))
                    trouble = shell.ask();
            if (trouble.empty() && childProcesses(workerName) == before)
                trouble = "the worker is kept";
            return trouble;
        });
}
PROOF_CHECK("guard memory", "the decoder eats a worker's memory, at each call", tryMemory);

/// Somebody ends workers at random moments, while 16 threads ask.
void tryKilledWorkers(ProofForm form, ProofTally& tally) {
    const int total = form == ProofForm::full ? 2000 : 96;
    constexpr int threadCount = 16;
    GuardedShell shell;
    setPolicy(L"Workers", 4);
    shell.ask();
    const Holdings before;
    std::atomic<int> next = 0, killed = 0;
    std::vector<std::string> troubles(static_cast<size_t>(total));
    std::vector<std::jthread> threads;
    for (int i = 0; i < threadCount; ++i)
        threads.emplace_back([&] {
            for (int number; (number = next++) < total;) {
                // One that is ended while it starts was not started, to the guard.
                std::string trouble = shell.ask(GUARD_E_WORKER_DIED);
                if (trouble.starts_with(resultText(GUARD_E_WORKER_NOT_STARTED)))
                    trouble.clear();
                troubles[static_cast<size_t>(number)] = trouble;
            }
        });
    std::mt19937 random(1);
    while (next < total) {
        ProofTally::begin("thumbnail " + std::to_string(next));
        Sleep(random() % 60);
        for (const DWORD worker : childProcesses(workerName))
            if (const HANDLE process = OpenProcess(PROCESS_TERMINATE, FALSE, worker); random() % 2 == 0) {
                killed += TerminateProcess(process, 1) != FALSE;
                CloseHandle(process);
            } else
                CloseHandle(process);
    }
    threads.clear();
    for (int i = 0; i < total; ++i)
        tally.count("thumbnail " + std::to_string(i), troubles[static_cast<size_t>(i)]);
    std::printf("  %d workers were ended\n", killed.load());
    tally.count("workers to end", killed > 0 ? "" : "there were none");
    shell.library().call("DllCanUnloadNow");
    tally.count("no worker afterwards", workersBecome(0, 1000) ? "" : "some are left");
    shell.decoder().reset();
    shell.decoder().writeOffLosses();
    tally.attempt("the next one", [&] { return shell.ask(); });
    // This program's own runtime makes an event when two of its threads first meet at the list of them.
    tally.count("handles, threads and GDI objects", before.growth(1));
}
PROOF_CHECK("guard kill", "workers are ended from outside, at random", tryKilledWorkers);

/// A worker writes at random into all that it shares with the guard, or changes its answer while it is read.
void tryLies(ProofForm form, ProofTally& tally) {
    const StandInRegistry registry;
    for (const wchar_t* policy : {L"KillerMinutes", L"PauseSeconds"})
        setPolicy(policy, 0);
    setPolicy(L"WorkerSeconds", 1);
    for (const char* lie : {"scribbles", "keeps changing"}) {
        const TemporaryFolder folder;
        const auto copy = [&](const char* from, const wchar_t* name) {
            std::filesystem::copy_file(builtFile(from, name), folder.path() / name);
        };
        copy("bin", L"Clipforge_Guard.dll");
        copy("guard-lies", workerName);
        writeFileBytes(folder.path() / "lie", lie);
        HandlerLibrary library;
        library.load(folder.path() / L"Clipforge_Guard.dll");
        int pictures = 0;
        for (int i = 0; i < (form == ProofForm::full ? 500 : 20); ++i)
            tally.attempt(std::string(lie) + " " + std::to_string(i), [&] {
                const ThumbnailAnswer answer = askForThumbnail(L"clip", 64, &library);
                DIBSECTION section = {};
                if (answer.result != S_OK)
                    return std::string(FAILED(answer.result) ? "" : resultText(answer.result));
                ++pictures;
                // of any size: one that is read while it changes is mixed from several
                return std::string(isThumbnailBitmap(answer.bitmap.get(), section) ? "" : "no picture");
            });
        std::printf("  %s: %d pictures\n", lie, pictures);
    }
    tally.count("no worker afterwards", workersBecome(0) ? "" : "some are left");
}
PROOF_CHECK("guard lies", "a worker lies in all that it shares with the guard", tryLies);

/// The host itself is ended while its worker works.
void tryKilledHosts(ProofForm form, ProofTally& tally) {
    GuardedShell shell;
    setPolicy(L"WorkerSeconds", 60);
    const std::wstring program = builtFile("bin", L"clipforge-thumb.exe");
    const std::wstring guard = builtFile("bin", L"Clipforge_Guard.dll");
    const std::wstring clip = shell.questions().good().clip;
    std::mt19937 random(1);
    double longest = 0;
    for (int i = 0; i < (form == ProofForm::full ? 30 : 2); ++i)
        tally.attempt("host " + std::to_string(i), [&]() -> std::string {
            shell.decoder().reset();
            shell.decoder().arm({"IBlackmagicRawCodec::FlushJobs", 0, Kind::hang, 0});
            const ChildProcess host(program, {clip, L"--dll", guard});
            const bool started = workersBecome(1, 60000, host.id());
            Sleep(random() % 200); // it starts, loads, or hangs already
            const ULONGLONG start = GetTickCount64();
            host.terminate();
            const bool gone = workersBecome(0, 10000, host.id());
            const auto taken = static_cast<double>(GetTickCount64() - start);
            longest = std::max(longest, taken);
            if (!started || !gone)
                return started ? "its worker stays" : "it started no worker";
            return taken > 1000 ? "its worker was there for more than a second" : "";
        });
    std::printf("  the last worker went %.0f ms after its host\n", longest);
}
PROOF_CHECK("guard host", "the host is ended while its worker works", tryKilledHosts);

void tryReloading(ProofForm form, ProofTally& tally) {
    GuardedShell shell;
    std::optional<Holdings> before;
    for (int i = 0; i < (form == ProofForm::full ? 200 : 6); ++i)
        tally.attempt("loading " + std::to_string(i), [&] {
            std::string trouble = shell.ask();
            if (i % 2 == 0 && trouble.empty() && shell.library().unload() != S_OK)
                trouble = "it cannot be unloaded";
            if (i % 2 != 0) // as hosts do that do not ask whether they may
                FreeLibrary(shell.library().release());
            if (trouble.empty() && GetModuleHandleW(L"Clipforge_Guard.dll") != nullptr)
                trouble = "it stays loaded";
            if (trouble.empty() && !workersBecome(0, 1000))
                trouble = "a worker is left";
            if (i == 1)
                before.emplace();
            if (trouble.empty() && i > 1)
                trouble = before->growth();
            shell.decoder().writeOffLosses();
            shell.load();
            return trouble;
        });
}
PROOF_CHECK("guard reload", "the guard is unloaded, with and without being asked", tryReloading);

/// Workers leave at the very moment that they are asked again.
void tryIdleEnds(ProofForm form, ProofTally& tally) {
    GuardedShell shell;
    setPolicy(L"Workers", 4);
    setPolicy(L"WorkerIdleSeconds", 1);
    std::vector<std::string> troubles(form == ProofForm::full ? 160 : 8);
    std::vector<std::jthread> threads;
    for (size_t first = 0; first < 4; ++first)
        threads.emplace_back([&, first] {
            for (size_t i = first; i < troubles.size(); i += 4) {
                troubles[i] = shell.ask();
                Sleep(990 + static_cast<DWORD>(i * 7 % 20));
            }
        });
    threads.clear();
    for (size_t i = 0; i < troubles.size(); ++i)
        tally.count("question " + std::to_string(i), troubles[i]);
}
PROOF_CHECK("guard idle", "questions that meet workers on their way out", tryIdleEnds);

int64_t committedBytes(HANDLE process) {
    PROCESS_MEMORY_COUNTERS memory = {};
    GetProcessMemoryInfo(process, &memory, sizeof memory);
    return static_cast<int64_t>(memory.PagefileUsage);
}

void soak(ProofForm form, ProofTally& tally) {
    const uint32_t total = form == ProofForm::full ? 5000 : 150, settled = total / 10;
    GuardedShell shell;
    shell.ask();
    const std::vector<DWORD> workers = childProcesses(workerName);
    const HANDLE worker = OpenProcess(PROCESS_QUERY_INFORMATION | PROCESS_VM_READ, FALSE, workers.front());
    struct Row {
        const char* name;
        int64_t tolerance;
        std::function<int64_t()> count;
    } const rows[] = {
        {"handles", 0, [] { return countHandles(); }},
        {"threads", 0, countThreads},
        {"GDI objects", 0, [] { return static_cast<int64_t>(countGdiObjects()); }},
        {"bytes", 1 << 20, [] { return committedBytes(GetCurrentProcess()); }},
        {"bytes of the worker", 2 << 20, [&] { return committedBytes(worker); }},
        {"handles of the worker", 2, [&] { return countHandles(workers.front()); }},
    };
    std::vector<int64_t> before;
    for (uint32_t i = 0; i < total; ++i) {
        if (i == settled)
            for (const Row& row : rows)
                before.push_back(row.count());
        const KnownQuestion& question = shell.questions().all()[i % shell.questions().all().size()];
        tally.attempt("thumbnail " + std::to_string(i), [&] { return question.trouble(&shell.library()); });
    }
    tally.count("one worker for all", childProcesses(workerName) == workers ? "" : "there were others");
    for (size_t i = 0; i < before.size(); ++i) {
        const int64_t now = rows[i].count();
        std::printf("  %s: %lld, then %lld\n", rows[i].name, static_cast<long long>(before[i]),
                    static_cast<long long>(now));
        tally.count(rows[i].name, now <= before[i] + rows[i].tolerance ? "" : "grow");
    }
    CloseHandle(worker);
    tally.count("the decoder's account",
                shell.decoder().account().isClean() ? "" : shell.decoder().account().describe());
}
PROOF_CHECK("guard soak", "thumbnails by one worker, and what they may not keep", soak);

} // namespace
