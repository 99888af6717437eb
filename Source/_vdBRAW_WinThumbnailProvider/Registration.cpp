#include "Registration.h"

#include <string>
#include <string_view>

#include <shlobj.h>

namespace {
/// Sizes of the paths with their terminators, in characters.
constexpr size_t pathCapacity = 260;
constexpr size_t commandLineCapacity = 268;

/// Where each key is written: for the whole machine, and in the merged view that the shell reads.
struct Root {
    HKEY key;
    std::wstring_view prefix;
};
const Root roots[] = {{HKEY_LOCAL_MACHINE, L"SOFTWARE\\Classes\\"}, {HKEY_CLASSES_ROOT, L""}};

enum class Data { text, number, modulePath, iconPath, commandLine };

struct Row {
    const wchar_t* key;
    const wchar_t* value; ///< null for the key's default value
    Data data;
    const wchar_t* text = nullptr;
    DWORD number = 0;
};

#define CLASS_KEY L"CLSID\\" CLIPFORGE_CLSID_TEXT
#define SERVER_KEY CLASS_KEY L"\\InProcServer32"
#define THUMBNAIL_PROVIDER_IID_TEXT L"{e357fccd-a995-4576-b01f-234630154e96}"

// "DisableProcessIsolation" has the shell load the handler in its own process; "Apartment" has each object
// called on the thread that made it.
constexpr Row rows[] = {
    {CLASS_KEY, nullptr, Data::text, L"Clipforge Thumbnail Handler"},
    {CLASS_KEY, L"DisableProcessIsolation", Data::number, nullptr, 1},
    {SERVER_KEY, nullptr, Data::modulePath},
    {SERVER_KEY, L"ThreadingModel", Data::text, L"Apartment"},
    {L".braw", nullptr, Data::text, L"Clipforge.Clip"},
    {L".braw", L"Content Type", Data::text, L"movie/x-braw"},
    {L".braw\\ShellEx\\" THUMBNAIL_PROVIDER_IID_TEXT, nullptr, Data::text, CLIPFORGE_CLSID_TEXT},
    {L".braw\\DefaultIcon", nullptr, Data::iconPath},
    {L"Clipforge.Clip", nullptr, Data::text, L"Blackmagic RAW Clip"},
    {L"Clipforge.Clip\\shell\\open", nullptr, Data::text, L"open"},
    {L"Clipforge.Clip\\shell\\open\\command", nullptr, Data::commandLine},
    {L".sidecar\\DefaultIcon", nullptr, Data::iconPath},
    {L".braw2\\DefaultIcon", nullptr, Data::iconPath},
};

constexpr const wchar_t* keysToDelete[] = {CLASS_KEY, L"Clipforge.Clip", L".braw", L".sidecar", L".braw2"};

/// The texts that depend on where the library lies.
struct Locations {
    std::wstring modulePath;
    std::wstring iconPath;
    std::wstring commandLine;
};

HRESULT findLocations(HMODULE module, Locations& locations) {
    wchar_t path[pathCapacity];
    const DWORD length = GetModuleFileNameW(module, path, pathCapacity);
    if (length == 0)
        return HRESULT_FROM_WIN32(GetLastError());
    if (length >= pathCapacity) // cut: no room was left for its terminator
        return HRESULT_FROM_WIN32(ERROR_INSUFFICIENT_BUFFER);

    locations.modulePath.assign(path, length);
    const std::wstring folder = locations.modulePath.substr(0, locations.modulePath.find_last_of(L"\\/") + 1);

    locations.commandLine = L"\"" + folder + L"Clipforge.exe\" \"%1\"";
    if (locations.commandLine.size() >= commandLineCapacity)
        return HRESULT_FROM_WIN32(ERROR_INSUFFICIENT_BUFFER);

    // An icon path that would be too long is left at the folder: no icon shows, and nothing else suffers.
    locations.iconPath = folder + L"Clipforge_Icon.ico";
    if (locations.iconPath.size() >= pathCapacity)
        locations.iconPath = folder;
    return S_OK;
}

std::wstring_view textOf(const Row& row, const Locations& locations) {
    switch (row.data) {
    case Data::modulePath:
        return locations.modulePath;
    case Data::iconPath:
        return locations.iconPath;
    case Data::commandLine:
        return locations.commandLine;
    default:
        return row.text;
    }
}

LSTATUS setValue(HKEY key, const Row& row, const Locations& locations) {
    if (row.data == Data::number)
        return RegSetValueExW(key, row.value, 0, REG_DWORD, reinterpret_cast<const BYTE*>(&row.number),
                              sizeof row.number);
    const std::wstring_view text = textOf(row, locations); // zero-terminated, and stored with its terminator
    return RegSetValueExW(key, row.value, 0, REG_SZ, reinterpret_cast<const BYTE*>(text.data()),
                          static_cast<DWORD>((text.size() + 1) * sizeof(wchar_t)));
}

HRESULT writeRow(const Root& root, const Row& row, const Locations& locations) {
    const std::wstring path = std::wstring(root.prefix) + row.key;
    HKEY key = nullptr;
    LSTATUS status = RegCreateKeyExW(root.key, path.c_str(), 0, nullptr, REG_OPTION_NON_VOLATILE,
                                     KEY_SET_VALUE, nullptr, &key, nullptr);
    if (status == ERROR_SUCCESS) {
        status = setValue(key, row, locations);
        RegCloseKey(key);
    }
    return HRESULT_FROM_WIN32(status);
}
} // namespace

HRESULT registerServer(HMODULE module) {
    Locations locations;
    if (const HRESULT hr = findLocations(module, locations); FAILED(hr))
        return hr;
    for (const Root& root : roots)
        for (const Row& row : rows)
            if (const HRESULT hr = writeRow(root, row, locations); FAILED(hr))
                return hr;
    SHChangeNotify(SHCNE_ASSOCCHANGED, SHCNF_IDLIST, nullptr, nullptr);
    return S_OK;
}

HRESULT unregisterServer() {
    for (const Root& root : roots) {
        for (const wchar_t* name : keysToDelete) {
            const std::wstring path = std::wstring(root.prefix) + name;
            const LSTATUS status = RegDeleteTreeW(root.key, path.c_str());
            if (status != ERROR_SUCCESS && status != ERROR_FILE_NOT_FOUND)
                return HRESULT_FROM_WIN32(status);
        }
    }
    return S_OK;
}
