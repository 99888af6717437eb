// Input that nobody thought of: settings, paths, sizes, clips and folders out of a seeded generator, so that
// a run can be repeated.
#include <algorithm>
#include <cstdio>
#include <filesystem>
#include <random>
#include <string>
#include <string_view>

#include "EnvironmentVariable.h"
#include "Proof.h"
#include "Scenario.h"
#include "TestClips.h"
#include "Utils/vdProduct.h"
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

    /// One of the texts between tildes.
    std::string_view anyPiece(std::string_view pieces) {
        for (auto skip = below(1 + static_cast<size_t>(std::ranges::count(pieces, '~'))); skip > 0; --skip)
            pieces.remove_prefix(pieces.find('~') + 1);
        return pieces.substr(0, pieces.find('~'));
    }

    /// `bytes` after a few accidents; `pieces` are texts that mean something in such a file, with tildes
    /// between them.
    std::string mutated(std::string bytes, std::string_view pieces) {
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
                bytes.insert(at, anyPiece(pieces));
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

    /// A file or folder name, mostly of letters and words that are trouble somewhere.
    std::wstring name(size_t longest) {
        static constexpr std::wstring_view letters = L"aZ .-\'&^;,=@([$#+\u00E9\u30D5\u202E\uFEFF\uFFFF"
                                                     L"\xD83C\xDFAC\x01?*<\"|:\\/";
        static constexpr std::wstring_view words[] = {L"..",  L"%1",       L"%PATH%",       L"{0}",
                                                      L"~1",  L"e\u0301",  L"\xD83C\xDFAC", L"CON",
                                                      L"nul", L"LPT1.braw"};
        const size_t length = isOneIn(8) ? below(longest) : below(12);
        std::wstring name;
        while (name.size() <= length)
            name += isOneIn(4) ? anyOf(words) : letters.substr(below(letters.size()), 1);
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
        fs::create_directories(m_settings.parent_path());
        writeFileBytes(m_clipPath, m_clipBytes);
        m_library.load(m_handler);
    }
    /// In this process, where every field can be looked at afterwards.
    void trySettings() {
        const EnvironmentVariable profile(L"USERPROFILE", m_folder.path().c_str());
        for (uint32_t i = 0; i < times(150); ++i)
            m_tally.attempt("settings " + std::to_string(i), [&]() -> std::string {
                const std::string bytes = mutatedSettings();
                writeFileBytes(m_settings, bytes);
                loadOptions();
                if (options().loggingLevel < vdLogLevel::trace || options().loggingLevel > vdLogLevel::off)
                    return "a logging level that there is not";
                for (const std::string& name : options().presetNames)
                    if (name.empty() || name.size() > 64 || name.find('|') != std::string::npos)
                        return "a preset called \"" + name + "\"";
                for (const auto& entry : fs::directory_iterator(m_settings.parent_path()))
                    if (entry.path() != m_settings && entry.path().filename() != "BR_Preset")
                        return "left behind: " + entry.path().filename().string();
                return readFileBytes(m_settings) != bytes ? "the file was written to" : "";
            });
        resetOptions();
    }

    /// The handler that logs reads them whenever an object is made, and starts its log by them.
    void trySettingsThroughHandler() {
        const EnvironmentVariable profile(L"USERPROFILE", m_folder.path().c_str());
        for (uint32_t i = 0; i < times(3); ++i)
            m_tally.attempt("settings of the handler " + std::to_string(i), [&] {
                writeFileBytes(m_settings, mutatedSettings());
                HandlerLibrary library;
                library.load(builtFile("logging"));
                SIZE size{};
                const std::string trouble = troubleWith(m_clipPath, 48, library, &size);
                return trouble.empty() && (size.cx != 64 || size.cy != 48) ? "no picture" : trouble;
            });
    }

    void tryPaths() {
        const std::wstring base = m_folder.path().wstring() + L"\\";
        for (uint32_t i = 0; i < times(40); ++i) {
            std::wstring path = m_random.name(i % 7 == 0 ? 33'000 : 200);
            if (!m_random.isOneIn(4))
                path.insert(0, base);
            if (m_random.isOneIn(6))
                path.insert(0, L"\\\\?\\");
            // Where the system takes the name there is a clip behind it, half the time.
            const bool isNew = GetFileAttributesW(path.c_str()) == INVALID_FILE_ATTRIBUTES;
            const bool isInside =
                path.find(base) != std::wstring::npos && path.find(L"..") == std::wstring::npos;
            const bool isClip =
                isNew && isInside && i % 2 == 0 && CopyFileW(m_clipPath.c_str(), path.c_str(), TRUE);
            m_tally.attempt("path " + printable(path), [&] {
                const std::string trouble = troubleWith(path, 48, m_library);
                return isClip && !DeleteFileW(path.c_str()) ? trouble + "the clip is still open" : trouble;
            });
        }
    }

    void trySizes() {
        constexpr uint32_t largestHere = 2048;    // pictures up to there cost little time
        constexpr uint32_t largestOfAll = 23'170; // and from there on they have 2 GiB and are refused
        for (uint32_t i = 0; i < times(60); ++i) {
            const uint32_t size = m_random.anyNumber();
            if (size > largestHere && size <= largestOfAll)
                continue;
            m_tally.attempt("size " + std::to_string(size), [&] {
                SIZE given{};
                const std::string trouble = troubleWith(m_clipPath, size, m_library, &given);
                const bool isPossible = size > 0 && size <= largestHere;
                const auto side = static_cast<LONG>(size);
                const bool isRight =
                    (given.cx > 0) == isPossible &&
                    (!isPossible || (given.cx >= side && given.cy >= side) || given.cy >= 48);
                return trouble.empty() && !isRight
                           ? "a picture of " + std::to_string(given.cx) + " by " + std::to_string(given.cy)
                           : trouble;
            });
        }
    }

    void tryClips() {
        constexpr std::string_view pieces = "P6~P6\n~ ~\n~#~# fps ~0~1~65535~65536~-1~255\n~4294967296~"
                                            "999999999999999999999~1e999~nan~\r\n~64 48\n";
        const std::string header = testHeader(m_clip, 0);
        for (uint32_t i = 0; i < times(60); ++i) {
            // Accidents mostly befall the header, where they tell most.
            const std::string bytes =
                i % 3 == 0 ? m_random.mutated(m_clipBytes, pieces)
                           : m_random.mutated(header, pieces) + m_clipBytes.substr(header.size());
            writeFileBytes(m_folder.path() / "mutated.braw", bytes);
            m_tally.attempt("clip " + std::to_string(i), [&] {
                return troubleWith(m_folder.path() / "mutated.braw", 1 + m_random.below(128), m_library);
            });
        }
    }

    void tryFolders() {
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
            m_tally.attempt("folder " + printable(name), [&]() -> std::string {
                CopyFileW(m_handler.c_str(), library.c_str(), TRUE);
                const HRESULT registered = RegistrationKeeper::call(library, "DllRegisterServer");
                const auto found = RegistrationKeeper::registeredLibrary();
                const HRESULT unregistered = RegistrationKeeper::call(library, "DllUnregisterServer");
                if (!DeleteFileW(library.c_str()) || !RemoveDirectoryW(folder.c_str()))
                    return "the library is still in use";
                if (registered != S_OK && registered != HRESULT_FROM_WIN32(ERROR_INSUFFICIENT_BUFFER))
                    return "registering gave " + resultText(registered);
                if (registered == S_OK && found != library)
                    return "registered as " + printable(found.value_or(L"(nothing)"));
                const bool isGone = unregistered == S_OK && !RegistrationKeeper::registeredLibrary();
                return isGone ? "" : "still registered";
            });
        }
    }

private:
    uint32_t times(uint32_t brief) const { return brief * m_scale; }

    /// Any answer that is told of in the documentation, and nothing left behind.
    std::string troubleWith(const std::wstring& clip, UINT size, const HandlerLibrary& library,
                            SIZE* given = nullptr) {
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

    std::string mutatedSettings() {
        static constexpr std::string_view good =
            "; options\r\n[General]\r\nlogging = INFO\r\npresetsNames = #1 - one|two|#3 - three||five\r\n"
            "presetsName7 = seven\r\nbrawDesktopFilepath = C:\\clips\\\r\n"
            "prproHybridGPUCPUDecoding = true\r\nimporterSyncMode = true\r\nenableCorrectXml = false\r\n"
            "enableAutoUpdate = false\r\n[PremierePro]\r\nlowerPriority = "
            "true\r\n[AfterEffects]\r\naeLayerSettingsGPUEnabled3 = false\r\n";
        constexpr std::string_view pieces =
            "\n~\r~[~]~=~;~|~#1 - ~None~[general]~true~\xEF\xBB\xBF~\xFF\xFE~<<<END\n~\nlogging = "
            "DESACTIVATED\n~"
            "\\~\"~No Preset~\xC3~presetsName19=x\n~LOGGING=TRACE";
        return m_random.mutated(std::string(good), pieces);
    }

    ProofTally& m_tally;
    const uint32_t m_scale;
    Generator m_random;
    TemporaryFolder m_folder;
    const fs::path m_handler = builtFile("bin"), m_clipPath = m_folder.path() / L"clip.braw";
    const fs::path m_settings =
        m_folder.path() / "AppData" / "Roaming" / "Verdane" / "Clipforge" / "Clipforge_options.ini";
    const TestClip m_clip{64, 48, 255, 3, "23.976"};
    const std::string m_clipBytes = testClipBytes(m_clip);
    Leftovers m_leftovers;
    HandlerLibrary m_library;
};

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
