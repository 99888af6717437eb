// Input that nobody thought of: settings, paths, sizes and clips out of a seeded generator, so that a run can
// be repeated.
#include <algorithm>
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
    /// Small ones as likely as large ones, but none that takes long: from 23,171 on they are refused.
    uint32_t anySize() {
        const uint32_t size = static_cast<uint32_t>(m_engine()) >> below(32);
        return size <= 2048 || size > 23'170 ? size : 48;
    }

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
            const std::string addition = isOneIn(2)
                                             ? std::string(anyPiece(pieces))
                                             : std::string(1u << below(12), static_cast<char>(below(256)));
            bytes.replace(below(bytes.size() + 1), isOneIn(2) ? below(40) : 0,
                          isOneIn(4) ? std::string() : addition);
        }
        return bytes;
    }

    /// Any UTF-16 units, letters and what means something in paths as likely as all others.
    std::wstring name(size_t longest) {
        constexpr std::wstring_view letters = L"aZ .-%~&^;,=@$#+?*<\"|:\\/";
        std::wstring name;
        for (size_t length = 1 + below(longest); length > 0; --length)
            name += isOneIn(2) ? letters[below(letters.size())] : static_cast<wchar_t>(1 + below(0xFFFF));
        return name;
    }

private:
    std::mt19937 m_engine{4'711};
};

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
                return readFileBytes(m_settings) != bytes ? "the file was written to" : "";
            });
        resetOptions();
    }

    void tryPaths() {
        const std::wstring base = m_folder.path().wstring() + L"\\";
        for (uint32_t i = 0; i < times(40); ++i) {
            const std::wstring path =
                (m_random.isOneIn(4) ? L"" : base) + m_random.name(i % 7 == 0 ? 33'000 : 60);
            // Where the system takes the name there is a clip behind it, half the time.
            const bool isInside = path.find(base) != path.npos && path.find(L"..") == path.npos;
            const bool isClip = isInside && i % 2 == 0 && CopyFileW(m_clipPath.c_str(), path.c_str(), TRUE);
            m_tally.attempt("path " + std::to_string(i), [&] {
                const std::string trouble = troubleWith(path, m_random.anySize());
                return isClip && !DeleteFileW(path.c_str()) ? trouble + "the clip is still open" : trouble;
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
                return troubleWith(m_folder.path() / "mutated.braw", m_random.anySize());
            });
        }
    }

private:
    uint32_t times(uint32_t brief) const { return brief * m_scale; }

    /// Any answer that is told of in the documentation, and nothing left behind.
    std::string troubleWith(const std::wstring& clip, UINT size) {
        ThumbnailAnswer answer = askForThumbnail(clip, size, &m_library);
        const HRESULT result = answer.result;
        if (result != S_OK && result != E_FAIL && result != E_UNEXPECTED && result != E_OUTOFMEMORY)
            return "answered with " + resultText(result);
        DIBSECTION section{};
        if ((result == S_OK) != isThumbnailBitmap(answer.bitmap.get(), section))
            return "picture and result " + resultText(result) + " do not agree";
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
            "DESACTIVATED\n~\\~\"~No Preset~\xC3~presetsName19=x\n~LOGGING=TRACE";
        return m_random.mutated(std::string(good), pieces);
    }

    ProofTally& m_tally;
    const uint32_t m_scale;
    Generator m_random;
    TemporaryFolder m_folder;
    const fs::path m_handler = builtFile("bin"), m_clipPath = m_folder.path() / L"clip.braw";
    const fs::path m_settings = m_folder.path() / "AppData/Roaming/Verdane/Clipforge/Clipforge_options.ini";
    const TestClip m_clip{64, 48, 255, 3, "23.976"};
    const std::string m_clipBytes = testClipBytes(m_clip);
    Leftovers m_leftovers;
    HandlerLibrary m_library;
};

void tryRandomInput(ProofForm form, ProofTally& tally) {
    RandomInput input(form, tally);
    input.trySettings();
    input.tryPaths();
    input.tryClips();
}

PROOF_CHECK("random input", "settings, paths, sizes and clips out of a generator", tryRandomInput);

} // namespace
