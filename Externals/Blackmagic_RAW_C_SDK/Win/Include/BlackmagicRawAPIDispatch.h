// Loads the decoder library and finds its entry point.
//
// The state is one per process; all of this runs under the loader lock of the instance layer.
#pragma once

#include <string>

#include <BlackmagicRawAPI.h>

#include "BlackmagicRawAPIFile.h"

/// Loads the library from `folder` (UTF-16, ending with a backslash) and resolves its entry point. Whether
/// that worked is what IsBlackmagicRawAPILoaded then says.
void TryLoadBlackmagicRawAPI(const std::wstring& folder);

/// True while the entry point is known.
bool IsBlackmagicRawAPILoaded() noexcept;

/// Calls the entry point: a factory with one reference that the caller owns, or null. Null as well when the
/// library is not loaded.
IBlackmagicRawFactory* CreateBlackmagicRawFactory() noexcept;

/// Counts a user of the loaded library; false when none is loaded.
bool HoldBlackmagicRawAPI() noexcept;

/// Ends one use of the library. With the last, the library is unloaded, and so are its instruction-set helper
/// libraries when it was the one that brought them into the process.
void ReleaseBlackmagicRawAPI() noexcept;
