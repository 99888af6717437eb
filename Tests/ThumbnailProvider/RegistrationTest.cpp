// What the shell finds in the registry, and what it finds no more.
#include <vector>

#include "HandlerFixture.h"

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

std::optional<DWORD> readNumber(const Root& root, const wchar_t* key, const wchar_t* value) {
    DWORD number = 0;
    DWORD size = sizeof number;
    const bool found = RegGetValueW(root.key, (root.prefix + key).c_str(), value, RRF_RT_REG_DWORD, nullptr,
                                    &number, &size) == ERROR_SUCCESS;
    return found ? std::optional(number) : std::nullopt;
}

/// The prefix is left as it was found: registered, if it was, with the same library.
class Registration : public HandlerTest {
protected:
    void SetUp() override {
        ASSERT_RESULT_OK(CoInitializeEx(nullptr, COINIT_APARTMENTTHREADED)); // has GDI objects of its own
        HandlerTest::SetUp();
        m_registeredBefore = readText(roots[0], SERVER_KEY, nullptr);
    }
    void TearDown() override {
        if (m_handler)
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
                if (RegOpenKeyExW(root.key, (root.prefix + key).c_str(), 0, KEY_READ, &opened) ==
                    ERROR_SUCCESS) {
                    RegCloseKey(opened);
                    return true;
                }
            }
        return false;
    }
    static void expectRows(const std::filesystem::path& library, const std::wstring& icon) {
        const std::wstring folder = library.parent_path().wstring() + L"\\";
        const struct {
            const wchar_t *key, *value;
            std::wstring text;
        } rows[] = {
            {CLASS_KEY, nullptr, L"Clipforge Thumbnail Handler"},
            {SERVER_KEY, nullptr, library.wstring()},
            {SERVER_KEY, L"ThreadingModel", L"Apartment"},
            {L".braw", nullptr, L"Clipforge.Clip"},
            {L".braw", L"Content Type", L"movie/x-braw"},
            {L".braw\\ShellEx\\{e357fccd-a995-4576-b01f-234630154e96}", nullptr, CLASS_TEXT},
            {L".braw\\DefaultIcon", nullptr, icon},
            {L"Clipforge.Clip", nullptr, L"Blackmagic RAW Clip"},
            {L"Clipforge.Clip\\shell\\open", nullptr, L"open"},
            {L"Clipforge.Clip\\shell\\open\\command", nullptr, L"\"" + folder + L"Clipforge.exe\" \"%1\""},
            {L".sidecar\\DefaultIcon", nullptr, icon},
            {L".braw2\\DefaultIcon", nullptr, icon},
        };
        for (const Root& root : roots) {
            for (const auto& [key, value, text] : rows)
                EXPECT_EQ(text, readText(root, key, value).value_or(L"(nothing)"))
                    << std::filesystem::path(root.prefix + key);
            EXPECT_EQ(1u, readNumber(root, CLASS_KEY, L"DisableProcessIsolation").value_or(0));
        }
    }
    std::optional<std::wstring> m_registeredBefore;
};

TEST_F(Registration, RowsComeAndGo) {
    for (int round = 0; round < 2; ++round) {
        EXPECT_RESULT(S_OK, m_handler->registerServer());
        EXPECT_RESULT(S_OK, m_handler->registerServer());
        const auto library = productFolder("bin") / "Clipforge_Thumbnails.dll";
        wchar_t path[MAX_PATH]; // as Windows writes it
        GetModuleFileNameW(GetModuleHandleW(library.c_str()), path, MAX_PATH);
        const auto icon = std::filesystem::path(path).parent_path() / L"Clipforge_Icon.ico";
        expectRows(path, icon.wstring());
        EXPECT_TRUE(std::filesystem::exists(icon));
        EXPECT_RESULT(S_OK, m_handler->unregisterServer());
        EXPECT_FALSE(isRegistered());
        EXPECT_RESULT(S_OK, m_handler->unregisterServer());
    }
}

TEST_F(Registration, ComFindsTheRegisteredHandler) {
    EXPECT_RESULT(S_OK, m_handler->registerServer());
    const std::wstring clip = writeClip(m_folder.path() / "clip.braw", {32, 32});
    EXPECT_RESULT(S_OK, askForThumbnail(clip, 16).result);
    EXPECT_RESULT(S_OK, m_handler->unregisterServer());
    CoFreeUnusedLibrariesEx(0, 0); // COM's own hold on the library
}

/// A root whose key is gone stands for one that may not be written.
class UnusableRoot {
public:
    explicit UnusableRoot(HKEY root) : m_root(root) {
        constexpr const wchar_t* name = L"Software\\ClipforgeUnusableRoot";
        EXPECT_EQ(ERROR_SUCCESS, RegCreateKeyExW(HKEY_CURRENT_USER, name, 0, nullptr, REG_OPTION_VOLATILE,
                                                 KEY_ALL_ACCESS, nullptr, &m_key, nullptr));
        EXPECT_EQ(ERROR_SUCCESS, RegDeleteKeyW(HKEY_CURRENT_USER, name));
        EXPECT_EQ(ERROR_SUCCESS, RegOverridePredefKey(m_root, m_key));
    }
    ~UnusableRoot() {
        RegOverridePredefKey(m_root, nullptr);
        RegCloseKey(m_key);
    }
    UnusableRoot(const UnusableRoot&) = delete;
    UnusableRoot& operator=(const UnusableRoot&) = delete;

private:
    HKEY m_root;
    HKEY m_key = nullptr;
};

TEST_F(Registration, TheFirstRowThatFailsEndsIt) {
    constexpr auto gone = HRESULT_FROM_WIN32(ERROR_KEY_DELETED);
    m_handler->unregisterServer();
    {
        const UnusableRoot machine(HKEY_LOCAL_MACHINE);
        EXPECT_RESULT(gone, m_handler->registerServer());
        EXPECT_RESULT(gone, m_handler->unregisterServer());
    }
    EXPECT_FALSE(isRegistered());
    {
        const UnusableRoot merged(HKEY_CLASSES_ROOT);
        EXPECT_RESULT(gone, m_handler->registerServer());
    }
    EXPECT_TRUE(isRegistered()) << "the rows before it stay";
}

TEST_F(Registration, FoldersTooLongForTheShellAreRefused) {
    constexpr auto tooLong = HRESULT_FROM_WIN32(ERROR_INSUFFICIENT_BUFFER);
    constexpr struct {
        size_t folderLength; ///< with the last backslash
        const wchar_t* name;
        HRESULT result;
        bool iconFits;
    } cases[] = {
        {241, L"c.dll", S_OK, true},
        {242, L"c.dll", S_OK, false}, // the icon's path is the folder then
        {247, L"c.dll", S_OK, false},
        {248, L"c.dll", tooLong, false}, // the command line's buffer ends here
        {235, L"Clipforge_Thumbnails.dll", S_OK, true},
        {237, L"Clipforge_Thumbnails.dll", tooLong, true}, // and the module's path here
    };
    const std::wstring base = m_folder.path().wstring();
    for (const auto& [length, name, result, iconFits] : cases) {
        SCOPED_TRACE(length);
        ASSERT_LT(base.size() + 102, length);
        const std::wstring outer = base + L"\\" + std::wstring(100, L'a');
        const std::wstring inner = outer + L"\\" + std::wstring(length - outer.size() - 2, L'b');
        CreateDirectoryW((L"\\\\?\\" + outer).c_str(), nullptr);
        CreateDirectoryW((L"\\\\?\\" + inner).c_str(), nullptr);
        const std::wstring library = inner + L"\\" + name;
        const std::wstring source = (productFolder("bin") / "Clipforge_Thumbnails.dll").wstring();
        ASSERT_TRUE(CopyFileW(source.c_str(), (L"\\\\?\\" + library).c_str(), FALSE)) << GetLastError();
        {
            const HandlerModule handler(library.size() < MAX_PATH ? library : L"\\\\?\\" + library);
            ASSERT_TRUE(handler.isLoaded());
            handler.unregisterServer();
            EXPECT_RESULT(result, handler.registerServer());
            EXPECT_EQ(result == S_OK, isRegistered());
            if (result == S_OK)
                expectRows(library, inner + L"\\" + (iconFits ? L"Clipforge_Icon.ico" : L""));
            EXPECT_RESULT(S_OK, handler.unregisterServer());
        }
        DeleteFileW((L"\\\\?\\" + library).c_str());
        RemoveDirectoryW((L"\\\\?\\" + inner).c_str());
    }
}
} // namespace
