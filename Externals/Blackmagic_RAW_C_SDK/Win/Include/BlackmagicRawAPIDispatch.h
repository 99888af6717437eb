// Loads the decoder library and finds its entry point.
//
// The state is one per process. TryLoadBlackmagicRawAPI and CreateBlackmagicRawFactoryInstance run under the
// loader lock of the instance layer; ReleaseBlackmagicRawAPI must not overlap them.
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

/// Unloads the library and, when it was the one that brought them into the process, its instruction-set helper
/// libraries.
void ReleaseBlackmagicRawAPI() noexcept;
