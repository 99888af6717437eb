// What the shell finds in the registry, and what it finds no more.
#include <cwchar>
#include <tuple>

#include "HandlerFixture.h"

#include <shlobj.h>

#include "Imports.h"

using namespace std::string_literals;

namespace {
#define CLASS_TEXT L"{5b8e2d41-93c7-4f0a-b6e5-2d17c9a4f380}"
#define CLASS_KEY L"CLSID\\" CLASS_TEXT
#define SERVER_KEY CLASS_KEY L"\\InProcServer32"

struct Root {
    HKEY key;
    std::wstring prefix;
};
const Root roots[] = {{HKEY_LOCAL_MACHINE, L"SOFTWARE\\Classes\\"}, {HKEY_CLASSES_ROOT, L""}};

std::optional<std::wstring> readText(const Root& root, const wchar_t* key, const wchar_t* value) {
    wchar_t text[512];
    DWORD size = sizeof text;
    if (RegGetValueW(root.key, (root.prefix + key).c_str(), value, RRF_RT_REG_SZ, nullptr, text, &size) !=
        ERROR_SUCCESS)
        return std::nullopt;
    EXPECT_EQ((wcslen(text) + 1) * sizeof(wchar_t), size) << "a text is stored with its terminator";
    return text;
}

/// The prefix is left as it was found: registered, if it was, with the same library.
class Registration : public HandlerTest {
protected:
    void SetUp() override {
        CoInitializeEx(nullptr, COINIT_APARTMENTTHREADED); // has GDI objects of its own
        HandlerTest::SetUp();
        m_registeredBefore = readText(roots[0], SERVER_KEY, nullptr);
    }
    void TearDown() override {
        m_handler->unregisterServer();
        if (m_registeredBefore && std::filesystem::exists(*m_registeredBefore)) {
            EXPECT_RESULT(S_OK, HandlerModule(*m_registeredBefore).registerServer());
        }
        HandlerTest::TearDown();
        CoUninitialize();
    }
    static bool isRegistered() {
        for (const Root& root : roots)
            for (const wchar_t* key : {CLASS_KEY, L"Clipforge.Clip", L".braw", L".sidecar", L".braw2"}) {
                HKEY opened = nullptr;
                RegOpenKeyExW(root.key, (root.prefix + key).c_str(), 0, KEY_READ, &opened);
                if (opened != nullptr)
                    return RegCloseKey(opened) == ERROR_SUCCESS;
            }
        return false;
    }
    std::optional<std::wstring> m_registeredBefore;
};

TEST_F(Registration, ComesAndGoes) {
    for (int round = 0; round < 2; ++round) {
        EXPECT_RESULT(S_OK, m_handler->registerServer());
        EXPECT_RESULT(S_OK, m_handler->registerServer());
        EXPECT_TRUE(isRegistered());
        EXPECT_TRUE(
            std::filesystem::exists(readText(roots[0], L".braw\\DefaultIcon", nullptr).value_or(L"")));
        EXPECT_RESULT(S_OK, m_handler->unregisterServer());
        EXPECT_FALSE(isRegistered());
        EXPECT_RESULT(S_OK, m_handler->unregisterServer());
    }
}

TEST_F(Registration, ComFindsTheRegisteredHandler) {
    EXPECT_RESULT(S_OK, m_handler->registerServer());
    EXPECT_RESULT(S_OK, askForThumbnail(writeClip(), 16).result);
    EXPECT_RESULT(S_OK, m_handler->unregisterServer());
    CoFreeUnusedLibrariesEx(0, 0); // COM's own hold on the library
}

// What the library asks of Windows, in order. Nothing of it is done: under Wine one root shows the other's
// keys.
std::vector<std::wstring> g_asked;
std::wstring g_key, g_unwritableRoot;
int g_openKeys;

std::wstring rootName(HKEY root) {
    return root == HKEY_LOCAL_MACHINE ? L"HKLM\\" : root == HKEY_CLASSES_ROOT ? L"HKCR\\" : L"?\\";
}
LSTATUS WINAPI recordCreate(HKEY root, LPCWSTR path, DWORD, LPWSTR, DWORD options, REGSAM access,
                            const LPSECURITY_ATTRIBUTES, PHKEY key, LPDWORD) {
    EXPECT_EQ(DWORD{REG_OPTION_NON_VOLATILE}, options) << "it would be gone with the next start of Windows";
    EXPECT_EQ(REGSAM{KEY_SET_VALUE}, access);
    g_key = rootName(root) + path;
    if (rootName(root) == g_unwritableRoot)
        return ERROR_ACCESS_DENIED;
    ++g_openKeys;
    *key = HKEY_CURRENT_USER;
    return ERROR_SUCCESS;
}
LSTATUS WINAPI recordSet(HKEY, LPCWSTR name, DWORD, DWORD type, const BYTE* data, DWORD size) {
    std::wstring value;
    if (type == REG_SZ) {
        value.assign(reinterpret_cast<const wchar_t*>(data), size / sizeof(wchar_t));
        EXPECT_EQ(value.size() - 1, value.find(L'\0')) << "a text is stored with its terminator";
        value.pop_back();
    } else if (type == REG_DWORD && size == sizeof(DWORD))
        value = L"#" + std::to_wstring(*reinterpret_cast<const DWORD*>(data));
    g_asked.push_back(g_key + L" " + (name ? name : L"(default)") + L" = " + value);
    return ERROR_SUCCESS;
}
LSTATUS WINAPI recordClose(HKEY) {
    --g_openKeys;
    return ERROR_SUCCESS;
}
LSTATUS WINAPI recordDelete(HKEY root, LPCWSTR path) {
    g_asked.push_back(L"delete " + rootName(root) + path);
    return ERROR_FILE_NOT_FOUND;
}
void WINAPI recordNotification(LONG event, UINT flags, LPCVOID first, LPCVOID second) {
    EXPECT_TRUE(event == SHCNE_ASSOCCHANGED && flags == SHCNF_IDLIST && !first && !second);
    g_asked.emplace_back(L"notify");
}
std::wstring g_modulePath;
DWORD WINAPI tellPath(HMODULE, LPWSTR buffer, DWORD size) {
    const size_t length = std::min<size_t>(g_modulePath.size(), size - 1);
    wmemcpy(buffer, g_modulePath.c_str(), length + 1)[length] = L'\0';
    const bool isCut = length < g_modulePath.size();
    SetLastError(isCut ? ERROR_INSUFFICIENT_BUFFER : ERROR_SUCCESS);
    return isCut ? size : static_cast<DWORD>(length);
}

class RegistrationCalls : public HandlerTest {
protected:
    /// Of a library that lies there.
    HRESULT registerAt(const std::wstring& path) { return recorded(path, &HandlerModule::registerServer); }
    HRESULT recorded(const std::wstring& path, HRESULT (HandlerModule::*work)() const) {
        const HMODULE module = m_handler->get();
        const ReplacedImport name("GetModuleFileNameW", &tellPath, module);
        const ReplacedImport create("RegCreateKeyExW", &recordCreate, module);
        const ReplacedImport set("RegSetValueExW", &recordSet, module);
        const ReplacedImport close("RegCloseKey", &recordClose, module);
        const ReplacedImport remove("RegDeleteTreeW", &recordDelete, module);
        const ReplacedImport notify("SHChangeNotify", &recordNotification, module);
        EXPECT_TRUE(name && create && set && close && remove && notify);
        g_asked.clear();
        g_openKeys = 0;
        g_modulePath = path;
        const HRESULT result = (m_handler.get()->*work)();
        EXPECT_EQ(0, g_openKeys);
        return result;
    }
    static std::vector<std::wstring> rows(const std::wstring& library, const std::wstring& icon) {
        const std::wstring folder = library.substr(0, library.rfind(L'\\') + 1);
        std::vector<std::wstring> rows;
        for (const std::wstring root : {L"HKLM\\SOFTWARE\\Classes\\", L"HKCR\\"})
            for (const std::wstring& row :
                 {CLASS_KEY L" (default) = Clipforge Thumbnail Handler"s,
                  CLASS_KEY L" DisableProcessIsolation = #1"s, SERVER_KEY L" (default) = " + library,
                  SERVER_KEY L" ThreadingModel = Apartment"s, L".braw (default) = Clipforge.Clip"s,
                  L".braw Content Type = movie/x-braw"s,
                  L".braw\\ShellEx\\{e357fccd-a995-4576-b01f-234630154e96} (default) = " CLASS_TEXT ""s,
                  L".braw\\DefaultIcon (default) = " + icon,
                  L"Clipforge.Clip (default) = Blackmagic RAW Clip"s,
                  L"Clipforge.Clip\\shell\\open (default) = open"s,
                  L"Clipforge.Clip\\shell\\open\\command (default) = \"" + folder + L"Clipforge.exe\" \"%1\"",
                  L".sidecar\\DefaultIcon (default) = " + icon, L".braw2\\DefaultIcon (default) = " + icon})
                rows.push_back(root + row);
        return rows;
    }
};

TEST_F(RegistrationCalls, WritesItsRowsUnderBothRootsAndTellsTheShell) {
    auto expected = rows(L"D:\\Tools\\x.dll", L"D:\\Tools\\Clipforge_Icon.ico");
    expected.emplace_back(L"notify");
    EXPECT_RESULT(S_OK, registerAt(L"D:\\Tools\\x.dll"));
    EXPECT_EQ(expected, g_asked);

    expected.resize(13); // and nobody is told of half a registration
    g_unwritableRoot = L"HKCR\\";
    EXPECT_RESULT(HRESULT_FROM_WIN32(ERROR_ACCESS_DENIED), registerAt(L"D:\\Tools\\x.dll"));
    g_unwritableRoot.clear();
    EXPECT_EQ(expected, g_asked);
}

TEST_F(RegistrationCalls, DeletesItsKeysUnderBothRootsWhateverIsMissing) {
    std::vector<std::wstring> expected;
    for (const std::wstring root : {L"HKLM\\SOFTWARE\\Classes\\", L"HKCR\\"})
        for (const wchar_t* key : {CLASS_KEY, L"Clipforge.Clip", L".braw", L".sidecar", L".braw2"})
            expected.push_back(L"delete " + root + key);
    EXPECT_RESULT(S_OK, recorded(L"D:\\x.dll", &HandlerModule::unregisterServer));
    EXPECT_EQ(expected, g_asked);
}

// The icon's path ends at 259 characters and the command line at 267; so does what the shell reads of a path.
TEST_F(RegistrationCalls, PathsTooLongForTheShellAreRefused) {
    constexpr auto tooLong = HRESULT_FROM_WIN32(ERROR_INSUFFICIENT_BUFFER);
    const std::wstring icon = L"Clipforge_Icon.ico";
    const struct {
        size_t folder, path;
        HRESULT result;
        std::wstring icon;
    } cases[] = {{241, 246, S_OK, icon},   {242, 247, S_OK, L""}, {247, 252, S_OK, L""},
                 {248, 253, tooLong, L""}, {3, 259, S_OK, icon},  {3, 260, tooLong, L""},
                 {3, 700, tooLong, L""}};
    for (const auto& [folderSize, pathSize, result, iconName] : cases) {
        SCOPED_TRACE(testing::Message() << folderSize << " of " << pathSize);
        const std::wstring folder = L"D:" + std::wstring(folderSize - 3, L'a') + L"\\";
        const std::wstring library = folder + std::wstring(pathSize - folderSize, L'b');
        EXPECT_RESULT(result, registerAt(library));
        auto expected = result == S_OK ? rows(library, folder + iconName) : std::vector<std::wstring>{};
        if (result == S_OK)
            expected.emplace_back(L"notify");
        EXPECT_EQ(expected, g_asked);
    }
}
} // namespace
