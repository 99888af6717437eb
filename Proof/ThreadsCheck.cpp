// Everything at once: thumbnails from many apartments, and the library itself that comes and goes.
#include <atomic>
#include <filesystem>
#include <mutex>
#include <random>
#include <string>
#include <thread>
#include <utility>
#include <vector>

#include "Proof.h"
#include "Scenario.h"

namespace fs = std::filesystem;

namespace {

constexpr uint32_t threadCount = 16;
constexpr uint32_t seed = 20'200'517;

/// What the threads share.
class Work {
public:
    explicit Work(ProofTally& tally) : m_tally(tally) {}
    void run(uint32_t rounds) {
        const RegistrationKeeper keeper;
        count("registering",
              RegistrationKeeper::call(m_registered, "DllRegisterServer") == S_OK ? "" : "failed");
        ReferenceDecoderSession decoder;
        decoder.reset();
        runThreads(2); // apartments have GDI objects of their own, of which the system keeps some
        const uint32_t gdiObjects = countGdiObjects();
        runThreads(rounds);

        const ReferenceDecoderAccount account = decoder.account();
        // Three handlers had a decoder library each, and all write into one account: what it says of the
        // moments at which one of them went is of no use.
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
            count("the handler at the end",
                  GetModuleHandleW(path.c_str()) == nullptr ? "" : "is still loaded");
        count("COM's holds", m_unloads > 0 ? "" : "the registered handler was never unloaded");
        count("unregistering",
              RegistrationKeeper::call(m_registered, "DllUnregisterServer") == S_OK ? "" : "failed");
    }

private:
    using Random = std::mt19937;
    fs::path copyIn(const char* folder) const {
        const fs::path to = m_folder.path() / folder;
        fs::create_directory(to);
        for (const wchar_t* name : {L"BlackmagicRawAPI.dll", L"Clipforge_Thumbnails.dll"})
            fs::copy_file(builtFile("bin", name), to / name);
        return (to / "Clipforge_Thumbnails.dll").make_preferred();
    }
    const KnownQuestion& anyQuestion(Random& random) const {
        return m_questions.all()[random() % m_questions.all().size()];
    }
    void count(const std::string& what, const std::string& trouble) {
        const std::lock_guard lock(m_tallyMutex);
        m_tally.count(what, trouble);
    }
    void ask(const char* what, Random& random, const HandlerLibrary* library) {
        count(what, anyQuestion(random).trouble(library));
    }

    void askMuch(Random& random) {
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

    /// Loads the handler, asks, and unloads it: the only user of its copy, so that it truly goes each time.
    void comeAndGo(Random& random) {
        for (uint32_t i = 0; i < m_rounds; ++i) {
            HandlerLibrary library;
            library.load(m_unshared);
            ask("a thumbnail of a handler that comes and goes", random, &library);
            const bool isGone = library.unload() == S_OK && GetModuleHandleW(m_unshared.c_str()) == nullptr;
            count("unloading", isGone ? "" : "the handler stays");
        }
    }

    /// By COM's rules: the class out of the registry, and now and then COM asks the library whether it can
    /// go.
    void askRegistered(Random& random) {
        for (uint32_t i = 0; i < m_rounds; ++i) {
            ask("a thumbnail of the registered handler", random, nullptr);
            CoFreeUnusedLibrariesEx(0, 0);
            if (GetModuleHandleW(m_registered.c_str()) == nullptr)
                ++m_unloads;
        }
    }

    void runThreads(uint32_t rounds) {
        // The class belongs in single-threaded apartments, where COM lets a library go as soon as it can.
        using Role = void (Work::*)(Random&);
        static constexpr Role special[] = {&Work::askRegistered, &Work::comeAndGo};
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

    ProofTally& m_tally;
    std::mutex m_tallyMutex;
    uint32_t m_rounds = 0;
    std::atomic<uint32_t> m_unloads{0};
    const KnownQuestions m_questions;
    const std::wstring m_path = builtFile("bin");
    TemporaryFolder m_folder;
    /// Handlers with decoder libraries of their own: the one that COM knows, and one with a single user.
    const fs::path m_registered = copyIn("registered"), m_unshared = copyIn("unshared");
};

void tryThreads(ProofForm form, ProofTally& tally) {
    Work(tally).run(form == ProofForm::full ? 500 : 25);
}

PROOF_CHECK("threads", "16 threads: thumbnails, loading and unloading", tryThreads);

} // namespace
