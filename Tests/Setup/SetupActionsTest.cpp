// The installer's own functions, called as Windows Installer calls them: with properties alone.
#include <map>

#include <gtest/gtest.h>

#include <windows.h>

#include <msi.h>
#include <msiquery.h>

#include "BuiltFile.h"
#include "DecoderFile.h"
#include "EnvironmentVariable.h"
#include "HandlerRegistration.h"
#include "Imports.h"
#include "StandInRegistry.h"
#include "TemporaryFolder.h"

namespace {
std::map<std::wstring, std::wstring> g_properties;
std::wstring g_installed; ///< the handler's file; empty when the product is not installed
std::wstring g_said;

UINT copyText(const std::wstring& text, LPWSTR buffer, LPDWORD length) {
    const bool fits = *length > text.size();
    if (fits)
        wcscpy(buffer, text.c_str());
    *length = static_cast<DWORD>(text.size());
    return fits ? ERROR_SUCCESS : ERROR_MORE_DATA;
}
UINT WINAPI getProperty(MSIHANDLE, LPCWSTR name, LPWSTR value, LPDWORD length) {
    return copyText(g_properties[name], value, length);
}
UINT WINAPI setProperty(MSIHANDLE, LPCWSTR name, LPCWSTR value) {
    g_properties[name] = value;
    return ERROR_SUCCESS;
}
INSTALLSTATE WINAPI getComponentPath(LPCWSTR, LPCWSTR, LPWSTR path, LPDWORD length) {
    copyText(g_installed, path, length);
    return g_installed.empty() ? INSTALLSTATE_ABSENT : INSTALLSTATE_LOCAL;
}
UINT WINAPI setRecord(MSIHANDLE, UINT, LPCWSTR text) {
    g_said = text;
    return ERROR_SUCCESS;
}

class SetupActions : public testing::Test {
protected:
    void SetUp() override {
        g_properties = {{L"VERSIONFOLDER", m_new}, {L"LocalAppDataFolder", L"C:\\local\\"}};
        g_installed.clear();
        g_said.clear();
        for (const std::wstring& folder : {m_old, m_new})
            std::filesystem::create_directories(folder);
    }
    UINT call(const char* action) const {
        return reinterpret_cast<UINT(WINAPI*)(MSIHANDLE)>(
            reinterpret_cast<void*>(GetProcAddress(m_module, action)))(0);
    }
    enum Outcome { done, told, failed, failedSilently };
    /// A changing action with its plan.
    Outcome change(const char* action, const std::wstring& plan) const {
        g_properties[L"CustomActionData"] = plan;
        g_said.clear();
        if (call(action) == ERROR_SUCCESS)
            return g_said.empty() ? done : told;
        return g_said.empty() ? failedSilently : failed;
    }
    static void writeDecoder(const std::wstring& folder) {
        writeFileBytes(folder + L"BlackmagicRawAPI.dll", "");
        std::filesystem::resize_file(folder + L"BlackmagicRawAPI.dll", 2'161'112);
    }
    static bool hasDecoder(const std::wstring& folder) {
        return std::filesystem::exists(folder + L"BlackmagicRawAPI.dll");
    }

    const TemporaryFolder m_folder;
    const std::wstring m_old = m_folder.path().wstring() + L"\\product\\1\\",
                       m_new = m_folder.path().wstring() + L"\\product\\2\\";
    const StandInRegistry m_registry;
    const EnvironmentVariable m_programs{L"ProgramFiles", nullptr},
        m_programs86{L"ProgramFiles(x86)", nullptr};
    const HMODULE m_module = LoadLibraryW((builtFile("bin") / "Clipforge_Setup.dll").c_str());
    const ReplacedImport<decltype(getProperty)> m_get{"MsiGetPropertyW", &getProperty, m_module};
    const ReplacedImport<decltype(setProperty)> m_set{"MsiSetPropertyW", &setProperty, m_module};
    const ReplacedImport<decltype(getComponentPath)> m_path{"MsiGetComponentPathW", &getComponentPath,
                                                            m_module};
    const ReplacedImport<decltype(setRecord)> m_say{"MsiRecordSetStringW", &setRecord, m_module};
};

TEST_F(SetupActions, FolderIsTheUsersTheOldOneOrTheDefault) {
    const auto chosen = [this] {
        g_properties[L"INSTALLFOLDER"].clear();
        call("ChooseFolder");
        return g_properties[L"INSTALLFOLDER"];
    };
    const std::wstring product = m_folder.path().wstring() + L"\\product\\";
    EXPECT_EQ(L"C:\\local\\Programs\\Clipforge Thumbnails\\", chosen());
    registerHandler(m_old, Scope::user);
    g_properties[L"OLDERFOUND"] = L"{1}";
    EXPECT_EQ(product, chosen());
    g_properties[L"ALLUSERS"] = L"1";
    EXPECT_EQ(L"", chosen()) << "Windows Installer's own";
    g_installed = m_new + L"Clipforge_Guard.dll";
    EXPECT_EQ(product, chosen());
    g_properties[L"INSTALLFOLDER"] = L"D:\\mine\\";
    call("ChooseFolder");
    EXPECT_EQ(L"D:\\mine\\", g_properties[L"INSTALLFOLDER"]);
}

TEST_F(SetupActions, PlansForWhomWhereAndWithWhichDecoder) {
    registerHandler(m_old, Scope::machine);
    g_properties[L"ALLUSERS"] = L"1";
    call("PrepareSetup");
    EXPECT_EQ(L"machine|" + m_new + L"|", g_properties[L"RegisterHandler"]);
    EXPECT_EQ(L"machine|" + m_new + L"|" + m_old + L"|", g_properties[L"UndoRegisterHandler"]);
    EXPECT_EQ(L"", g_properties[L"TakeDecoder"]) << "there is none";
    writeDecoder(m_old);
    call("PrepareSetup");
    EXPECT_EQ(m_old + L"|" + m_new + L"|", g_properties[L"TakeDecoder"]);
    g_properties[L"TakeDecoder"].clear();
    writeDecoder(m_new);
    call("PrepareSetup");
    EXPECT_EQ(L"", g_properties[L"TakeDecoder"]) << "it is there";
    g_properties[L"DECODERFOLDER"] = L"C:\\nowhere";
    EXPECT_EQ(UINT{ERROR_INSTALL_FAILURE}, call("PrepareSetup"));
    EXPECT_NE(std::wstring::npos, g_said.find(L"2,161,112 bytes in C:\\nowhere")) << g_said;
    g_properties[L"REMOVE"] = L"ALL";
    EXPECT_EQ(UINT{ERROR_SUCCESS}, call("PrepareSetup"));
    g_installed = m_old + L"Clipforge_Guard.dll";
    registerHandler(m_old, Scope::user);
    call("PrepareSetup");
    EXPECT_EQ(L"user|" + m_old + L"|", g_properties[L"UnregisterHandler"]) << "for whom it was installed";
}

TEST_F(SetupActions, ChangesAndUndoes) {
    const auto registered = [] { return registeredFolder(Scope::user); };
    EXPECT_EQ(failed, change("CheckFolder", L"?:\\clips\\|"));
    EXPECT_EQ(done, change("CheckFolder", m_new + L"deep\\below\\|"));
    EXPECT_TRUE(std::filesystem::is_empty(m_new));
    const std::wstring plan = L"user|" + m_new + L"|file?248216706?1819314922?1755395148?2068773009|";
    writeFileBytes(m_new + L"file", "12346");
    EXPECT_EQ(failed, change("RegisterHandler", plan)) << "other bytes";
    EXPECT_EQ(L"", registered());
    writeFileBytes(m_new + L"file", "12345");
    EXPECT_EQ(done, change("RegisterHandler", plan));
    EXPECT_EQ(m_new, registered());
    EXPECT_EQ(done, change("UnregisterHandler", L"user|" + m_old + L"|"));
    EXPECT_EQ(m_new, registered()) << "a newer version's";

    EXPECT_EQ(told, change("TakeDecoder", m_old + L"|" + m_new + L"|"));
    writeDecoder(m_old);
    writeFileBytes(m_new + L"BlackmagicRawAPI.dll", "half of it");
    EXPECT_EQ(done, change("TakeDecoder", m_old + L"|" + m_new + L"|"));
    EXPECT_TRUE(holdsDecoder(m_new));
    EXPECT_EQ(done, change("UndoRegisterHandler", L"user|" + m_new + L"|" + m_new + L"|"));
    EXPECT_TRUE(hasDecoder(m_new)) << "another build of the same version";
    EXPECT_EQ(done, change("UndoRegisterHandler", L"user|" + m_new + L"|" + m_old + L"|"));
    EXPECT_FALSE(hasDecoder(m_new));
    EXPECT_EQ(m_old, registered());

    EXPECT_EQ(done, change("DropDecoder", L"user|" + m_old + L"|"));
    EXPECT_TRUE(hasDecoder(m_old)) << "in use";
    EXPECT_EQ(done, change("UnregisterHandler", L"user|" + m_old + L"|"));
    EXPECT_EQ(L"", registered());
    change("RegisterHandler", L"user|" + m_old + L"|");
    RegDeleteTreeW(HKEY_CURRENT_USER, L"Software\\Classes\\CLSID");
    EXPECT_EQ(done, change("UnregisterHandler", L"user|" + m_old + L"|"));
    EXPECT_NE(ERROR_SUCCESS, RegDeleteTreeW(HKEY_CURRENT_USER, L"Software\\Verdane")) << "half of it";
    EXPECT_EQ(done, change("DropDecoder", L"user|" + m_old + L"|"));
    EXPECT_FALSE(std::filesystem::exists(m_old));
    g_installed = m_new + L"Clipforge_Guard.dll";
    EXPECT_EQ(told, change("TellAboutDecoder", L""));
    writeDecoder(m_new);
    EXPECT_EQ(done, change("TellAboutDecoder", L""));
}
TEST(DecoderFile, OnlyAFileOfTheRightSizeIsTaken) {
    const TemporaryFolder folder;
    const std::filesystem::path file = folder.path() / "BlackmagicRawAPI.dll";
    EXPECT_FALSE(holdsDecoder(L""));
    EXPECT_FALSE(holdsDecoder(folder.path().wstring()));
    std::filesystem::create_directory(file);
    EXPECT_FALSE(holdsDecoder(folder.path().wstring()));
    std::filesystem::remove(file);
    for (const auto& [size, right] :
         {std::pair(0u, false), {2161111u, false}, {2161112u, true}, {2161113u, false}}) {
        writeFileBytes(file, "");
        std::filesystem::resize_file(file, size);
        EXPECT_EQ(right, holdsDecoder(folder.path().wstring())) << size;
        EXPECT_EQ(right, holdsDecoder(folder.path().wstring() + L"\\")) << size;
    }
}
} // namespace
