// Memory runs out at every single allocation: for that one alone, and from it on until the thumbnail is over.
#include <string>

#include "Proof.h"
#include "ProofAllocator.h"
#include "Scenario.h"

namespace {

constexpr int64_t endless = 100'000;

/// Lets the allocations fail, from the first of the product's own on, each in a run of its own.
void tryAllocations(Scenario& scenario, int64_t step, bool stays, ProofTally& tally) {
    ProofAllocatorControl& control = *librariesAllocator();
    bool reached = true;
    for (int64_t number = 1; reached && number < endless; number += step)
        tally.attempt(scenario.name() + ", memory runs out " + (stays ? "from" : "at") + " allocation " +
                          std::to_string(number),
                      [&] {
                          const int64_t blocks = control.liveBlocks;
                          scenario.onStart = [&] {
                              control.failures = 0;
                              control.staysEmpty = stays;
                              control.countdown = number;
                          };
                          scenario.onEnd = [&] {
                              control.countdown = 0;
                              control.staysEmpty = control.isEmpty = false;
                          };
                          const ScenarioOutcome outcome = scenario.run();
                          scenario.onStart = scenario.onEnd = [] {};
                          reached = control.failures > 0;
                          std::string trouble = scenario.troubleAfter(outcome, reached ? Expected::rightIfAny
                                                                                       : Expected::picture);
                          if (const int64_t more = control.liveBlocks - blocks; trouble.empty() && more != 0)
                              trouble = std::to_string(more) + " blocks were not deleted";
                          return scenario.orTroubleInNextRun(trouble);
                      });
}

void run(ProofForm form, ProofTally& tally) {
    for (const UINT size : {64u, 200u}) {
        // Unloaded after each run: nothing of its memory may be left.
        const auto scenario =
            makeThumbnailScenario({.handler = builtFile("proof"), .size = size, .unloadEachRun = true});
        const int64_t step = form == ProofForm::full || size == 64 ? 1 : 5;
        tally.attempt(scenario->name() + ", with memory", [&] { return scenario->troubleInGoodRun(); });
        for (const bool stays : {false, true})
            tryAllocations(*scenario, step, stays, tally);
    }
}

PROOF_CHECK("allocations", "each allocation fails once, on every thread", run);

} // namespace
