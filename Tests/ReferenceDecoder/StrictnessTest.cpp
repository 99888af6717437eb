// The account, and what the library refuses.
#include "DecoderFixture.h"

using StrictnessTest = DecoderTest;

// Fault: a mistake of the caller that the account doesn't show.
TEST_F(StrictnessTest, MistakesWithResourcesAreRefusedAndCounted) {
    m_expectClean = false;
    Decoder decoder;
    auto* const manager = decoder.resources.Get();
    void *host = nullptr, *other = nullptr;
    for (void** const resource : {&host, &other})
        ok(manager->CreateResource(nullptr, nullptr, 100, kHost, blackmagicRawResourceUsageReadCPUWriteCPU,
                                   resource));
    EXPECT_EQ(m_session.account().liveResourceBytes, 200);
    const auto copy = [&](BlackmagicRawResourceType fromType, uint32_t bytes) {
        return manager->CopyResource(nullptr, nullptr, host, fromType, other, kHost, bytes, FALSE);
    };
    const auto release = [&](void* resource, BlackmagicRawResourceType type) {
        return manager->ReleaseResource(nullptr, nullptr, resource, type);
    };
    ok(copy(kHost, 100));
    EXPECT_EQ(copy(kHost, 101), E_INVALIDARG);
    EXPECT_EQ(copy(kDevice, 100), E_INVALIDARG);
    EXPECT_EQ(release(host, kDevice), E_INVALIDARG);
    ok(release(host, kHost));
    EXPECT_EQ(release(host, kHost), E_INVALIDARG);
    EXPECT_FALSE(m_session.account().isBalanced()) << "the other one is still there";
    ok(release(other, kHost));
    EXPECT_EQ(m_session.account().resourceFaults, 4);
}

TEST_F(StrictnessTest, ReferencesTooManyOrTooFewAreCounted) {
    m_expectClean = false;
    ComPtr<IBlackmagicRawFactory> factory;
    *factory.GetAddressOf() = createReferenceDecoderFactory();
    IBlackmagicRawClipGeometry* geometry = nullptr;
    ok(factory->CreateClipGeometry(&geometry));
    geometry->AddRef();
    EXPECT_EQ(m_session.account().liveReferences, 3);
    for (int i = 0; i < 3; ++i)
        geometry->Release();
    EXPECT_LT(geometry->SetVerticalFlip(blackmagicRawGeometryDisabled), 0);
    EXPECT_EQ(m_session.account().liveReferences, 1);
    EXPECT_EQ(m_session.account().overReleases, 1);
    EXPECT_EQ(m_session.account().usesAfterRelease, 1);
}

TEST_F(StrictnessTest, JobsCheckTheirBuffersAndRunOnce) {
    m_expectClean = false;
    Decoder decoder;
    char nothing[512] = {};
    uint32_t bytes = 0;
    ComPtr<IBlackmagicRawJob> job;
    ComPtr<IBlackmagicRawClip> clip;
    ComPtr<IBlackmagicRawClipEx> clipEx;
    EXPECT_EQ(decoder.flow->CreateJobDecode(nothing, nothing, nothing, &job), E_INVALIDARG);
    ok(decoder.open(clipFile(TestClip{}), &clip));
    ok(clip.As(&clipEx));
    ok(clipEx->GetBitStreamSizeBytes(0, &bytes));
    std::vector<char> buffer(bytes);
    EXPECT_EQ(clipEx->CreateJobReadFrame(0, buffer.data(), bytes - 1, &job), E_INVALIDARG);
    EXPECT_EQ(m_session.account().badArguments, 2);
    ok(clipEx->CreateJobReadFrame(0, buffer.data(), bytes, &job));
    ok(decoder.codec->SetCallback(nullptr)); // a codec without one works all the same
    ok(job->Submit());
    EXPECT_LT(job->Submit(), 0);
    ok(decoder.codec->FlushJobs());
    EXPECT_EQ(m_session.account().jobsCompleted, 1);
}
