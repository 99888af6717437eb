#include "HandlerRegistration.h"

#include <vector>

#include <shlobj.h>

#include "FileExtensions.h"
#include "RegistryRows.h"
#include "SharedValues.h"

namespace {
#define CLASS_TEXT L"{5b8e2d41-93c7-4f0a-b6e5-2d17c9a4f380}"
#define CLASS_NAME L"Clipforge Thumbnail Handler"
#define CLASS_KEY L"Software\\Classes\\CLSID\\" CLASS_TEXT
#define SERVER_KEY CLASS_KEY L"\\InProcServer32"
#define TYPE_NAME L"Clipforge.ThumbnailClip"
#define TYPE_KEY L"Software\\Classes\\" TYPE_NAME
#define EVENTS_KEY L"SYSTEM\\CurrentControlSet\\Services\\EventLog\\Application\\Clipforge Thumbnails"

constexpr wchar_t memoryKey[] = L"Software\\Verdane\\Clipforge\\Registered";
constexpr wchar_t handlerFile[] = L"Clipforge_Thumbnails.dll";

HKEY rootOf(Scope scope) {
    return scope == Scope::machine ? HKEY_LOCAL_MACHINE : HKEY_CURRENT_USER;
}

/// "DisableProcessIsolation" has the shell load the handler in its own process, which a handler that is told
/// a path needs; machines under a policy load only classes of the approved list.
std::vector<SharedValue> ownValues(const std::wstring& folder) {
    return {
        {L"Class", CLASS_KEY, nullptr, CLASS_NAME},
        {L"Isolation", CLASS_KEY, L"DisableProcessIsolation", DWORD{1}},
        {L"Server", SERVER_KEY, nullptr, folder + handlerFile},
        {L"Threads", SERVER_KEY, L"ThreadingModel", L"Apartment"},
        {L"Approved", L"Software\\Microsoft\\Windows\\CurrentVersion\\Shell Extensions\\Approved", CLASS_TEXT,
         CLASS_NAME},
        {L"Type", TYPE_KEY, nullptr, L"Blackmagic RAW Clip"},
        {L"TypeIcon", TYPE_KEY L"\\DefaultIcon", nullptr, folder + L"Clipforge_Icon.ico"},
    };
}

void addExtensions(std::vector<SharedValue>& values, const std::wstring& folder) {
    for (const FileExtension& extension : fileExtensions) {
        const std::wstring key = std::wstring(L"Software\\Classes\\") + extension.name;
        if (extension.kind == FileKind::clip) {
            values.push_back({L"Thumbnails", key + THUMBNAIL_BINDING_KEY, nullptr, CLASS_TEXT});
            values.push_back({L"ClipType", key, nullptr, TYPE_NAME, true});
        } else
            values.push_back(
                {extension.name, key + L"\\DefaultIcon", nullptr, folder + L"Clipforge_Icon.ico", true});
    }
}

/// For events of ours the system's own program stands in as the file with the message: "%1".
void addEvents(std::vector<SharedValue>& values) {
    constexpr DWORD errorsWarningsAndInformation = 7;
    values.push_back(
        {L"Events", EVENTS_KEY, L"EventMessageFile", L"%SystemRoot%\\System32\\EventCreate.exe"});
    values.push_back({L"EventTypes", EVENTS_KEY, L"TypesSupported", errorsWarningsAndInformation});
}
} // namespace

std::wstring registeredFolder(Scope scope) {
    wchar_t path[MAX_PATH] = L"";
    DWORD size = sizeof path;
    if (RegGetValueW(rootOf(scope), SERVER_KEY, nullptr, RRF_RT_REG_SZ, nullptr, path, &size) !=
        ERROR_SUCCESS)
        return {};
    return folderOf(path);
}

HRESULT registerHandler(const std::wstring& folder, Scope scope) {
    std::vector<SharedValue> values = ownValues(folder);
    addExtensions(values, folder);
    if (scope == Scope::machine)
        addEvents(values);
    const HRESULT hr = writeSharedValues(rootOf(scope), memoryKey, values);
    if (FAILED(hr))
        restoreSharedValues(rootOf(scope), memoryKey);
    SHChangeNotify(SHCNE_ASSOCCHANGED, SHCNF_IDLIST, nullptr, nullptr);
    return hr;
}

HRESULT unregisterHandler(Scope scope) {
    const HRESULT hr = restoreSharedValues(rootOf(scope), memoryKey);
    SHChangeNotify(SHCNE_ASSOCCHANGED, SHCNF_IDLIST, nullptr, nullptr);
    return hr;
}
