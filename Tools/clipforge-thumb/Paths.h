// Files as a person names them: what they are, and what keeps them from being read.
#pragma once

#include <cstdint>
#include <string>

/// The path as Windows' functions and the handler take it. An empty one stays empty.
std::wstring fullPath(const std::wstring& path);
/// What stands behind the last separator.
std::wstring fileName(const std::wstring& path);
/// This program's own file.
std::wstring programPath();
/// In bytes; -1 when there is no such file.
int64_t fileSize(const std::wstring& path);
bool isFolder(const std::wstring& path);
/// Both lead to one file, whatever they are spelled like; false when either leads to none.
bool isSameFile(const std::wstring& first, const std::wstring& second);

/// Why a file cannot be read, as the end of a sentence that begins with its name ("is a folder"); empty when
/// it can.
std::wstring obstacleTo(const std::wstring& path);
/// What a file's first bytes say it is, when they are a kind that is surely no clip ("a JPEG picture"); else
/// empty.
std::wstring kindOfNoClip(const std::wstring& path);
