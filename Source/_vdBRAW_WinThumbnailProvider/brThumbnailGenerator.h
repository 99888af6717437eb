// From a clip's path and a size to a bitmap: brings the decode core up, runs one request, takes the core
// down.
//
// One thumbnail at a time in the whole process; the caller sees to that. May throw what memory lacks for,
// except releaseBMD.
#pragma once

#include <cstdint>
#include <string>

#include <windows.h>

/// Loads the decoder library and makes the process's decode manager. S_OK when there is a manager ready for
/// work, E_UNEXPECTED otherwise; releaseBMD is due either way.
HRESULT initBMIfNeeded();

/// Destroys the manager, when there is one, and unloads the decoder library. S_OK always.
HRESULT releaseBMD() noexcept;

/// The first frame of the clip at `filepath` (UTF-8) as a 32-bit DIB section of at least `size` pixels in
/// both directions; the caller owns it. Null whenever the result is not S_OK.
HRESULT generateThumbnailImageBuffer(const std::string& filepath, uint32_t size, HBITMAP& bitmap);
