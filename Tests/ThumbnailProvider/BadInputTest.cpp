// What a person's disk and a strange shell can hand over: each gives its result and leaves nothing behind.
#include "HandlerFixture.h"

namespace {
class BadInput : public HandlerTest {
protected:
    /// The core ran: no bitmap, but the kind of alpha is told.
    void expectFailed(const Answer& answer, HRESULT result = E_FAIL) {
        EXPECT_RESULT(result, answer.result);
        EXPECT_FALSE(answer.bitmapUntouched);
        EXPECT_EQ(WTSAT_ARGB, answer.alpha);
    }
    std::wstring inside(const wchar_t* name) { return (m_folder.path() / name).wstring(); }
};

TEST_F(BadInput, PathsThatLeadToNoClip) {
    writeFileBytes(m_folder.path() / "empty.braw", "");
    writeFileBytes(m_folder.path() / "text.braw", "This is not a clip.");
    writeFileBytes(m_folder.path() / "huge.braw", "P6 4294967295 4294967295 255\n");
    const std::optional<std::wstring> paths[] = {
        std::nullopt,
        L"",
        m_folder.path().wstring(),
        inside(L"missing.braw"),
        inside(L"no folder\\missing.braw"),
        inside(L"unpaired \xD83C surrogate.braw"),
        inside(L"unpaired \xDFAC surrogate.braw"),
        inside(L"empty.braw"),
        inside(L"text.braw"),
        inside(L"huge.braw"),
        L"?:\\*|<>",
        std::wstring(40000, L'x'),
    };
    for (const auto& path : paths) {
        SCOPED_TRACE(&path - paths);
        expectFailed(ask(path, 256));
    }
}

TEST_F(BadInput, ClipInUse) {
    const std::wstring path = writeClip(m_folder.path() / "used.braw", {32, 32});
    const HANDLE user =
        CreateFileW(path.c_str(), GENERIC_READ | GENERIC_WRITE, 0, nullptr, OPEN_EXISTING, 0, nullptr);
    ASSERT_NE(INVALID_HANDLE_VALUE, user);
    expectFailed(ask(path, 16));
    CloseHandle(user);
    EXPECT_RESULT(S_OK, ask(path, 16).result);
    EXPECT_TRUE(DeleteFileW(path.c_str()));
}

TEST_F(BadInput, StrangeButGoodNames) {
    std::wstring longFolder = m_folder.path().wstring();
    for (int i = 0; i < 6; ++i) {
        longFolder += L"\\" + std::wstring(50, static_cast<wchar_t>(L'a' + i));
        ASSERT_TRUE(CreateDirectoryW((L"\\\\?\\" + longFolder).c_str(), nullptr)) << GetLastError();
    }
    const std::wstring names[] = {
        inside(L"\xD83C\xDFAC \x30D5\x30A3\x30EB\x30E0 \xE9\x301.braw"),
        inside(L"no extension"),
        longFolder + L"\\clip.braw",
    };
    const std::wstring source = writeClip(m_folder.path() / "source.braw", {32, 32});
    for (const std::wstring& name : names) {
        SCOPED_TRACE(name.size());
        const std::wstring target = name.size() < MAX_PATH ? name : L"\\\\?\\" + name;
        ASSERT_TRUE(CopyFileW(source.c_str(), target.c_str(), TRUE)) << GetLastError();
        EXPECT_RESULT(S_OK, ask(name, 16).result);
        EXPECT_RESULT(S_OK, ask(target, 16).result);
        EXPECT_TRUE(DeleteFileW(target.c_str()));
    }
    while (longFolder.size() > m_folder.path().wstring().size()) {
        RemoveDirectoryW((L"\\\\?\\" + longFolder).c_str());
        longFolder.resize(longFolder.rfind(L'\\'));
    }
}

TEST_F(BadInput, ClipsWithoutAWholeFrame) {
    const std::string header = "P6\n64 32\n255\n";
    writeFileBytes(m_folder.path() / "none.braw", header);
    writeFileBytes(m_folder.path() / "cut.braw", header + std::string(64 * 32, 'x'));

    // Nothing to show is no failure: the picture is there, and all of it transparent.
    {
        const Answer none = ask(inside(L"none.braw"), 16);
        EXPECT_RESULT(S_OK, none.result);
        for (int y = 0; y < none.size.cy; ++y)
            for (int x = 0; x < none.size.cx; ++x)
                for (int channel = 0; channel < 4; ++channel)
                    ASSERT_EQ(0, none.pixel(x, y)[channel]);
    }
    expectFailed(ask(inside(L"cut.braw"), 16));
}

TEST_F(BadInput, Sizes) {
    const std::wstring path = writeClip(m_folder.path() / "clip.braw", {64, 32});
    constexpr struct {
        UINT asked;
        HRESULT result;
        SIZE size;
    } cases[] = {
        {0, E_FAIL, {}},      {1, S_OK, {8, 4}},        {4096, S_OK, {4096, 4096}},
        {100000, E_FAIL, {}}, // more bytes than a bitmap can have
        {32768, E_FAIL, {}},  // 4 GiB: 0 in 32 bits
        {65536, E_FAIL, {}},  {0x80000000, E_FAIL, {}}, {4294967295, E_FAIL, {}},
    };
    for (const auto& [asked, result, size] : cases) {
        SCOPED_TRACE(asked);
        const Answer answer = ask(path, asked);
        EXPECT_RESULT(result, answer.result);
        EXPECT_EQ(WTSAT_ARGB, answer.alpha);
        EXPECT_FALSE(answer.bitmapUntouched);
        EXPECT_EQ(size.cx, answer.size.cx);
        EXPECT_EQ(size.cy, answer.size.cy);
    }
}
} // namespace
