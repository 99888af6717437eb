// What the shell must find in the registry to use the handler.
#pragma once

#include <windows.h>

/// Writes every row, the paths among them taken from where this module lies, and tells the shell. The first
/// row that fails ends it; the rows before it stay. A folder too long for the paths is refused before
/// anything is written. May throw std::bad_alloc.
HRESULT registerServer();

/// Deletes the keys with all that lies under them; a missing key counts as deleted. The first that cannot be
/// deleted ends it. May throw std::bad_alloc.
HRESULT unregisterServer();
