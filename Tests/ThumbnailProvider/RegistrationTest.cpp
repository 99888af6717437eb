// What the shell finds in the registry, and what it finds no more.
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
            DWORD number = 0, size = sizeof number;
            RegGetValueW(root.key, (root.prefix + CLASS_KEY).c_str(), L"DisableProcessIsolation",
                         RRF_RT_REG_DWORD, nullptr, &number, &size);
            EXPECT_EQ(1u, number);
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
    EXPECT_RESULT(S_OK, askForThumbnail(writeClip(), 16).result);
    EXPECT_RESULT(S_OK, m_handler->unregisterServer());
    CoFreeUnusedLibrariesEx(0, 0); // COM's own hold on the library
}

// The icon's and the command line's buffers end at 242 and 248 characters of folder.
TEST_F(Registration, FoldersTooLongForTheShellAreRefused) {
    constexpr auto tooLong = HRESULT_FROM_WIN32(ERROR_INSUFFICIENT_BUFFER);
    const auto source = productFolder("bin") / "Clipforge_Thumbnails.dll";
    const std::wstring outer = m_folder.path().wstring() + L"\\" + std::wstring(100, L'a');
    CreateDirectoryW(outer.c_str(), nullptr);
    for (const auto& [length, result, icon] :
         {std::tuple(241u, S_OK, L"Clipforge_Icon.ico"), {242u, S_OK, L""}, {248u, tooLong, L""}}) {
        SCOPED_TRACE(length);
        const std::wstring folder = outer + L"\\" + std::wstring(length - outer.size() - 2, L'b');
        const std::wstring library = folder + L"\\c.dll";
        CreateDirectoryW((L"\\\\?\\" + folder).c_str(), nullptr);
        ASSERT_TRUE(CopyFileW(source.c_str(), (L"\\\\?\\" + library).c_str(), FALSE)) << GetLastError();
        const HandlerModule handler(library);
        handler.unregisterServer();
        EXPECT_RESULT(result, handler.registerServer());
        EXPECT_EQ(result == S_OK, isRegistered());
        if (result == S_OK)
            expectRows(library, folder + L"\\" + icon);
        EXPECT_RESULT(S_OK, handler.unregisterServer());
    }
}
} // namespace
