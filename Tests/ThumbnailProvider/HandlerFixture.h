// The handler library as the shell uses it: loaded by path, asked through COM. After every question the
// fixture looks whether anything was left behind.
#pragma once

#include <windows.h>

#include <propsys.h>
#include <thumbcache.h>
#include <wrl/client.h>

#include "BuiltFile.h"
#include "GdiObjects.h"
#include "HandlerHost.h"
#include "ReferenceDecoderSession.h"
#include "Result.h"
#include "TemporaryFolder.h"
#include "TestClips.h"

using Microsoft::WRL::ComPtr;

/// The library under test: the handler's, or the one that the environment names, asked in the same way.
std::filesystem::path testedLibrary();

/// The loaded library, whose bitmaps are guarded.
class HandlerModule : public HandlerLibrary {
public:
    explicit HandlerModule(const std::filesystem::path& file);

    HRESULT getClassObject(REFCLSID classId, REFIID interfaceId, void** object) const;
    ComPtr<IClassFactory> factory() const;
    ComPtr<IInitializeWithFile> provider() const;
};

/// What GetThumbnail gave. The places it writes to held something recognisable before.
struct Answer {
    HRESULT result = E_FAIL;
    bool isUntouched = false; ///< the places to write to: either both or none
    OwnedBitmap bitmap;
    SIZE size{};
    std::vector<uint8_t> pixels; ///< as Windows itself reads the bitmap: top row first, 4 bytes each

    /// Blue, green, red and alpha of a pixel, counted from the picture's top left.
    const uint8_t* pixel(int x, int y) const {
        return pixels.data() + 4 * (size_t{static_cast<uint32_t>(y)} * static_cast<uint32_t>(size.cx) +
                                    static_cast<uint32_t>(x));
    }
};

class HandlerTest : public testing::Test {
protected:
    void SetUp() override;
    void TearDown() override;

    /// Loads the handler from another folder; the default is the product's.
    void load(const std::filesystem::path& folder);
    std::wstring inside(const wchar_t* name) { return (m_folder.path() / name).wstring(); }
    std::wstring writeClip(const TestClip& clip = {64, 32}, const wchar_t* name = L"clip.braw") {
        writeTestClip(inside(name), clip);
        return inside(name);
    }
    /// One thumbnail from a new provider; no path means that none is given to it.
    Answer ask(const std::optional<std::wstring>& path, UINT size = 16);
    /// GetThumbnail of a provider at hand.
    Answer ask(IInitializeWithFile* provider, UINT size = 16);
    void expectNothingLeft(uint32_t bitmaps);

    TemporaryFolder m_folder;
    ReferenceDecoderSession m_decoder;
    std::unique_ptr<HandlerModule> m_handler;
    bool m_faultsArmed = false; ///< the decoder lies: breaches that follow from that are not counted

private:
    uint32_t m_gdiObjects = 0;
};
