#include "Utils/vdPaths.h"

#include <cstring>

#include <gtest/gtest.h>

#include "EnvironmentVariable.h"
#include "TemporaryFolder.h"
#include "Utils/vdPresets.h"
#include "Utils/vdText.h"

namespace fs = std::filesystem;

namespace {
/// The message; empty for a success.
std::string failureOf(const vdStatus& status) {
    EXPECT_EQ(status.reserved, 0);
    EXPECT_EQ(status.failed, status.text().empty() ? 0 : 1);
    return std::string(status.text());
}
} // namespace

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
    for (const std::string& value : {std::string(), missing, temporary.text("file")}) {
        const EnvironmentVariable profile(L"USERPROFILE", utf8ToUtf16(value).c_str());
        const std::string message = value.empty()
                                        ? "getUserHomeFolder - Impossible to get USERPROFILE env ..."
                                        : "Impossible to get User Folder Path ...";
        EXPECT_EQ(failureOf(getUserHomeFolder(path)), message);
        EXPECT_EQ(failureOf(getOptionsFilePath(path)), message);
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
