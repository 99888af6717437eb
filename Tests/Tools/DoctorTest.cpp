// The doctor over broken set-ups: each is named as what it is, and mended where that is safe.

#include <objbase.h>
#include <shlobj.h>

#include "BlackmagicRawAPIFile.h"
#include "BuiltFile.h"
#include "Console.h"
#include "Doctor.h"
#include "EnvironmentVariable.h"
#include "GuardProvider.h"
#include "HandlerRegistration.h"
#include "Imports.h"
#include "Paths.h"
#include "PictureChild.h"
#include "ProgramRun.h"
#include "RegistryRows.h"
#include "StandInRegistry.h"
#include "TemporaryFolder.h"
#include "TestClips.h"

namespace {
const std::filesystem::path kBinaries = builtFile("bin");

constexpr const wchar_t* kGuard = L"Clipforge_Guard.dll";
constexpr const wchar_t* kWorker = L"Clipforge_Worker.exe";
constexpr const wchar_t* kHandler = L"Clipforge_Thumbnails.dll";
constexpr wchar_t kClassId[] = GUARD_CLSID_TEXT;
constexpr wchar_t kClass[] = L"Software\\Classes\\CLSID\\" GUARD_CLSID_TEXT;
constexpr wchar_t kServer[] = L"Software\\Classes\\CLSID\\" GUARD_CLSID_TEXT L"\\InProcServer32";
constexpr wchar_t k32BitServer[] =
    L"Software\\Classes\\Wow6432Node\\CLSID\\" GUARD_CLSID_TEXT L"\\InProcServer32";
constexpr wchar_t kExplorer[] = L"Software\\Microsoft\\Windows\\CurrentVersion\\Explorer\\";
constexpr wchar_t kPolicies[] = L"Software\\Microsoft\\Windows\\CurrentVersion\\Policies\\Explorer";
constexpr wchar_t kExtensions[] = L"Software\\Microsoft\\Windows\\CurrentVersion\\Shell Extensions\\";
constexpr wchar_t kOther[] = L"{11111111-2222-3333-4444-555555555555}";

/// A sound installation in a folder of its own, in a registry of its own.
class Doctor : public testing::Test {
protected:
    void SetUp() override {
        ASSERT_EQ(S_OK, CoInitializeEx(nullptr, COINIT_APARTMENTTHREADED));
        for (const wchar_t* const name :
             {kGuard, kWorker, kHandler, BlackmagicRawAPIFileName, L"Clipforge_Icon.ico"})
            std::filesystem::copy_file(kBinaries / name, m_folder.path() / name);
        writeTestClip(m_folder.path() / L"clip.braw", {640, 512});
        ASSERT_EQ(S_OK, registerHandler(inside(L""), Scope::machine));
    }
    void TearDown() override { CoUninitialize(); }

    std::wstring inside(const std::wstring& name) {
        return (m_folder.path() / name).make_preferred().wstring();
    }
    Diagnosis look() {
        return diagnose(m_clip, inside(L""), {[](const wchar_t*) {}, [](auto&&...) {}});
    }
    int fix() {
        const std::wstring folder = m_folder.path().wstring();
        const std::wstring_view words[] = {m_clip, L"--fix", L"--yes", L"--json", L"--folder", folder};
        return runDoctor(std::span(words).subspan(m_clip.empty() ? 1 : 0));
    }
    /// The first fault is this one, and it says what helps.
    void expectFault(const std::wstring& id) {
        const Diagnosis diagnosis = look();
        const auto fault = std::ranges::find(diagnosis.findings, Finding::Grade::fault, &Finding::grade);
        ASSERT_NE(diagnosis.findings.end(), fault) << id;
        EXPECT_EQ(id, fault->id) << fault->text;
        EXPECT_FALSE(fault->remedy.empty());
    }

    TemporaryFolder m_folder;
    StandInRegistry m_registry;
    std::wstring m_clip = inside(L"clip.braw");
};

TEST_F(Doctor, ASoundInstallationIsWell) {
    for (const Finding& finding : look().findings)
        EXPECT_EQ(Finding::Grade::advice, finding.grade) << finding.id << ": " << finding.text;
    EXPECT_FALSE(askInChild(inside(L"x\" \"more words"), m_clip).isGood) << "the child never asked";
}

/// A way to break the set-up in `folder`; it may name another clip.
using Cause = std::function<void(const std::wstring& folder, std::wstring& clip)>;

Cause remove(const wchar_t* file) {
    return [=](const auto& folder, auto&) { std::filesystem::remove(folder + file); };
}
Cause cut(const wchar_t* file, uintmax_t size) {
    return [=](const auto& folder, auto&) { std::filesystem::resize_file(folder + file, size); };
}
Cause write(const wchar_t* file, const char* bytes) {
    return [=](const auto& folder, auto&) { writeFileBytes(folder + file, bytes); };
}
Cause set(HKEY root, const std::wstring& key, const wchar_t* value, const wchar_t* text) {
    return [=](auto&&...) { StandInRegistry::setText(root, key, value, text); };
}
Cause set(HKEY root, const std::wstring& key, const wchar_t* value, DWORD number) {
    return [=](auto&&...) { StandInRegistry::setNumber(root, key, value, number); };
}
Cause bindOther(HKEY root, const std::wstring& key) {
    return set(root, L"Software\\Classes\\" + key + THUMBNAIL_BINDING_KEY, nullptr, kOther);
}
Cause all(std::vector<Cause> causes) {
    return [=](const auto& folder, auto& clip) {
        for (const Cause& cause : causes)
            cause(folder, clip);
    };
}
void forgetClass(const std::wstring&, std::wstring&) {
    RegDeleteTreeW(HKEY_LOCAL_MACHINE, kClass);
}

/// `first` is what the set-up's trouble is to be called; `isMended`: --fix makes all well again.
struct Ailment {
    const wchar_t* first;
    bool isMended;
    Cause cause;
};
const Ailment kAilments[] = {
    {L"decoder-missing", false, remove(BlackmagicRawAPIFileName)},
    {L"decoder-version", false, cut(BlackmagicRawAPIFileName, BlackmagicRawAPIFileSize - 1)},
    {L"decoder-unusable", false, write(BlackmagicRawAPIFileName, "No library at all.")},
    {L"decoder-broken", false,
     [](auto&&...) {
         SetEnvironmentVariableW(L"REFERENCE_DECODER", L"nullWrite@IBlackmagicRawFactory::CreateCodec");
     }},
    {L"not-bound", true, [](auto&&...) { EXPECT_EQ(S_OK, unregisterHandler(Scope::machine)); }},
    {L"bound-to-other", true, bindOther(HKEY_LOCAL_MACHINE, L".braw")},
    {L"bound-to-other", true, bindOther(HKEY_CURRENT_USER, L".braw")},
    {L"bound-by-type", false,
     all({set(HKEY_CURRENT_USER, std::wstring(kExplorer) + L"FileExts\\.braw\\UserChoice", L"ProgId",
              L"Other.Clip"),
          bindOther(HKEY_LOCAL_MACHINE, L"Other.Clip")})},
    {L"class-missing", true, forgetClass},
    {L"class-32-bit", true, all({forgetClass, set(HKEY_LOCAL_MACHINE, k32BitServer, nullptr, L"x.dll")})},
    {L"class-incomplete", true, set(HKEY_LOCAL_MACHINE, kServer, L"ThreadingModel", L"Both")},
    {L"class-incomplete", true, set(HKEY_LOCAL_MACHINE, kClass, L"DisableProcessIsolation", DWORD{0})},
    {L"handler-missing", false, remove(kGuard)},
    {L"file-unusable", false, write(kGuard, "No library.")},
    {L"worker-missing", false, remove(kWorker)},
    {L"worker-unstartable", false,
     [](const std::wstring& folder, auto&) {
         CopyFileW((kBinaries / "clipforge-thumb.exe").c_str(), (folder + kWorker).c_str(), FALSE);
     }},
    {L"inner-handler-missing", false, remove(kHandler)},
    {L"worker-answer", false,
     [](const std::wstring& folder, auto&) {
         CopyFileW(builtFile("Tests/Tools/StrangeHandler.dll").c_str(), (folder + kHandler).c_str(), FALSE);
     }},
    {L"handler-unloadable", false, cut(kGuard, 8192)},
    {L"icons-only", true, set(HKEY_CURRENT_USER, std::wstring(kExplorer) + L"Advanced", L"IconsOnly", 1)},
    {L"policy-thumbnails", false, set(HKEY_CURRENT_USER, kPolicies, L"DisableThumbnails", 1)},
    {L"policy-thumbnails", false, set(HKEY_LOCAL_MACHINE, kPolicies, L"DisableThumbnails", 1)},
    {L"policy-network", false,
     [](auto&&, std::wstring& clip) {
         StandInRegistry::setNumber(HKEY_LOCAL_MACHINE, kPolicies, L"DisableThumbnailsOnNetworkFolders", 1);
         clip = L"\\\\?\\UNC\\nowhere\\share\\clip.braw";
     }},
    {L"class-blocked", false, set(HKEY_LOCAL_MACHINE, std::wstring(kExtensions) + L"Blocked", kClassId, L"")},
    {L"not-approved", true,
     [](auto&&...) {
         StandInRegistry::setNumber(HKEY_LOCAL_MACHINE, kPolicies, L"EnforceShellExtensionSecurity", 1);
         RegDeleteKeyValueW(HKEY_LOCAL_MACHINE, (std::wstring(kExtensions) + L"Approved").c_str(), kClassId);
     }},
    {L"clip-unreadable", false, remove(L"clip.braw")},
    {L"clip-other-kind", false, write(L"clip.braw", "\xFF\xD8\xFF\xE0")},
    {L"clip-extension", false,
     [](const std::wstring& folder, std::wstring& clip) {
         std::filesystem::rename(clip, folder + L"clip.mov");
         clip = folder + L"clip.mov";
     }},
    {L"clip-undecodable", false, cut(L"clip.braw", 40)},
};

// Ailments are few enough to have one set-up each: SetUp makes a sound one.
class BrokenSetUp : public Doctor, public testing::WithParamInterface<size_t> {};

TEST_P(BrokenSetUp, IsNamedAndMended) {
    const Ailment& ailment = kAilments[GetParam()];
    const EnvironmentVariable decoder(L"REFERENCE_DECODER", nullptr);
    if (!std::wstring_view(ailment.first).starts_with(L"clip-"))
        m_clip.clear(); // decoding takes time
    ailment.cause(inside(L""), m_clip);
    expectFault(ailment.first);
    if (ailment.isMended) {
        EXPECT_EQ(EXIT_DONE, fix());
    }
}
INSTANTIATE_TEST_SUITE_P(Doctor, BrokenSetUp, testing::Range(size_t{0}, std::size(kAilments)));

// What Wine has not: the mark of a download, and clips in a cloud.
std::wstring g_marked;
DWORD WINAPI attributesWithMark(const wchar_t* path) {
    WIN32_FILE_ATTRIBUTE_DATA data{};
    if (!g_marked.empty() && path == g_marked + L":Zone.Identifier")
        return FILE_ATTRIBUTE_NORMAL;
    return GetFileAttributesExW(path, GetFileExInfoStandard, &data) ? data.dwFileAttributes
                                                                    : INVALID_FILE_ATTRIBUTES;
}
BOOL WINAPI deleteMark(const wchar_t* path) {
    const bool isMark = path == g_marked + L":Zone.Identifier";
    if (isMark)
        g_marked.clear();
    return isMark;
}
HANDLE WINAPI findInCloud(const wchar_t*, FINDEX_INFO_LEVELS, void* entry, FINDEX_SEARCH_OPS, void*, DWORD) {
    constexpr DWORD recallOnDataAccess = 0x00400000;
    static_cast<WIN32_FIND_DATAW*>(entry)->dwFileAttributes = recallOnDataAccess;
    return FindFirstFileW(L"C:\\*", std::make_unique<WIN32_FIND_DATAW>().get());
}

TEST_F(Doctor, DownloadedFilesAreUnblocked) {
    const ReplacedImport attributes("GetFileAttributesW", &attributesWithMark);
    const ReplacedImport deletion("DeleteFileW", &deleteMark);
    m_clip.clear();
    for (const auto& [file, id] : {std::pair(L"BlackmagicRawAPI.dll", L"decoder-blocked"),
                                   std::pair(L"Clipforge_Guard.dll", L"file-blocked")}) {
        g_marked = inside(file);
        expectFault(id);
        EXPECT_EQ(EXIT_DONE, fix());
        EXPECT_EQ(L"", g_marked);
    }
}

TEST_F(Doctor, AClipInTheCloudIsNotFetched) {
    const ReplacedImport search("FindFirstFileExW", &findInCloud);
    expectFault(L"clip-in-cloud");
    writeFileBytes(m_clip, "P5");
    EXPECT_EQ(L"", kindOfNoClip(m_clip));
    std::filesystem::remove(m_clip);
    EXPECT_EQ(L"", obstacleTo(m_clip)) << "it is not opened for a look";
}

TEST_F(Doctor, ExplorersMemoryIsEmptiedAtTheEnd) {
    wchar_t local[MAX_PATH];
    ASSERT_EQ(S_OK, SHGetFolderPathW(nullptr, CSIDL_LOCAL_APPDATA, nullptr, SHGFP_TYPE_CURRENT, local));
    const std::filesystem::path explorer = std::filesystem::path(local) / "Microsoft/Windows/Explorer";
    std::filesystem::create_directories(explorer);
    writeFileBytes(explorer / "thumbcache_9.db", "pictures");
    m_clip.clear();
    const Diagnosis diagnosis = look();
    EXPECT_TRUE(diagnosis.isHealthy()) << "it is no fault";
    ASSERT_EQ(1u, diagnosis.findings.size());
    EXPECT_STREQ(L"cache", diagnosis.findings[0].id);
    const std::wstring folder = m_folder.path().wstring();
    const std::wstring_view unasked[] = {L"--fix", L"--json", L"--folder", folder};
    runDoctor(unasked);
    EXPECT_TRUE(std::filesystem::exists(explorer / "thumbcache_9.db")) << "emptied without a question";
    EXPECT_EQ(EXIT_DONE, fix());
    EXPECT_FALSE(std::filesystem::exists(explorer / "thumbcache_9.db"));
}

TEST_F(Doctor, TheDecoderIsTakenFromItsMakersSoftware) {
    const EnvironmentVariable programs(L"ProgramFiles", m_folder.path().c_str());
    const std::filesystem::path makers = m_folder.path() / "Blackmagic Design/DaVinci Resolve";
    std::filesystem::create_directories(makers);
    std::filesystem::rename(inside(BlackmagicRawAPIFileName), makers / BlackmagicRawAPIFileName);
    m_clip.clear();
    expectFault(L"decoder-missing");
    const std::wstring folder = m_folder.path().wstring();
    const std::wstring_view looking[] = {L"--json", L"--folder", folder};
    EXPECT_EQ(EXIT_FAILED, runDoctor(looking)) << "mended without being told to";
    EXPECT_EQ(EXIT_DONE, fix());
}

TEST_F(Doctor, AnInstallationForOneUserIsWell) {
    ASSERT_EQ(S_OK, unregisterHandler(Scope::machine));
    ASSERT_EQ(S_OK, registerHandler(inside(L""), Scope::user));
    m_clip.clear();
    EXPECT_TRUE(look().isHealthy());
}

TEST_F(Doctor, TellsAPersonAndAProgram) {
    const std::filesystem::path program = kBinaries / "clipforge-thumb.exe";
    writeFileBytes(m_clip, "\xFF\xD8\xFF\xE0");
    const ProgramRun person = runProgram(program, {L"doctor", m_clip});
    EXPECT_EQ(1u, person.exitCode);
    EXPECT_NE(std::string::npos, person.output.find("is a JPEG picture, not a clip.\n      What helps: "))
        << person.output;
    EXPECT_NE(std::string::npos, person.output.find("The likeliest reason: ")) << person.output;
    const ProgramRun json = runProgram(program, {L"doctor", m_clip, L"--json"});
    EXPECT_EQ(1u, json.exitCode);
    EXPECT_TRUE(json.output.starts_with("{\"healthy\": false, \"findings\": [\n")) << json.output;
    EXPECT_NE(std::string::npos,
              json.output.find("{\"id\": \"clip-other-kind\", \"grade\": \"fault\", \"text\": \""))
        << json.output;
    EXPECT_NE(std::string::npos, json.output.find("\\\\clip.braw is a JPEG")) << json.output;
}
} // namespace
