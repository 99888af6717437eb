// A decoder library that fails, lies or falls silent at every single call: the shell gets a failure or a
// whole picture, and everything that was taken is given back.
#include "HandlerFixture.h"

namespace {
using Kind = ReferenceDecoderFaultKind;

class Faults : public HandlerTest {
protected:
    void SetUp() override {
        HandlerTest::SetUp();
        m_clip = writeClip(m_folder.path() / "clip.braw", {64, 32});
        m_decoder.setGuardResources(true); // a write behind a buffer's end is found at once
    }
    Answer askWithFault(const ReferenceDecoderFault& fault, UINT size) {
        m_faultsArmed = fault.kind != Kind::none;
        m_decoder.reset();
        m_decoder.setGuardResources(true);
        m_decoder.arm(fault);
        return ask(m_clip, size);
    }
    std::wstring m_clip;
};

TEST_F(Faults, EachFailureHasItsResult) {
    constexpr auto odd = static_cast<HRESULT>(0x8007007B);
    const struct {
        ReferenceDecoderFault fault;
        UINT asked;
        HRESULT result;
        bool coreStarted = true;
    } cases[] = {
        {{"IBlackmagicRawFactory::CreateCodec", 1, Kind::fail, odd}, 16, E_UNEXPECTED, false},
        {{"IBlackmagicRaw::SetCallback", 1, Kind::fail, odd}, 16, E_UNEXPECTED, false},
        {{"IBlackmagicRawFactory::CreateClipGeometry", 1, Kind::fail, odd}, 16, odd},
        {{"IBlackmagicRaw::OpenClipWithGeometry", 1, Kind::fail, odd}, 16, E_FAIL},
        {{"IBlackmagicRawClipEx::CreateJobReadFrame", 1, Kind::fail, odd}, 16, E_FAIL},
        {{"IBlackmagicRaw::FlushJobs", 1, Kind::fail, odd}, 16, E_FAIL},
        {{"IBlackmagicRawCallback::ReadComplete", 1, Kind::fail, odd}, 16, E_FAIL},
        {{"IBlackmagicRawCallback::ReadComplete", 1, Kind::succeedEmpty, 0}, 16, E_FAIL},
        {{"IBlackmagicRawCallback::DecodeComplete", 1, Kind::fail, odd}, 16, E_FAIL},
        {{"IBlackmagicRawCallback::ProcessComplete", 1, Kind::fail, odd}, 16, E_FAIL},
        {{"IBlackmagicRawCallback::ProcessComplete", 1, Kind::succeedEmpty, 0}, 16, E_FAIL},
        // A request that never ends keeps its bitmap: something may still write to it.
        {{"IBlackmagicRawCallback::ReadComplete", 1, Kind::drop, 0}, 16, E_FAIL},
        {{"IBlackmagicRawCallback::DecodeComplete", 1, Kind::drop, 0}, 16, E_FAIL},
        {{"IBlackmagicRawCallback::ProcessComplete", 1, Kind::drop, 0}, 16, E_FAIL},
        // Rows of another length than the bitmap's would shear the picture.
        {{"IBlackmagicRawProcessedImage::GetWidth", 1, Kind::oneLess, 0}, 16, E_FAIL},
        {{"IBlackmagicRawProcessedImage::GetHeight", 1, Kind::oneLess, 0}, 16, E_FAIL},
        // The frame is read out of its buffer here, and must lie within it.
        {{"IBlackmagicRawProcessedImage::GetWidth", 1, Kind::value, 65535}, 100, E_FAIL},
        {{"IBlackmagicRawProcessedImage::GetHeight", 1, Kind::allOnes, 0}, 100, E_FAIL},
        {{"IBlackmagicRawProcessedImage::GetWidth", 1, Kind::zero, 0}, 100, E_FAIL},
        {{"IBlackmagicRawProcessedImage::GetResourceSizeBytes", 1, Kind::oneLess, 0}, 100, E_FAIL},
    };
    for (const auto& [fault, asked, result, coreStarted] : cases) {
        SCOPED_TRACE(testing::Message() << fault.name << " kind " << static_cast<int>(fault.kind));
        const Answer answer = askWithFault(fault, asked);
        EXPECT_LT(0, m_decoder.account().faultsFired) << "no such call";
        EXPECT_RESULT(result, answer.result);
        EXPECT_EQ(!coreStarted, answer.bitmapUntouched);
        EXPECT_EQ(!coreStarted, answer.alphaUntouched);
    }
}

/// Walks one thumbnail's calls and makes each of them misbehave in turn.
class EveryCall : public Faults, public testing::WithParamInterface<Kind> {};

TEST_P(EveryCall, LeavesNothingBehind) {
    for (const UINT size : {8u, 40u}) { // the second above the clip's own size
        const bool isOver = size == 40;
        askWithFault({"", 1, Kind::none, 0}, size);
        const auto calls = m_decoder.recording();
        ASSERT_LT(40u, calls.size());
        for (const ReferenceDecoderCall& call : calls) {
            if (call.name == "IBlackmagicRawResourceManager::ReleaseResource")
                continue; // what the library will not take back stays, whatever its user does
            if (isOver && !call.name.starts_with("IBlackmagicRawProcessedImage"))
                continue; // only the delivery differs, by what the image says of itself
            SCOPED_TRACE(testing::Message() << call.name << " #" << call.occurrence << " for " << size);
            const Answer answer = askWithFault({call.name, call.occurrence, GetParam(), E_FAIL}, size);
            EXPECT_TRUE(answer.result == S_OK || FAILED(answer.result)) << Result{answer.result};
        }
    }
}
INSTANTIATE_TEST_SUITE_P(Kinds, EveryCall,
                         testing::Values(Kind::fail, Kind::succeedEmpty, Kind::oneLess, Kind::allOnes,
                                         Kind::zero, Kind::drop));
} // namespace
