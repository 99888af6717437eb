// Path text, file-system queries and operations, and the per-user folders of the product.
//
// Paths are UTF-8. Operations report failure as a vdStatus with a readable message; none throws for a
// file-system error (all may throw std::bad_alloc). No state is kept; any thread may call them.
#pragma once

#include <cstdint>
#include <cstdio>
#include <fstream>
#include <string>
#include <string_view>

#include "Utils/vdStatus.h"

/// `base` with the components of `addition` appended, each behind one backslash unless a separator stands
/// there already. An empty base gives a result that begins with a backslash.
std::string joinPath(std::string_view base, std::string_view addition);
std::string toBackslashes(std::string_view path);
std::string toForwardSlashes(std::string_view path);
std::string stripTrailingSeparators(std::string_view path);

/// Files and folders alike.
bool fileExists(std::string_view path);
bool isDirectory(std::string_view path);
/// Size in bytes, or -1 when it cannot be read.
int64_t fileSize(std::string_view path);

/// An existing folder counts as success.
vdStatus createDirectory(std::string_view path);
/// Creates every missing level. A server and its share are not levels: they are there or they are not.
vdStatus createDirectories(std::string_view path);
vdStatus moveFile(std::string_view from, std::string_view to);
/// A missing file counts as success.
vdStatus removeFile(std::string_view path);
/// The folder must be empty.
vdStatus removeDirectory(std::string_view path);

/// Opens for reading, "r" or "rb", and hinders nobody: others may read, write, move and delete the file
/// meanwhile, and processes that are started then do not inherit it. Null on failure, with errno set. The
/// caller closes it.
FILE* openForReading(std::string_view path, const char* mode = "r");
/// Opens `stream` for output on `path`, closing what it had open. Success shows in stream.is_open().
void openOutputStream(std::ofstream& stream, std::string_view path, std::ios::openmode mode);

/// A copy with every "/" turned into "\" and, unless empty, a "\" at the end.
std::wstring normaliseLibraryFolder(std::wstring_view folder);

// The folders below are created when missing; the first step that fails is the one reported.

/// The user's profile folder.
vdStatus getUserHomeFolder(std::string& folder);
/// The maker's folder in the roaming profile.
vdStatus getRoamingFolder(std::string& folder);
/// The product's folder inside the maker's.
vdStatus getProductFolder(std::string& folder);
/// The product's log folder: `subFolder` inside the product folder, "Logs" when that is empty.
vdStatus getProductLogsFolder(std::string& folder, std::string_view subFolder);
/// The settings file; created empty when missing.
vdStatus getOptionsFilePath(std::string& path);
