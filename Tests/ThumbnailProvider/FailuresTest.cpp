// What a person's disk, a strange shell and a failing decoder can hand over: each gives its result and leaves
// nothing behind.
#include "HandlerFixture.h"
#include "Imports.h"
#include "StandInRegistry.h"

namespace {
using Kind = ReferenceDecoderFaultKind;

class Failures : public HandlerTest {
protected:
    /// Where the core did not start, nothing is written; else the bitmap is null and the kind of alpha told.
    void expectFailed(const std::optional<std::wstring>& path, UINT size = 16, HRESULT result = E_FAIL,
                      bool coreStarted = true) {
        const Answer answer = ask(path, size);
        EXPECT_RESULT(result, answer.result);
        EXPECT_EQ(!coreStarted, answer.isUntouched);
    }
};

TEST_F(Failures, PathsThatLeadToNoClip) {
    const std::string header = "P6\n64 32\n255\n";
    writeFileBytes(inside(L"empty.braw"), "");
    writeFileBytes(inside(L"text.braw"), "This is not a clip.");
    writeFileBytes(inside(L"huge.braw"), "P6 4294967295 4294967295 255\n");
    writeFileBytes(inside(L"cut.braw"), header + std::string(64 * 32, 'x'));
    const std::optional<std::wstring> paths[] = {
        std::nullopt,
        L"",
        m_folder.path().wstring(),
        inside(L"missing.braw"),
        inside(L"no folder\\missing.braw"),
        inside(L"unpaired \xD83C surrogate.braw"),
        inside(L"empty.braw"),
        inside(L"text.braw"),
        inside(L"huge.braw"),
        inside(L"cut.braw"),
        std::wstring(40000, L'x'),
    };
    for (const auto& path : paths) {
        SCOPED_TRACE(&path - paths);
        expectFailed(path);
    }

    const std::wstring path = writeClip();
    const HANDLE user = CreateFileW(path.c_str(), GENERIC_READ, 0, nullptr, OPEN_EXISTING, 0, nullptr);
    ASSERT_NE(INVALID_HANDLE_VALUE, user);
    expectFailed(path);
    CloseHandle(user);
    EXPECT_RESULT(S_OK, ask(path).result) << "once nobody uses it";

    // Nothing to show is no failure: the picture is there, and all of it transparent.
    writeFileBytes(inside(L"none.braw"), header);
    const Answer none = ask(inside(L"none.braw"));
    ASSERT_EQ(16, none.size.cy);
    EXPECT_EQ(std::vector<uint8_t>(32 * 16 * 4), none.pixels);
}

DWORD g_addedAttributes = 0;
bool g_isListed = true; ///< whether the folder may be listed

HANDLE WINAPI findWithAddedAttributes(const wchar_t* path, FINDEX_INFO_LEVELS level, void* entry,
                                      FINDEX_SEARCH_OPS operation, void* filter, DWORD flags) {
    if (!g_isListed)
        return INVALID_HANDLE_VALUE;
    const HANDLE search = FindFirstFileExW(path, level, entry, operation, filter, flags);
    if (search != INVALID_HANDLE_VALUE)
        static_cast<WIN32_FIND_DATAW*>(entry)->dwFileAttributes |= g_addedAttributes;
    return search;
}

DWORD WINAPI tellAddedAttributes(const wchar_t*) {
    return g_addedAttributes;
}

std::wstring g_opened; ///< the last file

HANDLE WINAPI noteOpening(const wchar_t* path, DWORD access, DWORD sharing, SECURITY_ATTRIBUTES* security,
                          DWORD disposition, DWORD flags, HANDLE model) {
    return CreateFileW((g_opened = path).c_str(), access, sharing, security, disposition, flags, model);
}

// Wine keeps none of these attributes, so the folder's answer is changed on its way to the handler.
TEST_F(Failures, ClipsInACloudAreNotFetchedUnlessAPolicyWantsIt) {
    const StandInRegistry registry;
    const std::wstring path = writeClip();
    const ReplacedImport find("FindFirstFileExW", &findWithAddedAttributes, m_handler->module());
    const ReplacedImport attributes("GetFileAttributesW", &tellAddedAttributes, m_handler->module());
    const ReplacedImport opening("CreateFileW", &noteOpening, m_handler->module());
    constexpr DWORD offline = 0x1000, recallOnOpen = 0x40000, recallOnDataAccess = 0x400000;
    for (const DWORD attribute : {offline, recallOnOpen, recallOnDataAccess}) {
        SCOPED_TRACE(attribute);
        g_addedAttributes = attribute;
        StandInRegistry::setNumber(HKEY_CURRENT_USER, L"Software\\Verdane\\Clipforge", L"CloudThumbnails", 0);
        m_decoder.reset();
        g_opened.clear();
        for (const bool isListed : {false, true}) {
            g_isListed = isListed;
            expectFailed(path, 16, E_FAIL, false);
            EXPECT_EQ(0, m_decoder.account().loads);
            EXPECT_NE(path, g_opened);
        }
        StandInRegistry::setNumber(HKEY_CURRENT_USER, L"Software\\Verdane\\Clipforge", L"CloudThumbnails", 1);
        EXPECT_RESULT(S_OK, ask(path).result);
        EXPECT_EQ(path, g_opened);
    }
    g_addedAttributes = FILE_ATTRIBUTE_REPARSE_POINT | FILE_ATTRIBUTE_SPARSE_FILE; // fetched already
    StandInRegistry::setNumber(HKEY_CURRENT_USER, L"Software\\Verdane\\Clipforge", L"CloudThumbnails", 0);
    EXPECT_RESULT(S_OK, ask(path).result);
}

std::vector<std::wstring> g_events;
int g_openLogs = 0;
ULONGLONG g_addedTime = 0;

HANDLE WINAPI openLog(const wchar_t*, const wchar_t*) {
    ++g_openLogs;
    return &g_openLogs;
}
BOOL WINAPI writeToLog(HANDLE, WORD, WORD, DWORD, void*, WORD count, DWORD, const wchar_t** texts, void*) {
    EXPECT_EQ(1, count);
    g_events.emplace_back(texts[0]);
    return TRUE;
}
BOOL WINAPI closeLog(HANDLE) {
    return --g_openLogs >= 0;
}
ULONGLONG WINAPI laterTime() {
    return GetTickCount64() + g_addedTime;
}

TEST_F(Failures, EachLeavesOneEventWithinReason) {
    const StandInRegistry registry;
    const HMODULE handler = m_handler->module();
    const ReplacedImport open("RegisterEventSourceW", &openLog, handler);
    const ReplacedImport write("ReportEventW", &writeToLog, handler);
    const ReplacedImport close("DeregisterEventSource", &closeLog, handler);
    const ReplacedImport time("GetTickCount64", &laterTime, handler);
    ASSERT_TRUE(open && write && close && time);
    const std::wstring path = writeClip();
    const std::wstring missing = inside(L"missing.braw");
    g_events.clear();
    g_addedTime = 0;
    EXPECT_RESULT(S_OK, ask(path).result);
    EXPECT_EQ(0u, g_events.size()) << "nothing failed";

    expectFailed(missing);
    m_faultsArmed = true;
    m_decoder.reset();
    m_decoder.arm({"IBlackmagicRawFactory::CreateCodec", 1, Kind::fail, E_FAIL});
    expectFailed(path, 16, E_UNEXPECTED, false);
    m_decoder.reset();
    m_decoder.arm({"IBlackmagicRawCallback::ProcessComplete", 1, Kind::succeedEmpty, 0});
    expectFailed(path);
    m_decoder.reset();
    const std::wstring start = L"No thumbnail was made.\r\nClip: ";
    EXPECT_EQ((std::vector{start + missing + L"\r\nStage: opening the clip\r\nCode: 0x80004005",
                           start + path + L"\r\nStage: starting the decoder\r\nCode: 0x8000FFFF",
                           start + path +
                               L"\r\nStage: decoding the first frame\r\nCode: 0x80004005"
                               L"\r\nRequest error: 12"}),
              g_events);

    for (int i = 3; i < 20; ++i)
        expectFailed(missing);
    EXPECT_EQ(8u, g_events.size());
    g_addedTime = 10 * 60 * 1000;
    expectFailed(missing);
    EXPECT_EQ(9u, g_events.size());
    EXPECT_TRUE(g_events.back().ends_with(L"\r\nFailures left out since the last event: 12"));
    expectFailed(std::wstring(32000, L'x'));
    EXPECT_TRUE(g_events.back().ends_with(L"\r\nCode: 0x80004005"));
    EXPECT_GT(31839u, g_events.back().size()) << "longer ones Windows does not take";
    StandInRegistry::setNumber(HKEY_CURRENT_USER, L"Software\\Verdane\\Clipforge", L"FailureEvents", 0);
    expectFailed(missing);
    EXPECT_EQ(10u, g_events.size());
    EXPECT_EQ(0, g_openLogs);
}

TEST_F(Failures, StrangeButGoodNames) {
    std::wstring longFolder = m_folder.path().wstring();
    for (int i = 0; i < 6; ++i) {
        longFolder += L"\\" + std::wstring(50, L'a');
        ASSERT_TRUE(CreateDirectoryW((L"\\\\?\\" + longFolder).c_str(), nullptr)) << GetLastError();
    }
    const std::wstring source = writeClip();
    for (const std::wstring& name : {inside(L"\xD83C\xDFAC \x30D5\x30A3\x30EB\x30E0 \xE9\x301.braw"),
                                     inside(L"no extension"), longFolder + L"\\clip.braw"}) {
        SCOPED_TRACE(name.size());
        const std::wstring target = name.size() < MAX_PATH ? name : L"\\\\?\\" + name;
        ASSERT_TRUE(CopyFileW(source.c_str(), target.c_str(), TRUE)) << GetLastError();
        EXPECT_RESULT(S_OK, ask(name).result);
        EXPECT_RESULT(S_OK, ask(target).result);
        EXPECT_TRUE(DeleteFileW(target.c_str()));
    }
    for (; longFolder.size() > m_folder.path().wstring().size(); longFolder.resize(longFolder.rfind(L'\\')))
        RemoveDirectoryW((L"\\\\?\\" + longFolder).c_str());
}

TEST_F(Failures, Sizes) {
    const std::wstring path = writeClip();
    expectFailed(path, 0);
    expectFailed(path, 4294967295u);
    EXPECT_EQ(4, ask(path, 1).size.cy);
    EXPECT_EQ(4096, ask(path, 4096).size.cy);
}

int g_bitmapsAskedFor = 0;
HBITMAP WINAPI refuseBitmap(HDC, const BITMAPINFO*, UINT, void**, HANDLE, DWORD) {
    ++g_bitmapsAskedFor;
    return nullptr;
}

// GDI's own sums have 32 bits. 23170 is the largest square.
TEST_F(Failures, BitmapsThatCannotBeAreNoQuestionToGdi) {
    const std::wstring path = writeClip();
    const ReplacedImport bitmaps("CreateDIBSection", &refuseBitmap, m_handler->module());
    for (const UINT size : {23170u, 23171u, 32768u, 65536u, 0x80000000u}) {
        SCOPED_TRACE(size);
        g_bitmapsAskedFor = 0;
        expectFailed(path, size);
        EXPECT_EQ(size == 23170 ? 1 : 0, g_bitmapsAskedFor);
    }
}

TEST_F(Failures, WhatTheDecoderSaysOfGeometryIsToldAndOfAClipIsE_FAIL) {
    constexpr auto odd = static_cast<HRESULT>(0x8007007B);
    const std::wstring path = writeClip();
    m_faultsArmed = true;
    for (const auto& [call, result] : {std::pair("IBlackmagicRawFactory::CreateClipGeometry", odd),
                                       {"IBlackmagicRaw::OpenClipWithGeometry", E_FAIL}}) {
        SCOPED_TRACE(call);
        m_decoder.reset();
        m_decoder.arm({call, 1, Kind::fail, odd});
        expectFailed(path, 16, result);
        EXPECT_LT(0, m_decoder.account().faultsFired) << "no such call";
    }
}

TEST_F(Failures, TheCoreStartsWithTheRightLibraryAlone) {
    const std::wstring path = writeClip(), library = inside(L"BlackmagicRawAPI.dll");
    const std::string good = readFileBytes(builtFile("bin") / "BlackmagicRawAPI.dll");
    std::string x86 = good, nameless = good;
    x86.replace(static_cast<uint8_t>(good[0x3C]) + size_t{4}, 2, "\x4C\x01"); // the header's machine
    for (size_t at = 0; (at = nameless.find("CreateBlackmagicRawFactoryInstance", at)) != nameless.npos;)
        nameless[at] = 'X';
    std::vector<std::string> wrong = {"", "This is not a library.", x86, nameless, good + '\0'};
    for (size_t cut = good.size() - 1; cut > 0; cut /= 3) // half of them within the headers
        wrong.push_back(good.substr(0, cut));
    std::filesystem::copy(builtFile("bin") / "Clipforge_Thumbnails.dll", m_folder.path());
    load(m_folder.path());
    const auto expectNoStart = [&] {
        for (int i = 0; i < 2; ++i) // the first failure must not spoil the next attempt
            expectFailed(path, 16, E_UNEXPECTED, false);
    };
    expectNoStart();
    std::filesystem::create_directory(library);
    expectNoStart();
    std::filesystem::remove(library);
    for (const std::string& bytes : wrong) {
        SCOPED_TRACE(bytes.size());
        writeFileBytes(library, bytes);
        expectNoStart();
        writeFileBytes(library, good);
        EXPECT_RESULT(S_OK, ask(path).result);
    }
    load(builtFile("bin"));
}
} // namespace
