// What may lie where the decoder library is looked for. The handler answers each with one code, and the next
// good library gives a picture again.
#include <array>
#include <cstddef>
#include <cstring>
#include <filesystem>
#include <optional>
#include <string>

#include "KnownQuestions.h"
#include "Proof.h"
#include "Scenario.h"

namespace fs = std::filesystem;

namespace {

constexpr char entryPoint[] = "CreateBlackmagicRawFactoryInstance";

/// The good library's bytes, with places in them that can be overwritten.
class LibraryImage {
public:
    explicit LibraryImage(std::string bytes) : m_bytes(std::move(bytes)) {}
    const std::string& bytes() const { return m_bytes; }

    std::string withMachine(uint16_t machine) const {
        return patched(headers() + offsetof(IMAGE_NT_HEADERS64, FileHeader.Machine), machine);
    }
    std::string withMagic(std::string bytes, uint16_t magic) const {
        return LibraryImage(std::move(bytes))
            .patched(headers() + offsetof(IMAGE_NT_HEADERS64, OptionalHeader.Magic), magic);
    }
    std::string withoutEntryPoint() const {
        std::string bytes = m_bytes;
        for (size_t at = 0; (at = bytes.find(entryPoint, at)) != std::string::npos;)
            bytes[at] = 'X';
        return bytes;
    }
    /// With a function at this address that does nothing and gives 0.
    std::string returningZeroAt(uint32_t address) const {
        constexpr std::array<uint8_t, 3> xorEaxEaxRet = {0x31, 0xC0, 0xC3};
        return patched(fileOffset(address), xorEaxEaxRet);
    }
    uint32_t mainAddress() const { return header().OptionalHeader.AddressOfEntryPoint; }

private:
    template <class Value>
    std::string patched(size_t offset, const Value& value) const {
        std::string bytes = m_bytes;
        std::memcpy(bytes.data() + offset, &value, sizeof value);
        return bytes;
    }
    size_t headers() const {
        IMAGE_DOS_HEADER dos;
        std::memcpy(&dos, m_bytes.data(), sizeof dos);
        return static_cast<size_t>(dos.e_lfanew);
    }
    IMAGE_NT_HEADERS64 header() const {
        IMAGE_NT_HEADERS64 nt;
        std::memcpy(&nt, m_bytes.data() + headers(), sizeof nt);
        return nt;
    }
    size_t fileOffset(uint32_t address) const {
        const char* next = m_bytes.data() + headers() + sizeof(IMAGE_NT_HEADERS64);
        for (IMAGE_SECTION_HEADER section;; next += sizeof section) {
            std::memcpy(&section, next, sizeof section);
            if (address >= section.VirtualAddress && address - section.VirtualAddress < section.SizeOfRawData)
                return section.PointerToRawData + (address - section.VirtualAddress);
        }
    }
    std::string m_bytes;
};

uint32_t exportAddress(const fs::path& library, const char* name) {
    const HMODULE module = LoadLibraryW(library.c_str());
    const auto address = reinterpret_cast<uintptr_t>(reinterpret_cast<void*>(GetProcAddress(module, name)));
    const auto offset = static_cast<uint32_t>(address - reinterpret_cast<uintptr_t>(module));
    FreeLibrary(module);
    return offset;
}

class LibraryFiles {
public:
    explicit LibraryFiles(ProofTally& tally) : m_tally(tally) {
        fs::copy_file(builtFile("bin", L"Clipforge_Thumbnails.dll"),
                      m_folder.path() / "Clipforge_Thumbnails.dll");
        m_handler.load((m_folder.path() / "Clipforge_Thumbnails.dll").make_preferred().wstring());
    }

    /// Twice, since the first failure must not spoil the next attempt; and the good one after them.
    void tryBytes(const std::string& what, const std::optional<std::string>& bytes) {
        put(bytes);
        ask(what, E_UNEXPECTED);
        ask(what + ", again", E_UNEXPECTED);
        put(m_good);
        ask("a good one after: " + what, S_OK);
    }
    void tryFolder() {
        put(std::nullopt);
        fs::create_directory(m_library);
        ask("a folder of that name", E_UNEXPECTED);
        fs::remove(m_library);
        put(m_good);
        ask("a good one after a folder", S_OK);
    }

    const std::string& good() const { return m_good; }
    const fs::path& library() const { return m_library; }
    void put(const std::optional<std::string>& bytes) {
        fs::remove(m_library);
        if (bytes)
            writeFileBytes(m_library, *bytes);
    }
    void ask(const std::string& what, HRESULT expected) {
        KnownQuestion question = m_questions.good();
        question.result = expected;
        std::string trouble = troubleInAnswer(question, &m_handler);
        if (trouble.empty())
            trouble = m_leftovers.trouble();
        m_tally.count(what, trouble);
    }

private:
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
    files.put(files.good());
    const uint32_t entry = exportAddress(files.library(), entryPoint);
    files.ask("a good one", S_OK);

    const std::string x86 = image.withMachine(IMAGE_FILE_MACHINE_I386);
    const struct {
        const char* what;
        std::optional<std::string> bytes;
    } cases[] = {
        {"missing", std::nullopt},
        {"empty", ""},
        {"a text", "This is not a library."},
        {"for ARM64", image.withMachine(IMAGE_FILE_MACHINE_ARM64)},
        {"for x86", x86},
        {"for x86, with a 32-bit header", image.withMagic(x86, IMAGE_NT_OPTIONAL_HDR32_MAGIC)},
        {"for no processor", image.withMachine(0)},
        {"without the entry point", image.withoutEntryPoint()},
        {"entry point giving null", image.returningZeroAt(entry)},
        {"refusing to be loaded", image.returningZeroAt(image.mainAddress())},
        {"one byte short", files.good().substr(0, files.good().size() - 1)},
        {"one byte long", files.good() + '\0'},
    };
    for (const auto& [what, bytes] : cases)
        files.tryBytes(what, bytes);
    files.tryFolder();

    const size_t cuts = form == ProofForm::full ? 100 : 12;
    for (size_t i = 0; i < cuts; ++i) {
        // Half of them within the headers and the first code, the other half anywhere.
        const size_t bytes = i % 2 != 0 ? files.good().size() * i / cuts : 1 + 4096 * i / cuts;
        files.tryBytes("cut after " + std::to_string(bytes) + " bytes", files.good().substr(0, bytes));
    }

    for (int i = 0; i < 3; ++i) { // one good library after the other
        files.put(files.good());
        files.ask("replaced by a good one", S_OK);
    }
}

PROOF_CHECK("library files", "decoder library files of every wrong kind", tryLibraryFiles);

} // namespace
