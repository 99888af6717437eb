// What the shell must find in the registry to use the handler that the package installs.
//
// Other than the handler's own registration it works for one user as well, sets a file type and icons only
// where nobody else has, brings no open verb, and puts back what it replaced.
#pragma once

#include <string>

#include <windows.h>

/// Whom the handler is installed for.
enum class Scope { machine, user };

/// The folder of the handler that is registered now, empty when none is. May throw std::bad_alloc.
std::wstring registeredFolder(Scope scope);

/// Binds clips to the handler in `folder` (ending with a backslash) and tells the shell. What fails is
/// undone. May throw std::bad_alloc.
HRESULT registerHandler(const std::wstring& folder, Scope scope);

/// Puts back what was there before and tells the shell. May throw std::bad_alloc.
HRESULT unregisterHandler(Scope scope);
