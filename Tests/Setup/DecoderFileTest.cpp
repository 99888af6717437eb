#include "DecoderFile.h"

#include <gtest/gtest.h>

#include "TemporaryFolder.h"

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
