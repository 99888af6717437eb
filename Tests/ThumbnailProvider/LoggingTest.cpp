// The variant with the handler logging switch on: its log tells the whole road of a thumbnail.
#include <regex>
#include <sstream>

#include "EnvironmentVariable.h"
#include "HandlerFixture.h"

namespace {
/// A star stands for any text, or none.
bool matches(std::string_view pattern, std::string_view text) {
    const size_t star = pattern.find('*');
    if (star == std::string_view::npos)
        return pattern == text;
    if (!text.starts_with(pattern.substr(0, star)))
        return false;
    for (size_t i = star; i <= text.size(); ++i)
        if (matches(pattern.substr(star + 1), text.substr(i)))
            return true;
    return false;
}

class HandlerLog : public HandlerTest {
protected:
    void SetUp() override {
        HandlerTest::SetUp();
        std::filesystem::create_directories(m_product);
        m_clip = writeClip();
        load(builtFile("logging"));
    }
    void setLevel(const std::string& level) {
        writeFileBytes(m_product / "Clipforge_options.ini", "[General]\nlogging = " + level + "\n");
    }

    /// The entries after the header as "LEVEL|file| function|message"; a slash before a message's further
    /// lines.
    std::vector<std::string> entries() const {
        const std::regex entryStart(R"(\d[^|]*\|([^|]*\|)[^|]*\|[^|]*\|([^|]*\|.*))");
        std::istringstream stream(readFileBytes(m_log));
        std::vector<std::string> entries;
        int rules = 0;
        for (std::string line; std::getline(stream, line);) {
            EXPECT_EQ('\r', line.back()) << "lines end as Windows ends them";
            line.pop_back();
            if (rules < 2) {
                rules += line == std::string(68, '-');
                continue;
            }
            std::smatch match;
            if (std::regex_match(line, match, entryStart))
                entries.push_back(match.str(1) + match.str(2));
            else if (!entries.empty())
                entries.back() += "/" + line;
        }
        return entries;
    }

    const std::filesystem::path m_product = m_folder.path() / "AppData/Roaming/Verdane/Clipforge";
    const std::filesystem::path m_log = m_product / "Logs" / "BRAW_Thumbnail.log";
    std::wstring m_clip;

private:
    EnvironmentVariable m_profile{L"USERPROFILE", m_folder.path().c_str()};
};

// In this order, with others between them.
constexpr const char* milestones[] = {
    "INFO|BRThumbnailProv| AddRef|CClipforgeThumbProvider AddRef !",
    "INFO|BRThumbnailProv| CRecipeThumbProvider_CreateInstance|  - Returning 0",
    "INFO|BRThumbnailProv| Initialize|  - called with : *\\clip.braw",
    "INFO|BRThumbnailProv| Initialize|  - Readable : True",
    "INFO|BRThumbnailProv| GetThumbnail|Getting Thumbnail with size 16",
    "INFO|BlackmagicRawAP| TryLoadBlackmagicRawAPI|Manualyy Loaded DLL success !",
    "INFO|Instance       | initPipeline|- Pipeline Infos : */    - Instruction set : */    - Device Index : 0"
    "/    - Interop : None/    - Name : Reference CPU/    - Pipeline Name : CPU/",
    "INFO|Manager        | logCodecConfiguration|*    - CPU : 1/    - CUDA : 1/    - METAL : 0/    - OPENCL "
    ": 0/*",
    "INFO|Manager        | AddClip|Opening new clip",
    "INFO|Clip           | openAndInit|    - 8x4",
    "INFO|Request        | setScaleAndDimensions|[Q-1C*#0I0] Dimensions - In 32x16 - Full 64x32 - Scale half "
    "- Downscale 0",
    "INFO|brBufferManager| createReadJob|[Q-1C0#0I0]  - Allocating New Buffer for m_bitStream *",
    "INFO|Manager        | AddProcessFrameAsync|[Q-1C0#0I0] Submitting Job",
    "INFO|Callback       | ReadComplete|[Q-1C0#0I0] ReadComplete  dt * us",
    "INFO|brBufferManager| populateFrameStateBuffer|[Q-1C0#0I0]  - Allocating New Buffer for m_frameState *",
    "INFO|brBufferManager| createDecodeJob|[Q-1C0#0I0]  - Allocating New Buffer for m_decodedBuffer *",
    "INFO|Callback       | DecodeComplete|[Q-1C0#0I0] DecodeComplete dt * us",
    "INFO|Callback       | ProcessComplete|[Q-1C0#0I0] ProcessComplete  dt * us",
    "INFO|Manager        | FindInQueue|[Q-1C0#0I0] Removed Queue, sizes 1,0",
    "INFO|Clip           | Close|*Closing Clip",
    "INFO|brBufferManager| *Releasing Processed Buffer",
    "INFO|Instance       | Release|BMD Libs Released",
    "INFO|BRThumbnailProv| GetThumbnail|End of getting Thumbnail - Returning 0",
    "INFO|BRThumbnailProv| Release|Cref == 0 => Deleting CClipforgeThumbProvider",
    "INFO|BRThumbnailProv| ~CClipforgeThumbProvider|CClipforgeThumbProvider Released !",
};

TEST_F(HandlerLog, TellsTheWholeRoad) {
    setLevel("ERR"); // whichever level is named, information lines and worse are written
    m_decoder.setManners(ReferenceDecoderManners::buffersNeedMore); // it is told what the decoder says
    EXPECT_RESULT(S_OK, ask(m_clip).result);
    const std::vector<std::string> lines = entries();
    auto line = lines.begin();
    for (const char* const milestone : milestones) {
        line = std::ranges::find_if(line, lines.end(),
                                    [&](const std::string& text) { return matches(milestone, text); });
        ASSERT_NE(lines.end(), line) << milestone;
    }
}

TEST_F(HandlerLog, TellsWhatWentWrong) {
    setLevel("INFO");
    EXPECT_RESULT(E_FAIL, ask(inside(L"missing.braw")).result);
    EXPECT_RESULT(E_FAIL, ask(m_clip, 0).result);
    EXPECT_RESULT(E_UNEXPECTED, m_handler->provider()->Initialize(nullptr, 0));
    std::string all; // of both providers: the second must not start it anew
    for (const std::string& entry : entries())
        all += entry + "\n";
    EXPECT_TRUE(matches("*INFO|BRThumbnailProv| Initialize|  - Exists : False\n"
                        "INFO|BRThumbnailProv| Initialize|  - Readable : False\n"
                        "WARN|BRThumbnailProv| Initialize|  - Test wfopen : #2 - *"
                        "ERR|Manager        | AddClip|Error while Opening and Initializing Clip : *"
                        "| GetThumbnail|End of getting Thumbnail - Returning -2147467259\n*"
                        "ERR|Request        | *setScaleAndDimensions - downscale num is 0 !\n*"
                        "ERR|brThumbnailGene| *|Something went wrong !! Returning Error\n*"
                        "ERR|BRThumbnailProv| Initialize|  - called with NULL filepath ..\n"
                        "INFO|BRThumbnailProv| Initialize|  - Returning -2147418113\n*",
                        all))
        << all;
}

TEST_F(HandlerLog, OptionsThatCannotBeReadCostNoThumbnail) {
    std::filesystem::create_directories(m_product / "Clipforge_options.ini" / "folder");
    EXPECT_RESULT(S_OK, ask(m_clip).result);
}

TEST_F(HandlerLog, IsWrittenOnlyWhereItIsAskedFor) {
    const struct {
        const char *product, *level;
        bool isWritten;
    } cases[] = {{"logging", "", false},
                 {"logging", "DESACTIVATED", false},
                 {"bin", "TRACE", false}, // what users get writes none
                 {"logging", "TRACE", true}};
    for (const auto& [product, level, isWritten] : cases) {
        setLevel(level);
        load(builtFile(product));
        EXPECT_RESULT(S_OK, ask(m_clip).result);
        EXPECT_EQ(isWritten, std::filesystem::exists(m_log)) << product << " " << level;
    }
}
} // namespace
