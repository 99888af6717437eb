// The one file of the maker's decoder library that the handler works with.
#pragma once

#include <cstdint>

inline constexpr wchar_t BlackmagicRawAPIFileName[] = L"BlackmagicRawAPI.dll";

/// In bytes; a library of another size is another version, and is not used.
inline constexpr int64_t BlackmagicRawAPIFileSize = 2'161'112;

/// Where a host integration installs it; the handler looks there when it is not beside itself.
inline constexpr wchar_t BlackmagicRawAPIHostFolder[] =
    L"C:\\Program Files\\Adobe\\Common\\Plug-ins\\7.0\\MediaCore\\Clipforge\\";
