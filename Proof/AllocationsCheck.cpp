// Memory runs out at every single allocation: for that one alone, and from it on until the thumbnail is over.
#include <string>

#include "Proof.h"
#include "ProofAllocator.h"
#include "Scenario.h"

namespace {

struct Road {
    std::unique_ptr<Scenario> scenario;
    ProofAllocatorControl& control;
    bool isLibrary; ///< unloaded after each run: nothing of its memory may be left
    int64_t briefStep;
};

constexpr int64_t endless = 100'000;

/// Lets the allocations fail, from the first of the product's own on, each in a run of its own.
void tryAllocations(Road& road, ProofForm form, bool stays, ProofTally& tally) {
    Scenario& scenario = *road.scenario;
    const int64_t step = form == ProofForm::full ? 1 : road.briefStep;
    bool reached = true;
    for (int64_t number = 1; reached && number < endless; number += step)
        tally.attempt(scenario.name() + ", memory runs out " + (stays ? "from" : "at") + " allocation " +
                          std::to_string(number),
                      [&] {
                          const int64_t blocks = road.control.liveBlocks;
                          scenario.onStart = [&] {
                              road.control.failures = 0;
                              road.control.staysEmpty = stays;
                              road.control.countdown = number;
                          };
                          scenario.onEnd = [&] {
                              road.control.countdown = 0;
                              road.control.staysEmpty = road.control.isEmpty = false;
                          };
                          const ScenarioOutcome outcome = scenario.run();
                          scenario.onStart = scenario.onEnd = [] {};
                          reached = road.control.failures > 0;
                          std::string trouble = scenario.troubleAfter(outcome, reached ? Expected::rightIfAny
                                                                                       : Expected::picture);
                          if (const int64_t more = road.control.liveBlocks - blocks;
                              trouble.empty() && road.isLibrary && more != 0)
                              trouble = std::to_string(more) + " blocks were not deleted";
                          return scenario.orTroubleInNextRun(trouble);
                      });
}

void run(ProofForm form, ProofTally& tally) {
    const auto handler = [](UINT size) {
        return makeThumbnailScenario({.handler = builtFile("proof"), .size = size, .unloadEachRun = true});
    };
    Road roads[] = {
        {handler(64), *librariesAllocator(), true, 1},
        {handler(200), *librariesAllocator(), true, 5},
        {makeCoreScenario(), programAllocator(), false, 5},
    };
    for (Road& road : roads) {
        tally.attempt(road.scenario->name() + ", with memory",
                      [&] { return road.scenario->troubleInGoodRun(); });
        for (const bool stays : {false, true})
            tryAllocations(road, form, stays, tally);
    }
}

PROOF_CHECK("allocations", "each allocation fails once, on every thread", run);

} // namespace
