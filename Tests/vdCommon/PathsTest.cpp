#include "Utils/vdPaths.h"

#include <gtest/gtest.h>

#include "EnvironmentVariable.h"
#include "Imports.h"
#include "TemporaryFolder.h"
#include "Utils/vdPresets.h"
#include "Utils/vdSettings.h"
#include "Utils/vdText.h"

namespace fs = std::filesystem;

namespace {
/// The message; empty for a success.
std::string failureOf(const vdStatus& status) {
    EXPECT_EQ(status.reserved, 0);
    EXPECT_EQ(status.failed, status.text().empty() ? 0 : 1);
    return std::string(status.text());
}

TEST(Paths, JoinPutsExactlyOneSeparatorBeforeEachComponent) {
    const struct {
        std::string_view base, addition, joined;
    } table[] = {{"C:\\a", "b", "C:\\a\\b"},
                 {"C:\\a\\", "b", "C:\\a\\b"},
                 {"C:/a/", "b", "C:/a/b"},
                 {"", "x.log", "\\x.log"},
                 {"C:\\u", "\\AppData\\Roaming\\Verdane", "C:\\u\\AppData\\Roaming\\Verdane"},
                 {"C:\\u", "a//b/c\\", "C:\\u\\a\\b\\c"},
                 {"C:\\u", "", "C:\\u"}};
    for (const auto& [base, addition, joined] : table)
        EXPECT_EQ(joinPath(base, addition), joined);
    EXPECT_EQ(stripTrailingSeparators("a\\b/\\/"), "a\\b");
    EXPECT_EQ(normaliseLibraryFolder(L"C:/x/y"), L"C:\\x\\y\\");
    EXPECT_EQ(normaliseLibraryFolder(L""), L"");
}

TEST(Paths, FailuresSayWhatAndWhere) {
    const TemporaryFolder temporary;
    const std::string folder = temporary.text(), missing = temporary.text("none\\x");
    writeFileBytes(temporary.path() / "file", "1");
    EXPECT_EQ(failureOf(createDirectory(toForwardSlashes(missing) + "/")),
              "Impossible to create Directory at : " + missing + " (error 2)");
    // A file stands where a level is needed: the first step that fails is the one told.
    EXPECT_TRUE(failureOf(createDirectories(temporary.text("file\\a\\b")))
                    .starts_with("Impossible to create Directory at : " + folder + "\\file\\a (error "));
    EXPECT_EQ(failureOf(moveFile(missing, "y")), "Impossible to move file from " + missing + " to y");
    EXPECT_EQ(failureOf(removeFile(folder)), "Impossible to remove file " + folder);
    EXPECT_EQ(failureOf(removeDirectory(folder)),
              "Impossible to remove Directory at : " + folder + " : " + std::strerror(ENOTEMPTY));
    EXPECT_EQ(failureOf(vdFailure(std::string(300, 'm'))), std::string(256, 'm'));

    std::string path;
    const std::wstring values[] = {L"", utf8ToUtf16(missing), utf8ToUtf16(temporary.text("file"))};
    for (const wchar_t* value :
         {static_cast<const wchar_t*>(nullptr), values[0].c_str(), values[1].c_str(), values[2].c_str()}) {
        const EnvironmentVariable profile(L"USERPROFILE", value);
        const std::string message = value == nullptr
                                        ? "getUserHomeFolder - Impossible to get USERPROFILE env ..."
                                        : "Impossible to get User Folder Path ...";
        EXPECT_EQ(failureOf(getUserHomeFolder(path)), message);
        EXPECT_EQ(failureOf(getOptionsFilePath(path)), message);
    }
}

/// A file server with one share, on which each folder can be made inside one that is there.
std::vector<std::wstring> g_serverFolders;

bool isOnServer(const wchar_t* path) {
    return std::find(g_serverFolders.begin(), g_serverFolders.end(), path) != g_serverFolders.end();
}
int accessOnServer(const wchar_t* path, int) {
    errno = ENOENT;
    return isOnServer(path) ? 0 : -1;
}
int makeOnServer(const wchar_t* path) {
    const bool made = isOnServer(fs::path(path).parent_path().c_str());
    errno = ENOENT; // for a server's own name, too
    if (made)
        g_serverFolders.emplace_back(path);
    return made ? 0 : -1;
}

TEST(Paths, FoldersAreMadeOnAServerFromItsShareOn) {
    // Some toolchains bring a _waccess_s of their own, which asks _waccess.
    const ReplacedImport access("_waccess", &accessOnServer), safeAccess("_waccess_s", &accessOnServer);
    const ReplacedImport make("_wmkdir", &makeOnServer);
    ASSERT_TRUE((access || safeAccess) && make);
    for (const std::string share : {"\\\\server\\share", "\\\\?\\UNC\\server\\share", "\\\\?\\C:"}) {
        const std::wstring root = utf8ToUtf16(share);
        g_serverFolders = {root};
        EXPECT_EQ(failureOf(createDirectories(share + "\\a/b\\")), "");
        EXPECT_EQ(g_serverFolders, (std::vector{root, root + L"\\a", root + L"\\a\\b"}));
    }
    EXPECT_NE(failureOf(createDirectories("\\\\server")), "");
}

struct Opening {
    DWORD sharing;
    bool isInheritable;
};
std::vector<Opening> g_openings;
decltype(&CreateFileW) g_createFile;

HANDLE WINAPI recordOpening(LPCWSTR path, DWORD access, DWORD sharing, LPSECURITY_ATTRIBUTES security,
                            DWORD disposition, DWORD flags, HANDLE pattern) {
    g_openings.push_back({sharing, security != nullptr && security->bInheritHandle});
    return g_createFile(path, access, sharing, security, disposition, flags, pattern);
}

TEST(Paths, AnOpenFileHindersNobody) {
    const TemporaryFolder temporary;
    const EnvironmentVariable profile(L"USERPROFILE", temporary.path().c_str());
    const std::string clip = temporary.text("clip");
    writeFileBytes(utf8ToUtf16(clip), "P6");
    const ReplacedImport open("CreateFileW", &recordOpening);
    g_createFile = open.former();
    g_openings.clear();
    FILE* const file = openForReading(clip);
    ASSERT_NE(file, nullptr);
    std::fclose(file);
    EXPECT_EQ(openForReading(temporary.text("none")), nullptr);
    EXPECT_EQ(errno, ENOENT);
    loadOptions(); // makes the settings file, and reads it
    resetOptions();
    EXPECT_EQ(g_openings.size(), 4u);
    for (const Opening& made : g_openings) {
        EXPECT_EQ(made.sharing, DWORD{FILE_SHARE_READ | FILE_SHARE_WRITE | FILE_SHARE_DELETE});
        EXPECT_FALSE(made.isInheritable);
    }
}

TEST(Paths, ProductFoldersAreMadeInAProfileOfAnyName) {
    const TemporaryFolder temporary;
    const fs::path home = temporary.path() / L"\x00DCser \xD83C\xDFAC";
    fs::create_directory(home);
    const EnvironmentVariable profile(L"USERPROFILE", home.c_str());
    const std::string product = utf16ToUtf8(home.wstring()) + "\\AppData\\Roaming\\Verdane\\Clipforge";
    std::string logs, presets, path;
    EXPECT_EQ(failureOf(getProductLogsFolder(logs, "")), "");
    EXPECT_EQ(failureOf(getPresetsFolder(presets)), "");
    EXPECT_EQ(logs + presets, product + "\\Logs" + product + "\\BR_Preset");
    EXPECT_TRUE(isDirectory(logs) && isDirectory(presets));
    const std::string options = product + "\\Clipforge_options.ini";
    for (const int64_t size : {0, 9}) {
        EXPECT_EQ(failureOf(getOptionsFilePath(path)), "");
        EXPECT_EQ(path, options);
        EXPECT_EQ(fileSize(options), size) << "made empty; an existing file is left alone";
        writeFileBytes(utf8ToUtf16(options), "[General]");
    }
    removeFile(options);
    createDirectories(options + "\\inside");
    getOptionsFilePath(path);
    EXPECT_TRUE(isDirectory(options)) << "a folder with contents stays";
    removeDirectory(options + "\\inside");
    getOptionsFilePath(path);
    EXPECT_EQ(fileSize(options), 0) << "an empty folder gives way";
}
} // namespace
