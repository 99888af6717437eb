// The COM object that the shell creates for each clip whose thumbnail it needs.
#pragma once

#include <string>

#include "ThumbnailObject.h"

/// The class's ID, as the registry writes it.
#define CLIPFORGE_CLSID_TEXT L"{5b8e2d41-93c7-4f0a-b6e5-2d17c9a4f380}"

inline constexpr CLSID CLSID_ClipforgeThumbProvider = {
    0x5b8e2d41, 0x93c7, 0x4f0a, {0xb6, 0xe5, 0x2d, 0x17, 0xc9, 0xa4, 0xf3, 0x80}};

/// Keeps the clip's path between the shell's calls; each thumbnail is made from nothing and leaves nothing
/// behind. One thread at a time uses an object; thumbnails of different objects wait for each other.
class CClipforgeThumbProvider final : public ThumbnailObject {
public:
    ~CClipforgeThumbProvider() override;
    IFACEMETHODIMP_(ULONG) AddRef() override;
    /// Takes the path, and succeeds also when the file cannot be read: GetThumbnail is the one to report
    /// that.
    IFACEMETHODIMP Initialize(LPCWSTR pszFilePath, DWORD grfMode) override;
    /// A 32-bit bottom-up DIB section, at least `cx` pixels in both directions and of the clip's aspect;
    /// larger than the clip itself it is `cx` by `cx`, the frame centred and the rest transparent. A clip
    /// without frames gives a transparent one. The caller owns the bitmap. E_FAIL while the same thread is in
    /// here already.
    IFACEMETHODIMP GetThumbnail(UINT cx, HBITMAP* phbmp, WTS_ALPHATYPE* pdwAlpha) override;

private:
    void onLastRelease() noexcept override;

    std::string m_filepath; ///< UTF-8
};

/// The class factory's way to one: starts the session first. May throw std::bad_alloc.
HRESULT createProvider(REFIID riid, void** ppv);
