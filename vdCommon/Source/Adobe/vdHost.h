// Where this library lies in its host's installation.
#pragma once

#include <string>

/// The folder of this library's own file, with its trailing backslash. Empty, with a log line, when Windows
/// cannot tell the path or it has 260 characters or more. May throw std::bad_alloc.
std::wstring GetDylibParentFolderPath();
