// What the shell finds in the registry, and what it finds no more.
#include <cwchar>

#include "HandlerFixture.h"

#include <shlobj.h>

#include "Imports.h"

using namespace std::string_literals;

namespace {
#define CLASS_TEXT L"{5b8e2d41-93c7-4f0a-b6e5-2d17c9a4f380}"
#define CLASS_KEY L"CLSID\\" CLASS_TEXT
#define SERVER_KEY CLASS_KEY L"\\InProcServer32"

// What the library asks of Windows, in order. Nothing of it is done: under Wine one root shows the other's
// keys.
std::vector<std::wstring> g_asked;
std::wstring g_key;
int g_openKeys;
size_t g_failingRow; ///< counted from 1; 0: none
bool g_isCreationFailing;

std::wstring rootName(HKEY root) {
    return root == HKEY_LOCAL_MACHINE ? L"HKLM\\" : root == HKEY_CLASSES_ROOT ? L"HKCR\\" : L"?\\";
}
LSTATUS WINAPI recordCreate(HKEY root, LPCWSTR path, DWORD, LPWSTR, DWORD options, REGSAM access,
                            const LPSECURITY_ATTRIBUTES, PHKEY key, LPDWORD) {
    EXPECT_EQ(DWORD{REG_OPTION_NON_VOLATILE}, options) << "it would be gone with the next start of Windows";
    EXPECT_EQ(REGSAM{KEY_SET_VALUE}, access);
    g_key = rootName(root) + path;
    if (g_isCreationFailing && g_asked.size() + 1 == g_failingRow)
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
    return !g_isCreationFailing && g_asked.size() == g_failingRow ? ERROR_ACCESS_DENIED : ERROR_SUCCESS;
}
LSTATUS WINAPI recordClose(HKEY) {
    --g_openKeys;
    return ERROR_SUCCESS;
}
LSTATUS WINAPI recordDelete(HKEY root, LPCWSTR path) {
    g_asked.push_back(L"delete " + rootName(root) + path);
    return g_asked.size() == g_failingRow ? ERROR_ACCESS_DENIED : ERROR_FILE_NOT_FOUND;
}
void WINAPI recordNotification(LONG event, UINT flags, LPCVOID first, LPCVOID second) {
    EXPECT_TRUE(event == SHCNE_ASSOCCHANGED && flags == SHCNF_IDLIST && !first && !second);
    g_asked.emplace_back(L"notify");
}
std::wstring g_modulePath;
DWORD WINAPI tellPath(HMODULE, LPWSTR buffer, DWORD size) {
    const size_t length = std::min<size_t>(g_modulePath.size(), size - 1);
    wmemcpy(buffer, g_modulePath.c_str(), length + 1)[length] = L'\0';
    if (g_modulePath.empty()) {
        SetLastError(ERROR_ACCESS_DENIED);
        return 0;
    }
    const bool isCut = length < g_modulePath.size();
    SetLastError(isCut ? ERROR_INSUFFICIENT_BUFFER : ERROR_SUCCESS);
    return isCut ? size : static_cast<DWORD>(length);
}

class RegistrationCalls : public HandlerTest {
protected:
    /// Of a library that lies there.
    HRESULT registerAt(const std::wstring& path) { return recorded(path, "DllRegisterServer"); }
    HRESULT recorded(const std::wstring& path, const char* work) {
        const HMODULE module = m_handler->module();
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
        const HRESULT result = m_handler->call(work);
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

constexpr auto denied = HRESULT_FROM_WIN32(ERROR_ACCESS_DENIED);

TEST_F(RegistrationCalls, WritesItsRowsUnderBothRootsAndTellsTheShell) {
    auto expected = rows(L"D:\\Tools\\x.dll", L"D:\\Tools\\Clipforge_Icon.ico");
    expected.emplace_back(L"notify");
    EXPECT_RESULT(S_OK, registerAt(L"D:\\Tools\\x.dll"));
    EXPECT_EQ(expected, g_asked);
    for (g_failingRow = expected.size() - 1; g_failingRow > 0; --g_failingRow)
        for (const bool isCreation : {false, true}) { // and nobody is told of half a registration
            g_isCreationFailing = isCreation;
            expected.resize(g_failingRow - isCreation);
            EXPECT_RESULT(denied, registerAt(L"D:\\Tools\\x.dll"));
            EXPECT_EQ(expected, g_asked);
        }
    EXPECT_RESULT(denied, registerAt(L"")) << "the module's path cannot be had";
    EXPECT_EQ(expected, g_asked);
}

TEST_F(RegistrationCalls, DeletesItsKeysUnderBothRootsWhateverIsMissing) {
    std::vector<std::wstring> expected;
    for (const std::wstring root : {L"HKLM\\SOFTWARE\\Classes\\", L"HKCR\\"})
        for (const wchar_t* key : {CLASS_KEY, L"Clipforge.Clip", L".braw", L".sidecar", L".braw2"})
            expected.push_back(L"delete " + root + key);
    EXPECT_RESULT(S_OK, recorded(L"D:\\x.dll", "DllUnregisterServer"));
    EXPECT_EQ(expected, g_asked);
    for (g_failingRow = expected.size(); g_failingRow > 0; --g_failingRow) {
        expected.resize(g_failingRow);
        EXPECT_RESULT(denied, recorded(L"D:\\x.dll", "DllUnregisterServer"));
        EXPECT_EQ(expected, g_asked);
    }
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
