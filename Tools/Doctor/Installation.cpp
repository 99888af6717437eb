#include "Installation.h"

#include <algorithm>
#include <array>
#include <iterator>
#include <vector>

#include "GuardProvider.h"
#include "Paths.h"
#include "RegistryRows.h"
#include "Utils/vdModule.h"

namespace {

constexpr const wchar_t* kExtension = L".braw";

// The guard's class, and that of the handler behind it, which may be registered alone.
constexpr const wchar_t* kOurClasses[] = {GUARD_CLSID_TEXT, L"{5b8e2d41-93c7-4f0a-b6e5-2d17c9a4f380}"};

struct Place {
    Hive hive;
    HKEY root;
    const wchar_t* classes;
};
/// In the order in which Windows looks.
const Place kPlaces[] = {{Hive::user, HKEY_CURRENT_USER, L"Software\\Classes\\"},
                         {Hive::machine, HKEY_LOCAL_MACHINE, L"Software\\Classes\\"}};

bool isOurs(const std::wstring& classId) {
    return std::ranges::any_of(kOurClasses,
                               [&](const wchar_t* ours) { return _wcsicmp(ours, classId.c_str()) == 0; });
}

/// The classes' keys that may name a thumbnail handler, the strongest first: the type that the user chose,
/// the type that the extension has, the extension itself, and what Windows keeps for it.
std::vector<std::wstring> bindingKeys() {
    std::vector<std::wstring> keys;
    if (const auto chosen =
            registryText(HKEY_CURRENT_USER,
                         std::wstring(L"Software\\Microsoft\\Windows\\CurrentVersion\\Explorer\\"
                                      L"FileExts\\") +
                             kExtension + L"\\UserChoice",
                         L"ProgId"))
        keys.push_back(*chosen);
    for (const Place& place : kPlaces)
        if (const auto type = registryText(place.root, std::wstring(place.classes) + kExtension)) {
            keys.push_back(*type);
            break;
        }
    keys.emplace_back(kExtension);
    keys.push_back(std::wstring(L"SystemFileAssociations\\") + kExtension);
    return keys;
}

std::optional<Binding> findBinding() {
    for (const std::wstring& key : bindingKeys())
        for (const Place& place : kPlaces) {
            const auto classId = registryText(place.root, place.classes + key + THUMBNAIL_BINDING_KEY);
            if (!key.empty() && classId && !classId->empty())
                return Binding{*classId, place.hive, key, isOurs(*classId)};
        }
    return std::nullopt;
}

std::optional<Server> findServer(const std::wstring& classId) {
    for (const Place& place : kPlaces) {
        const std::wstring key = place.classes + (L"CLSID\\" + classId);
        const auto path = registryText(place.root, key + L"\\InProcServer32");
        if (!path || path->empty())
            continue;
        const auto threads = registryText(place.root, key + L"\\InProcServer32", L"ThreadingModel");
        return Server{place.hive, *path, threads && _wcsicmp(threads->c_str(), L"Apartment") == 0,
                      registryNumber(place.root, key, L"DisableProcessIsolation").value_or(0) == 1};
    }
    return std::nullopt;
}

bool isRegisteredFor32Bit() {
    return std::ranges::any_of(kOurClasses, [](const wchar_t* classId) {
        return registryText(HKEY_LOCAL_MACHINE, std::wstring(L"Software\\Classes\\Wow6432Node\\CLSID\\") +
                                                    classId + L"\\InProcServer32")
            .has_value();
    });
}

} // namespace

std::optional<std::wstring> registryText(HKEY root, const std::wstring& key, const wchar_t* value) {
    DWORD size = 0;
    if (RegGetValueW(root, key.c_str(), value, RRF_RT_REG_SZ, nullptr, nullptr, &size) != ERROR_SUCCESS)
        return std::nullopt;
    std::wstring text(size / sizeof(wchar_t) + 1, L'\0');
    size = static_cast<DWORD>(text.size() * sizeof(wchar_t));
    if (RegGetValueW(root, key.c_str(), value, RRF_RT_REG_SZ, nullptr, text.data(), &size) != ERROR_SUCCESS)
        return std::nullopt;
    text.resize(wcslen(text.c_str()));
    return text;
}

std::optional<DWORD> registryNumber(HKEY root, const std::wstring& key, const wchar_t* value) {
    DWORD number = 0;
    DWORD size = sizeof number;
    if (RegGetValueW(root, key.c_str(), value, RRF_RT_REG_DWORD, nullptr, &number, &size) != ERROR_SUCCESS)
        return std::nullopt;
    return number;
}

Installation inspectInstallation(const std::wstring& folder) {
    Installation installation;
    installation.binding = findBinding();
    if (installation.binding && installation.binding->isOurs)
        installation.server = findServer(installation.binding->classId);
    for (const wchar_t* const classId : kOurClasses)
        if (!installation.server && !(installation.binding && installation.binding->isOurs))
            installation.server = findServer(classId);
    installation.isFor32BitOnly = !installation.server && isRegisteredFor32Bit();
    const bool isThere = installation.server && fileSize(installation.server->path) >= 0;
    installation.folder = isThere ? folderOf(installation.server->path) : folder;
    return installation;
}

std::wstring titleOfClass(const std::wstring& classId) {
    for (const Place& place : kPlaces)
        if (const auto title = registryText(place.root, place.classes + (L"CLSID\\" + classId));
            title && !title->empty())
            return L"\"" + *title + L"\"";
    return classId;
}
