// Input that nobody thought of: paths and sizes out of a seeded generator, so that a run can be repeated.
#include <random>

#include "Proof.h"
#include "Scenario.h"
#include "TestClips.h"

namespace {

/// Any answer that is told of in the documentation, and nothing left behind.
void tryRandomInput(ProofForm form, ProofTally& tally) {
    const int times = form == ProofForm::full ? 1200 : 60;
    std::mt19937 random(4'711);
    const TemporaryFolder folder;
    const std::wstring base = folder.path().wstring() + L"\\", clip = base + L"clip.braw";
    writeTestClip(clip, {64, 48});
    HandlerLibrary library;
    library.load(builtFile("bin"));
    Leftovers leftovers;
    for (int i = 0; i < times; ++i) {
        // Any UTF-16 units, letters and what means something in paths as likely as all others.
        constexpr std::wstring_view letters = L"aZ .-%~&^;,=@$#+?*<\"|:\\/";
        std::wstring path = random() % 4 == 0 ? L"" : base;
        for (auto length = 1 + random() % (i % 7 == 0 ? 33'000 : 60); length > 0; --length)
            path += static_cast<wchar_t>(random() % 2 == 0 ? letters[random() % letters.size()]
                                                           : 1 + random() % 0xFFFF);
        // Where the system takes the name there is a clip behind it, half the time.
        const bool isClip = i % 2 == 0 && path.starts_with(base) && path.find(L"..") == path.npos &&
                            CopyFileW(clip.c_str(), path.c_str(), TRUE);
        // Small sizes as likely as large ones, but none that takes long: from 23,171 on they are refused.
        auto size = static_cast<UINT>(random() >> random() % 32);
        if (size > 2048 && size <= 23'170)
            size = 48;
        tally.attempt("path " + std::to_string(i), [&]() -> std::string {
            HRESULT result = E_FAIL;
            {
                const ThumbnailAnswer answer = askForThumbnail(path, size, &library);
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
