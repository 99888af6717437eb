// Everything at once: thumbnails from many apartments, and the library itself that comes and goes.
#include <mutex>
#include <random>

#include "Proof.h"
#include "Scenario.h"

namespace fs = std::filesystem;

namespace {

constexpr uint32_t threadCount = 16;
constexpr uint32_t seed = 20'200'517;

/// What the threads share.
class Work {
public:
    explicit Work(ProofTally& tally) : m_tally(tally) {
        for (const wchar_t* name : {L"BlackmagicRawAPI.dll", L"Clipforge_Thumbnails.dll"})
            fs::copy_file(builtFile("bin", name), m_folder.path() / name);
    }
    void run(uint32_t rounds) {
        ReferenceDecoderSession decoder;
        decoder.reset();
        runThreads(2); // apartments have GDI objects of their own, of which the system keeps some
        const uint32_t gdiObjects = countGdiObjects();
        runThreads(rounds);

        const ReferenceDecoderAccount account = decoder.account();
        // Two handlers had a decoder library each, and both write into one account: what it says of the
        // moments at which one of them went is of no use.
        const bool isSound = account.overReleases + account.usesAfterRelease + account.resourceFaults +
                                 account.callbackThrows + account.badArguments ==
                             0;
        count("the account", account.isBalanced() && isSound ? "" : account.describe());
        count("the decoder library", isDecoderUnloaded() ? "" : "is still loaded");
        count("GDI objects", countGdiObjects() <= gdiObjects + threadCount ? "" : "grow");
        count("the handler at the end", GetModuleHandleW(m_path.c_str()) == nullptr ? "" : "is still loaded");
    }

private:
    using Random = std::mt19937;
    void count(const std::string& what, const std::string& trouble) {
        const std::lock_guard lock(m_tallyMutex);
        m_tally.count(what, trouble);
    }
    void ask(const char* what, Random& random, const HandlerLibrary* library) {
        count(what, m_questions.all()[random() % m_questions.all().size()].trouble(library));
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
        const fs::path own = (m_folder.path() / "Clipforge_Thumbnails.dll").make_preferred();
        for (uint32_t i = 0; i < m_rounds; ++i) {
            HandlerLibrary library;
            library.load(own);
            ask("a thumbnail of a handler that comes and goes", random, &library);
            const bool isGone = library.unload() == S_OK && GetModuleHandleW(own.c_str()) == nullptr;
            count("unloading", isGone ? "" : "the handler stays");
        }
    }

    void runThreads(uint32_t rounds) {
        m_rounds = rounds;
        std::vector<std::jthread> threads;
        for (uint32_t i = 0; i < threadCount; ++i)
            threads.emplace_back([this, i] {
                Random random(seed + i);
                CoInitializeEx(nullptr, i % 2 == 0 ? COINIT_APARTMENTTHREADED : COINIT_MULTITHREADED);
                i == 0 ? comeAndGo(random) : askMuch(random);
                CoUninitialize();
            });
    }

    ProofTally& m_tally;
    std::mutex m_tallyMutex;
    uint32_t m_rounds = 0;
    const KnownQuestions m_questions;
    const std::wstring m_path = builtFile("bin");
    TemporaryFolder m_folder;
};

void tryThreads(ProofForm form, ProofTally& tally) {
    Work(tally).run(form == ProofForm::full ? 500 : 25);
}

PROOF_CHECK("threads", "16 threads: thumbnails, loading and unloading", tryThreads);

} // namespace
