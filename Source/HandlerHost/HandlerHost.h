// Asks the thumbnail handler for a picture the way the shell does: through COM alone.
#pragma once

#include <string>
#include <utility>

#include <thumbcache.h>
#include <windows.h>
#include <wrl/client.h>

/// The class that the handler registers: {5b8e2d41-93c7-4f0a-b6e5-2d17c9a4f380}.
inline constexpr CLSID CLSID_ClipforgeThumbnails = {
    0x5b8e2d41, 0x93c7, 0x4f0a, {0xb6, 0xe5, 0x2d, 0x17, 0xc9, 0xa4, 0xf3, 0x80}};

/// The class of the guard before it: {0c6f4a97-51d2-4e83-a0b9-7be4d25c8a16}.
inline constexpr CLSID CLSID_ClipforgeGuardedThumbnails = {
    0x0c6f4a97, 0x51d2, 0x4e83, {0xa0, 0xb9, 0x7b, 0xe4, 0xd2, 0x5c, 0x8a, 0x16}};

/// An export of a loaded library as a pointer to its function; null when it has none of that name.
template <typename Function>
Function exportOf(HMODULE module, const char* name) {
    return reinterpret_cast<Function>(reinterpret_cast<void*>(GetProcAddress(module, name)));
}

/// Owns a GDI bitmap.
class OwnedBitmap {
public:
    OwnedBitmap() = default;
    OwnedBitmap(OwnedBitmap&& other) noexcept : m_bitmap(std::exchange(other.m_bitmap, nullptr)) {}
    OwnedBitmap& operator=(OwnedBitmap&& other) noexcept {
        std::swap(m_bitmap, other.m_bitmap);
        return *this;
    }
    ~OwnedBitmap() {
        if (m_bitmap != nullptr)
            DeleteObject(m_bitmap);
    }
    HBITMAP get() const { return m_bitmap; }
    /// Where a function puts the bitmap that it hands out; nothing may be owned yet.
    HBITMAP* put() { return &m_bitmap; }
    /// The bitmap is the caller's from here on.
    HBITMAP release() { return std::exchange(m_bitmap, nullptr); }

private:
    HBITMAP m_bitmap = nullptr;
};

/// A handler library loaded by path, past the registry. Unloaded at the end only when it says that it can be.
class HandlerLibrary {
public:
    HandlerLibrary() = default;
    ~HandlerLibrary() { unload(); }
    HandlerLibrary(const HandlerLibrary&) = delete;
    HandlerLibrary& operator=(const HandlerLibrary&) = delete;

    /// `path` is a full path.
    HRESULT load(const std::wstring& path);
    /// An object from this library's own class factory, of whichever of our classes the library has.
    HRESULT createHandler(REFIID riid, void** object) const;
    /// Calls an export without arguments, DllCanUnloadNow say; E_NOINTERFACE when there is none of that name.
    HRESULT call(const char* name) const;
    HMODULE module() const { return m_module; }
    /// The library stays loaded, and is the caller's to unload.
    HMODULE release() { return std::exchange(m_module, nullptr); }
    /// S_OK when the library is gone, S_FALSE when it said that it is still in use and stays loaded.
    HRESULT unload();

private:
    HMODULE m_module = nullptr;
};

/// What one question gave. `step` names the operation whose result `result` is.
struct ThumbnailAnswer {
    HRESULT result = E_FAIL;
    const wchar_t* step = L"";
    OwnedBitmap bitmap;
    WTS_ALPHATYPE alpha = WTSAT_UNKNOWN;
    double milliseconds = 0; ///< of GetThumbnail alone
};

/// Creates the handler, registered or `library`'s when not null, hands it `clip` (a full path) and asks for a
/// picture of `size`. The handler is released before this returns. COM is initialised on the calling thread.
ThumbnailAnswer askForThumbnail(const std::wstring& clip, UINT size, const HandlerLibrary* library = nullptr);

/// Looks whether `bitmap` is what the shell expects, a 32-bit bottom-up DIB section; false otherwise.
/// `section` tells its size and its bits, which belong to the bitmap.
bool isThumbnailBitmap(HBITMAP bitmap, DIBSECTION& section);
