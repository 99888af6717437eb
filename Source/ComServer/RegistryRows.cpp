#include "RegistryRows.h"

#include <tuple>

#include "Utils/vdModule.h"

namespace {
LSTATUS setText(HKEY key, const wchar_t* value, std::wstring_view text) { // zero-terminated, and stored so
    return RegSetValueExW(key, value, 0, REG_SZ, reinterpret_cast<const BYTE*>(text.data()),
                          static_cast<DWORD>((text.size() + 1) * sizeof(wchar_t)));
}

LSTATUS setValue(HKEY key, const RegistryRow& row, std::span<const std::wstring> texts) {
    if (const auto* const number = std::get_if<DWORD>(&row.data))
        return RegSetValueExW(key, row.value, 0, REG_DWORD, reinterpret_cast<const BYTE*>(number),
                              sizeof *number);
    if (const auto* const place = std::get_if<RegistryText>(&row.data))
        return setText(key, row.value, texts[static_cast<size_t>(*place)]);
    return setText(key, row.value, std::get<const wchar_t*>(row.data));
}

HRESULT writeRow(HKEY root, const std::wstring& path, const RegistryRow& row,
                 std::span<const std::wstring> texts) {
    HKEY key = nullptr;
    LSTATUS status = RegCreateKeyExW(root, path.c_str(), 0, nullptr, REG_OPTION_NON_VOLATILE, KEY_SET_VALUE,
                                     nullptr, &key, nullptr);
    if (status == ERROR_SUCCESS) {
        status = setValue(key, row, texts);
        RegCloseKey(key);
    }
    return HRESULT_FROM_WIN32(status);
}
} // namespace

HRESULT findModulePath(std::wstring& path) {
    path = ownModulePath();
    if (path.empty())
        return HRESULT_FROM_WIN32(GetLastError());
    return path.size() < MAX_PATH ? S_OK : HRESULT_FROM_WIN32(ERROR_INSUFFICIENT_BUFFER);
}

HRESULT writeRegistryRows(const RegistryRoot& root, std::wstring_view base, std::span<const RegistryRow> rows,
                          std::span<const std::wstring> texts) {
    for (const RegistryRow& row : rows) {
        const std::wstring path = std::wstring(root.prefix).append(base).append(row.key);
        if (const HRESULT hr = writeRow(root.key, path, row, texts); FAILED(hr))
            return hr;
    }
    return S_OK;
}

HRESULT deleteRegistryKey(const RegistryRoot& root, std::wstring_view key) {
    const std::wstring path = std::wstring(root.prefix).append(key);
    const LSTATUS status = RegDeleteTreeW(root.key, path.c_str());
    return status == ERROR_FILE_NOT_FOUND ? S_OK : HRESULT_FROM_WIN32(status);
}
