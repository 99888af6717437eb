// Input that nobody thought of: settings, paths, sizes, clips and folders out of a seeded generator, so that
// a run can be repeated.
#include <algorithm>
#include <cstdio>
#include <filesystem>
#include <random>
#include <string>
#include <string_view>

#include "EnvironmentVariable.h"
#include "KnownQuestions.h"
#include "Proof.h"
#include "Scenario.h"
#include "TestClips.h"
#include "Utils/vdSettings.h"

namespace fs = std::filesystem;

namespace {

class Generator {
public:
    /// From 0 to one less than `limit`.
    uint32_t below(size_t limit) { return static_cast<uint32_t>(m_engine() % limit); }
    bool isOneIn(uint32_t chances) { return below(chances) == 0; }
    template <class Table>
    const auto& anyOf(const Table& table) {
        return table[below(std::size(table))];
    }
    /// Any number, small ones as likely as large ones.
    uint32_t anyNumber() { return static_cast<uint32_t>(m_engine()) >> below(32); }

    /// `bytes` after a few accidents; `pieces` are texts that mean something in such a file.
    template <class Pieces>
    std::string mutated(std::string bytes, const Pieces& pieces) {
        for (uint32_t accidents = 1 + below(6); accidents > 0; --accidents) {
            const size_t at = below(bytes.size() + 1);
            const size_t count = std::min<size_t>(below(40), bytes.size() - at);
            switch (below(6)) {
            case 0:
                if (at < bytes.size())
                    bytes[at] = static_cast<char>(below(256));
                break;
            case 1:
                bytes.erase(at, count);
                break;
            case 2:
                bytes.insert(at, bytes.substr(at, count));
                break;
            case 3:
                bytes.insert(at, anyOf(pieces));
                break;
            case 4:
                bytes.insert(at, std::string(1u << below(12), static_cast<char>(below(256))));
                break;
            default:
                if (isOneIn(4))
                    bytes.resize(at);
            }
        }
        return bytes;
    }

    /// A file or folder name, mostly of letters that are trouble somewhere.
    std::wstring name(size_t longest) {
        static constexpr std::wstring_view pieces[] = {
            L"a",
            L"Z",
            L" ",
            L".",
            L"..",
            L"-",
            L"%1",
            L"%PATH%",
            L"'",
            L"&",
            L"^",
            L";",
            L",",
            L"=",
            L"@",
            L"(",
            L"[",
            L"{0}",
            L"~1",
            L"$",
            L"#",
            L"+",
            L"\u00E9",
            L"e\u0301",
            L"\u30D5",
            L"\u202E",
            L"\uFEFF",
            L"\uFFFF",
            L"\xD83C\xDFAC",
            L"\xD83C",
            L"\xDFAC",
            L"CON",
            L"nul",
            L"LPT1.braw",
            L"\x01",
            L"?",
            L"*",
            L"<",
            L"\"",
            L"|",
            L":",
            L"\\",
            L"/",
        };
        const size_t length = isOneIn(8) ? below(longest) : below(12);
        std::wstring name;
        while (name.size() <= length)
            name += anyOf(pieces);
        return name;
    }

private:
    std::mt19937 m_engine{4'711};
};

/// "a\u00E9" for the table's lines.
std::string printable(const std::wstring& text) {
    std::string line;
    for (const wchar_t unit : text.substr(0, 60)) {
        char escaped[8];
        std::snprintf(escaped, sizeof escaped, "\\u%04X", static_cast<unsigned>(unit));
        line += unit >= L' ' && unit < 127 ? std::string(1, static_cast<char>(unit)) : escaped;
    }
    return line;
}

class RandomInput {
public:
    RandomInput(ProofForm form, ProofTally& tally)
        : m_tally(tally), m_scale(form == ProofForm::full ? 20 : 1) {
        m_library.load(m_handler.wstring());
    }
    void trySettings();
    void trySettingsThroughHandler();
    void tryPaths();
    void trySizes();
    void tryClips();
    void tryFolders();

private:
    uint32_t times(uint32_t brief) const { return brief * m_scale; }
    std::string mutatedSettings();
    /// Any answer that is told of in the documentation, and nothing left behind.
    std::string troubleWith(const std::wstring& clip, UINT size, const HandlerLibrary& library,
                            SIZE* given = nullptr);

    ProofTally& m_tally;
    const uint32_t m_scale;
    Generator m_random;
    TemporaryFolder m_folder;
    const fs::path m_handler = builtFile("bin", L"Clipforge_Thumbnails.dll").make_preferred();
    const TestClip m_clip{64, 48, 255, 3, "23.976"};
    const std::string m_clipBytes = testClipBytes(m_clip);
    Leftovers m_leftovers;
    HandlerLibrary m_library;
};

std::string RandomInput::troubleWith(const std::wstring& clip, UINT size, const HandlerLibrary& library,
                                     SIZE* given) {
    ThumbnailAnswer answer = askForThumbnail(clip, size, &library);
    const HRESULT result = answer.result;
    if (result != S_OK && result != E_FAIL && result != E_UNEXPECTED && result != E_OUTOFMEMORY)
        return "answered with " + resultText(result);
    DIBSECTION section{};
    if ((result == S_OK) !=
        (answer.bitmap.get() != nullptr && isThumbnailBitmap(answer.bitmap.get(), section)))
        return "picture and result " + resultText(result) + " do not agree";
    if (given != nullptr)
        *given = {section.dsBmih.biWidth, section.dsBmih.biHeight};
    answer.bitmap = {};
    return m_leftovers.trouble();
}

std::string RandomInput::mutatedSettings() {
    static constexpr std::string_view good =
        "; options\r\n[General]\r\nlogging = INFO\r\npresetsNames = #1 - one|two|#3 - three||five\r\n"
        "presetsName7 = seven\r\nbrawDesktopFilepath = C:\\clips\\\r\nprproHybridGPUCPUDecoding = true\r\n"
        "importerSyncMode = true\r\nenableCorrectXml = false\r\nenableAutoUpdate = false\r\n[PremierePro]\r\n"
        "lowerPriority = true\r\n[AfterEffects]\r\naeLayerSettingsGPUEnabled3 = false\r\n";
    static constexpr std::string_view pieces[] = {"\n",
                                                  "\r",
                                                  "[",
                                                  "]",
                                                  "=",
                                                  ";",
                                                  "|",
                                                  "#1 - ",
                                                  "None",
                                                  "[general]",
                                                  "LOGGING=TRACE",
                                                  "true",
                                                  "\xEF\xBB\xBF",
                                                  "\xFF\xFE",
                                                  "<<<END\n",
                                                  "\nlogging = DESACTIVATED\n",
                                                  "\\",
                                                  "\"",
                                                  "No Preset",
                                                  "\xC3",
                                                  "presetsName19=x\n"};
    return m_random.mutated(std::string(good), pieces);
}

/// In this process, where every field can be looked at afterwards.
void RandomInput::trySettings() {
    const fs::path product = m_folder.path() / "AppData" / "Roaming" / "Verdane" / "Clipforge";
    const fs::path file = product / "Clipforge_options.ini";
    fs::create_directories(product);
    const EnvironmentVariable profile(L"USERPROFILE", m_folder.path().c_str());
    setProductInfo();
    for (uint32_t i = 0; i < times(150); ++i) {
        const std::string bytes = mutatedSettings();
        writeFileBytes(file, bytes);
        loadOptions();
        std::string trouble;
        if (options().loggingLevel < vdLogLevel::trace || options().loggingLevel > vdLogLevel::off)
            trouble = "a logging level that there is not";
        for (const std::string& name : options().presetNames)
            if (name.empty() || name.size() > 64 || name.find('|') != std::string::npos)
                trouble = "a preset called \"" + name + "\"";
        if (readFileBytes(file) != bytes)
            trouble = "the file was written to";
        for (const auto& entry : fs::directory_iterator(product))
            if (entry.path() != file && entry.path().filename() != "BR_Preset")
                trouble = "left behind: " + entry.path().filename().string();
        m_tally.count("settings " + std::to_string(i), trouble);
    }
    resetOptions();
}

/// The handler that logs reads them whenever an object is made, and starts its log by them.
void RandomInput::trySettingsThroughHandler() {
    const fs::path product = m_folder.path() / "AppData" / "Roaming" / "Verdane" / "Clipforge";
    const EnvironmentVariable profile(L"USERPROFILE", m_folder.path().c_str());
    const fs::path clip = (m_folder.path() / "logged.braw").make_preferred();
    writeFileBytes(clip, m_clipBytes);
    for (uint32_t i = 0; i < times(3); ++i) {
        writeFileBytes(product / "Clipforge_options.ini", mutatedSettings());
        HandlerLibrary library;
        library.load(builtFile("logging", L"Clipforge_Thumbnails.dll").make_preferred().wstring());
        SIZE size{};
        std::string trouble = troubleWith(clip.wstring(), 48, library, &size);
        if (trouble.empty() && (size.cx != 64 || size.cy != 48))
            trouble = "no picture";
        m_tally.count("settings of the handler " + std::to_string(i), trouble);
    }
}

void RandomInput::tryPaths() {
    const std::wstring base = m_folder.path().wstring() + L"\\";
    for (uint32_t i = 0; i < times(40); ++i) {
        std::wstring path = m_random.name(i % 7 == 0 ? 33'000 : 200);
        if (!m_random.isOneIn(4))
            path.insert(0, base);
        if (m_random.isOneIn(6))
            path.insert(0, L"\\\\?\\");
        const bool isNew = GetFileAttributesW(path.c_str()) == INVALID_FILE_ATTRIBUTES;
        const bool isInside = path.find(base) != std::wstring::npos && path.find(L"..") == std::wstring::npos;
        // Where the system takes the name there is a clip behind it, half the time.
        HANDLE file = INVALID_HANDLE_VALUE;
        if (isNew && isInside && i % 2 == 0)
            file = CreateFileW(path.c_str(), GENERIC_WRITE, 0, nullptr, CREATE_NEW, 0, nullptr);
        if (file != INVALID_HANDLE_VALUE) {
            DWORD written = 0;
            WriteFile(file, m_clipBytes.data(), static_cast<DWORD>(m_clipBytes.size()), &written, nullptr);
            CloseHandle(file);
        }
        std::string trouble = troubleWith(path, 48, m_library);
        if (file != INVALID_HANDLE_VALUE && !DeleteFileW(path.c_str()))
            trouble += "the clip is still open";
        m_tally.count("path " + printable(path), trouble);
    }
}

void RandomInput::trySizes() {
    const fs::path clip = (m_folder.path() / "sizes.braw").make_preferred();
    writeFileBytes(clip, m_clipBytes);
    constexpr uint32_t largestHere = 2048;    // pictures up to there cost little time
    constexpr uint32_t largestOfAll = 23'170; // and from there on they have 2 GiB and are refused
    for (uint32_t i = 0; i < times(60); ++i) {
        const uint32_t size = m_random.anyNumber();
        if (size > largestHere && size <= largestOfAll)
            continue;
        SIZE given{};
        std::string trouble = troubleWith(clip.wstring(), size, m_library, &given);
        const bool isPossible = size > 0 && size <= largestHere;
        const auto side = static_cast<LONG>(size);
        if (trouble.empty() && (given.cx > 0) != isPossible)
            trouble = isPossible ? "no picture" : "a picture";
        if (trouble.empty() && isPossible && (given.cx < side || given.cy < side) && given.cy < 48)
            trouble = "a picture of " + std::to_string(given.cx) + " by " + std::to_string(given.cy);
        m_tally.count("size " + std::to_string(size), trouble);
    }
}

void RandomInput::tryClips() {
    static constexpr std::string_view pieces[] = {
        "P6",    "P6\n",  " ",     "\n",     "#",     "# fps ",     "0",
        "1",     "65535", "65536", "-1",     "255\n", "4294967296", "999999999999999999999",
        "1e999", "nan",   "\r\n",  "64 48\n"};
    const fs::path clip = (m_folder.path() / "mutated.braw").make_preferred();
    const std::string header = testHeader(m_clip, 0);
    for (uint32_t i = 0; i < times(60); ++i) {
        // Accidents mostly befall the header, where they tell most.
        const std::string bytes = i % 3 == 0
                                      ? m_random.mutated(m_clipBytes, pieces)
                                      : m_random.mutated(header, pieces) + m_clipBytes.substr(header.size());
        writeFileBytes(clip, bytes);
        m_tally.count("clip " + std::to_string(i),
                      troubleWith(clip.wstring(), 1 + m_random.below(128), m_library));
    }
}

void RandomInput::tryFolders() {
    const RegistrationKeeper keeper;
    for (uint32_t i = 0; i < times(5); ++i) {
        // Names that the system will not have are not asked for: blanks and dots at the end, and what it
        // forbids.
        std::wstring name = m_random.name(60);
        std::erase_if(name, [](wchar_t unit) {
            return unit < L' ' || (unit >= 0xD800 && unit < 0xE000) || unit >= 0xFFFE ||
                   std::wstring_view(L"?*<>\"|:\\/").find(unit) != std::wstring_view::npos;
        });
        name = L"x" + name.substr(0, 120) + L"x";
        const std::wstring folder = m_folder.path().wstring() + L"\\" + name;
        if (!CreateDirectoryW(folder.c_str(), nullptr))
            continue;
        const std::wstring library = folder + L"\\Clipforge_Thumbnails.dll";
        CopyFileW(m_handler.c_str(), library.c_str(), TRUE);
        const HRESULT registered = callExport(library, "DllRegisterServer");
        const auto found = RegistrationKeeper::registeredLibrary();
        const HRESULT unregistered = callExport(library, "DllUnregisterServer");
        std::string trouble;
        if (registered != S_OK && registered != HRESULT_FROM_WIN32(ERROR_INSUFFICIENT_BUFFER))
            trouble = "registering gave " + resultText(registered);
        else if (registered == S_OK && found != library)
            trouble = "registered as " + printable(found.value_or(L"(nothing)"));
        else if (unregistered != S_OK || RegistrationKeeper::registeredLibrary())
            trouble = "still registered";
        if (!DeleteFileW(library.c_str()) || !RemoveDirectoryW(folder.c_str()))
            trouble += " The library is still in use.";
        m_tally.count("folder " + printable(name), trouble);
    }
}

void tryRandomInput(ProofForm form, ProofTally& tally) {
    RandomInput input(form, tally);
    input.trySettings();
    input.trySettingsThroughHandler();
    input.tryPaths();
    input.trySizes();
    input.tryClips();
    input.tryFolders();
}

PROOF_CHECK("random input", "settings, paths, sizes, clips and folders out of a generator", tryRandomInput);

} // namespace
