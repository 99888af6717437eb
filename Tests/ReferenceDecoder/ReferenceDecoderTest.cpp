// What others' tests rely on in the reference decoder and would not miss: that it counts its caller's
// mistakes, finds the frames of a file, and is as unfriendly as it is told to be. That its pictures are
// right, and its deaths deaths, shows wherever it is used.
#include <gtest/gtest.h>
#include <wrl/client.h>

#include "ReferenceDecoder.h"
#include "ReferenceDecoderSession.h"
#include "TemporaryFolder.h"
#include "TestClips.h"

using Microsoft::WRL::ComPtr;

namespace {

constexpr BlackmagicRawResourceType host = blackmagicRawResourceTypeBufferCPU;
constexpr BlackmagicRawResourceType device = blackmagicRawResourceTypeBufferCUDA;

class ReferenceDecoderTest : public testing::Test {
protected:
    ReferenceDecoderTest() {
        m_session.reset();
        *m_factory.GetAddressOf() = createReferenceDecoderFactory();
        makeCodec();
    }
    ~ReferenceDecoderTest() override {
        m_clip.Reset();
        m_resources.Reset();
        m_codec.Reset();
        m_factory.Reset();
        EXPECT_TRUE(m_session.account().isBalanced()) << m_session.account().describe();
        m_session.reset();
    }
    void makeCodec() {
        ComPtr<IBlackmagicRawConfigurationEx> configuration;
        m_resources.Reset();
        EXPECT_EQ(m_factory->CreateCodec(m_codec.ReleaseAndGetAddressOf()), S_OK);
        EXPECT_EQ(m_codec.As(&configuration), S_OK);
        EXPECT_EQ(configuration->GetResourceManager(&m_resources), S_OK);
    }
    HRESULT open(const std::string& bytes) {
        std::filesystem::path path = m_folder.path() / "clip.braw";
        m_clip.Reset();
        writeFileBytes(path, bytes);
        const BSTR name = SysAllocString(path.make_preferred().c_str());
        const HRESULT result = m_codec->OpenClip(name, m_clip.ReleaseAndGetAddressOf());
        SysFreeString(name);
        return result;
    }
    /// A job that reads the first frame of a clip.
    ComPtr<IBlackmagicRawJob> makeReadJob() {
        ComPtr<IBlackmagicRawClipEx> clip;
        ComPtr<IBlackmagicRawJob> job;
        uint32_t bytes = 0;
        EXPECT_EQ(open(testClipBytes({})), S_OK);
        EXPECT_EQ(m_clip.As(&clip), S_OK);
        EXPECT_EQ(clip->GetBitStreamSizeBytes(0, &bytes), S_OK);
        m_bitStream.resize(bytes);
        EXPECT_EQ(clip->CreateJobReadFrame(0, m_bitStream.data(), bytes - 1, &job), E_INVALIDARG);
        EXPECT_EQ(clip->CreateJobReadFrame(0, m_bitStream.data(), bytes, &job), S_OK);
        return job;
    }

    ReferenceDecoderSession m_session;
    TemporaryFolder m_folder;
    std::vector<char> m_bitStream;
    ComPtr<IBlackmagicRawFactory> m_factory;
    ComPtr<IBlackmagicRaw> m_codec;
    ComPtr<IBlackmagicRawResourceManager> m_resources;
    ComPtr<IBlackmagicRawClip> m_clip;
};

TEST_F(ReferenceDecoderTest, MistakesWithResourcesAreRefusedAndCounted) {
    void *mine = nullptr, *other = nullptr;
    for (void** const resource : {&mine, &other})
        EXPECT_EQ(m_resources->CreateResource(nullptr, nullptr, 100, host,
                                              blackmagicRawResourceUsageReadCPUWriteCPU, resource),
                  S_OK);
    const auto copy = [&](BlackmagicRawResourceType fromType, uint32_t bytes) {
        return m_resources->CopyResource(nullptr, nullptr, mine, fromType, other, host, bytes, FALSE);
    };
    const auto release = [&](void* resource, BlackmagicRawResourceType type) {
        return m_resources->ReleaseResource(nullptr, nullptr, resource, type);
    };
    EXPECT_EQ(copy(host, 100), S_OK);
    EXPECT_EQ(copy(host, 101), E_INVALIDARG);
    EXPECT_EQ(copy(device, 100), E_INVALIDARG);
    EXPECT_EQ(release(mine, device), E_INVALIDARG);
    EXPECT_EQ(release(mine, host), S_OK);
    EXPECT_EQ(release(mine, host), E_INVALIDARG);
    EXPECT_EQ(m_session.account().resourceFaults, 4);
    EXPECT_EQ(m_session.account().liveResourceBytes, 100);
    EXPECT_EQ(release(other, host), S_OK);
}

TEST_F(ReferenceDecoderTest, ReferencesTooManyOrTooFewAreCounted) {
    const int64_t before = m_session.account().liveReferences;
    IBlackmagicRawClipGeometry* geometry = nullptr;
    EXPECT_EQ(m_factory->CreateClipGeometry(&geometry), S_OK);
    geometry->AddRef();
    EXPECT_EQ(m_session.account().liveReferences, before + 2);
    for (int i = 0; i < 3; ++i)
        geometry->Release();
    EXPECT_LT(geometry->SetVerticalFlip(blackmagicRawGeometryDisabled), 0);
    EXPECT_EQ(m_session.account().liveReferences, before);
    EXPECT_EQ(m_session.account().overReleases, 1);
    EXPECT_EQ(m_session.account().usesAfterRelease, 1);
}

TEST_F(ReferenceDecoderTest, JobsCheckTheirBuffersAndRunOnce) {
    const auto job = makeReadJob();
    EXPECT_EQ(m_session.account().badArguments, 1);
    EXPECT_EQ(job->Submit(), S_OK); // a codec without a callback works all the same
    EXPECT_LT(job->Submit(), 0);
    EXPECT_EQ(m_codec->FlushJobs(), S_OK);
    EXPECT_EQ(m_session.account().jobsCompleted, 1);
}

TEST_F(ReferenceDecoderTest, TheCodecMayBeHeldAndMayNotWait) {
    using Manners = ReferenceDecoderManners;
    m_session.setManners(Manners::resourceManagerHoldsCodec | Manners::lastReleaseDoesNotWait);
    m_session.setReadDelay(300);
    makeCodec();
    makeReadJob()->Submit();
    m_clip.Reset();
    m_codec.Reset();
    EXPECT_EQ(m_session.account().liveObjects, 4) << "factory, job, resource manager, and the codec still";
    m_resources.Reset();
    EXPECT_EQ(m_session.account().liveObjects, 2);
    EXPECT_EQ(m_session.account().jobsCompleted, 0) << "the last release has waited";
    while (m_session.account().liveObjects > 1)
        Sleep(1);
    EXPECT_EQ(m_session.account().jobsCompleted, 1);
}

} // namespace
