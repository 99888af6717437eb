#include "Utils/vdPaths.h"

#include <cstring>

#include <gtest/gtest.h>

#include "Adobe/vdHost.h"
#include "EnvironmentVariable.h"
#include "TemporaryFolder.h"
#include "Utils/vdModule.h"
#include "Utils/vdText.h"

namespace fs = std::filesystem;

namespace {
std::string failureOf(const vdStatus& status) {
    EXPECT_EQ(status.failed, 1);
    EXPECT_EQ(status.reserved, 0);
    return std::string(status.text());
}

#define EXPECT_SUCCESS(call)                                                                                 \
    do {                                                                                                     \
        const vdStatus status = (call);                                                                      \
        EXPECT_EQ(status.failed, 0) << status.text();                                                        \
    } while (false)
} // namespace

TEST(Paths, JoinPutsExactlyOneSeparatorBeforeEachComponent) {
    const struct {
        std::string_view base, addition, joined;
    } table[] = {
        {"C:\\a", "b", "C:\\a\\b"},
        {"C:\\a\\", "b", "C:\\a\\b"},
        {"C:/a/", "b", "C:/a/b"},
        {"", "x.log", "\\x.log"},
        {"C:\\u", "\\AppData\\Roaming\\Verdane", "C:\\u\\AppData\\Roaming\\Verdane"},
        {"C:\\u", "a/b\\c", "C:\\u\\a\\b\\c"},
        {"C:\\u", "a//b/", "C:\\u\\a\\b"},
        {"C:\\u", "", "C:\\u"},
    };
    for (const auto& [base, addition, joined] : table)
        EXPECT_EQ(joinPath(base, addition), joined);
}

TEST(Paths, TextHelpers) {
    EXPECT_EQ(toBackslashes("a/b\\c"), "a\\b\\c");
    EXPECT_EQ(toForwardSlashes("a/b\\c"), "a/b/c");
    EXPECT_EQ(stripTrailingSeparators("a\\b/\\/"), "a\\b");
    EXPECT_EQ(stripTrailingSeparators("\\/"), "");
    EXPECT_EQ(normaliseLibraryFolder(L"C:/x/y"), L"C:\\x\\y\\");
    EXPECT_EQ(normaliseLibraryFolder(L"C:\\x\\"), L"C:\\x\\");
    EXPECT_EQ(normaliseLibraryFolder(L""), L"");
}

TEST(Paths, LongFailureMessageIsCutAndReadable) {
    const std::string longMessage(300, 'm');
    EXPECT_EQ(vdFailure(longMessage).text(), longMessage.substr(0, 256));
}

TEST(Paths, FoldersAndFilesComeAndGo) {
    const TemporaryFolder temporary;
    const std::string deep = temporary.text("p/\xC3\xA9/\xF0\x9F\x8E\xAC");
    EXPECT_SUCCESS(createDirectories(deep + "\\/"));
    EXPECT_TRUE(isDirectory(deep));
    EXPECT_SUCCESS(createDirectories(deep));
    EXPECT_SUCCESS(createDirectory(deep));

    const std::string file = joinPath(deep, "f.txt");
    std::ofstream stream;
    openOutputStream(stream, joinPath(deep, "first.txt"), std::ios::binary);
    openOutputStream(stream, file, std::ios::trunc);
    stream << "ab\n" << std::flush;
    FILE* const reader = openForReading(file);
    ASSERT_NE(reader, nullptr) << "a writer must not keep readers out";
    char line[8] = {};
    EXPECT_STREQ(std::fgets(line, sizeof line, reader), "ab\n");
    std::fclose(reader);
    stream.close();

    EXPECT_EQ(fileSize(file), 4) << "text mode ends lines with two bytes";
    EXPECT_TRUE(fileExists(file));
    EXPECT_FALSE(isDirectory(file));
    EXPECT_SUCCESS(moveFile(file, file + "2"));
    EXPECT_EQ(fileSize(file), -1);
    EXPECT_SUCCESS(removeFile(file));
    EXPECT_SUCCESS(removeFile(file + "2"));
    EXPECT_SUCCESS(removeFile(joinPath(deep, "first.txt")));
    EXPECT_SUCCESS(removeDirectory(deep));
    EXPECT_FALSE(fileExists(deep));
    EXPECT_EQ(openForReading(file), nullptr);
}

TEST(Paths, FailuresSayWhatAndWhere) {
    const TemporaryFolder temporary;
    const std::string missing = temporary.text("none\\x");
    writeFileBytes(temporary.path() / "file", "1");
    EXPECT_EQ(failureOf(createDirectory(toForwardSlashes(missing) + "/")),
              "Impossible to create Directory at : " + missing + " (error 2)");
    EXPECT_EQ(failureOf(moveFile(missing, "y")), "Impossible to move file from " + missing + " to y");
    EXPECT_EQ(failureOf(removeFile(temporary.text())), "Impossible to remove file " + temporary.text());
    EXPECT_EQ(failureOf(removeDirectory(temporary.text())),
              "Impossible to remove Directory at : " + temporary.text() + " : " + std::strerror(ENOTEMPTY));
    // A file stands where a level is needed: the first step that fails is the one told.
    EXPECT_EQ(failureOf(createDirectories(temporary.text("file\\a\\b")))
                  .find("Impossible to create Directory at : " + temporary.text("file\\a") + " (error "),
              0u);
}

TEST(Paths, ProfileFolderMustBeThere) {
    const TemporaryFolder temporary;
    writeFileBytes(temporary.path() / "file", "1");
    std::string folder;
    const struct {
        const std::wstring value;
        const char* message;
    } table[] = {
        {L"", "getUserHomeFolder - Impossible to get USERPROFILE env ..."},
        {(temporary.path() / "none").wstring(), "Impossible to get User Folder Path ..."},
        {(temporary.path() / "file").wstring(), "Impossible to get User Folder Path ..."},
    };
    for (const auto& [value, message] : table) {
        const EnvironmentVariable profile(L"USERPROFILE", value.empty() ? nullptr : value.c_str());
        EXPECT_EQ(failureOf(getUserHomeFolder(folder)), message);
        EXPECT_EQ(failureOf(getProductLogsFolder(folder, "")), message);
        EXPECT_EQ(failureOf(getOptionsFilePath(folder)), message);
    }
}

TEST(Paths, ProductFoldersAreMadeInAProfileOfAnyName) {
    const TemporaryFolder temporary;
    const fs::path home = temporary.path() / L"\x00DCser \xD83C\xDFAC";
    fs::create_directory(home);
    const EnvironmentVariable profile(L"USERPROFILE", home.c_str());
    const std::string product = utf16ToUtf8(home.wstring()) + "\\AppData\\Roaming\\Verdane\\Clipforge";
    std::string path;
    EXPECT_SUCCESS(getProductLogsFolder(path, ""));
    EXPECT_EQ(path, product + "\\Logs");
    EXPECT_TRUE(isDirectory(path));
    EXPECT_SUCCESS(getProductLogsFolder(path, "Other"));
    EXPECT_EQ(path, product + "\\Other");

    const std::string options = product + "\\Clipforge_options.ini";
    EXPECT_SUCCESS(getOptionsFilePath(path));
    EXPECT_EQ(path, options);
    EXPECT_EQ(fileSize(options), 0);
    writeFileBytes(utf8ToUtf16(options), "[General]");
    EXPECT_SUCCESS(getOptionsFilePath(path));
    EXPECT_EQ(fileSize(options), 9) << "an existing file must be left alone";

    EXPECT_SUCCESS(removeFile(options));
    EXPECT_SUCCESS(createDirectories(options + "\\inside"));
    EXPECT_SUCCESS(getOptionsFilePath(path));
    EXPECT_TRUE(isDirectory(options)) << "a folder with contents stays";
    EXPECT_SUCCESS(removeDirectory(options + "\\inside"));
    EXPECT_SUCCESS(getOptionsFilePath(path));
    EXPECT_FALSE(isDirectory(options)) << "an empty folder gives way";
    EXPECT_TRUE(fileExists(options));
}

TEST(Module, KnowsItsOwnFolderAndLoadsByFullPath) {
    EXPECT_EQ(ownModule(), GetModuleHandleW(nullptr));
    wchar_t own[MAX_PATH] = {};
    GetModuleFileNameW(nullptr, own, MAX_PATH);
    EXPECT_EQ(GetDylibParentFolderPath(), fs::path(own).parent_path().wstring() + L"\\");

    EXPECT_EQ(loadLibraryIsolated(GetDylibParentFolderPath() + L"missing.dll"), nullptr);
    EXPECT_EQ(GetLastError(), DWORD{ERROR_MOD_NOT_FOUND});
    wchar_t system[MAX_PATH] = {};
    GetSystemDirectoryW(system, MAX_PATH);
    const HMODULE library = loadLibraryIsolated(std::wstring(system) + L"\\winmm.dll");
    EXPECT_NE(library, nullptr);
    FreeLibrary(library);
}
