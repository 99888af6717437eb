// The host applications that the foundation knows.
#pragma once

#include <cstdint>
#include <string>

/// The values that this product names itself; the others are only ever displayed.
enum class vdHostApp : uint8_t { unknown = 0, desktop = 10 };

/// The application's display name; an unknown value prints as its number.
std::string hostAppName(vdHostApp app);
