#include "Utils/vdCloudFile.h"

#include <windows.h>

#include "Utils/vdPolicy.h"

namespace {
// Newer than the toolchain's headers.
constexpr DWORD recallOnOpen = 0x00040000;
constexpr DWORD recallOnDataAccess = 0x00400000;

/// As the folder lists them: "recall on open" shows nowhere else. A folder that may not be listed still tells
/// the others.
DWORD attributesOf(const wchar_t* path) noexcept {
    WIN32_FIND_DATAW entry = {};
    const HANDLE search = FindFirstFileExW(path, FindExInfoBasic, &entry, FindExSearchNameMatch, nullptr, 0);
    if (search != INVALID_HANDLE_VALUE) {
        FindClose(search);
        return entry.dwFileAttributes;
    }
    const DWORD attributes = GetFileAttributesW(path);
    return attributes != INVALID_FILE_ATTRIBUTES ? attributes : 0;
}
} // namespace

bool wouldBeFetched(const wchar_t* path) noexcept {
    constexpr DWORD elsewhere = FILE_ATTRIBUTE_OFFLINE | recallOnOpen | recallOnDataAccess;
    return (attributesOf(path) & elsewhere) != 0;
}

bool isSparedCloudFile(const wchar_t* path) noexcept {
    return wouldBeFetched(path) && policyValue(vdPolicy::cloudThumbnails) == 0;
}
