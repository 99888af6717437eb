// Each call to Windows that can fail does so once, in the handler library's own imports. Those that open or
// load something find a thread on which Windows asks the user nothing.
#include <algorithm>
#include <array>
#include <atomic>
#include <cerrno>
#include <string>
#include <string_view>
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
    bool isQuiet = false;               ///< must not be called where Windows might ask the user

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
std::atomic<bool> g_mayAsk = false; ///< such a call was made where Windows might show a dialog

/// How a function says that it failed.
struct Failure {
    int64_t result;
    DWORD lastError = ERROR_NOT_ENOUGH_MEMORY;
    int error = ENOMEM;
};

/// Whose failure Windows may want to talk about.
constexpr std::string_view quietOnes[] = {"CreateFileW", "LoadLibraryExW", "_wfopen",  "_wmkdir",
                                          "_wremove",    "_wrename",       "_wstat64", "CreateDIBSection"};

template <size_t index, const Failure& failure, class Result, class... Arguments>
Result failingNow(Arguments... arguments) {
    if (g_taps[index].isQuiet && (GetThreadErrorMode() & SEM_FAILCRITICALERRORS) == 0)
        g_mayAsk = true;
    if (!g_taps[index].fails())
        return reinterpret_cast<Result (*)(Arguments...)>(g_taps[index].original)(arguments...);
    SetLastError(failure.lastError);
    errno = failure.error;
    return (Result)(static_cast<intptr_t>(failure.result)); // a number or a pointer
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
    ROW(8, RegDeleteTreeW, giveDenied, Work::removal, denied, denied),
    ROW(9, MultiByteToWideChar, giveZero, Work::thumbnail, E_UNEXPECTED, E_FAIL),
    ROW(10, WideCharToMultiByte, giveZero, Work::thumbnail, E_UNEXPECTED, E_FAIL),
    ROW(11, _wstat64, giveMinusOne, Work::thumbnail, E_UNEXPECTED, E_UNEXPECTED),
    ROW(12, CreateFileW, giveInvalidHandle, Work::thumbnail, S_OK, S_OK),
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
};
#undef ROW

/// The handler of one folder of the build, with one import tapped.
class Road {
public:
    Road(const char* folder, const std::filesystem::path& product)
        : m_handler(builtFile(folder)), m_logs(product / "Logs"),
          m_settings(product / "Clipforge_options.ini"),
          m_scenario(makeThumbnailScenario({.handler = m_handler,
                                            .unloadEachRun = true,
                                            .onLoad = [this](HMODULE module) { tap(module); }})) {}

    std::string troubleInGoodRun() { return m_scenario->troubleInGoodRun(); }
    /// Has each call of the row's function fail in a run of its own. Gives whether it was ever called.
    bool tryRow(size_t index, int64_t step, ProofTally& tally);

private:
    const Row& row() const { return rows[m_row]; }
    Tap& taken() const { return g_taps[m_row]; }
    void tap(HMODULE module) const {
        void** const slot = importSlot(module, row().name);
        if (slot != nullptr && *slot != row().stand)
            taken().original = setImport(slot, row().stand);
    }
    std::string troubleInThumbnail(int64_t number, bool& reached);
    std::string troubleInRegistration(int64_t number, bool& reached);

    const std::filesystem::path m_handler, m_logs, m_settings;
    size_t m_row = 0;
    std::unique_ptr<Scenario> m_scenario;
};

/// Loaded anew for it.
std::string Road::troubleInThumbnail(int64_t number, bool& reached) {
    const std::string settings = readFileBytes(m_settings);
    if (std::string_view(row().name) == "_wmkdir")
        std::filesystem::remove_all(m_logs);
    g_mayAsk = false;
    taken().isQuiet = std::ranges::find(quietOnes, row().name) != std::end(quietOnes);
    const DWORD errorMode = GetThreadErrorMode();
    m_scenario->onStart = [&] { taken().arm(number); };
    m_scenario->onEnd = [&] {
        reached = taken().failures > 0;
        taken().arm(0);
    };
    const ScenarioOutcome outcome = m_scenario->run();
    m_scenario->onStart = m_scenario->onEnd = [] {};
    std::string trouble =
        m_scenario->troubleAfter(outcome, reached ? Expected::rightIfAny : Expected::picture);
    const HRESULT result = outcome.result();
    if (trouble.empty() && result != S_OK && result != row().results[0] && result != row().results[1])
        trouble = "gave " + resultText(result);
    if (trouble.empty() && g_mayAsk)
        trouble = "Windows might have asked the user";
    if (trouble.empty() && GetThreadErrorMode() != errorMode)
        trouble = "the thread's error mode was changed";
    if (trouble.empty() && readFileBytes(m_settings) != settings)
        trouble = "the settings file was changed";
    return m_scenario->orTroubleInNextRun(trouble);
}

/// The first failure ends the registration, with that row's code; what was written before stays.
std::string Road::troubleInRegistration(int64_t number, bool& reached) {
    const char* const work = row().work == Work::removal ? "DllUnregisterServer" : "DllRegisterServer";
    HandlerLibrary library;
    if (library.load(m_handler) != S_OK)
        return "cannot be loaded";
    tap(library.module());
    taken().arm(number);
    const HRESULT result = library.call(work);
    reached = taken().failures > 0;
    const bool wentOn = taken().callsAfter > 0;
    taken().arm(0);
    if (result != (reached ? row().results[0] : S_OK))
        return "gave " + resultText(result);
    if (wentOn)
        return "went on after the failure";
    return library.call(work) == S_OK ? "" : "fails without the fault too";
}

bool Road::tryRow(size_t index, int64_t step, ProofTally& tally) {
    constexpr int64_t endless = 2000;
    m_row = index;
    bool everReached = false, reached = true;
    for (int64_t number = 1; reached && number < endless; number += step)
        tally.attempt(m_scenario->name() + ", " + row().name + " fails at call " + std::to_string(number),
                      [&] {
                          reached = false;
                          const std::string trouble = row().work == Work::thumbnail
                                                          ? troubleInThumbnail(number, reached)
                                                          : troubleInRegistration(number, reached);
                          everReached = everReached || reached;
                          return trouble;
                      });
    return everReached;
}

void run(ProofForm form, ProofTally& tally) {
    const RegistrationKeeper keeper;
    const TemporaryFolder home;
    const EnvironmentVariable profile(L"USERPROFILE", home.path().c_str());
    const std::filesystem::path product = home.path() / "AppData" / "Roaming" / "Verdane" / "Clipforge";
    std::filesystem::create_directories(product);
    writeFileBytes(product / "Clipforge_options.ini", "[General]\nlogging = INFO\n");
    bool reached[std::size(rows)] = {};
    for (const char* folder : {"bin", "logging"}) {
        Road road(folder, product);
        tally.attempt(std::string(folder) + ", no fault", [&] { return road.troubleInGoodRun(); });
        for (size_t row = 0; row < std::size(rows); ++row)
            reached[row] |= road.tryRow(row, form == ProofForm::full ? 1 : 11, tally);
    }
    for (size_t row = 0; row < std::size(rows); ++row)
        if (!reached[row])
            tally.count(rows[row].name, "is never called, so its failure was not tried");
}

PROOF_CHECK("windows", "each call to Windows that can fail does, once", run);

} // namespace
