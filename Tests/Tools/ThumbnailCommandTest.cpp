// clipforge-thumb's main job: the pictures that it writes, its exit codes and what it says.

#include <objbase.h>

#include <gdiplus.h>

#include "BuiltFile.h"
#include "Console.h"
#include "EnvironmentVariable.h"
#include "HandlerHost.h"
#include "Imports.h"
#include "PngFile.h"
#include "ProgramRun.h"
#include "TemporaryFolder.h"
#include "TestClips.h"
#include "ThumbnailCommand.h"

namespace {
const std::filesystem::path kBinaries = builtFile("bin");

/// The picture is the whole clip at 1/factor, upright and unmirrored.
void expectPicture(const std::filesystem::path& path, const TestClip& clip, uint32_t factor) {
    Gdiplus::Bitmap picture(path.c_str());
    ASSERT_EQ(expectedSide(clip.width, factor), picture.GetWidth()) << path;
    ASSERT_EQ(expectedSide(clip.height, factor), picture.GetHeight()) << path;
    for (UINT y = 0; y < picture.GetHeight(); ++y)
        for (UINT x = 0; x < picture.GetWidth(); ++x) {
            Gdiplus::Color color;
            picture.GetPixel(static_cast<INT>(x), static_cast<INT>(y), &color);
            const auto [blue, green, red, alpha] = expectedPixel(clip, factor, x, y);
            ASSERT_EQ(Gdiplus::Color(alpha, red, green, blue).GetValue(), color.GetValue())
                << path << ": " << x << ", " << y;
        }
}

class ThumbnailCommand : public testing::Test {
protected:
    void SetUp() override {
        ASSERT_EQ(S_OK, CoInitializeEx(nullptr, COINIT_APARTMENTTHREADED));
        const Gdiplus::GdiplusStartupInput input;
        ASSERT_EQ(Gdiplus::Ok, Gdiplus::GdiplusStartup(&m_gdiplus, &input, nullptr));
    }
    void TearDown() override {
        Gdiplus::GdiplusShutdown(m_gdiplus);
        CoUninitialize();
    }

    std::wstring inside(const wchar_t* name) { return (m_folder.path() / name).make_preferred().wstring(); }
    std::wstring writeClip(const wchar_t* name, const TestClip& clip = {}) {
        writeTestClip(inside(name), clip);
        return inside(name);
    }
    /// Asks the product's own DLL unless the arguments say otherwise.
    ProgramRun run(std::vector<std::wstring> arguments, const std::filesystem::path& dll = kHandler) {
        if (!dll.empty())
            arguments.insert(arguments.end(),
                             {L"--dll", std::filesystem::path(dll).make_preferred().wstring()});
        return runProgram(kBinaries / "clipforge-thumb.exe", arguments);
    }
    /// The command ends with one line that has `text` in it, before it asks any handler.
    static void expectRefused(const std::vector<std::wstring>& arguments, const std::wstring& text,
                              ExitCode exitCode = EXIT_USAGE) {
        try {
            runThumbnail(std::vector<std::wstring_view>(arguments.begin(), arguments.end()));
            ADD_FAILURE() << "not refused";
        } catch (const CommandError& error) {
            EXPECT_EQ(exitCode, error.code());
            EXPECT_NE(std::wstring::npos, error.line().find(text)) << testing::PrintToString(error.line());
            EXPECT_EQ(std::wstring::npos, error.line().find(L'\n'));
        }
    }

    static inline const std::filesystem::path kHandler = kBinaries / "Clipforge_Thumbnails.dll";
    TemporaryFolder m_folder;
    ULONG_PTR m_gdiplus = 0;
};

TEST_F(ThumbnailCommand, WritesThePictureAndTellsOfIt) {
    const TestClip clip{61, 47};
    const std::wstring path = writeClip(L"clip.braw", clip);
    for (const uint32_t factor : {1u, 2u}) {
        const UINT size = expectedSide(47, factor);
        const ProgramRun asked = run({path, L"--size", std::to_wstring(size), L"--out", inside(L"p.png")});
        EXPECT_EQ(0u, asked.exitCode) << asked.errors;
        EXPECT_EQ("", asked.errors);
        EXPECT_TRUE(asked.output.starts_with("asked " + std::to_string(size) + ", got " +
                                             std::to_string(expectedSide(61, factor)) + " x " +
                                             std::to_string(size) + ", WTSAT_ARGB, 0x00000000, "))
            << asked.output;
        expectPicture(inside(L"p.png"), clip, factor);
    }
}

TEST_F(ThumbnailCommand, AsksTheRegisteredHandler) {
    const TestClip clip{64, 48};
    const std::wstring path = writeClip(L"clip.braw", clip);
    for (const wchar_t* const name : {L"Clipforge_Thumbnails.dll", L"Clipforge_Guard.dll"}) {
        HandlerLibrary handler;
        ASSERT_EQ(S_OK, handler.load((kBinaries / name).wstring()));
        ASSERT_EQ(S_OK, handler.call("DllRegisterServer"));
        std::filesystem::remove(inside(L"p.png"));
        const ProgramRun asked = run({path, L"--size", L"48", L"--out", inside(L"p.png")}, {});
        EXPECT_EQ(0u, asked.exitCode) << asked.errors;
        expectPicture(inside(L"p.png"), clip, 1);
        ASSERT_EQ(S_OK, handler.call("DllUnregisterServer"));
    }
}

TEST_F(ThumbnailCommand, SeveralClipsInOneCall) {
    const TestClip first{64, 48}, last{32, 16};
    const std::wstring names[] = {writeClip(L"one.braw", first), inside(L"missing.braw"),
                                  writeClip(L"\x30D5\x30A3 \xFC\xE9 \xD83C\xDFAC.braw", last)};
    std::filesystem::create_directory(inside(L"pictures \xE4"));
    const ProgramRun asked =
        run({names[0], names[1], names[2], L"--size", L"16", L"--out", inside(L"pictures \xE4\\")});
    EXPECT_EQ(1u, asked.exitCode) << "one of them failed";
    EXPECT_EQ(2, std::ranges::count(asked.output, '\n')) << asked.output;
    EXPECT_EQ(1u, asked.errorLines()) << asked.errors;
    expectPicture(inside(L"pictures \xE4\\one.braw.png"), first, 2);
    expectPicture(inside(L"pictures \xE4\\\x30D5\x30A3 \xFC\xE9 \xD83C\xDFAC.braw.png"), last, 1);
    EXPECT_NE(std::string::npos,
              asked.output.find("\xE3\x83\x95\xE3\x82\xA3 \xC3\xBC\xC3\xA9 \xF0\x9F\x8E\xAC"));
}

TEST_F(ThumbnailCommand, EachBadClipHasALineOfItsOwn) {
    const struct {
        std::wstring name;
        const char* line;
        std::string_view bytes; ///< of the file, if one is made
    } files[] = {
        {L"photo.jpg", "is a JPEG picture, not a clip (GetThumbnail: 0x80004005", "\xFF\xD8\xFF\xE0 JFIF"},
        {L"grey.pgm", "is a grey picture, not a clip (GetThumbnail: ", "P5 1 1 255\nx"},
        {L"notes.braw", "cannot be read or decoded (GetThumbnail: 0x80004005", "What nobody knows."},
        {L"empty.braw", "is empty", ""},
        {L"missing.braw", "does not exist", ""},
        {L"no folder\\missing.braw", "does not exist", ""},
        {L"", "is a folder", ""},
        {L"used.braw", "is in use by another program", "P6 1 1 255\nxxx"},
    };
    std::vector<std::wstring> clips;
    for (const auto& [name, line, bytes] : files) {
        clips.push_back(inside(name.c_str()));
        if (!bytes.empty() || name == L"empty.braw")
            writeFileBytes(clips.back(), bytes);
    }
    const HANDLE user =
        CreateFileW(clips.back().c_str(), GENERIC_READ, 0, nullptr, OPEN_EXISTING, 0, nullptr);
    const ProgramRun asked = run(clips);
    CloseHandle(user);
    EXPECT_EQ(1u, asked.exitCode);
    EXPECT_EQ("", asked.output);
    std::istringstream lines(asked.errors);
    std::string line;
    for (const auto& file : files) {
        std::getline(lines, line);
        EXPECT_TRUE(line.starts_with("clipforge-thumb: ")) << line;
        EXPECT_NE(std::string::npos, line.find(file.line)) << file.line << "\n" << line;
    }
    EXPECT_FALSE(std::getline(lines, line)) << line;
}

TEST_F(ThumbnailCommand, WhatIsAskedWronglyIsRefusedAndNothingIsWritten) {
    const std::wstring path = writeClip(L"clip.braw"), other = writeClip(L"clip.braw.png");
    const std::string bytes = readFileBytes(path);
    CreateHardLinkW(inside(L"link.png").c_str(), path.c_str(), nullptr);
    for (const std::wstring& out : {path, inside(L"CLIP.braw"), inside(L".\\clip.braw"), inside(L"link.png")})
        expectRefused({path, L"--out", out}, L"over the clip");
    expectRefused({path, other, L"--out", m_folder.path().wstring()}, L"over the clip");
    EXPECT_EQ(bytes, readFileBytes(path));

    for (const wchar_t* const size : {L"0", L"-1", L"4294967296", L"12x", L"99999999999999999999"})
        expectRefused({path, L"--size", size}, L"--size needs a whole number");
    expectRefused({path, L"--size"}, L"--size needs a value");
    expectRefused({path, L"--out", L""}, L"--out needs a value");
    expectRefused({path, L"--colour", L"red"}, L"no option --colour");
    expectRefused({L"--size", L"8"}, L"which clip?");
    expectRefused({path, other, L"--out", inside(L"p.png")}, L"needs a folder");
    expectRefused({path, inside(L"elsewhere\\CLIP.BRAW"), L"--out", m_folder.path().wstring()},
                  L"same picture");
    expectRefused({path, L"--dll", inside(L"missing.dll")}, L"cannot be loaded: 0x8007007E", EXIT_FAILED);
    expectRefused({path, L"--dll", path}, L"cannot be loaded: 0x800700C1", EXIT_FAILED);
    const ProgramRun wrong = runProgram(kBinaries / "clipforge-thumb.exe", {path, L"--size", L"0"});
    EXPECT_EQ(2u, wrong.exitCode);
    EXPECT_EQ(1u, wrong.errorLines()) << wrong.errors;
}

std::wstring g_named;

HANDLE WINAPI noteName(LPCWSTR path, DWORD, DWORD, LPSECURITY_ATTRIBUTES, DWORD, DWORD, HANDLE) {
    g_named = path;
    return INVALID_HANDLE_VALUE;
}

TEST_F(ThumbnailCommand, PicturesGoIntoDeepFoldersToo) {
    const ReplacedImport create("CreateFileW", &noteName);
    const std::wstring deep(300, L'd');
    uint32_t pixel = 0;
    DIBSECTION section{{0, 1, 1, 4, 1, 32, &pixel}, {sizeof(BITMAPINFOHEADER), 1, 1, 1, 32}};
    for (const auto& [path, name] : {std::pair(L"C:\\p.png", L"C:\\p.png"),
                                     {L"C:\\", L"\\\\?\\C:\\"},
                                     {L"\\\\server\\", L"\\\\?\\UNC\\server\\"},
                                     {L"\\\\?\\C:\\", L"\\\\?\\C:\\"}}) {
        const std::wstring& rest = path == name ? L"" : deep;
        writePng(section, path + rest);
        EXPECT_EQ(name + rest, g_named);
    }
}

TEST_F(ThumbnailCommand, APictureThatCannotBeWritten) {
    const ProgramRun asked = run({writeClip(L"clip.braw"), L"--out", inside(L"no folder\\p.png")});
    EXPECT_EQ(1u, asked.exitCode);
    EXPECT_NE(std::string::npos, asked.errors.find("cannot be written: 0x80070003")) << asked.errors;
}

TEST_F(ThumbnailCommand, AHandlerThatCrashesOrWouldOpenAWindow) {
    wchar_t program[MAX_PATH];
    GetModuleFileNameW(nullptr, program, MAX_PATH);
    const auto ask = [&] {
        return run({writeClip(L"clip.braw")},
                   std::filesystem::path(program).replace_filename("StrangeHandler.dll"));
    };
    const ProgramRun quiet = ask();
    EXPECT_NE(std::string::npos, quiet.errors.find("Creating the handler: 0x80048003")) << "the error mode\n"
                                                                                        << quiet.errors;
    const EnvironmentVariable crash(L"STRANGE_HANDLER", L"1");
    const ProgramRun crashed = ask();
    EXPECT_EQ(1u, crashed.exitCode);
    EXPECT_EQ(1u, crashed.errorLines());
    EXPECT_TRUE(crashed.errors.starts_with("clipforge-thumb: crashed: access violation writing 0x0 in "))
        << crashed.errors;
    EXPECT_NE(std::string::npos, crashed.errors.find(" in StrangeHandler.dll+0x")) << crashed.errors;
}
} // namespace
