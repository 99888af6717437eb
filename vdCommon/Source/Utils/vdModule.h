// This module (the library that this code is linked into): its handle, and loading others in its context.
#pragma once

#include <string>

#include <windows.h>

/// The module that holds this code; its reference count is not changed.
HMODULE ownModule() noexcept;

/// The full path of that module's file, however long; empty when Windows cannot tell. Leaves the last error
/// of the asking behind. May throw std::bad_alloc.
std::wstring ownModulePath();

/// `path` up to its last separator and with it; empty when there is none. May throw std::bad_alloc.
std::wstring folderOf(const std::wstring& path);

/// This module stays loaded until the process ends, whoever frees it.
void pinOwnModule() noexcept;

/// Loads the library at a full path inside the activation context of this module's own manifest, so that
/// side-by-side dependencies resolve as this module's do and not as the host's; all others are looked for
/// beside that library and in the system alone. Asks the user nothing. Null on failure, with the load's own
/// last error. The caller frees the handle.
HMODULE loadLibraryIsolated(const std::wstring& path) noexcept;
