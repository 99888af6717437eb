// What stood in the registry before the handler came is there again when it has gone.
#include "HandlerRegistration.h"

#include <map>

#include <gtest/gtest.h>

#include <shlobj.h>

#include "Imports.h"
#include "StandInRegistry.h"

namespace {
constexpr wchar_t binding[] = L"Software\\Classes\\.braw\\ShellEx\\{e357fccd-a995-4576-b01f-234630154e96}";
constexpr wchar_t ourClass[] = L"{0c6f4a97-51d2-4e83-a0b9-7be4d25c8a16}";
constexpr wchar_t ourServer[] =
    L"Software\\Classes\\CLSID\\{0c6f4a97-51d2-4e83-a0b9-7be4d25c8a16}\\InProcServer32";

constexpr wchar_t events[] =
    L"SYSTEM\\CurrentControlSet\\Services\\EventLog\\Application\\Clipforge Thumbnails";

/// Every key, with an empty name, and every value with its type and bytes.
using Picture = std::map<std::wstring, std::vector<BYTE>>;

void photograph(HKEY key, const std::wstring& path, Picture& picture) {
    picture[path + L"\\"];
    wchar_t name[256];
    for (DWORD i = 0, length = 256;; ++i, length = 256) {
        std::vector<BYTE> bytes(1024);
        auto size = static_cast<DWORD>(bytes.size());
        DWORD type = 0;
        if (RegEnumValueW(key, i, name, &length, nullptr, &type, bytes.data(), &size) != ERROR_SUCCESS)
            break;
        bytes.resize(size);
        bytes.push_back(static_cast<BYTE>(type));
        picture[path + L"\\" + name + L"="] = bytes;
    }
    for (DWORD i = 0, length = 256;
         RegEnumKeyExW(key, i, name, &length, nullptr, nullptr, nullptr, nullptr) == ERROR_SUCCESS;
         ++i, length = 256) {
        HKEY child = nullptr;
        RegOpenKeyExW(key, name, 0, KEY_READ, &child);
        photograph(child, path + L"\\" + name, picture);
        RegCloseKey(child);
    }
}

Picture photograph() {
    Picture picture;
    photograph(HKEY_LOCAL_MACHINE, L"machine", picture);
    photograph(HKEY_CURRENT_USER, L"user", picture);
    return picture;
}

void makeKey(HKEY root, const wchar_t* path) {
    HKEY key = nullptr;
    RegCreateKeyExW(root, path, 0, nullptr, 0, KEY_READ, nullptr, &key, nullptr);
    RegCloseKey(key);
}

const struct {
    const char* name;
    std::function<void(HKEY)> write;
} states[] = {
    {"nothing", [](HKEY) {}},
    {"an empty extension", [](HKEY root) { makeKey(root, L"Software\\Classes\\.braw"); }},
    {"an empty binding", [](HKEY root) { makeKey(root, binding); }},
    {"another's binding",
     [](HKEY root) {
         StandInRegistry::setText(root, binding, nullptr, L"{11111111-1111-1111-1111-111111111111}");
     }},
    {"another's binding, type and icon",
     [](HKEY root) {
         StandInRegistry::setText(root, binding, nullptr, L"%other%", REG_EXPAND_SZ);
         StandInRegistry::setText(root, L"Software\\Classes\\.braw", nullptr, L"Other.Type");
         StandInRegistry::setText(root, L"Software\\Classes\\.braw", L"Content Type", L"video/x-other");
         StandInRegistry::setText(root, L"Software\\Classes\\.braw2\\DefaultIcon", nullptr, L"other.ico");
         StandInRegistry::setText(root, L"Software\\Classes\\.sidecar\\shell\\open\\command", nullptr,
                                  L"other.exe");
     }},
    {"a class of our name",
     [](HKEY root) {
         StandInRegistry::setText(root, ourServer, nullptr, L"D:\\old\\Clipforge_Thumbnails.dll");
     }},
    {"settings of ours",
     [](HKEY root) { StandInRegistry::setText(root, L"Software\\Verdane\\Clipforge", L"x", L"y"); }},
};

int g_notifications = 0, g_writesUntilFailure = 0;
decltype(&RegSetValueExW) g_setValue;

void WINAPI countNotification(LONG, UINT, LPCVOID, LPCVOID) {
    ++g_notifications;
}
LSTATUS WINAPI failToSet(HKEY key, LPCWSTR name, DWORD reserved, DWORD type, const BYTE* data, DWORD size) {
    return --g_writesUntilFailure == 0 ? ERROR_DISK_FULL : g_setValue(key, name, reserved, type, data, size);
}

class HandlerRegistration : public testing::TestWithParam<Scope> {
protected:
    const StandInRegistry m_registry;
    const HKEY m_root = GetParam() == Scope::machine ? HKEY_LOCAL_MACHINE : HKEY_CURRENT_USER;
};

TEST_P(HandlerRegistration, LeavesEverythingAsItWas) {
    for (const auto& [name, write] : states) {
        SCOPED_TRACE(name);
        RegDeleteTreeW(m_root, nullptr);
        makeKey(m_root, L"Software");
        write(m_root);
        const Picture before = photograph();
        const std::wstring type = StandInRegistry::text(m_root, L"Software\\Classes\\.braw");
        EXPECT_EQ(S_OK, registerHandler(L"C:\\one\\", GetParam()));
        EXPECT_EQ(type == L"(nothing)" ? L"Clipforge.ThumbnailClip" : type,
                  StandInRegistry::text(m_root, L"Software\\Classes\\.braw"));
        EXPECT_EQ(L"C:\\one\\", registeredFolder(GetParam()));
        EXPECT_EQ(ourClass, StandInRegistry::text(m_root, binding));
        EXPECT_EQ(L"(nothing)",
                  StandInRegistry::text(m_root,
                                        L"Software\\Classes\\Clipforge.ThumbnailClip\\shell\\open\\command"));
        EXPECT_EQ(S_OK, registerHandler(L"C:\\two %TEMP%\\", GetParam())) << "an upgrade";
        EXPECT_EQ(L"C:\\two %TEMP%\\Clipforge_Guard.dll", StandInRegistry::text(m_root, ourServer));
        EXPECT_EQ(L"C:\\two %TEMP%\\Clipforge_Icon.ico",
                  StandInRegistry::text(m_root, L"Software\\Classes\\.sidecar\\DefaultIcon"));
        const std::wstring messages = StandInRegistry::text(m_root, events, L"EventMessageFile");
        EXPECT_EQ(std::wstring::npos, messages.find(L'%')) << "the folder's name is not Windows' own";
        EXPECT_EQ(S_OK, unregisterHandler(GetParam()));
        EXPECT_EQ(before, photograph());
        EXPECT_EQ(S_OK, unregisterHandler(GetParam()));
        EXPECT_EQ(before, photograph());
    }
}

TEST_P(HandlerRegistration, WhatFailsIsUndoneAndTheShellIsToldOfAll) {
    const ReplacedImport notify("SHChangeNotify", &countNotification);
    const ReplacedImport set("RegSetValueExW", &failToSet);
    g_setValue = set.former();
    g_notifications = 0;
    makeKey(m_root, L"Software");
    StandInRegistry::setText(m_root, binding, nullptr, L"{11111111-1111-1111-1111-111111111111}");
    const Picture before = photograph();
    int tries = 1;
    for (; g_writesUntilFailure = tries, registerHandler(L"C:\\one\\", GetParam()) != S_OK; ++tries)
        ASSERT_EQ(before, photograph()) << "write " << tries;
    EXPECT_LT(30, tries);
    g_writesUntilFailure = 0;
    EXPECT_EQ(S_OK, unregisterHandler(GetParam()));
    EXPECT_EQ(tries + 1, g_notifications);
}

TEST_P(HandlerRegistration, WhatSomebodyElseWroteMeanwhileStays) {
    StandInRegistry::setText(m_root, L"Software\\Classes\\.braw2\\DefaultIcon", nullptr, L"other.ico");
    registerHandler(L"C:\\one\\", GetParam());
    EXPECT_EQ(L"other.ico", StandInRegistry::text(m_root, L"Software\\Classes\\.braw2\\DefaultIcon"));
    EXPECT_EQ(L"C:\\one\\Clipforge_Icon.ico",
              StandInRegistry::text(m_root, L"Software\\Classes\\.sidecar\\DefaultIcon"));
    StandInRegistry::setText(m_root, binding, nullptr, L"{22222222-2222-2222-2222-222222222222}");
    StandInRegistry::setText(m_root, L"Software\\Classes\\.braw", L"PerceivedType", L"video");
    unregisterHandler(GetParam());
    EXPECT_EQ(L"{22222222-2222-2222-2222-222222222222}", StandInRegistry::text(m_root, binding));
    EXPECT_EQ(L"video", StandInRegistry::text(m_root, L"Software\\Classes\\.braw", L"PerceivedType"));
    EXPECT_EQ(L"(nothing)", StandInRegistry::text(m_root, L"Software\\Classes\\.braw"));
    EXPECT_EQ(L"other.ico", StandInRegistry::text(m_root, L"Software\\Classes\\.braw2\\DefaultIcon"));
    EXPECT_EQ(L"", registeredFolder(GetParam()));
}

INSTANTIATE_TEST_SUITE_P(Scopes, HandlerRegistration, testing::Values(Scope::machine, Scope::user),
                         [](const auto& scope) {
                             return scope.param == Scope::machine ? "machine" : "user";
                         });
} // namespace
