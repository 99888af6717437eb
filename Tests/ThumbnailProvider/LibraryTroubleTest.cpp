// The decoder library beside the handler is missing, or is not what it should be.
#include "HandlerFixture.h"

namespace {
class LibraryTrouble : public HandlerTest {
protected:
    void SetUp() override {
        HandlerTest::SetUp();
        m_clip = writeClip(m_folder.path() / "clip.braw", {32, 32});
    }
    /// A folder of its own with the handler, and with these bytes as the decoder library.
    void loadBeside(const std::optional<std::string>& decoder) {
        const auto folder = m_folder.path() / std::to_string(m_count++);
        std::filesystem::create_directory(folder);
        std::filesystem::copy_file(productFolder("bin") / "Clipforge_Thumbnails.dll",
                                   folder / "Clipforge_Thumbnails.dll");
        if (decoder)
            writeFileBytes(folder / "BlackmagicRawAPI.dll", *decoder);
        load(folder);
    }
    std::wstring m_clip;

private:
    int m_count = 0;
};

TEST_F(LibraryTrouble, TheCoreDoesNotStartAndNothingIsWritten) {
    const std::string good = readFileBytes(productFolder("bin") / "BlackmagicRawAPI.dll");
    ASSERT_EQ(2161112u, good.size());
    const struct {
        const char* what;
        std::optional<std::string> decoder;
    } cases[] = {
        {"missing", std::nullopt},
        {"empty", ""},
        {"a text file", "This is not a library."},
        {"without the entry point", readFileBytes(productFolder("bin") / "Clipforge_Thumbnails.dll")},
        {"one byte short", good.substr(0, good.size() - 1)},
        {"one byte long", good + '\0'},
        {"cut in the middle", good.substr(0, good.size() / 16)},
    };
    for (const auto& [what, decoder] : cases) {
        SCOPED_TRACE(what);
        loadBeside(decoder);
        for (int i = 0; i < 2; ++i) { // the first failure must not spoil the next attempt
            const Answer answer = ask(m_clip, 16);
            EXPECT_RESULT(E_UNEXPECTED, answer.result);
            EXPECT_TRUE(answer.bitmapUntouched);
            EXPECT_TRUE(answer.alphaUntouched);
        }
    }
    loadBeside(good);
    EXPECT_RESULT(S_OK, ask(m_clip, 16).result);
}

TEST_F(LibraryTrouble, EachThumbnailLoadsAndUnloadsIt) {
    for (int i = 1; i <= 3; ++i) {
        EXPECT_RESULT(S_OK, ask(m_clip, 16).result);
        EXPECT_EQ(i, m_decoder.account().loads);
        EXPECT_EQ(i, m_decoder.account().unloads);
    }
}
} // namespace
