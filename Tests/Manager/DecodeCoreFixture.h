// The decode core on the reference decoder in the test's own process. At the end of every test everything
// that the decoder handed out must have come back.
#pragma once

#include <gtest/gtest.h>

#include "BuiltFile.h"
#include "CudaRuntime.h"
#include "Manager.h"
#include "ReferenceDecoder.h"
#include "ReferenceDecoderSession.h"
#include "TemporaryFolder.h"
#include "TestClips.h"
#include "Utils/vdText.h"

using Kind = ReferenceDecoderFaultKind;

/// A control of the stand-in for the CUDA runtime, which must be loaded.
template <class Function>
Function* standIn(const char* name) {
    return reinterpret_cast<Function*>(
        reinterpret_cast<void*>(GetProcAddress(GetModuleHandleA(cudaRuntimeFile), name)));
}

/// A request that counts how often it ends, and on which way. Its listener must be called without its lock.
class TestRequest : public vdBRAW_Request {
public:
    TestRequest() {
        m_listener = [this](vdBRAW_Request&) {
            ++told;
            bool isFree = false;
            std::thread([&] { // its lock does not keep the thread out that holds it
                isFree = m_mutex.try_lock();
                if (isFree)
                    m_mutex.unlock();
            })
                .join();
            EXPECT_TRUE(isFree) << "told with the lock held";
        };
    }
    vdStatus onProcessComplete() override {
        ++delivered;
        return delivery.failed ? delivery : LaunchHeavyProcessing();
    }
    void onFinished() override { ++failed; }
    int onFrameRead(IBlackmagicRawFrame*) override { return hook; }

    int delivered = 0;
    int failed = 0;
    int told = 0;
    int hook = 0;                ///< what it answers to the frame that was read
    vdStatus delivery;           ///< a failure is what it delivers
    std::vector<uint8_t> pixels; ///< the final image, where the fixture made it
};

class DecodeCoreTest : public testing::Test {
protected:
    void SetUp() override {
        m_decoder.reset();
        m_clipFile = {.width = 96, .height = 64, .frames = 2};
        m_clipPath = writeClip("clip.braw", m_clipFile);
        // The manager judges the library by its file's size; the code itself is linked in.
        const std::string library = m_folder.text("BlackmagicRawAPI.dll");
        writeFileBytes(library, {});
        std::filesystem::resize_file(library, 2'161'112);
        m_manager = std::make_unique<vdBRAW_Manager>();
        g_manager = m_manager.get();
    }

    void TearDown() override {
        m_decoder.disarm();
        m_request.reset();
        m_manager.reset();
        g_manager = nullptr;
        const ReferenceDecoderAccount account = m_decoder.account();
        EXPECT_TRUE(account.isBalanced() && account.isSound()) << account.describe();
    }

    std::string writeClip(const char* name, const TestClip& clip) {
        writeTestClip(m_folder.path() / name, clip);
        return m_folder.text(name);
    }

    /// Starts the decoder's account anew with one fault; `call` stands without its "IBlackmagicRaw".
    void arm(const std::string& call, uint32_t occurrence = 1, Kind kind = Kind::fail,
             int64_t value = E_ACCESSDENIED) {
        m_decoder.reset();
        m_decoder.arm({"IBlackmagicRaw" + call, occurrence, kind, value});
    }

    std::unique_ptr<Instance> makeInstance(bool useGpu = false) {
        auto instance = std::make_unique<Instance>();
        instance->factory = createReferenceDecoderFactory();
        instance->isInitialised = true;
        instance->libraryFolder = vdBstr(utf8ToUtf16(m_folder.text() + "\\"));
        instance->useGpuPipeline = useGpu;
        return instance;
    }

    int init(bool useGpu = false) {
        if (useGpu) { // the CUDA runtime is found by its name from then on
            EXPECT_TRUE(LoadLibraryW(builtFile("cuda/cudart64_110.dll").c_str()));
        }
        return m_manager->init(makeInstance(useGpu));
    }

    /// Another manager, with the clip open.
    std::shared_ptr<vdBRAW_Clip> start(bool useGpu = false) {
        m_manager = std::make_unique<vdBRAW_Manager>();
        g_manager = m_manager.get();
        EXPECT_EQ(init(useGpu), 0);
        return addClip(m_clipPath);
    }

    std::shared_ptr<vdBRAW_Clip> addClip(const std::string& path) {
        uint64_t id = 0;
        return m_manager->AddClipIfNew(path, id) == 0 ? m_manager->GetClip(id) : nullptr;
    }

    /// A request for the whole clip at full size, its final image in its own pixels, rows `padding` bytes
    /// longer than they need.
    std::shared_ptr<TestRequest> makeRequest(const vdBRAW_Clip& clip,
                                             brPixelFormat format = brPixelFormat::BGRA_8_LOW,
                                             uint32_t padding = 0) {
        auto request = std::make_shared<TestRequest>();
        const auto width = static_cast<int32_t>(clip.m_width);
        const auto height = static_cast<int32_t>(clip.m_height);
        request->setScaleAndDimensions(clip, {0, width, clip.m_width}, {0, height, clip.m_height},
                                       {0, 0, width, height});
        const uint32_t rowBytes = clip.m_width * pixelFormatBytes(format) + padding;
        request->pixels.resize(size_t{rowBytes} * clip.m_height);
        request->setup(clip.m_id, clip.m_frameCount, request->pixels.data(), static_cast<int32_t>(rowBytes),
                       format, m_manager->createBufferManager());
        return request;
    }

    TemporaryFolder m_folder;
    TestClip m_clipFile;
    std::string m_clipPath;
    ReferenceDecoderSession m_decoder;
    std::unique_ptr<vdBRAW_Manager> m_manager;
    std::shared_ptr<TestRequest> m_request;
};
