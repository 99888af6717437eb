// Pictures on disk, through Windows' own imaging component.
#pragma once

#include <string>

#include <windows.h>

/// Writes a 32-bit bottom-up DIB section as PNG, with its alpha channel, over whatever `path` (a full path)
/// held. COM is initialised on the calling thread. A file that could not be finished is deleted.
HRESULT writePng(const DIBSECTION& section, const std::wstring& path);
