// The COM object that the shell creates for each clip, in front of the handler: has the picture made outside
// of the shell's process.
#pragma once

#include <string>

#include "ThumbnailObject.h"

/// The class's ID, as the registry writes it.
#define GUARD_CLSID_TEXT L"{0c6f4a97-51d2-4e83-a0b9-7be4d25c8a16}"

inline constexpr CLSID CLSID_ClipforgeGuardProvider = {
    0x0c6f4a97, 0x51d2, 0x4e83, {0xa0, 0xb9, 0x7b, 0xe4, 0xd2, 0x5c, 0x8a, 0x16}};

/// Keeps the clip's path between the shell's calls. One thread at a time uses an object.
class CClipforgeGuardProvider final : public ThumbnailObject {
public:
    /// Takes the path, and does not look at the file.
    IFACEMETHODIMP Initialize(LPCWSTR pszFilePath, DWORD grfMode) override;
    /// The handler's picture, kind of alpha and result; see GuardFailures.h for those of the guard itself.
    /// The bitmap is null on failure, else the caller's.
    IFACEMETHODIMP GetThumbnail(UINT cx, HBITMAP* phbmp, WTS_ALPHATYPE* pdwAlpha) override;

private:
    std::wstring m_path;
};

/// The class factory's way to one.
HRESULT createGuardProvider(REFIID riid, void** ppv);
