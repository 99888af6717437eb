// Input that nobody thought of: settings, paths and sizes out of a seeded generator, so that a run can be
// repeated.
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

    /// `bytes` after a few accidents; `pieces` are texts that mean something there, with tildes between them.
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

/// In this process, where every field can be looked at afterwards.
void trySettings(uint32_t times, Generator& random, ProofTally& tally) {
    constexpr std::string_view good =
        "; options\r\n[General]\r\nlogging = INFO\r\npresetsNames = #1 - one|two|#3 - three||five\r\n"
        "presetsName7 = seven\r\nbrawDesktopFilepath = C:\\clips\\\r\n"
        "prproHybridGPUCPUDecoding = true\r\nimporterSyncMode = true\r\nenableCorrectXml = false\r\n"
        "enableAutoUpdate = false\r\n[PremierePro]\r\nlowerPriority = true\r\n[AfterEffects]"
        "\r\naeLayerSettingsGPUEnabled3 = false\r\n";
    constexpr std::string_view pieces =
        "\n~\r~[~]~=~;~|~#1 - ~None~[general]~true~\xEF\xBB\xBF~\xFF\xFE~<<<END\n~\nlogging = "
        "DESACTIVATED\n~\\~\"~No Preset~\xC3~presetsName19=x\n~LOGGING=TRACE";
    const TemporaryFolder folder;
    const fs::path settings = folder.path() / "AppData/Roaming/Verdane/Clipforge/Clipforge_options.ini";
    fs::create_directories(settings.parent_path());
    const EnvironmentVariable profile(L"USERPROFILE", folder.path().c_str());
    for (uint32_t i = 0; i < times; ++i)
        tally.attempt("settings " + std::to_string(i), [&]() -> std::string {
            const std::string bytes = random.mutated(std::string(good), pieces);
            writeFileBytes(settings, bytes);
            loadOptions();
            if (options().loggingLevel < vdLogLevel::trace || options().loggingLevel > vdLogLevel::off)
                return "a logging level that there is not";
            for (const std::string& name : options().presetNames)
                if (name.empty() || name.size() > 64 || name.find('|') != name.npos)
                    return "a preset called \"" + name + "\"";
            return readFileBytes(settings) != bytes ? "the file was written to" : "";
        });
    resetOptions();
}

/// Any answer that is told of in the documentation, and nothing left behind.
void tryPaths(uint32_t times, Generator& random, ProofTally& tally) {
    const TemporaryFolder folder;
    const std::wstring base = folder.path().wstring() + L"\\", clip = base + L"clip.braw";
    writeTestClip(clip, {64, 48});
    HandlerLibrary library;
    library.load(builtFile("bin"));
    Leftovers leftovers;
    for (uint32_t i = 0; i < times; ++i) {
        const std::wstring path = (random.isOneIn(4) ? L"" : base) + random.name(i % 7 == 0 ? 33'000 : 60);
        // Where the system takes the name there is a clip behind it, half the time.
        const bool isInside = path.find(base) != path.npos && path.find(L"..") == path.npos;
        const bool isClip = isInside && i % 2 == 0 && CopyFileW(clip.c_str(), path.c_str(), TRUE);
        tally.attempt("path " + std::to_string(i), [&]() -> std::string {
            HRESULT result = E_FAIL;
            {
                const ThumbnailAnswer answer = askForThumbnail(path, random.anySize(), &library);
                DIBSECTION section{};
                result = answer.result;
                if ((result == S_OK) != isThumbnailBitmap(answer.bitmap.get(), section))
                    return "picture and result " + resultText(result) + " do not agree";
            }
            if (result != S_OK && result != E_FAIL && result != E_OUTOFMEMORY)
                return "answered with " + resultText(result);
            return isClip && !DeleteFileW(path.c_str()) ? "the clip is still open" : leftovers.trouble();
        });
    }
}

void tryRandomInput(ProofForm form, ProofTally& tally) {
    const uint32_t scale = form == ProofForm::full ? 20 : 1;
    Generator random;
    trySettings(150 * scale, random, tally);
    tryPaths(60 * scale, random, tally);
}

PROOF_CHECK("random input", "settings, paths and sizes out of a generator", tryRandomInput);

} // namespace
