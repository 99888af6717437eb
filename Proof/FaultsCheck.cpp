// The decoder library misbehaves at every single call that crosses its border, once, in every way it can.
#include <algorithm>
#include <iterator>
#include <string>
#include <string_view>

#include "Proof.h"
#include "Scenario.h"

namespace {

using Kind = ReferenceDecoderFaultKind;

enum class Calls { all, callbacks, numbers };

struct FaultRow {
    const char* what;
    Kind kind;
    int64_t value;
    Calls calls;
    bool isInBrief; ///< tried everywhere in the short form, by samples otherwise
};

constexpr auto unknownFailure = static_cast<HRESULT>(0x8ABCDEF1);

constexpr FaultRow rows[] = {
    {"E_FAIL", Kind::fail, E_FAIL, Calls::all, true},
    {"E_OUTOFMEMORY", Kind::fail, E_OUTOFMEMORY, Calls::all, false},
    {"an unknown failure", Kind::fail, unknownFailure, Calls::all, false},
    {"success with nothing", Kind::succeedEmpty, 0, Calls::all, true},
    {"late", Kind::delay, 15, Calls::all, false},
    {"never", Kind::drop, 0, Calls::callbacks, false},
    {"one less", Kind::oneLess, 0, Calls::numbers, false},
    {"4294967295", Kind::allOnes, 0, Calls::numbers, false},
    {"0", Kind::zero, 0, Calls::numbers, false},
    {"1", Kind::value, 1, Calls::numbers, false},
};

bool applies(const FaultRow& row, std::string_view call) {
    switch (row.calls) {
    case Calls::callbacks:
        return call.find("Callback::") != call.npos;
    case Calls::numbers:
        return call.find("::Get") != call.npos;
    default:
        return true;
    }
}

/// A call on whose word the picture depends, and that nothing can check: what it lies about shows there, and
/// nowhere else.
struct PictureShaper {
    const char* call;
    std::string_view scenarios = ""; ///< the names of those in which it is; none for all
    bool mayFail = false;            ///< its failure is not missed either
};
constexpr PictureShaper pictureShapers[] = {
    {"IBlackmagicRawClip::GetFrameCount"}, // a clip without frames is answered with a transparent picture
    {"IBlackmagicRawClip::GetHeight"},
    {"IBlackmagicRawClip::GetWidth"},
    {"IBlackmagicRawClipResolutions::GetResolutionCount"}, // fewer to choose from
    {"IBlackmagicRawClipGeometry::SetVerticalFlip", "", true},
    // Where the picture has another size than the image, the image's own is all there is to go by.
    {"IBlackmagicRawProcessedImage::GetWidth", "thumbnail 200, gpu, settings"},
    {"IBlackmagicRawProcessedImage::GetHeight", "thumbnail 200, gpu, settings"},
    {"IBlackmagicRawProcessedImage::GetResourceSizeBytes", "gpu, settings"},
    {"IBlackmagicRawManualDecoderFlow2::GetDecodedSizeBytes", "gpu"}, // how much goes to the device
    {"IBlackmagicRawResourceManager::CopyResource", "gpu"},
};

Expected expectedOf(const FaultRow& row, const std::string& call, const std::string& scenario) {
    if (row.kind == Kind::delay)
        return Expected::picture;
    const bool bends = std::ranges::any_of(pictureShapers, [&](const PictureShaper& shaper) {
        return call == shaper.call &&
               (shaper.scenarios.empty() || shaper.scenarios.find(scenario) != scenario.npos) &&
               (row.kind != Kind::fail || shaper.mayFail);
    });
    return bends ? Expected::anythingBounded : Expected::rightIfAny;
}

void tryFault(Scenario& scenario, ProofTally& tally, const std::string& what,
              const ReferenceDecoderFault& fault, Expected expected, uint32_t jobDelay = 0) {
    tally.attempt(scenario.name() + ", " + what, [&] {
        const ScenarioOutcome outcome = scenario.run({fault}, jobDelay);
        if (fault.name == "IBlackmagicRawResourceManager::ReleaseResource" &&
            (fault.kind == Kind::fail || fault.kind == Kind::succeedEmpty))
            scenario.forgetRefusedResource();
        std::string trouble = scenario.troubleAfter(outcome, expected);
        if (trouble.empty() && scenario.decoder().account().faultsFired == 0)
            trouble = "the fault was never reached";
        return scenario.orTroubleInNextRun(trouble);
    });
}

void tryEveryCall(Scenario& scenario, ProofForm form, bool isMain, ProofTally& tally) {
    tally.attempt(scenario.name() + ", no fault", [&] { return scenario.troubleInGoodRun(); });
    const std::vector<ReferenceDecoderCall> calls = scenario.decoder().recording();
    constexpr size_t sample = 11;
    size_t number = 0;
    for (const FaultRow& row : rows)
        for (const ReferenceDecoderCall& call : calls) {
            const bool isWhole = form == ProofForm::full || (isMain && row.isInBrief);
            if (applies(row, call.name) && (isWhole || number++ % sample == 0))
                tryFault(scenario, tally,
                         call.name + " #" + std::to_string(call.occurrence) + ": " + row.what,
                         {call.name, call.occurrence, row.kind, row.value},
                         expectedOf(row, call.name, scenario.name()));
        }
}

/// The flush that shall wait for the jobs fails at once, while they run; and every later one as well.
void tryFlushes(Scenario& scenario, ProofForm form, ProofTally& tally) {
    for (const uint32_t jobDelay : {1u, 5u, 20u, 60u})
        for (const uint32_t occurrence : {0u, 1u})
            for (const Kind kind : {Kind::fail, Kind::succeedEmpty})
                if (form == ProofForm::full || jobDelay == 20)
                    tryFault(scenario, tally,
                             "flush #" + std::to_string(occurrence) +
                                 (kind == Kind::fail ? " fails" : " does nothing") + " before jobs of " +
                                 std::to_string(jobDelay) + " ms",
                             {"IBlackmagicRaw::FlushJobs", occurrence, kind, E_FAIL}, Expected::rightIfAny,
                             jobDelay);
}

void run(ProofForm form, ProofTally& tally) {
    const std::unique_ptr<Scenario> scenarios[] = {makeThumbnailScenario(),
                                                   makeThumbnailScenario({.size = 200}), makeGpuScenario(),
                                                   makeSettingsScenario()};
    for (const auto& scenario : scenarios) {
        tryEveryCall(*scenario, form, scenario == scenarios[0], tally);
        tryFlushes(*scenario, form, tally);
    }
}

PROOF_CHECK("faults", "each call into and out of the decoder fails once, in each way", run);

} // namespace
