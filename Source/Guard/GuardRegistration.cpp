#include "GuardRegistration.h"

#include <optional>
#include <string>

#include <shlobj.h>

#include "FileExtensions.h"
#include "GuardProvider.h"
#include "RegistryRows.h"

namespace {
const RegistryRoot classesRoot = {HKEY_LOCAL_MACHINE, machineClasses};
/// Where an administrator who allows approved shell extensions alone looks.
const RegistryRoot approvedRoot = {HKEY_LOCAL_MACHINE, L"SOFTWARE\\Microsoft\\Windows\\CurrentVersion\\"};

#define CLASS_KEY L"CLSID\\" GUARD_CLSID_TEXT
#define SERVER_KEY CLASS_KEY L"\\InProcServer32"
#define APPROVED_KEY L"Shell Extensions\\Approved"
#define CLASS_TITLE L"Clipforge Guarded Thumbnail Handler"

/// The class's values that tell what an extension was bound to are called this and the extension.
constexpr wchar_t formerBinding[] = L"Former";

// A handler that is initialised with a file has to be in the shell's own process, whatever it does there.
constexpr RegistryRow classRows[] = {
    {CLASS_KEY, nullptr, CLASS_TITLE},
    {CLASS_KEY, L"DisableProcessIsolation", DWORD{1}},
    {SERVER_KEY, nullptr, RegistryText{0}}, // the module's path
    {SERVER_KEY, L"ThreadingModel", L"Apartment"},
};
constexpr RegistryRow bindingRows[] = {{THUMBNAIL_BINDING_KEY, nullptr, GUARD_CLSID_TEXT}};
constexpr RegistryRow approvedRows[] = {{APPROVED_KEY, GUARD_CLSID_TEXT, CLASS_TITLE}};

std::wstring pathOf(std::wstring_view key) {
    return std::wstring(classesRoot.prefix).append(key);
}

std::optional<std::wstring> readText(std::wstring_view key, const wchar_t* value) {
    wchar_t text[MAX_PATH] = {};
    DWORD size = sizeof text;
    const LSTATUS status =
        RegGetValueW(classesRoot.key, pathOf(key).c_str(), value, RRF_RT_REG_SZ, nullptr, text, &size);
    return status == ERROR_SUCCESS ? std::optional<std::wstring>(text) : std::nullopt;
}

bool isGuard(const std::optional<std::wstring>& binding) {
    return binding && _wcsicmp(binding->c_str(), GUARD_CLSID_TEXT) == 0;
}

/// One extension's way to the guard and back.
class Binding {
public:
    explicit Binding(const FileExtension& extension)
        : m_extension(extension.name), m_key(m_extension + THUMBNAIL_BINDING_KEY),
          m_former(formerBinding + m_extension) {}

    /// A second registration finds the guard's own binding, and keeps what the first remembered.
    HRESULT bind() const {
        const std::optional<std::wstring> bound = readText(m_key, nullptr);
        if (bound && !isGuard(bound)) {
            const RegistryRow former[] = {{CLASS_KEY, m_former.c_str(), bound->c_str()}};
            if (const HRESULT hr = writeRegistryRows(classesRoot, L"", former, {}); FAILED(hr))
                return hr;
        }
        return writeRegistryRows(classesRoot, m_extension, bindingRows, {});
    }

    /// Whoever has been bound since stays.
    HRESULT putBack() const {
        if (!isGuard(readText(m_key, nullptr)))
            return S_OK;
        const std::optional<std::wstring> former = readText(CLASS_KEY, m_former.c_str());
        if (former) {
            const RegistryRow row[] = {{m_key.c_str(), nullptr, former->c_str()}};
            return writeRegistryRows(classesRoot, L"", row, {});
        }
        const HRESULT hr = deleteRegistryKey(classesRoot, m_key);
        for (std::wstring key = m_key; key.find(L'\\') != std::wstring::npos && SUCCEEDED(hr);) {
            key.resize(key.rfind(L'\\'));
            deleteIfEmpty(key);
        }
        return hr;
    }

private:
    /// A key that stands there for our binding alone.
    static void deleteIfEmpty(const std::wstring& key) {
        DWORD keys = 1, values = 1;
        HKEY opened = nullptr;
        if (RegOpenKeyExW(classesRoot.key, pathOf(key).c_str(), 0, KEY_READ, &opened) != ERROR_SUCCESS)
            return;
        RegQueryInfoKeyW(opened, nullptr, nullptr, nullptr, &keys, nullptr, nullptr, &values, nullptr,
                         nullptr, nullptr, nullptr);
        RegCloseKey(opened);
        if (keys == 0 && values == 0)
            RegDeleteKeyW(classesRoot.key, pathOf(key).c_str());
    }

    std::wstring m_extension, m_key, m_former;
};

template <class Work>
HRESULT forEachClipExtension(const Work& work) {
    HRESULT hr = S_OK;
    for (const FileExtension& extension : fileExtensions)
        if (extension.kind == FileKind::clip && SUCCEEDED(hr))
            hr = work(Binding(extension));
    return hr;
}

void tellShell() {
    SHChangeNotify(SHCNE_ASSOCCHANGED, SHCNF_IDLIST, nullptr, nullptr);
}
} // namespace

HRESULT registerGuard(HMODULE module) {
    std::wstring path;
    HRESULT hr = findModulePath(module, path);
    if (SUCCEEDED(hr))
        hr = writeRegistryRows(classesRoot, L"", classRows, {&path, 1});
    if (SUCCEEDED(hr))
        hr = forEachClipExtension([](const Binding& binding) { return binding.bind(); });
    if (SUCCEEDED(hr))
        hr = writeRegistryRows(approvedRoot, L"", approvedRows, {});
    if (SUCCEEDED(hr))
        tellShell();
    return hr;
}

HRESULT unregisterGuard() {
    HRESULT hr = forEachClipExtension([](const Binding& binding) { return binding.putBack(); });
    if (SUCCEEDED(hr))
        hr = deleteRegistryKey(classesRoot, CLASS_KEY);
    if (SUCCEEDED(hr)) {
        const std::wstring approved = std::wstring(approvedRoot.prefix) + APPROVED_KEY;
        const LSTATUS status = RegDeleteKeyValueW(approvedRoot.key, approved.c_str(), GUARD_CLSID_TEXT);
        hr = status == ERROR_FILE_NOT_FOUND ? S_OK : HRESULT_FROM_WIN32(status);
    }
    if (SUCCEEDED(hr))
        tellShell();
    return hr;
}
