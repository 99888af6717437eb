// What the registry must hold for the shell to ask the guard: for its own registration and for the
// installer's.
#pragma once

#include <string>
#include <vector>

#include "SharedValues.h"

/// The class, its place among the approved shell extensions, and the binding of the clips' extensions, for
/// the guard at the full path `guard`. No file type, which is not the guard's business. May throw
/// std::bad_alloc.
std::vector<SharedValue> guardValues(const std::wstring& guard);
