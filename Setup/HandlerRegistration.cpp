#include "HandlerRegistration.h"

#include <vector>

#include <shlobj.h>

#include "FileExtensions.h"
#include "GuardProvider.h"
#include "GuardValues.h"
#include "RegistryRows.h"
#include "Utils/vdModule.h"

namespace {
#define TYPE_NAME L"Clipforge.ThumbnailClip"
#define TYPE_KEY L"Software\\Classes\\" TYPE_NAME
#define EVENTS_KEY L"SYSTEM\\CurrentControlSet\\Services\\EventLog\\Application\\Clipforge Thumbnails"

constexpr wchar_t memoryKey[] = L"Software\\Verdane\\Clipforge\\Registered";
constexpr wchar_t guardFile[] = L"Clipforge_Guard.dll";
constexpr wchar_t iconFile[] = L"Clipforge_Icon.ico";

HKEY rootOf(Scope scope) {
    return scope == Scope::machine ? HKEY_LOCAL_MACHINE : HKEY_CURRENT_USER;
}

/// The file type and the icons, each where nobody has set another.
void addTypes(std::vector<SharedValue>& values, const std::wstring& icon) {
    values.push_back({L"Type", TYPE_KEY, nullptr, L"Blackmagic RAW Clip"});
    values.push_back({L"TypeIcon", TYPE_KEY L"\\DefaultIcon", nullptr, icon});
    for (const FileExtension& extension : fileExtensions) {
        const std::wstring key = std::wstring(L"Software\\Classes\\") + extension.name;
        if (extension.kind == FileKind::clip)
            values.push_back({L"ClipType", key, nullptr, TYPE_NAME, true});
        else
            values.push_back({extension.name, key + L"\\DefaultIcon", nullptr, icon, true});
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
    if (RegGetValueW(rootOf(scope), L"Software\\Classes\\CLSID\\" GUARD_CLSID_TEXT L"\\InProcServer32",
                     nullptr, RRF_RT_REG_SZ, nullptr, path, &size) != ERROR_SUCCESS)
        return {};
    return folderOf(path);
}

HRESULT registerHandler(const std::wstring& folder, Scope scope) {
    std::vector<SharedValue> values = guardValues(folder + guardFile);
    addTypes(values, folder + iconFile);
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
