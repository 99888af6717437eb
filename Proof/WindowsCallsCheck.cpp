// Each call to Windows that can fail does so once, in the handler library's own imports.
#include <array>
#include <atomic>
#include <cerrno>
#include <string>
#include <type_traits>
#include <utility>

#include <io.h>
#include <sys/stat.h>

#include "EnvironmentVariable.h"
#include "Imports.h"
#include "Proof.h"
#include "Scenario.h"

#include <shlwapi.h>

namespace {

/// What stands between the library and one of its imports.
struct Tap {
    void* original = nullptr;
    std::atomic<int64_t> countdown{0}; ///< the call that brings it to 0 fails
    std::atomic<int64_t> failures{0};
    std::atomic<int64_t> callsAfter{0}; ///< of this function, since one failed

    void arm(int64_t number) {
        failures = 0;
        callsAfter = 0;
        countdown = number;
    }

    bool fails() {
        if (failures > 0)
            ++callsAfter;
        if (countdown > 0 && --countdown == 0) {
            ++failures;
            return true;
        }
        return false;
    }
};

constexpr size_t maximumRows = 40;
Tap g_taps[maximumRows];

/// How a function says that it failed.
struct Failure {
    int64_t result;
    DWORD lastError = ERROR_NOT_ENOUGH_MEMORY;
    int error = ENOMEM;
};

template <class Result>
Result as(int64_t value) {
    if constexpr (std::is_pointer_v<Result>)
        return reinterpret_cast<Result>(static_cast<intptr_t>(value));
    else
        return static_cast<Result>(value);
}

template <size_t index, const Failure& failure, class Result, class... Arguments>
Result failingNow(Arguments... arguments) {
    if (!g_taps[index].fails())
        return reinterpret_cast<Result (*)(Arguments...)>(g_taps[index].original)(arguments...);
    SetLastError(failure.lastError);
    errno = failure.error;
    return as<Result>(failure.result);
}

template <size_t index, const Failure& failure, class Result, class... Arguments>
constexpr auto stand(Result (*)(Arguments...)) {
    return &failingNow<index, failure, Result, Arguments...>;
}

enum class Work { thumbnail, registration, removal };

struct Row {
    const char* name;
    void* stand;
    Work work;
    HRESULT results[2]; ///< what the work may give; a right picture is always welcome
};

constexpr HRESULT denied = HRESULT_FROM_WIN32(ERROR_ACCESS_DENIED);

constexpr Failure giveZero{0}, giveInvalidHandle{-1}, giveMinusOne{-1}, giveWaitFailed{WAIT_FAILED},
    giveDenied{ERROR_ACCESS_DENIED, ERROR_ACCESS_DENIED}, zeroAndDenied{0, ERROR_ACCESS_DENIED},
    giveNoMemory{E_OUTOFMEMORY};

#define ROW(index, function, failure, work, ...)                                                             \
    Row {                                                                                                    \
#function, reinterpret_cast < void*>(stand <index, failure>(&function)), work, {                     \
            __VA_ARGS__                                                                                      \
        }                                                                                                    \
    }
const Row rows[] = {
    ROW(0, CreateDIBSection, giveZero, Work::thumbnail, E_FAIL, E_FAIL),
    ROW(1, LoadLibraryExW, giveZero, Work::thumbnail, E_UNEXPECTED, E_UNEXPECTED),
    ROW(2, GetProcAddress, giveZero, Work::thumbnail, E_UNEXPECTED, E_UNEXPECTED),
    ROW(3, WaitForSingleObject, giveWaitFailed, Work::thumbnail, E_UNEXPECTED, E_UNEXPECTED),
    ROW(4, SysAllocStringLen, giveZero, Work::thumbnail, E_UNEXPECTED, E_FAIL),
    ROW(5, CreateActCtxW, giveInvalidHandle, Work::thumbnail, S_OK, S_OK),
    ROW(6, ActivateActCtx, giveZero, Work::thumbnail, S_OK, S_OK),
    ROW(7, GetModuleFileNameW, giveZero, Work::thumbnail, E_UNEXPECTED, S_OK),
    ROW(8, GetModuleHandleExW, giveZero, Work::thumbnail, E_UNEXPECTED, S_OK),
    ROW(9, MultiByteToWideChar, giveZero, Work::thumbnail, E_UNEXPECTED, E_FAIL),
    ROW(10, WideCharToMultiByte, giveZero, Work::thumbnail, E_UNEXPECTED, E_FAIL),
    ROW(11, _wstat64, giveMinusOne, Work::thumbnail, E_UNEXPECTED, E_UNEXPECTED),
    ROW(12, _wfsopen, giveZero, Work::thumbnail, S_OK, S_OK),
    ROW(13, QISearch, giveNoMemory, Work::thumbnail, E_OUTOFMEMORY, E_OUTOFMEMORY),
    ROW(14, GetModuleHandleW, giveZero, Work::thumbnail, S_OK, S_OK),
    ROW(15, _wfopen, giveZero, Work::thumbnail, S_OK, S_OK),
    ROW(16, _wmkdir, giveMinusOne, Work::thumbnail, S_OK, S_OK),
    ROW(17, _wremove, giveMinusOne, Work::thumbnail, S_OK, S_OK),
    ROW(18, _wrename, giveMinusOne, Work::thumbnail, S_OK, S_OK),
    ROW(19, GetEnvironmentVariableW, giveZero, Work::thumbnail, S_OK, S_OK),
    ROW(20, RegCreateKeyExW, giveDenied, Work::registration, denied, denied),
    ROW(21, RegSetValueExW, giveDenied, Work::registration, denied, denied),
    ROW(22, GetModuleFileNameW, zeroAndDenied, Work::registration, denied, denied),
    ROW(23, RegDeleteTreeW, giveDenied, Work::removal, denied, denied),
};
#undef ROW

/// Puts a row's stand before the import. False when the library has no such import.
bool tap(HMODULE module, size_t index) {
    void** const slot = importSlot(module, rows[index].name);
    if (slot != nullptr && *slot != rows[index].stand)
        g_taps[index].original = setImport(slot, rows[index].stand);
    return slot != nullptr;
}

std::string resultText(HRESULT result) {
    char text[32];
    std::snprintf(text, sizeof text, "gave 0x%08lX", static_cast<unsigned long>(result));
    return text;
}

std::string attemptName(const Scenario& scenario, const Row& row, int64_t number) {
    return scenario.name() + ", " + row.name + " fails at call " + std::to_string(number);
}

constexpr int64_t endless = 2000;

/// The handler of one folder of the build, loaded anew for each thumbnail with one import tapped.
struct Road {
    Road(const char* folder, const std::filesystem::path& product)
        : handler(builtFile(folder, L"Clipforge_Thumbnails.dll").make_preferred()), logs(product / "Logs"),
          settings(product / "Clipforge_options.ini"),
          scenario(makeThumbnailScenario({.handler = handler,
                                          .unloadEachRun = true,
                                          .onLoad = [this](HMODULE module) { tap(module, row); }})) {}

    std::filesystem::path handler, logs, settings;
    size_t row = 0;
    std::unique_ptr<Scenario> scenario;
};

/// Gives whether the function was ever called.
bool tryThumbnails(Road& road, int64_t step, ProofTally& tally) {
    const Row& row = rows[road.row];
    Tap& taken = g_taps[road.row];
    const std::string settings = readFileBytes(road.settings);
    Scenario& scenario = *road.scenario;
    bool everReached = false;
    bool reached = true;
    for (int64_t number = 1; reached && number < endless; number += step) {
        const std::string attempt = attemptName(scenario, row, number);
        tally.begin(attempt);
        if (std::string_view(row.name) == "_wmkdir")
            std::filesystem::remove_all(road.logs);
        reached = false;
        scenario.onStart = [&] { taken.arm(number); };
        scenario.onEnd = [&] {
            reached = taken.failures > 0;
            taken.arm(0);
        };
        const ScenarioOutcome outcome = scenario.run();
        scenario.onStart = scenario.onEnd = nullptr;
        everReached = everReached || reached;
        std::string trouble =
            scenario.troubleAfter(outcome, reached ? Expected::rightIfAny : Expected::picture);
        const HRESULT result = outcome.result();
        if (trouble.empty() && result != S_OK && result != row.results[0] && result != row.results[1])
            trouble = resultText(result);
        if (trouble.empty() && readFileBytes(road.settings) != settings)
            trouble = "the settings file was changed";
        if (trouble.empty())
            if (const std::string next = scenario.troubleInGoodRun(); !next.empty())
                trouble = "the next one, without the fault: " + next;
        tally.count(attempt, trouble);
    }
    return everReached;
}

/// The first failure ends the registration, with that row's code; what was written before stays.
bool tryRegistrations(Road& road, int64_t step, ProofTally& tally) {
    const Row& row = rows[road.row];
    Tap& taken = g_taps[road.row];
    HandlerLibrary library;
    if (library.load(road.handler.wstring()) != S_OK)
        return false;
    const HMODULE module = GetModuleHandleW(road.handler.c_str());
    const auto call = [module](const char* name) {
        return reinterpret_cast<HRESULT(WINAPI*)()>(reinterpret_cast<void*>(GetProcAddress(module, name)))();
    };
    const char* const work = row.work == Work::removal ? "DllUnregisterServer" : "DllRegisterServer";
    bool everReached = false;
    bool reached = tap(module, road.row);
    for (int64_t number = 1; reached && number < endless; number += step) {
        const std::string attempt = attemptName(*road.scenario, row, number);
        tally.begin(attempt);
        taken.arm(number);
        const HRESULT result = call(work);
        reached = taken.failures > 0;
        everReached = everReached || reached;
        std::string trouble;
        if (result != (reached ? row.results[0] : S_OK))
            trouble = resultText(result);
        else if (taken.callsAfter > 0)
            trouble = "went on after the failure";
        taken.arm(0);
        if (trouble.empty() && call(work) != S_OK)
            trouble = "fails without the fault too";
        tally.count(attempt, trouble);
    }
    return everReached;
}

void run(ProofForm form, ProofTally& tally) {
    const TemporaryFolder home;
    const EnvironmentVariable profile(L"USERPROFILE", home.path().c_str());
    const std::filesystem::path product = home.path() / "AppData" / "Roaming" / "Verdane" / "Clipforge";
    std::filesystem::create_directories(product);
    writeFileBytes(product / "Clipforge_options.ini", "[General]\nlogging = INFO\n");
    const int64_t step = form == ProofForm::full ? 1 : 11;
    bool reached[std::size(rows)] = {};
    for (const char* folder : {"bin", "logging"}) {
        Road road(folder, product);
        tally.count(std::string(folder) + ", no fault", road.scenario->troubleInGoodRun());
        for (road.row = 0; road.row < std::size(rows); ++road.row) {
            const auto tryRow = rows[road.row].work == Work::thumbnail ? tryThumbnails : tryRegistrations;
            reached[road.row] |= tryRow(road, step, tally);
        }
    }
    for (size_t index = 0; index < std::size(rows); ++index)
        if (!reached[index])
            tally.count(rows[index].name, "is never called, so its failure was not tried");
}

PROOF_CHECK("windows", "each call to Windows that can fail does, once", run);

} // namespace
