// The decoder library misbehaves at every single call that crosses its border, once, in every way it can.

#include "Proof.h"
#include "Scenario.h"

namespace {

using Kind = ReferenceDecoderFaultKind;

struct FaultRow {
    const char* what;
    Kind kind;
    int64_t value;
    std::string_view calls; ///< those whose names have this in them
    bool isInBrief;         ///< tried everywhere in the short form, by samples otherwise
};

constexpr auto unknownFailure = static_cast<HRESULT>(0x8ABCDEF1);

constexpr FaultRow rows[] = {
    {"E_FAIL", Kind::fail, E_FAIL, "", true},
    {"E_OUTOFMEMORY", Kind::fail, E_OUTOFMEMORY, "", false},
    {"an unknown failure", Kind::fail, unknownFailure, "", false},
    {"success with nothing", Kind::succeedEmpty, 0, "", true},
    {"late", Kind::delay, 15, "", false},
    {"never", Kind::drop, 0, "Callback::", false},
    {"one less", Kind::oneLess, 0, "::Get", false},
    {"4294967295", Kind::allOnes, 0, "::Get", false},
    {"0", Kind::zero, 0, "::Get", false},
    {"1", Kind::value, 1, "::Get", false},
};

/// A call on whose word the picture depends, and that nothing can check: what it lies about shows there, and
/// nowhere else.
struct PictureShaper {
    const char* call;
    std::string_view scenario = ""; ///< the only one in which it is; none for all
    bool mayFail = false;           ///< its failure is not missed either
};
constexpr PictureShaper pictureShapers[] = {
    {"IBlackmagicRawClip::GetFrameCount"}, // a clip without frames is answered with a transparent picture
    {"IBlackmagicRawClip::GetHeight"},
    {"IBlackmagicRawClip::GetWidth"},
    {"IBlackmagicRawClipResolutions::GetResolutionCount"}, // fewer to choose from
    {"IBlackmagicRawClipGeometry::SetVerticalFlip", "", true},
    // Where the picture has another size than the image, the image's own is all there is to go by.
    {"IBlackmagicRawProcessedImage::GetWidth", "thumbnail 200"},
    {"IBlackmagicRawProcessedImage::GetHeight", "thumbnail 200"},
};

Expected expectedOf(const FaultRow& row, const std::string& call, const std::string& scenario) {
    if (row.kind == Kind::delay)
        return Expected::picture;
    const bool bends = std::ranges::any_of(pictureShapers, [&](const PictureShaper& shaper) {
        return call == shaper.call && (shaper.scenario.empty() || shaper.scenario == scenario) &&
               (row.kind != Kind::fail || shaper.mayFail);
    });
    return bends ? Expected::anythingBounded : Expected::rightIfAny;
}

/// Within the clip, and above.
constexpr UINT sizes[] = {64, 200};

/// A job whose completion never comes may still be running, for all that anybody can tell.
bool leavesJobRunning(const ReferenceDecoderFault& fault) {
    return fault.kind == Kind::drop ||
           (fault.kind == Kind::succeedEmpty &&
            (fault.name == "IBlackmagicRawJob::Submit" || fault.name == "IBlackmagicRaw::SetCallback"));
}

/// Nobody knows of the library's threads then.
bool neverFlushes(const ReferenceDecoderFault& fault) {
    return fault.name == "IBlackmagicRaw::FlushJobs" && fault.occurrence == 0;
}

} // namespace

/// In a process of its own: what may still be used stays, so the next picture comes with it in the way.
std::string tryLastingFault(const std::vector<std::string>& arguments) {
    const auto number = [&](size_t i) { return static_cast<uint32_t>(std::stoul(arguments[i])); };
    auto scenario = makeThumbnailScenario({.size = number(0)});
    const ReferenceDecoderFault fault{arguments[1], number(2), static_cast<Kind>(number(3)), E_FAIL};
    if (const std::string trouble = scenario->troubleInGoodRun(); !trouble.empty())
        return "without the fault: " + trouble;
    scenario->setManners(static_cast<ReferenceDecoderManners>(number(5)));
    const ScenarioOutcome outcome = scenario->run({fault}, number(4));
    ReferenceDecoderAccount account = scenario->decoder().account();
    if (account.faultsFired == 0)
        return "the fault was never reached";
    if (leavesJobRunning(fault) && outcome.result == S_OK)
        return "a picture of a job that has not ended";
    if (leavesJobRunning(fault) != (account.liveResources > 0))
        return "the memory of " + std::to_string(account.liveResources) + " resources is still there";
    const ScenarioOutcome next = scenario->run();
    account = scenario->decoder().account();
    if (!account.isSound())
        return account.describe();
    std::string trouble = next.trouble.empty() ? outcome.trouble : next.trouble;
    if (trouble.empty())
        trouble = scenario->pictureTrouble(next, Expected::picture);
    const bool stays = leavesJobRunning(fault) || fault.kind == Kind::fail;
    scenario.reset(); // unloads the handler, as far as it goes
    for (const wchar_t* name : {L"BlackmagicRawAPI.dll", L"Clipforge_Thumbnails.dll"})
        if (stays && trouble.empty() && GetModuleHandleW(name) == nullptr)
            trouble = "a library has gone whose code may still run";
    return trouble;
}

namespace {

/// A size that is asked for, of a kind of decoder.
struct Road {
    UINT size;
    std::unique_ptr<Scenario> scenario = makeThumbnailScenario({.size = size});
    ReferenceDecoderManners manners = ReferenceDecoderManners::none;
};

/// What lasts is tried in a process of its own, which takes seconds.
bool lasts(const ReferenceDecoderFault& fault) {
    return leavesJobRunning(fault) || neverFlushes(fault);
}

void tryFault(const Road& road, ProofTally& tally, const std::string& what,
              const ReferenceDecoderFault& fault, Expected expected, uint32_t jobDelay = 0) {
    Scenario& scenario = *road.scenario;
    const std::string title = fault.name + " #" + std::to_string(fault.occurrence) + ": " + what;
    tally.attempt(scenario.name() + ", " + title, [&] {
        if (lasts(fault))
            return tryLastingFaultInChild(
                {std::to_string(road.size), fault.name, std::to_string(fault.occurrence),
                 std::to_string(static_cast<uint32_t>(fault.kind)), std::to_string(jobDelay),
                 std::to_string(static_cast<uint32_t>(road.manners))});
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

void tryEveryCall(const Road& road, ProofForm form, ProofTally& tally) {
    Scenario& scenario = *road.scenario;
    tally.attempt(scenario.name() + ", no fault", [&] { return scenario.troubleInGoodRun(); });
    const std::vector<ReferenceDecoderCall> calls = scenario.decoder().recording();
    constexpr size_t sample = 11;
    size_t number = 0;
    for (const FaultRow& row : rows)
        for (const ReferenceDecoderCall& call : calls) {
            const bool isWhole = form == ProofForm::full || (road.size == sizes[0] && row.isInBrief);
            if (call.name.find(row.calls) == call.name.npos || (!isWhole && number++ % sample != 0))
                continue;
            const ReferenceDecoderFault fault{call.name, call.occurrence, row.kind, row.value};
            if (form == ProofForm::full || !lasts(fault) || call.occurrence == 2)
                tryFault(road, tally, row.what, fault, expectedOf(row, call.name, scenario.name()));
        }
}

void run(ProofForm form, ProofTally& tally) {
    for (const UINT size : sizes)
        tryEveryCall(Road{size}, form, tally);
}

/// Decoders that own, count, wait and thread otherwise than ours, each with what leaves a request unfinished:
/// flushes that fail or do nothing while jobs run, and completions that are lost.
void tryManners(ProofForm form, ProofTally& tally) {
    using Manners = ReferenceDecoderManners;
    constexpr Manners worst = Manners::resourceManagerHoldsCodec | Manners::callbackIsNotCounted |
                              Manners::lastReleaseDoesNotWait | Manners::threadsDoNotHoldLibrary;
    constexpr struct {
        const char* what;
        Manners manners;
    } all[] = {
        {"usual manners", Manners::none},
        {"the resource manager holds the codec", Manners::resourceManagerHoldsCodec},
        {"that and an uncounted callback",
         Manners::resourceManagerHoldsCodec | Manners::callbackIsNotCounted},
        {"an uncounted callback", Manners::callbackIsNotCounted},
        {"a last release that does not wait", Manners::lastReleaseDoesNotWait},
        {"threads that do not hold the library", Manners::threadsDoNotHoldLibrary},
        {"all of that", worst},
        {"completions within Submit", Manners::submitCompletesFirst},
        {"changing threads and late completions", Manners::changingThreads | Manners::lateCompletions},
    };
    const ReferenceDecoderFault faults[] = {
        {"IBlackmagicRaw::FlushJobs", 1, Kind::fail, E_FAIL},
        {"IBlackmagicRaw::FlushJobs", 0, Kind::fail, E_FAIL},
        {"IBlackmagicRaw::FlushJobs", 1, Kind::succeedEmpty},
        {"IBlackmagicRaw::FlushJobs", 0, Kind::succeedEmpty},
        {"IBlackmagicRawJob::GetUserData", 1, Kind::fail, E_FAIL},
        {"IBlackmagicRawJob::GetUserData", 2, Kind::fail, E_FAIL},
        {"IBlackmagicRawJob::GetUserData", 3, Kind::fail, E_FAIL},
        {"IBlackmagicRawJob::GetUserData", 0, Kind::fail, E_FAIL},
        {"IBlackmagicRawCallback::ReadComplete", 1, Kind::fail, E_FAIL},
    };
    const bool isFull = form == ProofForm::full;
    for (const UINT size : sizes) {
        Road road{size};
        for (const auto& [what, manners] : all) {
            road.manners = manners;
            road.scenario->setManners(manners);
            tally.attempt(road.scenario->name() + ", " + what,
                          [&] { return road.scenario->troubleInGoodRun(); });
            for (const ReferenceDecoderFault& fault : faults)
                for (const uint32_t jobDelay : {10u, 1u, 60u}) {
                    const bool isRare = lasts(fault) && manners != Manners::none && manners != worst;
                    if (isFull ? !isRare : !isRare && size == sizes[0] && jobDelay == 10)
                        tryFault(road, tally, what, fault, Expected::rightIfAny, jobDelay);
                }
        }
    }
}

PROOF_CHECK("manners", "decoders of other manners, with requests left unfinished", tryManners);
PROOF_CHECK("faults", "each call into and out of the decoder fails once, in each way", run);

} // namespace
