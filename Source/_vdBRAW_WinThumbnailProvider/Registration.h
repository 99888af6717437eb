// What the shell must find in the registry to use the handler.
#pragma once

#include <windows.h>

/// The thumbnail provider's class, as the registry writes it.
#define CLIPFORGE_CLSID_TEXT L"{5b8e2d41-93c7-4f0a-b6e5-2d17c9a4f380}"

inline constexpr CLSID CLSID_ClipforgeThumbProvider = {
    0x5b8e2d41, 0x93c7, 0x4f0a, {0xb6, 0xe5, 0x2d, 0x17, 0xc9, 0xa4, 0xf3, 0x80}};

/// Writes every row, the paths among them taken from where `module` lies, and tells the shell. The first row
/// that fails ends it; the rows before it stay. A folder too long for the paths is refused before anything is
/// written. May throw std::bad_alloc.
HRESULT registerServer(HMODULE module);

/// Deletes the keys with all that lies under them; a missing key counts as deleted.
HRESULT unregisterServer();
