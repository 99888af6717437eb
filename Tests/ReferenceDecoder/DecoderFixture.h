// A user of the decoder as the handler is one: drives read, decode and process jobs from callbacks, on the
// CPU. The GPU's road is driven by the tests of the decode core.
#pragma once

#include <atomic>
#include <cstring>
#include <filesystem>
#include <mutex>
#include <set>
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

/// For steps that no test expects to fail.
inline void ok(HRESULT result) {
    EXPECT_GE(result, S_OK);
}

/// What one frame was asked for and became.
struct Request {
    uint64_t frame = 0;
    BlackmagicRawResolutionScale scale = blackmagicRawResolutionScaleFull;
    BlackmagicRawResourceFormat format = blackmagicRawResourceFormatBGRAU8;

    HRESULT result = E_PENDING; ///< of the read job until the last stage is reached, then of that
    uint32_t width = 0, height = 0;
    std::vector<uint8_t> bitStream, state, decoded, processed;
};

/// A codec on one pipeline, and the callback that moves requests on.
class Decoder : public IBlackmagicRawCallback {
public:
    Decoder() {
        ComPtr<IBlackmagicRawConfigurationEx> configuration;
        *factory.GetAddressOf() = createReferenceDecoderFactory();
        ok(factory->CreateCodec(&codec));
        ok(codec.As(&configuration));
        ok(configuration->GetResourceManager(&resources));
        ok(codec->QueryInterface(__uuidof(IBlackmagicRawManualDecoderFlow1),
                                 reinterpret_cast<void**>(&flow)));
        ok(codec->SetCallback(this));
    }
    ~Decoder() {
        codec.Reset();
        if (flow)
            flow->Release(); // the last reference: waits for what still runs, which uses this
    }

    HRESULT open(const std::filesystem::path& path, IBlackmagicRawClip** clip, bool flipped = false) {
        ComPtr<IBlackmagicRawClipGeometry> geometry;
        ok(factory->CreateClipGeometry(&geometry));
        ok(geometry->SetOrientationMode(blackmagicRawGeometryMetadata));
        ok(geometry->SetVerticalFlip(flipped ? blackmagicRawGeometryFlipVertical
                                             : blackmagicRawGeometryDisabled));
        const BSTR name = SysAllocString(std::filesystem::path(path).make_preferred().c_str());
        const HRESULT result = codec->OpenClipWithGeometry(name, geometry.Get(), clip);
        SysFreeString(name);
        return result;
    }
    /// Submits the read job; the callbacks do the rest.
    void submit(IBlackmagicRawClip* clip, Request& request) {
        ComPtr<IBlackmagicRawClipEx> clipEx;
        uint32_t bytes = 0;
        ComPtr<IBlackmagicRawJob> job;
        ok(clip->QueryInterface(__uuidof(IBlackmagicRawClipEx), &clipEx));
        ok(clipEx->GetBitStreamSizeBytes(request.frame, &bytes));
        ok(clipEx->CreateJobReadFrame(request.frame, sized(request.bitStream, bytes), bytes, &job));
        start(job.Get(), request);
    }
    HRESULT decode(IBlackmagicRawClip* clip, Request& request) {
        submit(clip, request);
        ok(codec->FlushJobs());
        return request.result;
    }

    ComPtr<IBlackmagicRawFactory> factory;
    ComPtr<IBlackmagicRaw> codec;
    ComPtr<IBlackmagicRawResourceManager> resources;
    IBlackmagicRawManualDecoderFlow1* flow = nullptr;
    std::atomic<long> references{1}; ///< to this as a callback
    std::set<DWORD> threads;         ///< that completions came on

    HRESULT STDMETHODCALLTYPE QueryInterface(REFIID, void**) override { return E_NOINTERFACE; }
    ULONG STDMETHODCALLTYPE AddRef() override { return static_cast<ULONG>(++references); }
    ULONG STDMETHODCALLTYPE Release() override { return static_cast<ULONG>(--references); }
    void STDMETHODCALLTYPE ReadComplete(IBlackmagicRawJob* done, HRESULT result,
                                        IBlackmagicRawFrame* frame) override {
        Request& request = requestOf(done);
        if (FAILED(request.result = result))
            return;
        uint32_t bytes = 0, decodedBytes = 0;
        ComPtr<IBlackmagicRawJob> job;
        ok(frame->SetResourceFormat(request.format));
        ok(frame->SetResolutionScale(request.scale));
        ok(flow->GetFrameStateSizeBytes(&bytes));
        void* const state = sized(request.state, bytes);
        ok(flow->PopulateFrameStateBuffer(frame, nullptr, nullptr, state, bytes));
        ok(flow->GetDecodedSizeBytes(state, &decodedBytes));
        ok(flow->CreateJobDecode(state, request.bitStream.data(), sized(request.decoded, decodedBytes),
                                 &job));
        start(job.Get(), request);
    }
    void STDMETHODCALLTYPE DecodeComplete(IBlackmagicRawJob* done, HRESULT result) override {
        ok(result);
        Request& request = requestOf(done);
        void *const state = request.state.data(), *const decoded = request.decoded.data();
        uint32_t bytes = 0;
        ComPtr<IBlackmagicRawJob> job;
        ok(flow->GetProcessedSizeBytes(state, &bytes));
        ok(flow->CreateJobProcess(state, decoded, sized(request.processed, bytes), nullptr, &job));
        start(job.Get(), request);
    }
    void STDMETHODCALLTYPE ProcessComplete(IBlackmagicRawJob* done, HRESULT result,
                                           IBlackmagicRawProcessedImage* image) override {
        Request& request = requestOf(done);
        ok(request.result = result);
        ok(image->GetWidth(&request.width));
        ok(image->GetHeight(&request.height));
    }
    void STDMETHODCALLTYPE TrimProgress(IBlackmagicRawJob*, float) override {}
    void STDMETHODCALLTYPE TrimComplete(IBlackmagicRawJob*, HRESULT) override {}
    void STDMETHODCALLTYPE SidecarMetadataParseWarning(IBlackmagicRawClip*, BSTR, uint32_t, BSTR) override {}
    void STDMETHODCALLTYPE SidecarMetadataParseError(IBlackmagicRawClip*, BSTR, uint32_t, BSTR) override {}
    void STDMETHODCALLTYPE PreparePipelineComplete(void*, HRESULT) override {}

private:
    std::mutex m_mutex;

    Request& requestOf(IBlackmagicRawJob* job) {
        {
            const std::lock_guard lock(m_mutex);
            threads.insert(GetCurrentThreadId());
        }
        void* userData = nullptr;
        ok(job->GetUserData(&userData));
        return *static_cast<Request*>(userData);
    }
    static void start(IBlackmagicRawJob* job, Request& request) {
        ok(job->SetUserData(&request));
        ok(job->Submit());
    }
    static void* sized(std::vector<uint8_t>& buffer, uint32_t bytes) {
        buffer.resize(bytes);
        return buffer.data();
    }
};

/// Every test begins with a fresh account and must leave a balanced one.
class DecoderTest : public testing::Test {
protected:
    DecoderTest() { m_session.reset(); }
    ~DecoderTest() override {
        const ReferenceDecoderAccount account = m_session.account();
        EXPECT_TRUE(m_expectClean ? account.isClean() : account.isBalanced()) << account.describe();
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
    int m_count = 0;
};
