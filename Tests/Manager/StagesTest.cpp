// Where a request can fail, by the call that fails: its code, its text, and what becomes of its buffers.
#include "DecodeCoreFixture.h"

#include <span>

#include "Imports.h"
#include "LogSession.h"
#include "Utils/vdGuard.h"
#include "Utils/vdResult.h"

namespace {

const std::string denied = hresultText(E_ACCESSDENIED), unexpected = hresultText(E_UNEXPECTED);
const std::string clipEx = "ClipEx::", callback = "Callback::", frame = "Frame::", job = "Job::";
const std::string resources = "ResourceManager::", image = "ProcessedImage::", lut = "Post3DLUT::";
const std::string cpu = "ManualDecoderFlow1::", gpu = "ManualDecoderFlow2::";
const std::string state = "Error populateFrameStateBuffer : ", decode = "Error createDecodeJob : ",
                  process = "Error CreateProcess Job : ";

struct StageFault {
    std::string call;
    uint32_t occurrence, code;
    std::string message; ///< the text of E_ACCESSDENIED follows, where that is what the call fails with
    Kind kind = Kind::fail;
    int64_t value = E_ACCESSDENIED;
};
struct BufferFault {
    brBuffer brBufferManager::*buffer;
    uint32_t code;
    std::string message;
};

class StagesTest : public DecodeCoreTest {
protected:
    void SetUp() override {
        DecodeCoreTest::SetUp();
        m_decoder.setClipsHaveLut(true);
    }

    /// A request with all that a host can ask for, and with a processed buffer of its own.
    std::shared_ptr<TestRequest> run(const vdBRAW_Clip& clip) {
        auto request = makeRequest(clip, brPixelFormat::BGRA_8_LOW, 4);
        request->m_hasCustomSettings = true;
        request->cloneProcessingAttributes(clip);
        m_manager->ProcessFrameSync(request);
        return request;
    }

    void expectFaults(bool isGpu, std::span<const StageFault> faults) {
        const auto clip = start(isGpu);
        for (const auto& [call, occurrence, code, message, kind, value] : faults) {
            SCOPED_TRACE(call + " " + std::to_string(occurrence));
            arm(call, occurrence, kind, value);
            const auto request = run(*clip);
            EXPECT_EQ(m_decoder.account().faultsFired, 1);
            EXPECT_EQ(request->m_errorCode, code);
            EXPECT_EQ(request->m_errorMessage,
                      "(" + std::to_string(code) + ") " + message + (value == E_ACCESSDENIED ? denied : ""));
            EXPECT_TRUE(request->m_isFinished && request->failed == 1 && request->told == 1 &&
                        !request->delivered);
            // Whatever else it may be told: it ends, and nothing is lost.
            for (const Kind lie : {Kind::succeedEmpty, Kind::oneLess, Kind::allOnes, Kind::zero}) {
                if (lie == Kind::succeedEmpty && call.starts_with(job))
                    continue; // its completion never comes, or tells nobody
                arm(call, occurrence, lie);
                EXPECT_TRUE(run(*clip)->m_isFinished);
                EXPECT_TRUE(m_decoder.account().isSound());
            }
        }
    }

    /// A buffer that is too small by a byte is the only one to be replaced; it is kept when its release
    /// fails, and holds and claims nothing when it cannot be made anew.
    void expectBuffers(bool isGpu, std::span<const BufferFault> faults) {
        const auto request = run(*start(isGpu));
        brBufferManager& buffers = *request->m_bufferManager;
        const auto again = [&] {
            request->m_isFinished = false;
            request->m_errorCode = 0;
            request->m_errorMessage.clear();
            m_manager->ProcessFrameSync(request);
            return m_decoder.occurrencesOf("IBlackmagicRawResourceManager::CreateResource");
        };
        m_decoder.reset();
        EXPECT_EQ(again(), 0u) << "a second frame of the same size needs nothing new";
        for (const auto& [member, code, message] : faults) {
            SCOPED_TRACE(message);
            brBuffer& buffer = buffers.*member;
            void* const kept = buffer.resource;
            --buffer.capacity;
            // Both decoded buffers go together, the host's first.
            const bool isSecond = &buffer == &buffers.m_decodedBufferGPU;
            arm(resources + "ReleaseResource", isSecond ? 2 : 1);
            EXPECT_EQ(again(), 0u);
            EXPECT_EQ(request->m_errorMessage, "(" + std::to_string(code) + ") " + message + denied);
            EXPECT_EQ(buffer.resource, kept);
            arm(resources + "CreateResource", isSecond ? 2 : 1);
            again();
            EXPECT_EQ(request->m_errorCode, code);
            EXPECT_EQ(buffer.resource, nullptr);
            EXPECT_EQ(buffer.capacity, 0u);
            EXPECT_GE(again(), 1u);
            EXPECT_EQ(request->m_errorMessage, "");
        }
    }
};

TEST_F(StagesTest, RequestFailsWithTheCodeOfItsStage) {
    const StageFault faults[] = {
        {"Clip::CloneClipProcessingAttributes", 1, 3, "Impossible to Clone Processing Attributes - "},
        {"ClipProcessingAttributes::GetPost3DLUT", 1, 3, "Failed Getting Post3DLUT "},
        {lut + "GetResourceCPU", 1, 3, "Failed Getting CPU Resource "},
        {clipEx + "GetBitStreamSizeBytes", 1, 1, "Frame seems to be corrupted - "},
        {clipEx + "CreateJobReadFrame", 1, 5, "Impossible to Create Job Read Frame - "},
        {resources + "CreateResource", 1, 5, "Impossible to Create BitStream Resource - "},
        {job + "SetUserData", 1, 5, "Failed SetUserData on Read Job"},
        {callback + "ReadComplete", 1, 7, "Failed SetResourceFormat on Frame ! "},
        {frame + "SetResourceFormat", 1, 7, "Failed SetResourceFormat on Frame ! "},
        {frame + "SetResolutionScale", 1, 7, "Failed SetResolutionScale on Frame ! "},
        {frame + "CloneFrameProcessingAttributes", 1, 7, "Failed CloneFrameProcessingAttributes on Frame ! "},
        {cpu + "GetFrameStateSizeBytes", 1, 7, state + "Failed CPU GetFrameStateSizeBytes "},
        {resources + "CreateResource", 2, 7, state + "Failed Creating CPU Resource FrameState "},
        {cpu + "PopulateFrameStateBuffer", 1, 7, state + "Failed Populating FrameState Buffer "},
        {cpu + "GetDecodedSizeBytes", 1, 8, decode + "Failed GetDecodedSizeBytes "},
        {resources + "CreateResource", 3, 8, decode + "Failed Creating CPU Resource "},
        {cpu + "CreateJobDecode", 1, 8, decode + "Failed Created Job Decode "},
        {job + "SetUserData", 2, 8, "Impossible to Set UserData on decodeJob !"},
        {job + "Submit", 2, 8, "Impossible to submit DecodeJob ! "},
        {callback + "DecodeComplete", 1, 8, "DecodeComplete called with error code - "},
        {cpu + "GetProcessedSizeBytes", 1, 10, process + "Failed GetProcessedSizeBytes "},
        {resources + "CreateResource", 4, 10, process + "Failed Creating CPU ProcessedBuffer Resource "},
        {cpu + "CreateJobProcess", 1, 10, process + "Failed Creating CPU Process Job"},
        {job + "SetUserData", 3, 10, "Impossible to Set UserData on processJob ! "},
        {job + "Submit", 3, 10, "Impossible to Submit processJob ! "},
        {callback + "ProcessComplete", 1, 10, "ProcessComplete called with error code - "},
        {image + "GetResourceType", 1, 12, "Impossible to GetResourceType ! "},
        {image + "GetResourceFormat", 1, 12, "Failed GetResourceFormat - "},
        {image + "GetWidth", 1, 12, "Failed GetWidth - "},
        {image + "GetHeight", 1, 12, "Failed GetHeight - "},
        {image + "GetResourceSizeBytes", 1, 12, "Failed GetResourceSizeBytes - "},
        // What a call should bring, and does not though it succeeds; and what fails without saying why.
        {clipEx + "GetBitStreamSizeBytes", 1, 1, "Frame seems to be corrupted", Kind::fail, E_FAIL},
        {clipEx + "GetBitStreamSizeBytes", 1, 1, "Frame seems to be corrupted - " + unexpected, Kind::zero,
         0},
        {clipEx + "CreateJobReadFrame", 1, 5, "Impossible to Create Job Read Frame - " + unexpected,
         Kind::succeedEmpty, 0},
        {job + "Submit", 1, 5, "Failed to Submit Read Job", Kind::fail, E_FAIL},
        {callback + "ReadComplete", 1, 6, "ReadComplete called with error code - ", Kind::succeedEmpty, 0},
        {callback + "ProcessComplete", 1, 12, "ProcessComplete called without an image", Kind::succeedEmpty,
         0},
        {image + "GetResourceFormat", 1, 12, "Final Format is not the same than requested one !", Kind::value,
         blackmagicRawResourceFormatRGBAU8},
        {image + "GetResourceType", 1, 12, "Final Resource Type is not the same than requested one !",
         Kind::value, blackmagicRawResourceTypeBufferCUDA},
    };
    expectFaults(false, faults);
    EXPECT_EQ(m_manager->createBufferManager()->fillLut3DBuffersFromClipProcessing(nullptr).text(),
              "Impossible to get Post3DLUT if clipAttrs is nullptr");
}

TEST_F(StagesTest, RequestOnAGpuFailsWithTheCodeOfItsStage) {
    const StageFault faults[] = {
        {lut + "GetResourceGPU", 1, 3, "Failed Getting GPU Resource "},
        {gpu + "GetFrameStateSizeBytes", 1, 7, state + "Failed GPU GetFrameStateSizeBytes "},
        {resources + "CreateResource", 4, 8, decode + "Failed Creating GPU Resource "},
        {gpu + "GetProcessedSizeBytes", 1, 11, process + "Failed GPU GetProcessedSizeBytes "},
        {gpu + "GetWorkingSizeBytes", 1, 11, process + "Failed GPU GetWorkingSizeBytes "},
        {resources + "CreateResource", 5, 11, process + "Failed Creating GPU WorkingBuffer Resource "},
        {resources + "CreateResource", 6, 11, process + "Failed Creating GPU ProcessedBuffer Resource "},
        {gpu + "GetDecodedSizeBytes", 2, 11, process + "Failed GPU GetDecodedSizeBytes "},
        {resources + "CopyResource", 1, 11,
         process + "Failed Copying DecodedBuffer Resource from CPU to GPU "},
        {gpu + "CreateJobProcess", 1, 11, process + "Failed Creating GPU Process Job "},
        {job + "Submit", 3, 11, "Impossible to Submit processJob ! "},
    };
    expectFaults(true, faults);
}

decltype(&malloc) g_malloc;
std::atomic<int64_t> g_left = 0; ///< the allocation that brings it to 0 fails

void* failingMalloc(size_t bytes) {
    return --g_left == 0 ? nullptr : g_malloc(bytes);
}

TEST_F(StagesTest, EachAllocationFailsOnce) {
    const ReplacedImport allocator("malloc", &failingMalloc);
    g_malloc = allocator.former();
    for (const bool isGpu : {false, true}) {
        auto clip = start(isGpu);
        for (int64_t number = 1; g_left <= 0; ++number) {
            std::shared_ptr<TestRequest> request;
            g_left = number;
            guardBoundary([&] {
                request = run(*clip);
                return S_OK;
            });
            EXPECT_TRUE(g_left <= 0 || number > 20);
            EXPECT_TRUE(!request || !request->m_isSubmitted || request->m_isFinished) << number;
            EXPECT_FALSE(request && request->m_processedImage);
            EXPECT_EQ(m_manager->FlushQueue(), 0);
        }
        g_left = 0;
        const auto request = run(*clip);
        EXPECT_EQ(request->m_errorMessage, "");
        EXPECT_EQ(request.use_count(), 1);
    }
}

TEST_F(StagesTest, BuffersAreReplacedOnlyWhenTooSmall) {
    const BufferFault faults[] = {
        {&brBufferManager::m_bitStream, 5, "Impossible to Release current BitStream Resource - "},
        {&brBufferManager::m_frameState, 7, state + "Failed Releasing CPU Resource FrameState "},
        {&brBufferManager::m_decodedBufferCPU, 8, decode + "Failed Releasing CPU Resource "},
        {&brBufferManager::m_processedBuffer, 10, process + "Failed Releasing CPU ProcessedBuffer Resource "},
    };
    expectBuffers(false, faults);

    // A caller's buffer that is too small is bypassed, with a warning: the decoder writes into one of our
    // own. One that cannot be made leaves nothing claimed.
    for (const bool fails : {false, true}) {
        const auto bypassing = makeRequest(*m_manager->GetClip(0));
        brBufferManager& buffers = *bypassing->m_bufferManager;
        void* const callers = buffers.m_processedBuffer.resource;
        const uint32_t size = buffers.m_processedBuffer.capacity--;
        const LogSession log(vdLogLevel::warn);
        arm(resources + "CreateResource", fails ? 4 : 99);
        m_manager->ProcessFrameSync(bypassing);
        EXPECT_EQ(bypassing->m_processDone, !fails);
        EXPECT_TRUE(buffers.m_ownsProcessedBuffer);
        EXPECT_NE(buffers.m_processedBuffer.resource, callers);
        EXPECT_EQ(buffers.m_processedBuffer.capacity, fails ? 0 : size);
        EXPECT_EQ(log.lines().size(), 1u);
        EXPECT_NE(log.lines()[0].find(fails
                                          ? std::string("Failed Creating CPU ProcessedBuffer Resource ")
                                          : " - Allocated CPU Buffer was size : " + std::to_string(size - 1) +
                                                " But needed size is : " + std::to_string(size)),
                  std::string::npos)
            << log.lines()[0];
    }
    // One that is large enough is used without a word; and no image makes a buffer larger than it is.
    const auto direct = makeRequest(*m_manager->GetClip(0));
    const uint32_t size = direct->m_bufferManager->m_processedBuffer.capacity;
    const LogSession log(vdLogLevel::warn);
    arm(image + "GetResourceSizeBytes", 1, Kind::allOnes);
    m_manager->ProcessFrameSync(direct);
    EXPECT_TRUE(direct->m_processDone && !direct->m_bufferManager->m_ownsProcessedBuffer);
    EXPECT_EQ(direct->m_bufferManager->m_processedBuffer.capacity, size);
    EXPECT_TRUE(log.lines().empty());
}

TEST_F(StagesTest, DeviceBuffersAreReplacedOnlyWhenTooSmall) {
    const BufferFault faults[] = {
        {&brBufferManager::m_decodedBufferGPU, 8, decode + "Failed Releasing GPU Resource "},
        {&brBufferManager::m_workingBuffer, 11, process + "Failed Releasing GPU WorkingBuffer Resource "},
        {&brBufferManager::m_processedBuffer, 11, process + "Failed Releasing GPU ProcessedBuffer Resource "},
    };
    expectBuffers(true, faults);

    // Of buffers that hold more than the frame, the frame is copied alone, and not waited for.
    auto request = run(*m_manager->GetClip(0));
    ++request->m_bufferManager->m_decodedBufferCPU.capacity;
    ++request->m_bufferManager->m_decodedBufferGPU.capacity;
    request->m_isFinished = false;
    m_decoder.reset();
    m_manager->ProcessFrameSync(request);
    EXPECT_EQ(request->m_errorMessage, "");
    EXPECT_EQ(m_decoder.account().copiesAsync, 1);

    const LogSession log(vdLogLevel::error);
    arm(resources + "ReleaseResource", 0);
    request.reset();
    const auto lines = log.lines();
    ASSERT_EQ(lines.size(), 6u);
    size_t line = 0;
    for (const char* buffer : {"m_bitStream", "m_frameState", "m_decodedBufferCPU", "m_decodedBufferGPU",
                               "m_workingBuffer", "m_processedBuffer"})
        EXPECT_NE(
            lines[line++].find("Impossible to release Resource : " + std::string(buffer) + " : " + denied),
            std::string::npos)
            << buffer;
    // What the decoder refused to take back is its own.
    referenceDecoderControl().account.liveResources -= 6;
}

} // namespace
