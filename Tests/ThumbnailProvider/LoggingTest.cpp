// The variant with the handler logging switch on: its log tells the whole road of a thumbnail.
#include <algorithm>
#include <regex>
#include <sstream>
#include <string_view>
#include <vector>

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

constexpr const char* wholeRoad[] = {
    // The provider is created and told its clip.
    "INFO|BRThumbnailProv| AddRef|CClipforgeThumbProvider AddRef !",
    "INFO|BRThumbnailProv| CRecipeThumbProvider_CreateInstance|  - Returning 0",
    "INFO|BRThumbnailProv| Initialize|Initialize !",
    "INFO|BRThumbnailProv| Initialize|  - called with : *\\clip.braw",
    "INFO|BRThumbnailProv| Initialize|  - Filepath Test :",
    "INFO|BRThumbnailProv| Initialize|  - Filepath with UTF16ToWString call : *\\clip.braw",
    "INFO|BRThumbnailProv| Initialize|  - Exists : True",
    "INFO|BRThumbnailProv| Initialize|  - Readable : True",
    "INFO|BRThumbnailProv| Initialize|  - Test wfopen : OK",
    "INFO|BRThumbnailProv| Initialize|  - Returning 0",
    "INFO|BRThumbnailProv| AddRef|CClipforgeThumbProvider AddRef !",
    "INFO|BRThumbnailProv| GetThumbnail|Getting Thumbnail with size 16",
    // The decode core comes up.
    "INFO|brThumbnailGene| initBMIfNeeded|Initializing BMD Lib",
    "INFO|BlackmagicRawAP| TryLoadBlackmagicRawAPI|Module Filename : *ThumbnailProviderTests.exe",
    "INFO|BlackmagicRawAP| TryLoadBlackmagicRawAPI|Should release Other Dlls : 1",
    "INFO|BlackmagicRawAP| TryLoadBlackmagicRawAPI|Manualyy Loaded DLL success !",
    "INFO|Instance       | tryToInitBM|Succeeded in creating IBlackmagicRawFactory with this path *\\",
    "INFO|Instance       | isTheDllLastVersion|Dll Filesize : 2161112",
    "INFO|Instance       | initPipeline|Initializing Pipeline",
    "INFO|Instance       | initPipeline|-- New Pipeline : CUDA",
    "INFO|Instance       | initPipeline|-- New Pipeline : CPU",
    "INFO|Instance       | initPipeline|- Pipeline Infos : */    - Instruction set : */    - Device Index : 0"
    "/    - Interop : None/    - Name : Reference CPU/    - Pipeline Name : CPU/",
    "INFO|Instance       | initPipeline|Replacing old pipeline with new one created",
    "INFO|Manager        | logCodecConfiguration|Thread : /    - Count : */    - MaxCount : *"
    "/Pipeline supported : /    - CPU : 1/    - CUDA : 1/    - METAL : 0/    - OPENCL : 0"
    "/General Infos : /    - Current Pipeline : CPU/    - WriteMetadataPerFrame : 0/    - Version : *"
    "/    - Camera Supported Version : *",
    // The clip is opened.
    "INFO|Manager        | AddClipIfNew|Calling AddClipIfNew with path : *\\clip.braw",
    "INFO|Manager        | AddClipIfNew|Clip has not been found : need to add it",
    "INFO|Manager        | AddClip|Calling AddClip",
    "INFO|Manager        | AddClip|Opening new clip",
    "INFO|Manager        | createGeometryForClip|Opening Clip with Flip Vertical",
    "INFO|Clip           | openAndInit|Initializing Clip : 0",
    "INFO|Clip           | openAndInit|Resolutions found : 4",
    "INFO|Clip           | openAndInit|    - 64x32",
    "INFO|Clip           | openAndInit|    - 32x16",
    "INFO|Clip           | openAndInit|    - 16x8",
    "INFO|Clip           | openAndInit|    - 8x4",
    "INFO|Manager        | AddClip|New Clip from *\\clip.braw initialized with ID #0",
    "INFO|Manager        | AddClip|Number of clips in memory : 1",
    // The request is set up, submitted, and carried through its three jobs.
    "INFO|Request        | setScaleAndDimensions|[Q-1C*#0I0] Dimensions - In 32x16 - Full 64x32 - Scale half "
    "- Downscale 0",
    "INFO|Request        | setup|[Q-1C0#0I0] Request Setup - Frame 0 / 1 - Format BGRA_8_LOW - GPU : 0 - "
    "Enable : 1",
    "INFO|brBufferManager| setAllocatedProcessedBuffer|[Q-1C0#0I0]  - Processed Buffer should not be "
    "released",
    "INFO|brBufferManager| createReadJob|[Q-1C0#0I0]  - bitStreamSizeBytes : *",
    "INFO|brBufferManager| createReadJob|[Q-1C0#0I0]  - Allocating New Buffer for m_bitStream - Previous "
    "Size : 0",
    "INFO|Manager        | AddProcessFrameAsync|[Q-1C0#0I0] Submitting Job",
    "INFO|Callback       | ReadComplete|[Q-1C0#0I0] ReadComplete  dt * us",
    "INFO|brBufferManager| populateFrameStateBuffer|[Q-1C0#0I0]  - frameStateSizeBytes : *",
    "INFO|brBufferManager| populateFrameStateBuffer|[Q-1C0#0I0]  - Allocating New Buffer for m_frameState - "
    "Previous Size : 0",
    "INFO|brBufferManager| createDecodeJob|[Q-1C0#0I0]  - decodedBufferSizeBytes : *",
    "INFO|brBufferManager| createDecodeJob|[Q-1C0#0I0]  - Allocating New Buffer for m_decodedBuffer - "
    "PreviousSize : 0",
    "INFO|Callback       | DecodeComplete|Callback DecodeComplete called",
    "INFO|Callback       | DecodeComplete|[Q-1C0#0I0] DecodeComplete dt * us",
    "INFO|brBufferManager| createProcessJob|[Q-1C0#0I0]  - CPU processedBufferSizeBytes : 2048",
    "INFO|Callback       | ProcessComplete|[Q-1C0#0I0] ProcessComplete  dt * us",
    "INFO|Manager        | FindInQueue|[Q-1C0#0I0] RC 0, DPC 0, IPC 0, sz 1 Found: 1 "
    "foundButStillProcessing: 0",
    "INFO|Manager        | FindInQueue|[Q-1C0#0I0] Removed Queue, sizes 1,0",
    "INFO|brThumbnailGene| generateThumbnailImageBuffer|Success : Filling final buffer pointer result",
    // All is taken down again.
    "INFO|Clip           | Close|[C0]Closing Clip",
    "INFO|brThumbnailGene| releaseBMD|Releasing Global Manager",
    "INFO|Manager        | Release|Releasing Global Manager",
    "INFO|Instance       | Release|Releasing BMD Libs Win",
    "INFO|Instance       | Release|BMD Libs Released",
    "INFO|BRThumbnailProv| GetThumbnail|End of getting Thumbnail - Returning 0",
    "INFO|BRThumbnailProv| Release|Cref == 0 => Deleting CClipforgeThumbProvider",
    "INFO|BRThumbnailProv| ~CClipforgeThumbProvider|CClipforgeThumbProvider Released !",
};

TEST_F(HandlerLog, TellsTheWholeRoad) {
    setLevel("ERR"); // whichever level is named, information lines and worse are written
    m_decoder.setManners(ReferenceDecoderManners::none); // it is told what the decoder says
    EXPECT_RESULT(S_OK, ask(m_clip).result);
    const std::vector<std::string> lines = entries();
    for (size_t i = 0; i < std::min(lines.size(), std::size(wholeRoad)); ++i)
        ASSERT_TRUE(matches(wholeRoad[i], lines[i])) << lines[i] << "\nshould be\n" << wholeRoad[i];
    EXPECT_EQ(std::size(wholeRoad), lines.size());
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
