// Input that nobody thought of: paths and sizes out of a seeded generator, so that a run can be repeated.
#include <random>
#include <string>
#include <string_view>

#include "Proof.h"
#include "Scenario.h"
#include "TestClips.h"

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

/// Any answer that is told of in the documentation, and nothing left behind.
void tryRandomInput(ProofForm form, ProofTally& tally) {
    const uint32_t times = form == ProofForm::full ? 1200 : 60;
    Generator random;
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

PROOF_CHECK("random input", "paths and sizes out of a generator", tryRandomInput);

} // namespace
