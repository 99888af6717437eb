// Memory runs out: one allocation of the handler's fails, its loading included, or from it on all do until
// the shell has its answer. Not only what `new` takes: what the C++ runtime takes to begin with, to lock and
// to throw, too. And no thread has a slot left for it.
#include <cerrno>
#include <cstdlib>

#include "EnvironmentVariable.h"
#include "Proof.h"
#include "Scenario.h"

namespace {

std::atomic<int64_t> g_allocations = 0, g_firstToFail = 0; ///< 0: none fails
std::atomic<int64_t> g_blocks = 0;                         ///< that have not come back
bool g_comesBack = false;                                  ///< the first to fail is the only one

bool isGone() {
    const int64_t first = g_firstToFail, number = first > 0 ? ++g_allocations : 0;
    const bool gone = first > 0 && (g_comesBack ? number == first : number >= first);
    if (gone)
        errno = ENOMEM;
    return gone;
}
void* counted(void* block) {
    g_blocks += block != nullptr;
    return block;
}
void* mallocUntilGone(size_t bytes) {
    return isGone() ? nullptr : counted(malloc(bytes));
}
void* callocUntilGone(size_t count, size_t bytes) {
    return isGone() ? nullptr : counted(calloc(count, bytes));
}
void* reallocUntilGone(void* block, size_t bytes) {
    return block == nullptr ? mallocUntilGone(bytes) : isGone() ? nullptr : realloc(block, bytes);
}
void freeCounted(void* block) {
    g_blocks -= block != nullptr;
    free(block);
}

/// Has libraries that are loaded from now on find other allocators in the C runtime: by its table of exports,
/// since their own table of imports is not there before they have begun.
class RuntimeExports {
public:
    RuntimeExports() : m_base(reinterpret_cast<char*>(GetModuleHandleW(L"msvcrt.dll"))) {
        const auto& dos = *at<IMAGE_DOS_HEADER>(0);
        const auto& optional = at<IMAGE_NT_HEADERS>(static_cast<DWORD>(dos.e_lfanew))->OptionalHeader;
        m_exports =
            at<IMAGE_EXPORT_DIRECTORY>(optional.DataDirectory[IMAGE_DIRECTORY_ENTRY_EXPORT].VirtualAddress);
        // The table's entries are 32-bit distances from the library's own address.
        for (char* place = m_base + optional.SizeOfImage; m_jumps == nullptr; place += 1 << 16)
            m_jumps = static_cast<uint8_t*>(
                VirtualAlloc(place, 4096, MEM_RESERVE | MEM_COMMIT, PAGE_EXECUTE_READWRITE));
        replace("malloc", reinterpret_cast<void*>(&mallocUntilGone));
        replace("calloc", reinterpret_cast<void*>(&callocUntilGone));
        replace("realloc", reinterpret_cast<void*>(&reallocUntilGone));
        replace("free", reinterpret_cast<void*>(&freeCounted));
    }
    RuntimeExports(const RuntimeExports&) = delete;
    RuntimeExports& operator=(const RuntimeExports&) = delete;
    void swap() {
        for (Entry& entry : m_entries) {
            DWORD protection = 0;
            VirtualProtect(entry.slot, sizeof *entry.slot, PAGE_READWRITE, &protection);
            std::swap(*entry.slot, entry.other);
            VirtualProtect(entry.slot, sizeof *entry.slot, protection, &protection);
        }
    }

private:
    struct Entry {
        DWORD* slot;
        DWORD other;
    };
    template <class T>
    T* at(DWORD distance) const {
        return reinterpret_cast<T*>(m_base + distance);
    }
    void replace(const char* name, void* function) {
        const auto* const names = at<DWORD>(m_exports->AddressOfNames);
        const auto* const ordinals = at<WORD>(m_exports->AddressOfNameOrdinals);
        for (DWORD i = 0; i < m_exports->NumberOfNames; ++i) {
            if (std::strcmp(at<char>(names[i]), name) != 0)
                continue;
            uint8_t* const jump = m_jumps + 16 * m_entries.size();
            const uint8_t code[] = {0x48, 0xB8, 0, 0, 0, 0, 0, 0, 0, 0, 0xFF, 0xE0}; // mov rax, ...; jmp rax
            std::memcpy(jump, code, sizeof code);
            std::memcpy(jump + 2, &function, sizeof function);
            m_entries.push_back({at<DWORD>(m_exports->AddressOfFunctions) + ordinals[i],
                                 static_cast<DWORD>(reinterpret_cast<char*>(jump) - m_base)});
        }
    }

    char* const m_base;
    const IMAGE_EXPORT_DIRECTORY* m_exports = nullptr;
    uint8_t* m_jumps = nullptr;
    std::vector<Entry> m_entries;
};

struct Road {
    const char* folder;
    const char* what = "no memory from";
    UINT size = 64;
    bool hasSlots = true, comesBack = false;
    int64_t step = 1;
};

/// Each number in a run of its own, until one is so large that nothing fails.
void tryRoad(const Road& road, ProofTally& tally) {
    RuntimeExports exports;
    std::optional<ThreadSlots> slots;
    bool isSwapped = false;
    const auto swapIf = [&](bool is) {
        if (std::exchange(isSwapped, is) != is)
            exports.swap();
    };
    const auto scenario = makeThumbnailScenario(
        {.handler = builtFile(road.folder), .size = road.size, .unloadEachRun = true, .onLoad = [&](HMODULE) {
             swapIf(false);
         }}); // the decoder keeps its own
    g_comesBack = road.comesBack;
    tally.attempt(std::string(road.folder) + ", with memory", [&] { return scenario->troubleInGoodRun(); });
    bool reached = true;
    int64_t number = 1;
    for (; reached; number += road.step)
        tally.attempt(std::string(road.folder) + ", size " + std::to_string(road.size) + ", " + road.what +
                          " allocation " + std::to_string(number),
                      [&] {
                          scenario->onStart = [&] {
                              if (!road.hasSlots)
                                  slots.emplace();
                              swapIf(true);
                              g_allocations = g_blocks = 0;
                              g_firstToFail = number;
                          };
                          scenario->onEnd = [&] {
                              g_firstToFail = 0;
                              swapIf(false);
                              slots.reset();
                          };
                          const ScenarioOutcome outcome = scenario->run();
                          scenario->onStart = scenario->onEnd = [] {};
                          reached = g_allocations >= number;
                          std::string trouble = scenario->troubleAfter(outcome, reached ? Expected::rightIfAny
                                                                                        : Expected::picture);
                          if (g_blocks != 0 && trouble.empty())
                              trouble = std::to_string(g_blocks) + " blocks were not given back";
                          return scenario->orTroubleInNextRun(trouble);
                      });
    tally.count("allocations to fail", number > 1 + road.step ? "" : "there were none");
}

/// More threads than the library keeps records for, one after the other and without unloading in between:
/// what each throw took is there for the next.
void tryThreads(ProofTally& tally) {
    RuntimeExports exports;
    g_comesBack = false;
    const auto scenario =
        makeThumbnailScenario({.handler = builtFile("bin"), .onLoad = [&](HMODULE) { exports.swap(); }});
    exports.swap();
    for (int number = 0; number < 200; ++number)
        tally.attempt("no memory at all on thread " + std::to_string(number), [&] {
            ScenarioOutcome outcome;
            std::thread([&] {
                scenario->onStart = [&] { g_allocations = g_firstToFail = number > 0; };
                scenario->onEnd = [] { g_firstToFail = 0; };
                outcome = scenario->run();
            }).join();
            if (number > 0 && outcome.result == S_OK)
                return std::string("a picture without memory");
            return scenario->troubleAfter(outcome, number > 0 ? Expected::rightIfAny : Expected::picture);
        });
}

void runOutForGood(ProofForm form, ProofTally& tally) {
    tryThreads(tally);
    const TemporaryFolder home;
    const EnvironmentVariable profile(L"USERPROFILE", home.path().c_str());
    const std::string settings = home.text("AppData\\Roaming\\Verdane\\Clipforge");
    std::filesystem::create_directories(settings);
    writeFileBytes(settings + "\\Clipforge_options.ini", "[General]\nlogging = INFO\n");
    const int64_t step = form == ProofForm::full ? 7 : 101;
    const char* const without = "no thread slots, and no memory from";
    for (const Road& road : {Road{"bin"}, Road{.folder = "logging", .step = step},
                             Road{.folder = "bin", .what = without, .hasSlots = false},
                             Road{.folder = "logging", .what = without, .hasSlots = false, .step = step}})
        tryRoad(road, tally);
}
PROOF_CHECK("memory gone", "from each allocation on all fail, with and without thread slots", runOutForGood);

void failOnce(ProofForm, ProofTally& tally) {
    for (const UINT size : {64u, 200u})
        tryRoad({.folder = "bin", .what = "no memory for", .size = size, .comesBack = true}, tally);
}
PROOF_CHECK("allocations", "each allocation fails once, on every thread", failOnce);

} // namespace
