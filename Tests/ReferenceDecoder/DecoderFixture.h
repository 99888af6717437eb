// A user of the decoder as the handler is one: drives read, decode and process jobs from callbacks, on the
// CPU's or the GPU's road.
#pragma once

#include <atomic>
#include <cstring>
#include <functional>
#include <string>
#include <vector>

#include <gtest/gtest.h>
#include <wrl/client.h>

#include "ReferenceDecoder.h"
#include "ReferenceDecoderSession.h"
#include "TemporaryFolder.h"
#include "TestClips.h"

using Microsoft::WRL::ComPtr;

constexpr BlackmagicRawResourceType kHost = blackmagicRawResourceTypeBufferCPU;
constexpr BlackmagicRawResourceType kDevice = blackmagicRawResourceTypeBufferCUDA;

/// What one frame was asked for and became.
struct Request {
    uint64_t frame = 0;
    BlackmagicRawResolutionScale scale = blackmagicRawResolutionScaleFull;
    BlackmagicRawResourceFormat format = blackmagicRawResourceFormatBGRAU8;

    HRESULT result = E_PENDING; ///< of the last stage reached
    std::string stage;
    uint32_t width = 0, height = 0;
    BlackmagicRawResourceType type = 0;
    BlackmagicRawResourceFormat reportedFormat = 0;
    std::vector<uint8_t> processed;
    std::function<void()> onRead; ///< called first in the read callback

    std::vector<uint8_t> bitStream, state, decoded;
};

/// A codec on one pipeline, and the callback that moves requests on.
class Decoder : public IBlackmagicRawCallback {
public:
    explicit Decoder(bool onGpu);
    ~Decoder();

    HRESULT open(const std::filesystem::path& path, bool flipped, IBlackmagicRawClip** clip);
    /// Creates and submits the read job.
    HRESULT submit(IBlackmagicRawClip* clip, Request& request);
    /// Submits and flushes.
    HRESULT decode(IBlackmagicRawClip* clip, Request& request);

    ComPtr<IBlackmagicRawFactory> factory;
    ComPtr<IBlackmagicRaw> codec;
    ComPtr<IBlackmagicRawResourceManager> resources;
    void* context = nullptr;
    void* queue = nullptr;

    HRESULT STDMETHODCALLTYPE QueryInterface(REFIID, void**) override { return E_NOINTERFACE; }
    ULONG STDMETHODCALLTYPE AddRef() override { return 1; }
    ULONG STDMETHODCALLTYPE Release() override { return 1; }
    void STDMETHODCALLTYPE ReadComplete(IBlackmagicRawJob*, HRESULT, IBlackmagicRawFrame*) override;
    void STDMETHODCALLTYPE DecodeComplete(IBlackmagicRawJob*, HRESULT) override;
    void STDMETHODCALLTYPE ProcessComplete(IBlackmagicRawJob*, HRESULT,
                                           IBlackmagicRawProcessedImage*) override;
    void STDMETHODCALLTYPE TrimProgress(IBlackmagicRawJob*, float) override {}
    void STDMETHODCALLTYPE TrimComplete(IBlackmagicRawJob*, HRESULT) override {}
    void STDMETHODCALLTYPE SidecarMetadataParseWarning(IBlackmagicRawClip*, BSTR, uint32_t, BSTR) override {}
    void STDMETHODCALLTYPE SidecarMetadataParseError(IBlackmagicRawClip*, BSTR, uint32_t, BSTR) override {}
    void STDMETHODCALLTYPE PreparePipelineComplete(void*, HRESULT) override {}

private:
    template <class Flow>
    HRESULT startDecode(Flow& flow, Request& request, IBlackmagicRawFrame* frame);
    HRESULT startProcess(Request& request);
    HRESULT chain(IBlackmagicRawJob* job, Request& request);

    bool m_onGpu;
    ComPtr<IBlackmagicRawManualDecoderFlow1> m_cpu;
    ComPtr<IBlackmagicRawManualDecoderFlow2> m_gpu;
    std::vector<void*> m_deviceBuffers;
    void* m_deviceProcessed = nullptr;
};

/// Every test begins with a fresh account and must leave a balanced one.
class DecoderTest : public testing::Test {
protected:
    DecoderTest() { m_session.reset(); }
    void TearDown() override {
        const ReferenceDecoderAccount account = m_session.account();
        EXPECT_TRUE(account.isBalanced()) << account.describe();
        if (m_expectClean) {
            EXPECT_TRUE(account.isClean()) << account.describe();
        }
        m_session.reset();
    }
    std::filesystem::path clipFile(const TestClip& clip) { return clipFile(testClipBytes(clip)); }
    std::filesystem::path clipFile(const std::string& bytes) {
        const auto path = m_folder.path() / (std::to_string(m_count++) + ".braw");
        writeFileBytes(path, bytes);
        return path;
    }

    ReferenceDecoderSession m_session;
    TemporaryFolder m_folder;
    bool m_expectClean = true;

private:
    int m_count = 0;
};
