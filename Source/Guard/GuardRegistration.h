// What the shell must find in the registry to use the guard, and what it finds again afterwards.
#pragma once

#include <windows.h>

/// Binds clips to the guard for the whole machine, remembers what they were bound to, and tells the shell.
/// The file type and its open verb are the handler's. The first value that cannot be written ends it. May
/// throw std::bad_alloc.
HRESULT registerGuard();

/// Binds clips to what they were bound to before, where they are bound to the guard still, and deletes what
/// is the guard's own. May throw std::bad_alloc.
HRESULT unregisterGuard();
