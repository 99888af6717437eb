// Everything at once: thumbnails from many apartments, factories that come and go, and the library itself
// too.
#include <atomic>
#include <cstdio>
#include <filesystem>
#include <mutex>
#include <random>
#include <string>
#include <thread>
#include <utility>
#include <vector>

#include "GdiObjects.h"
#include "KnownQuestions.h"
#include "Proof.h"
#include "Scenario.h"

using Microsoft::WRL::ComPtr;
namespace fs = std::filesystem;

namespace {

constexpr uint32_t threadCount = 16;
constexpr uint32_t seed = 20'200'517;

/// Ends the program when the work takes so long that nothing but a deadlock explains it.
class Watchdog {
public:
    explicit Watchdog(DWORD milliseconds)
        : m_done(CreateEventW(nullptr, TRUE, FALSE, nullptr)), m_thread([this, milliseconds] {
              if (WaitForSingleObject(m_done, milliseconds) == WAIT_OBJECT_0)
                  return;
              std::printf("  LOST  the threads have come to a standstill\n");
              std::fflush(stdout);
              TerminateProcess(GetCurrentProcess(), 1);
          }) {}
    ~Watchdog() {
        SetEvent(m_done);
        m_thread.join();
        CloseHandle(m_done);
    }
    Watchdog(const Watchdog&) = delete;
    Watchdog& operator=(const Watchdog&) = delete;

private:
    HANDLE m_done;
    std::thread m_thread;
};

/// What the threads share.
class Work {
public:
    explicit Work(ProofTally& tally) : m_tally(tally) {
        for (const fs::path& folder : {m_registered.parent_path(), m_unshared.parent_path()}) {
            fs::create_directory(folder);
            for (const wchar_t* name : {L"BlackmagicRawAPI.dll", L"Clipforge_Thumbnails.dll"})
                fs::copy_file(builtFile("bin", name), folder / name);
        }
    }

    void run(uint32_t rounds);

private:
    using Random = std::mt19937;
    fs::path copyIn(const char* folder) const {
        return (m_folder.path() / folder / "Clipforge_Thumbnails.dll").make_preferred();
    }
    const KnownQuestion& anyQuestion(Random& random) const {
        return m_questions.all()[random() % m_questions.all().size()];
    }
    void count(const std::string& what, const std::string& trouble) {
        const std::lock_guard lock(m_tallyMutex);
        m_tally.count(what, trouble);
    }
    void ask(const char* what, Random& random, const HandlerLibrary* library) {
        const KnownQuestion& question = anyQuestion(random);
        count(what, troubleInAnswer(question, library));
    }

    void runThreads(uint32_t rounds);
    void askMuch(Random& random);
    void playWithFactories(Random& random);
    void comeAndGo(Random& random);
    void askRegistered(Random& random);

    ProofTally& m_tally;
    std::mutex m_tallyMutex;
    uint32_t m_rounds = 0;
    std::atomic<uint32_t> m_unloads{0};
    const KnownQuestions m_questions;
    const std::wstring m_path = builtFile("bin", L"Clipforge_Thumbnails.dll").make_preferred().wstring();
    TemporaryFolder m_folder;
    /// Handlers with decoder libraries of their own: the one that COM knows, and one with a single user.
    const fs::path m_registered = copyIn("registered"), m_unshared = copyIn("unshared");
};

void Work::askMuch(Random& random) {
    HandlerLibrary library;
    bool isLoaded = false;
    for (uint32_t i = 0; i < m_rounds; ++i) {
        if (!std::exchange(isLoaded, true))
            library.load(m_path);
        ask("a thumbnail", random, &library);
        if (i % 8 == 7)
            isLoaded = library.unload() != S_OK; // it is in use, mostly
    }
    while (library.unload() != S_OK)
        Sleep(1);
}

void Work::playWithFactories(Random& random) {
    const HMODULE module = LoadLibraryExW(m_path.c_str(), nullptr, LOAD_WITH_ALTERED_SEARCH_PATH);
    const auto getClassObject = reinterpret_cast<decltype(&DllGetClassObject)>(
        reinterpret_cast<void*>(GetProcAddress(module, "DllGetClassObject")));
    const auto canUnloadNow = reinterpret_cast<decltype(&DllCanUnloadNow)>(
        reinterpret_cast<void*>(GetProcAddress(module, "DllCanUnloadNow")));
    for (uint32_t i = 0; i < 20 * m_rounds; ++i) {
        std::string trouble;
        const auto expect = [&trouble](HRESULT expected, HRESULT given) {
            if (given != expected && trouble.empty())
                trouble = resultText(given) + " instead of " + resultText(expected);
        };
        ComPtr<IClassFactory> factory;
        ComPtr<IInitializeWithFile> file;
        ComPtr<IThumbnailProvider> provider;
        ComPtr<IDispatch> nothing;
        expect(CLASS_E_CLASSNOTAVAILABLE, getClassObject(IID_IClassFactory, IID_PPV_ARGS(&factory)));
        expect(E_NOINTERFACE, getClassObject(CLSID_ClipforgeThumbnails, IID_PPV_ARGS(&nothing)));
        expect(S_OK, getClassObject(CLSID_ClipforgeThumbnails, IID_PPV_ARGS(&factory)));
        if (factory != nullptr) {
            expect(S_OK, factory->LockServer(TRUE));
            expect(E_NOINTERFACE, factory->CreateInstance(nullptr, IID_PPV_ARGS(&nothing)));
            expect(CLASS_E_NOAGGREGATION, factory->CreateInstance(factory.Get(), IID_PPV_ARGS(&file)));
            expect(S_OK, factory->CreateInstance(nullptr, IID_PPV_ARGS(&file)));
            expect(S_OK, file.As(&provider));
            if (random() % 2 != 0)
                expect(S_OK, file->Initialize(anyQuestion(random).clip.c_str(), STGM_READ));
            expect(S_FALSE, canUnloadNow());
            expect(S_OK, factory->LockServer(FALSE));
        }
        factory.Reset();
        expect(S_FALSE, canUnloadNow()); // the object is still there
        count("a factory", trouble);
    }
    FreeLibrary(module);
}

/// Loads the handler, asks, and unloads it: the only user of its copy, so that it truly goes each time.
void Work::comeAndGo(Random& random) {
    for (uint32_t i = 0; i < m_rounds; ++i) {
        HandlerLibrary library;
        library.load(m_unshared.wstring());
        ask("a thumbnail of a handler that comes and goes", random, &library);
        const bool isGone = library.unload() == S_OK && GetModuleHandleW(m_unshared.c_str()) == nullptr;
        count("unloading", isGone ? "" : "the handler stays");
    }
}

/// By COM's rules: the class out of the registry, and now and then COM asks the library whether it can go.
void Work::askRegistered(Random& random) {
    for (uint32_t i = 0; i < m_rounds; ++i) {
        ask("a thumbnail of the registered handler", random, nullptr);
        CoFreeUnusedLibrariesEx(0, 0);
        if (GetModuleHandleW(m_registered.c_str()) == nullptr)
            ++m_unloads;
    }
}

void Work::runThreads(uint32_t rounds) {
    // The class belongs in single-threaded apartments, where COM lets a library go as soon as it can.
    using Role = void (Work::*)(Random&);
    static constexpr Role special[] = {&Work::askRegistered, &Work::comeAndGo, &Work::playWithFactories,
                                       &Work::playWithFactories};
    m_rounds = rounds;
    std::vector<std::thread> threads;
    for (uint32_t i = 0; i < threadCount; ++i)
        threads.emplace_back([this, i] {
            Random random(seed + i);
            CoInitializeEx(nullptr, i % 2 == 0 ? COINIT_APARTMENTTHREADED : COINIT_MULTITHREADED);
            const Role role = i < std::size(special) ? special[i] : &Work::askMuch;
            (this->*role)(random);
            CoUninitialize();
        });
    for (std::thread& thread : threads)
        thread.join();
}

void Work::run(uint32_t rounds) {
    const Watchdog watchdog(rounds > 100 ? 300'000 : 60'000);
    const RegistrationKeeper keeper;
    count("registering", callExport(m_registered.wstring(), "DllRegisterServer") == S_OK ? "" : "failed");
    ReferenceDecoderSession decoder;
    decoder.reset();
    runThreads(2); // apartments have GDI objects of their own, of which the system keeps some
    const uint32_t gdiObjects = countGdiObjects();
    runThreads(rounds);

    const ReferenceDecoderAccount account = decoder.account();
    // Three handlers had a decoder library each, and all write into one account: what it says of the moments
    // at which one of them went is of no use.
    const bool isSound = account.overReleases + account.usesAfterRelease + account.resourceFaults +
                             account.callbackThrows + account.badArguments ==
                         0;
    count("the account", account.isBalanced() && isSound ? "" : account.describe());
    count("the decoder library", isDecoderUnloaded() ? "" : "is still loaded");
    const uint32_t gdiObjectsNow = countGdiObjects();
    count("GDI objects", gdiObjectsNow <= gdiObjects + threadCount
                             ? ""
                             : std::to_string(gdiObjectsNow - gdiObjects) + " more");
    for (const fs::path& path : {fs::path(m_path), m_registered})
        count("the handler at the end", GetModuleHandleW(path.c_str()) == nullptr ? "" : "is still loaded");
    count("COM's holds", m_unloads > 0 ? "" : "the registered handler was never unloaded");
    count("unregistering", callExport(m_registered.wstring(), "DllUnregisterServer") == S_OK ? "" : "failed");
}

void tryThreads(ProofForm form, ProofTally& tally) {
    Work(tally).run(form == ProofForm::full ? 500 : 25);
}

PROOF_CHECK("threads", "16 threads: thumbnails, factories, loading and unloading", tryThreads);

} // namespace
