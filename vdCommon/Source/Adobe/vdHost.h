// The host application, and where this library lies.
#pragma once

#include <cstdint>
#include <string>

enum class vdHostApp : uint8_t { unknown = 0, desktop = 10 };

/// The application's display name; an unknown value prints as its number.
std::string hostAppName(vdHostApp app);

/// The folder of this library's own file, with its trailing backslash. A path that Windows cannot tell, or
/// that is too long for it, gives a text that no file lies under.
std::wstring GetDylibParentFolderPath();
