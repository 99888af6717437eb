// Thousands of thumbnails in one process: what they take is given back, all of it.
#include <bitset>
#include <cstdio>
#include <cstdlib>

#include <windows.h>

#include <psapi.h>

#include "Processes.h"
#include "Proof.h"
#include "Scenario.h"

namespace {

/// What a process can lose little by little, and by how much it may differ after thousands of thumbnails: far
/// less than one of anything for each.
enum Holding { handles, threadSlots, gdiObjects, modules, heapBlocks, heapBytes, privateBytes, holdingCount };
constexpr struct {
    const char* name;
    int64_t tolerance;
} kinds[holdingCount] = {
    {"handles", 4},      {"thread-local slots", 2}, {"GDI objects", 0},        {"modules", 0},
    {"heap blocks", 32}, {"heap bytes", 16384},     {"private bytes", 2 << 20}};
using Holdings = std::array<int64_t, holdingCount>;

void addHeap(HANDLE heap, Holdings& holdings) {
    PROCESS_HEAP_ENTRY entry{};
    HeapLock(heap);
    while (HeapWalk(heap, &entry))
        if (entry.wFlags & PROCESS_HEAP_ENTRY_BUSY) {
            ++holdings[heapBlocks];
            holdings[heapBytes] += entry.cbData;
        }
    HeapUnlock(heap);
}

/// Prints them, too.
Holdings takeHoldings(uint32_t thumbnails) {
    isDecoderUnloaded();
    Holdings now{};
    now[handles] = countHandles();
    now[threadSlots] = -ThreadSlots().count();
    now[gdiObjects] = countGdiObjects();
    HMODULE loaded[1024];
    DWORD moduleBytes = 0;
    EnumProcessModules(GetCurrentProcess(), loaded, sizeof loaded, &moduleBytes);
    now[modules] = moduleBytes / static_cast<DWORD>(sizeof(HMODULE));
    PROCESS_MEMORY_COUNTERS memory{};
    GetProcessMemoryInfo(GetCurrentProcess(), &memory, sizeof memory);
    now[privateBytes] = static_cast<int64_t>(memory.PagefileUsage);
    HANDLE heaps[64];
    const DWORD heapCount = GetProcessHeaps(64, heaps);
    for (DWORD i = 0; i < heapCount && i < 64; ++i)
        addHeap(heaps[i], now);
    std::printf("  after %4u thumbnails:", thumbnails);
    for (size_t i = 0; i < holdingCount; ++i)
        std::printf(" %lld %s%s", static_cast<long long>(std::abs(now[i])), i == threadSlots ? "free " : "",
                    kinds[i].name);
    std::printf("\n");
    return now;
}

using Kinds = std::bitset<holdingCount>;

/// The kinds of which there are more than there may be.
Kinds grown(const Holdings& before, const Holdings& after) {
    Kinds grown;
    for (size_t i = 0; i < holdingCount; ++i)
        grown[i] = after[i] > before[i] + kinds[i].tolerance;
    return grown;
}

/// As a host's life goes: most questions on one thread, some on one that comes and goes, and now and then the
/// handler is not needed for a while and unloaded. What grew is soaked for as long again, and again, before
/// it is judged: what the system or a runtime makes when it first needs it grows a few times (Wine 10's heap
/// of many threads does), what is lost little by little grows each time.
void soak(ProofForm form, ProofTally& tally) {
    constexpr uint32_t settled = 100, questionsPerThread = 10, questionsPerLoad = 25, mostStretches = 9;
    const uint32_t stretch = form == ProofForm::full ? 4900 : 300;
    const std::wstring path = builtFile("bin");
    LoadLibraryW(L"oleaut32.dll"); // as any host has it; Wine's own keeps some blocks each time that it goes
    const KnownQuestions questions;
    Leftovers leftovers;
    HandlerLibrary library;
    std::vector<Holdings> taken;
    Kinds lost = Kinds().set();
    for (uint32_t i = 0;; ++i) {
        if (i % questionsPerLoad == 0)
            library.load(path);
        if (i >= settled && (i - settled) % stretch == 0) {
            taken.push_back(takeHoldings(i));
            if (taken.size() > 1)
                lost &= grown(taken[taken.size() - 2], taken.back());
            if (lost.none() || taken.size() > mostStretches)
                break;
        }
        const KnownQuestion& question = questions.all()[i % questions.all().size()];
        tally.attempt("thumbnail " + std::to_string(i), [&] {
            std::string trouble;
            const auto ask = [&] { trouble = question.trouble(&library); };
            if (i % questionsPerThread == 0)
                std::thread(ask).join();
            else
                ask();
            if (i % questionsPerLoad == questionsPerLoad - 1 && library.unload() != S_OK)
                trouble += " The handler cannot be unloaded.";
            return trouble.empty() ? leftovers.trouble() : trouble;
        });
    }
    for (size_t i = 0; i < holdingCount; ++i)
        tally.count(kinds[i].name, lost[i] ? std::to_string(taken.back()[i] - taken[0][i]) +
                                                 " more than after the first hundred"
                                           : "");
}

PROOF_CHECK("soak", "thumbnails in one process, and what they may not keep", soak);

} // namespace
