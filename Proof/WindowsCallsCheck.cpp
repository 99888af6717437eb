// Each call to Windows that can fail does so once, in the handler library's own imports. Those that open or
// load something find a thread on which Windows asks the user nothing.
#include <cerrno>

#include <io.h>
#include <sys/stat.h>

#include "EnvironmentVariable.h"
#include "Imports.h"
#include "Proof.h"
#include "Scenario.h"

#include <shlwapi.h>

namespace {

/// What stands between the library and the one of its imports that is tried.
struct Tap {
    void* original = nullptr;
    std::atomic<int64_t> countdown{0}; ///< the call that brings it to 0 fails
    std::atomic<bool> hasFailed{false};
    std::atomic<bool> mayAsk{false}; ///< was called where Windows might show a dialog
} g_tap;

/// How a function says that it failed.
struct Failure {
    int64_t result;
    DWORD lastError = ERROR_NOT_ENOUGH_MEMORY;
    int error = ENOMEM;
};
constexpr Failure giveZero{0}, giveInvalidHandle{-1}, giveMinusOne{-1}, giveWaitFailed{WAIT_FAILED},
    giveNoMemory{E_OUTOFMEMORY};

template <const Failure& failure, class Result, class... Arguments>
Result failingNow(Arguments... arguments) {
    if ((GetThreadErrorMode() & SEM_FAILCRITICALERRORS) == 0)
        g_tap.mayAsk = true;
    if (g_tap.countdown <= 0 || --g_tap.countdown != 0)
        return reinterpret_cast<Result (*)(Arguments...)>(g_tap.original)(arguments...);
    g_tap.hasFailed = true;
    SetLastError(failure.lastError);
    errno = failure.error;
    return (Result)(static_cast<intptr_t>(failure.result)); // a number or a pointer
}

struct Row {
    const char* name;
    void* stand;
    HRESULT results[2]; ///< what the thumbnail may give; a right picture is always welcome
};

template <const Failure& failure, class Result, class... Arguments>
Row row(const char* name, Result (*)(Arguments...), HRESULT result = S_OK, HRESULT other = S_OK) {
    return {name, reinterpret_cast<void*>(&failingNow<failure, Result, Arguments...>), {result, other}};
}

const Row rows[] = {
    row<giveZero>("CreateDIBSection", &CreateDIBSection, E_FAIL),
    row<giveZero>("LoadLibraryExW", &LoadLibraryExW, E_UNEXPECTED),
    row<giveZero>("GetProcAddress", &GetProcAddress, E_UNEXPECTED),
    row<giveWaitFailed>("WaitForSingleObject", &WaitForSingleObject, E_UNEXPECTED),
    row<giveZero>("SysAllocStringLen", &SysAllocStringLen, E_UNEXPECTED, E_FAIL),
    row<giveInvalidHandle>("CreateActCtxW", &CreateActCtxW),
    row<giveZero>("ActivateActCtx", &ActivateActCtx),
    row<giveZero>("GetModuleFileNameW", &GetModuleFileNameW, E_UNEXPECTED),
    row<giveZero>("MultiByteToWideChar", &MultiByteToWideChar, E_UNEXPECTED, E_FAIL),
    row<giveZero>("WideCharToMultiByte", &WideCharToMultiByte, E_UNEXPECTED, E_FAIL),
    row<giveMinusOne>("_wstat64", &_wstat64, E_UNEXPECTED),
    row<giveInvalidHandle>("CreateFileW", &CreateFileW),
    row<giveNoMemory>("QISearch", &QISearch, E_OUTOFMEMORY),
    row<giveZero>("GetModuleHandleW", &GetModuleHandleW),
    row<giveZero>("_wfopen", &_wfopen),
    row<giveMinusOne>("_wmkdir", &_wmkdir),
    row<giveMinusOne>("_wremove", &_wremove),
    row<giveMinusOne>("_wrename", &_wrename),
    row<giveZero>("GetEnvironmentVariableW", &GetEnvironmentVariableW),
};

/// Whose failure Windows may want to talk about.
constexpr std::string_view quietOnes[] = {"CreateFileW", "LoadLibraryExW", "_wfopen",  "_wmkdir",
                                          "_wremove",    "_wrename",       "_wstat64", "CreateDIBSection"};

/// The handler of one folder of the build, loaded anew for each thumbnail with one import tapped.
class Road {
public:
    Road(const char* folder, const std::filesystem::path& product)
        : m_logs(product / "Logs"), m_settings(product / "Clipforge_options.ini"),
          m_scenario(makeThumbnailScenario({.handler = builtFile(folder),
                                            .unloadEachRun = true,
                                            .onLoad = [this](HMODULE module) { tap(module); }})) {}

    std::string troubleInGoodRun() { return m_scenario->troubleInGoodRun(); }
    /// Has each call of the row's function fail in a run of its own. Gives whether it was ever called.
    bool tryRow(const Row& row, int64_t step, ProofTally& tally) {
        constexpr int64_t endless = 2000;
        m_row = &row;
        bool everReached = false, reached = true;
        for (int64_t number = 1; reached && number < endless; number += step) {
            tally.attempt(m_scenario->name() + ", " + row.name + " fails at call " + std::to_string(number),
                          [&] { return troubleAtCall(number, reached); });
            everReached = everReached || reached;
        }
        return everReached;
    }

private:
    void tap(HMODULE module) const {
        if (void** const slot = importSlot(module, m_row->name))
            g_tap.original = setImport(slot, m_row->stand);
    }
    std::string troubleAtCall(int64_t number, bool& reached);

    const std::filesystem::path m_logs, m_settings;
    const Row* m_row = rows;
    std::unique_ptr<Scenario> m_scenario;
};

std::string Road::troubleAtCall(int64_t number, bool& reached) {
    const std::string settings = readFileBytes(m_settings);
    if (std::string_view(m_row->name) == "_wmkdir")
        std::filesystem::remove_all(m_logs);
    const DWORD errorMode = GetThreadErrorMode();
    g_tap.hasFailed = g_tap.mayAsk = false;
    m_scenario->onStart = [&] { g_tap.countdown = number; };
    m_scenario->onEnd = [] { g_tap.countdown = 0; };
    const ScenarioOutcome outcome = m_scenario->run();
    m_scenario->onStart = m_scenario->onEnd = [] {};
    reached = g_tap.hasFailed;
    const bool mustBeQuiet = std::ranges::find(quietOnes, m_row->name) != std::end(quietOnes);
    std::string trouble =
        m_scenario->troubleAfter(outcome, reached ? Expected::rightIfAny : Expected::picture);
    const HRESULT result = outcome.result;
    if (trouble.empty() && result != S_OK && std::ranges::find(m_row->results, result) == m_row->results + 2)
        trouble = "gave " + resultText(result);
    if (trouble.empty() && mustBeQuiet && g_tap.mayAsk)
        trouble = "Windows might have asked the user";
    if (trouble.empty() && GetThreadErrorMode() != errorMode)
        trouble = "the thread's error mode was changed";
    if (trouble.empty() && readFileBytes(m_settings) != settings)
        trouble = "the settings file was changed";
    return m_scenario->orTroubleInNextRun(trouble);
}

void run(ProofForm form, ProofTally& tally) {
    const TemporaryFolder home;
    const EnvironmentVariable profile(L"USERPROFILE", home.path().c_str());
    const std::filesystem::path product = home.path() / "AppData/Roaming/Verdane/Clipforge";
    std::filesystem::create_directories(product);
    writeFileBytes(product / "Clipforge_options.ini", "[General]\nlogging = INFO\n");
    bool reached[std::size(rows)] = {};
    for (const char* folder : {"bin", "logging"}) {
        Road road(folder, product);
        tally.attempt(std::string(folder) + ", no fault", [&] { return road.troubleInGoodRun(); });
        for (size_t i = 0; i < std::size(rows); ++i)
            reached[i] |= road.tryRow(rows[i], form == ProofForm::full ? 1 : 11, tally);
    }
    for (size_t i = 0; i < std::size(rows); ++i)
        if (!reached[i])
            tally.count(rows[i].name, "is never called, so its failure was not tried");
}

PROOF_CHECK("windows", "each call to Windows that can fail does, once", run);

} // namespace
