// The account, the faults that can be armed, and what the library refuses.
#include "DecoderFixture.h"

namespace {

using Kind = ReferenceDecoderFaultKind;

class StrictnessTest : public DecoderTest {
protected:
    void* create(Decoder& decoder, uint32_t bytes, BlackmagicRawResourceType type) {
        void* resource = nullptr;
        const bool onHost = type == kHost;
        EXPECT_EQ(decoder.resources->CreateResource(onHost ? nullptr : decoder.context,
                                                    onHost ? nullptr : decoder.queue, bytes, type,
                                                    blackmagicRawResourceUsageReadCPUWriteCPU, &resource),
                  S_OK);
        return resource;
    }
};

// Fault: a mistake of the caller that the account doesn't show.
TEST_F(StrictnessTest, MistakesWithResourcesAreRefusedAndCounted) {
    m_expectClean = false;
    Decoder decoder(true);
    auto* manager = decoder.resources.Get();
    void* host = create(decoder, 100, kHost);
    void* device = create(decoder, 100, kDevice);
    EXPECT_EQ(m_session.account().liveResourceBytes, 200);
    const auto copy = [&](void* from, BlackmagicRawResourceType fromType, void* to,
                          BlackmagicRawResourceType toType, uint32_t bytes) {
        return manager->CopyResource(decoder.context, decoder.queue, from, fromType, to, toType, bytes,
                                     FALSE);
    };
    EXPECT_EQ(copy(host, kHost, device, kDevice, 100), S_OK);
    EXPECT_EQ(m_session.account().resourceFaults, 0);
    EXPECT_EQ(copy(host, kHost, device, kDevice, 101), E_INVALIDARG);
    EXPECT_EQ(copy(host, kDevice, device, kDevice, 100), E_INVALIDARG);
    EXPECT_EQ(copy(device, kHost, host, kHost, 100), E_INVALIDARG);
    EXPECT_EQ(manager->ReleaseResource(nullptr, nullptr, device, kHost), E_INVALIDARG);
    EXPECT_EQ(manager->ReleaseResource(decoder.context, decoder.queue, host, kHost), E_INVALIDARG);
    EXPECT_EQ(manager->ReleaseResource(nullptr, nullptr, nullptr, kHost), E_INVALIDARG);
    EXPECT_EQ(manager->ReleaseResource(nullptr, nullptr, host, kHost), S_OK);
    EXPECT_EQ(manager->ReleaseResource(nullptr, nullptr, host, kHost), E_INVALIDARG);
    EXPECT_EQ(manager->ReleaseResource(decoder.context, decoder.queue, device, kDevice), S_OK);
    EXPECT_EQ(m_session.account().resourceFaults, 7);
    EXPECT_EQ(m_session.account().peakResourceBytes, 200);

    void* none = &none;
    EXPECT_EQ(
        manager->CreateResource(nullptr, nullptr, 0, kHost, blackmagicRawResourceUsageReadCPUWriteCPU, &none),
        E_INVALIDARG);
    EXPECT_EQ(none, nullptr);
    EXPECT_EQ(manager->CreateResource(nullptr, nullptr, 0xFFFFFFFF, kHost,
                                      blackmagicRawResourceUsageReadCPUWriteCPU, &none),
              E_OUTOFMEMORY);
}

TEST_F(StrictnessTest, ReferencesTooManyOrTooFewAreCounted) {
    m_expectClean = false;
    ComPtr<IBlackmagicRawFactory> factory;
    *factory.GetAddressOf() = createReferenceDecoderFactory();
    IBlackmagicRawClipGeometry* geometry = nullptr;
    ASSERT_EQ(factory->CreateClipGeometry(&geometry), S_OK);
    EXPECT_EQ(m_session.account().liveReferences, 2);
    geometry->AddRef();
    EXPECT_EQ(m_session.account().liveReferences, 3);
    geometry->Release();
    geometry->Release();
    EXPECT_EQ(m_session.account().overReleases, 0);
    geometry->Release();
    EXPECT_LT(geometry->SetVerticalFlip(blackmagicRawGeometryDisabled), 0);
    EXPECT_EQ(m_session.account().overReleases, 1);
    EXPECT_EQ(m_session.account().usesAfterRelease, 1);
}

// Fault: one byte too far, or one use too late, going unnoticed.
TEST_F(StrictnessTest, GuardedResourcesEndAtAnInaccessiblePage) {
    m_session.setGuardResources(true);
    Decoder decoder(false);
    const auto isAccessible = [](const void* address) {
        MEMORY_BASIC_INFORMATION information{};
        VirtualQuery(address, &information, sizeof information);
        return information.State == MEM_COMMIT && information.Protect == PAGE_READWRITE;
    };
    for (const uint32_t bytes : {1u, 4095u, 4096u, 100000u}) {
        auto* resource = static_cast<char*>(create(decoder, bytes, kHost));
        resource[0] = resource[bytes - 1] = 1;
        EXPECT_FALSE(isAccessible(resource + bytes)) << bytes;
        EXPECT_EQ(decoder.resources->ReleaseResource(nullptr, nullptr, resource, kHost), S_OK);
        EXPECT_FALSE(isAccessible(resource)) << bytes;
    }
}

TEST_F(StrictnessTest, JobsCheckTheirBuffersAndRunOnce) {
    m_expectClean = false;
    Decoder decoder(false);
    ComPtr<IBlackmagicRawManualDecoderFlow1> flow;
    ASSERT_EQ(decoder.codec.As(&flow), S_OK);
    char nothing[512] = {};
    uint32_t bytes = 0;
    ComPtr<IBlackmagicRawJob> job;
    EXPECT_EQ(flow->GetDecodedSizeBytes(nullptr, &bytes), E_INVALIDARG);
    EXPECT_EQ(flow->GetProcessedSizeBytes(nothing, &bytes), E_INVALIDARG);
    EXPECT_EQ(flow->CreateJobDecode(nothing, nothing, nothing, &job), E_INVALIDARG);
    EXPECT_EQ(flow->CreateJobProcess(nothing, nothing, nothing, nullptr, &job), E_INVALIDARG);
    EXPECT_EQ(flow->GetFrameStateSizeBytes(nullptr), E_POINTER);
    EXPECT_EQ(flow->PopulateFrameStateBuffer(nullptr, nullptr, nullptr, nothing, 512), E_INVALIDARG);

    ComPtr<IBlackmagicRawClip> clip;
    ComPtr<IBlackmagicRawClipEx> clipEx;
    ASSERT_EQ(decoder.open(clipFile(TestClip{}), false, &clip), S_OK);
    ASSERT_EQ(clip.As(&clipEx), S_OK);
    ASSERT_EQ(clipEx->GetBitStreamSizeBytes(0, &bytes), S_OK);
    std::vector<char> buffer(bytes);
    EXPECT_EQ(clipEx->CreateJobReadFrame(0, buffer.data(), bytes - 1, &job), E_INVALIDARG);
    EXPECT_EQ(clipEx->CreateJobReadFrame(0, nullptr, bytes, &job), E_INVALIDARG);
    EXPECT_EQ(m_session.account().badArguments, 8);
    Request request{.result = S_OK};
    ASSERT_EQ(clipEx->CreateJobReadFrame(0, buffer.data(), bytes, &job), S_OK);
    decoder.codec->SetCallback(nullptr); // a codec without one works all the same
    EXPECT_EQ(job->Submit(), S_OK);
    EXPECT_LT(job->Submit(), 0);
    EXPECT_EQ(decoder.codec->FlushJobs(), S_OK);
    EXPECT_EQ(m_session.account().jobsCompleted, 1);
}

// Faults: one that is armed but doesn't show, shows elsewhere, or leaves something behind.
TEST_F(StrictnessTest, ArmedFaultsShowWhereTheyShould) {
    const struct {
        const char* name;
        uint32_t occurrence;
        Kind kind;
        int64_t value;
        HRESULT result;
        const char* stage;
        uint32_t width = 16;
    } cases[] = {
        {"IBlackmagicRawFactory::CreateClipGeometry", 1, Kind::fail, E_OUTOFMEMORY, E_OUTOFMEMORY, ""},
        {"IBlackmagicRaw::OpenClipWithGeometry", 1, Kind::fail, E_ACCESSDENIED, E_ACCESSDENIED, ""},
        {"IBlackmagicRawClipEx::GetBitStreamSizeBytes", 1, Kind::oneLess, 0, E_INVALIDARG, ""},
        {"IBlackmagicRawClipEx::GetBitStreamSizeBytes", 2, Kind::oneLess, 0, S_OK, "process"},
        {"IBlackmagicRawJob::Submit", 1, Kind::fail, E_FAIL, E_FAIL, ""},
        {"IBlackmagicRawJob::Submit", 2, Kind::fail, E_FAIL, E_FAIL, "read"},
        {"IBlackmagicRawCallback::ReadComplete", 1, Kind::drop, 0, E_PENDING, ""},
        {"IBlackmagicRawCallback::ReadComplete", 1, Kind::fail, E_UNEXPECTED, E_UNEXPECTED, "read"},
        {"IBlackmagicRawCallback::ReadComplete", 1, Kind::succeedEmpty, 0, E_POINTER, "read"},
        {"IBlackmagicRawCallback::ReadComplete", 1, Kind::delay, 20, S_OK, "process"},
        {"IBlackmagicRawCallback::DecodeComplete", 1, Kind::fail, E_FAIL, E_FAIL, "decode"},
        {"IBlackmagicRawManualDecoderFlow1::GetProcessedSizeBytes", 0, Kind::fail, E_FAIL, E_FAIL, "decode"},
        {"IBlackmagicRawManualDecoderFlow1::PopulateFrameStateBuffer", 1, Kind::succeedEmpty, 0, E_INVALIDARG,
         "read"},
        {"IBlackmagicRawCallback::ProcessComplete", 1, Kind::succeedEmpty, 0, E_POINTER, "process"},
        {"IBlackmagicRawProcessedImage::GetWidth", 1, Kind::value, 7, S_OK, "process", 7},
        {"IBlackmagicRawProcessedImage::GetWidth", 1, Kind::allOnes, 0, S_OK, "process", 0xFFFFFFFF},
        {"IBlackmagicRaw::FlushJobs", 1, Kind::fail, E_ABORT, E_ABORT, "process"},
    };
    for (const auto& c : cases) {
        m_session.reset();
        const TestClip clip{16, 16};
        Request request;
        HRESULT result;
        {
            Decoder decoder(false);
            m_session.arm({c.name, c.occurrence, c.kind, c.value});
            ComPtr<IBlackmagicRawClip> opened;
            result = decoder.open(clipFile(clip), false, &opened);
            if (SUCCEEDED(result))
                result = decoder.decode(opened.Get(), request);
        }
        EXPECT_EQ(result, c.result) << c.name;
        EXPECT_EQ(request.stage, c.stage) << c.name;
        if (request.stage == "process" && result == S_OK) {
            EXPECT_EQ(request.width, c.width) << c.name;
        }
        EXPECT_EQ(m_session.account().faultsFired, c.occurrence == 2 && c.result == S_OK ? 0 : 1) << c.name;
        EXPECT_TRUE(m_session.account().isBalanced()) << c.name << m_session.account().describe();
    }
}

// Fault: crossings that the recording or the clocks miss.
TEST_F(StrictnessTest, CallsAreRecordedInOrderAndTimed) {
    m_session.setJobDelay(10);
    {
        Decoder decoder(false);
        ComPtr<IBlackmagicRawClip> clip;
        ASSERT_EQ(decoder.open(clipFile(TestClip{}), false, &clip), S_OK);
        Request request;
        request.onRead = [] { Sleep(20); };
        ASSERT_EQ(decoder.decode(clip.Get(), request), S_OK);
    }
    const auto calls = m_session.recording();
    ASSERT_FALSE(calls.empty());
    EXPECT_EQ(calls.front().name, "CreateBlackmagicRawFactoryInstance");
    const auto position = [&](const std::string& name, uint32_t occurrence) {
        return std::find_if(calls.begin(), calls.end(),
                            [&](const ReferenceDecoderCall& call) {
                                return call.name == name && call.occurrence == occurrence;
                            }) -
               calls.begin();
    };
    EXPECT_LT(position("IBlackmagicRawClipEx::CreateJobReadFrame", 1),
              position("IBlackmagicRawJob::Submit", 1));
    EXPECT_LT(position("IBlackmagicRawCallback::ReadComplete", 1), position("IBlackmagicRawJob::Submit", 2));
    EXPECT_EQ(position("IBlackmagicRawJob::Submit", 4), static_cast<ptrdiff_t>(calls.size()));
    EXPECT_EQ(m_session.occurrencesOf("IBlackmagicRawJob::Submit"), 3u);
    const ReferenceDecoderAccount account = m_session.account();
    EXPECT_GE(account.callerNanoseconds, 45'000'000); // the flush waited for three delays and the callback
    EXPECT_GE(account.callbackNanoseconds, 18'000'000);
    EXPECT_LT(account.callbackLibraryNanoseconds, account.callbackNanoseconds);
    EXPECT_GT(account.callbackLibraryNanoseconds, 0);
}

TEST_F(StrictnessTest, AttributesAreTypedRecordedAndFollowTheirRules) {
    m_expectClean = false;
    Decoder decoder(true);
    m_session.setClipsHaveLut(true);
    ComPtr<IBlackmagicRawClip> clip;
    ASSERT_EQ(decoder.open(clipFile(TestClip{}), false, &clip), S_OK);
    ComPtr<IBlackmagicRawClipProcessingAttributes> attributes;
    ASSERT_EQ(clip->CloneClipProcessingAttributes(&attributes), S_OK);

    VARIANT value{};
    value.vt = VT_R4;
    value.fltVal = 0.25f;
    EXPECT_EQ(attributes->SetClipAttribute(blackmagicRawClipToneCurveContrast, &value), S_OK);
    EXPECT_EQ(attributes->SetClipAttribute(blackmagicRawClipGamut, &value), DISP_E_TYPEMISMATCH);
    value.vt = VT_BSTR;
    value.bstrVal = SysAllocString(L"Rec.709");
    m_session.setAttributeRule({blackmagicRawClipGamut, E_ACCESSDENIED, E_FAIL, S_OK, 1});
    EXPECT_EQ(attributes->SetClipAttribute(blackmagicRawClipGamut, &value), E_ACCESSDENIED);
    SysFreeString(value.bstrVal);
    VARIANT minimum{}, maximum{};
    BOOL readOnly = FALSE;
    uint32_t count = 0;
    EXPECT_EQ(attributes->GetClipAttributeRange(blackmagicRawClipGamut, &minimum, &maximum, &readOnly),
              E_FAIL);
    EXPECT_EQ(attributes->GetClipAttributeList(blackmagicRawClipGamut, nullptr, &count, &readOnly), S_OK);
    EXPECT_TRUE(readOnly && count > 1);
    EXPECT_EQ(
        attributes->GetClipAttributeRange(blackmagicRawClipToneCurveContrast, &minimum, &maximum, &readOnly),
        S_OK);
    EXPECT_TRUE(!readOnly && minimum.vt == VT_R4 && minimum.fltVal < maximum.fltVal);

    const auto sent = m_session.sentAttributes();
    ASSERT_EQ(sent.size(), 3u);
    EXPECT_EQ(sent[0].number, 0.25);
    EXPECT_EQ(sent[2].text, L"Rec.709");
    EXPECT_EQ(sent[2].result, E_ACCESSDENIED);

    ComPtr<IBlackmagicRawPost3DLUT> lut;
    BlackmagicRawResourceType type = 0;
    void *onDevice = nullptr, *onHost = nullptr;
    ASSERT_EQ(attributes->GetPost3DLUT(&lut), S_OK);
    ASSERT_NE(lut.Get(), nullptr);
    EXPECT_EQ(lut->GetResourceGPU(decoder.context, decoder.queue, &type, &onDevice), S_OK);
    EXPECT_EQ(lut->GetResourceCPU(&onHost), S_OK);
    EXPECT_TRUE(type == kDevice && onDevice && onHost);
}

} // namespace
