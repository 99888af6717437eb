// What a server writes into the registry, as rows of a table, and how they get there.
#pragma once

#include <span>
#include <string>
#include <string_view>
#include <variant>

#include <windows.h>

/// Below an extension's key: the class that makes its thumbnails, the shell's IThumbnailProvider.
#define THUMBNAIL_BINDING_KEY L"\\ShellEx\\{e357fccd-a995-4576-b01f-234630154e96}"

/// Where keys are written: each key's path begins with the prefix.
struct RegistryRoot {
    HKEY key;
    std::wstring_view prefix;
};

/// For the whole machine.
constexpr wchar_t machineClasses[] = L"SOFTWARE\\Classes\\";

/// A text that is known at run time only: its place in the list of such texts.
enum class RegistryText : size_t {};

struct RegistryRow {
    const wchar_t* key;   ///< follows the base that its table is written for
    const wchar_t* value; ///< null for the key's default value
    std::variant<const wchar_t*, DWORD, RegistryText> data;
};

/// The full path of this module, which shells read into buffers of MAX_PATH characters:
/// ERROR_INSUFFICIENT_BUFFER for a longer one. May throw std::bad_alloc.
HRESULT findModulePath(std::wstring& path);

/// Writes the rows one after the other, each under root, base and its key, and ends with the first that
/// fails: the rows before it stay. May throw std::bad_alloc.
HRESULT writeRegistryRows(const RegistryRoot& root, std::wstring_view base, std::span<const RegistryRow> rows,
                          std::span<const std::wstring> texts);

/// Deletes a key with all that lies under it; a missing one counts as deleted. May throw std::bad_alloc.
HRESULT deleteRegistryKey(const RegistryRoot& root, std::wstring_view key);
