// What may lie where the decoder library is looked for. The handler answers each with one code, and the next
// good library gives a picture again.
#include <filesystem>
#include <optional>
#include <string>

#include "Proof.h"
#include "Scenario.h"

namespace fs = std::filesystem;

namespace {

class LibraryFiles {
public:
    explicit LibraryFiles(ProofTally& tally) : m_tally(tally) {
        fs::copy_file(builtFile("bin"), m_folder.path() / "Clipforge_Thumbnails.dll");
        m_handler.load((m_folder.path() / "Clipforge_Thumbnails.dll").make_preferred());
    }

    const std::string& good() const { return m_good; }
    /// Twice, since the first failure must not spoil the next attempt; and the good one after them.
    void tryBytes(const std::string& what, const std::optional<std::string>& bytes) {
        put(bytes);
        tryWhatIsThere(what);
    }
    void tryFolder() {
        put(std::nullopt);
        fs::create_directory(m_library);
        tryWhatIsThere("a folder of that name");
    }
    void tryGood(const std::string& what) {
        put(m_good);
        ask(what, S_OK);
    }

private:
    void tryWhatIsThere(const std::string& what) {
        ask(what, E_UNEXPECTED);
        ask(what + ", again", E_UNEXPECTED);
        tryGood("a good one after: " + what);
    }
    void put(const std::optional<std::string>& bytes) {
        fs::remove(m_library);
        if (bytes)
            writeFileBytes(m_library, *bytes);
    }
    void ask(const std::string& what, HRESULT expected) {
        KnownQuestion question = m_questions.good();
        if (expected != S_OK)
            question = {question.clip, question.size, expected, {}};
        m_tally.attempt(what, [&] {
            const std::string trouble = question.trouble(&m_handler);
            return trouble.empty() ? m_leftovers.trouble() : trouble;
        });
    }

    ProofTally& m_tally;
    TemporaryFolder m_folder;
    const fs::path m_library = (m_folder.path() / "BlackmagicRawAPI.dll").make_preferred();
    const std::string m_good = readFileBytes(builtFile("bin", L"BlackmagicRawAPI.dll"));
    KnownQuestions m_questions;
    Leftovers m_leftovers;
    HandlerLibrary m_handler;
};

void tryLibraryFiles(ProofForm form, ProofTally& tally) {
    LibraryFiles files(tally);
    const std::string& good = files.good();
    files.tryGood("a good one");

    std::string x86 = good, nameless = good;
    x86.replace(static_cast<uint8_t>(good[0x3C]) + size_t{4}, 2, "\x4C\x01"); // the header's machine
    for (size_t at = 0; (at = nameless.find("CreateBlackmagicRawFactoryInstance", at)) != nameless.npos;)
        nameless[at] = 'X';
    const struct {
        const char* what;
        std::optional<std::string> bytes;
    } cases[] = {
        {"missing", std::nullopt},
        {"empty", ""},
        {"a text", "This is not a library."},
        {"for x86", x86},
        {"without the entry point", nameless},
        {"one byte short", good.substr(0, good.size() - 1)},
        {"one byte long", good + '\0'},
    };
    for (const auto& [what, bytes] : cases)
        files.tryBytes(what, bytes);
    files.tryFolder();

    const size_t cuts = form == ProofForm::full ? 100 : 12;
    for (size_t i = 0; i < cuts; ++i) {
        // Half of them within the headers and the first code, the other half anywhere.
        const size_t bytes = i % 2 != 0 ? good.size() * i / cuts : 1 + 4096 * i / cuts;
        files.tryBytes("cut after " + std::to_string(bytes) + " bytes", good.substr(0, bytes));
    }
}

PROOF_CHECK("library files", "decoder library files of every wrong kind", tryLibraryFiles);

} // namespace
