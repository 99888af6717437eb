// What may lie where the decoder library is looked for. The handler answers each with one code, and the next
// good library gives a picture again.
#include <array>
#include <cstddef>
#include <cstring>
#include <filesystem>
#include <optional>
#include <string>

#include "Proof.h"
#include "Scenario.h"

namespace fs = std::filesystem;

namespace {

constexpr char entryPoint[] = "CreateBlackmagicRawFactoryInstance";

/// The good library's bytes, with places in them that can be overwritten.
class LibraryImage {
public:
    explicit LibraryImage(std::string bytes) : m_bytes(std::move(bytes)) {
        std::memcpy(&m_headers, m_bytes.data() + offsetof(IMAGE_DOS_HEADER, e_lfanew), sizeof(LONG));
    }
    const std::string& bytes() const { return m_bytes; }
    std::string cut(size_t length) const { return m_bytes.substr(0, length); }

    template <class Value>
    LibraryImage patched(size_t offset, const Value& value) const {
        std::string bytes = m_bytes;
        std::memcpy(bytes.data() + offset, &value, sizeof value);
        return LibraryImage(std::move(bytes));
    }
    LibraryImage withMachine(uint16_t machine) const {
        return patched(m_headers + offsetof(IMAGE_NT_HEADERS64, FileHeader.Machine), machine);
    }
    /// Read as a 32-bit header, the directories lie two places further: the import addresses would count as
    /// the header of managed code, by whose flags Wine relocates the image and crashes. So there is none.
    LibraryImage with32BitHeader() const {
        constexpr size_t managed = offsetof(IMAGE_NT_HEADERS32, OptionalHeader.DataDirectory) +
                                   IMAGE_DIRECTORY_ENTRY_COM_DESCRIPTOR * sizeof(IMAGE_DATA_DIRECTORY);
        const uint16_t magic = IMAGE_NT_OPTIONAL_HDR32_MAGIC;
        return patched(m_headers + offsetof(IMAGE_NT_HEADERS64, OptionalHeader.Magic), magic)
            .patched(m_headers + managed, IMAGE_DATA_DIRECTORY{});
    }
    std::string withoutEntryPoint() const {
        std::string bytes = m_bytes;
        for (size_t at = 0; (at = bytes.find(entryPoint, at)) != std::string::npos;)
            bytes[at] = 'X';
        return bytes;
    }
    /// With a function at this address that does nothing and gives 0; at the entry point's by default.
    std::string returningZeroAt(uint32_t address = 0) const {
        constexpr std::array<uint8_t, 3> xorEaxEaxRet = {0x31, 0xC0, 0xC3};
        IMAGE_NT_HEADERS64 headers;
        std::memcpy(&headers, m_bytes.data() + m_headers, sizeof headers);
        if (address == 0)
            address = headers.OptionalHeader.AddressOfEntryPoint;
        const char* next = m_bytes.data() + m_headers + sizeof headers;
        for (IMAGE_SECTION_HEADER section;; next += sizeof section) {
            std::memcpy(&section, next, sizeof section);
            if (address - section.VirtualAddress < section.SizeOfRawData)
                return patched(section.PointerToRawData + (address - section.VirtualAddress), xorEaxEaxRet)
                    .bytes();
        }
    }

private:
    std::string m_bytes;
    uint32_t m_headers = 0; ///< where they begin
};

class LibraryFiles {
public:
    explicit LibraryFiles(ProofTally& tally) : m_tally(tally) {
        fs::copy_file(builtFile("bin"), m_folder.path() / "Clipforge_Thumbnails.dll");
        m_handler.load((m_folder.path() / "Clipforge_Thumbnails.dll").make_preferred());
    }

    const std::string& good() const { return m_good; }
    /// The address of a good library's export, within the library.
    uint32_t addressOf(const char* name) const {
        HandlerLibrary library;
        library.load(builtFile("bin", L"BlackmagicRawAPI.dll"));
        return static_cast<uint32_t>(exportOf<uintptr_t>(library.module(), name) -
                                     reinterpret_cast<uintptr_t>(library.module()));
    }
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
    const LibraryImage image(files.good());
    files.tryGood("a good one");

    const LibraryImage x86 = image.withMachine(IMAGE_FILE_MACHINE_I386);
    const struct {
        const char* what;
        std::optional<std::string> bytes;
    } cases[] = {
        {"missing", std::nullopt},
        {"empty", ""},
        {"a text", "This is not a library."},
        {"for ARM64", image.withMachine(IMAGE_FILE_MACHINE_ARM64).bytes()},
        {"for x86", x86.bytes()},
        {"for x86, with a 32-bit header", x86.with32BitHeader().bytes()},
        {"for no processor", image.withMachine(0).bytes()},
        {"without the entry point", image.withoutEntryPoint()},
        {"entry point giving null", image.returningZeroAt(files.addressOf(entryPoint))},
        {"refusing to be loaded", image.returningZeroAt()},
        {"one byte short", image.cut(files.good().size() - 1)},
        {"one byte long", files.good() + '\0'},
    };
    for (const auto& [what, bytes] : cases)
        files.tryBytes(what, bytes);
    files.tryFolder();

    const size_t cuts = form == ProofForm::full ? 100 : 12;
    for (size_t i = 0; i < cuts; ++i) {
        // Half of them within the headers and the first code, the other half anywhere.
        const size_t bytes = i % 2 != 0 ? files.good().size() * i / cuts : 1 + 4096 * i / cuts;
        files.tryBytes("cut after " + std::to_string(bytes) + " bytes", image.cut(bytes));
    }
    for (int i = 0; i < 3; ++i) // one good library after the other
        files.tryGood("replaced by a good one");
}

PROOF_CHECK("library files", "decoder library files of every wrong kind", tryLibraryFiles);

} // namespace
