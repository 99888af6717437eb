// For this process and this object's lifetime, the machine's and the user's registry are keys that only the
// test knows.
#pragma once

#include "Common.h"

class StandInRegistry {
public:
    StandInRegistry() {
        for (Hive& hive : m_hives)
            RegCreateKeyExW(HKEY_CURRENT_USER, hive.name.c_str(), 0, nullptr, REG_OPTION_NON_VOLATILE,
                            KEY_ALL_ACCESS, nullptr, &hive.key, nullptr);
        for (const Hive& hive : m_hives)
            RegOverridePredefKey(hive.root, hive.key);
    }
    ~StandInRegistry() {
        for (const Hive& hive : m_hives)
            RegOverridePredefKey(hive.root, nullptr);
        for (const Hive& hive : m_hives) {
            RegCloseKey(hive.key);
            RegDeleteTreeW(HKEY_CURRENT_USER, hive.name.c_str());
        }
    }
    StandInRegistry(const StandInRegistry&) = delete;
    StandInRegistry& operator=(const StandInRegistry&) = delete;

    /// Values as they can be in any registry; a null `value` is the key's default value.
    static void setNumber(HKEY root, const std::wstring& key, const wchar_t* value, DWORD number,
                          DWORD type = REG_DWORD) {
        RegSetKeyValueW(root, key.c_str(), value, type, &number, sizeof number);
    }
    static void setText(HKEY root, const std::wstring& key, const wchar_t* value, const std::wstring& text,
                        DWORD type = REG_SZ) {
        RegSetKeyValueW(root, key.c_str(), value, type, text.c_str(),
                        static_cast<DWORD>((text.size() + 1) * sizeof(wchar_t)));
    }
    /// "(nothing)" when there is no such text.
    static std::wstring text(HKEY root, const std::wstring& key, const wchar_t* value = nullptr) {
        wchar_t found[512] = {};
        DWORD size = sizeof found;
        const LSTATUS status = RegGetValueW(root, key.c_str(), value, RRF_RT_REG_SZ, nullptr, found, &size);
        return status == ERROR_SUCCESS ? found : L"(nothing)";
    }

private:
    struct Hive {
        HKEY root;
        std::wstring name; ///< of this process alone: tests run side by side
        HKEY key = nullptr;
    };
    static std::wstring name(const wchar_t* kind) {
        return std::wstring(L"Software\\ClipforgeTest") + kind + std::to_wstring(GetCurrentProcessId());
    }
    Hive m_hives[2] = {{HKEY_LOCAL_MACHINE, name(L"Machine")}, {HKEY_CURRENT_USER, name(L"User")}};
};
