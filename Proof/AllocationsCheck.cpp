// Memory runs out at every single allocation: for that one alone, and from it on until the thumbnail is over.
#include <string>

#include "Proof.h"
#include "ProofAllocator.h"
#include "Scenario.h"

namespace {

/// Arms an allocator for the product's own work of each run.
class Shortage {
public:
    Shortage(Scenario& scenario, ProofAllocatorControl& control) : m_scenario(scenario), m_control(control) {
        scenario.onStart = [this] {
            m_control.failures = 0;
            m_control.staysEmpty = m_stays;
            m_control.countdown = m_number;
        };
        scenario.onEnd = [this] {
            m_control.countdown = 0;
            m_control.staysEmpty = false;
            m_control.isEmpty = false;
        };
    }
    ~Shortage() { m_scenario.onStart = m_scenario.onEnd = nullptr; }
    Shortage(const Shortage&) = delete;
    Shortage& operator=(const Shortage&) = delete;

    /// Which allocation of the next runs fails, 1 for the first, 0 for none; and whether those after it do
    /// too.
    void set(int64_t number, bool stays) {
        m_number = number;
        m_stays = stays;
    }
    int64_t failures() const { return m_control.failures; }

private:
    Scenario& m_scenario;
    ProofAllocatorControl& m_control;
    int64_t m_number = 0;
    bool m_stays = false;
};

struct Road {
    std::unique_ptr<Scenario> scenario;
    ProofAllocatorControl& control;
    bool isLibrary; ///< unloaded after each run: nothing of its memory may be left
    int64_t briefStep;
};

constexpr int64_t endless = 100'000;

void tryAllocations(Road& road, ProofForm form, bool stays, ProofTally& tally) {
    Scenario& scenario = *road.scenario;
    const int64_t step = form == ProofForm::full ? 1 : road.briefStep;
    Shortage shortage(scenario, road.control);
    bool reached = true;
    for (int64_t number = 1; reached && number < endless; number += step) {
        const std::string attempt = scenario.name() + ", memory runs out " + (stays ? "from" : "at") +
                                    " allocation " + std::to_string(number);
        tally.begin(attempt);
        const int64_t blocks = road.control.liveBlocks;
        shortage.set(number, stays);
        const ScenarioOutcome outcome = scenario.run();
        reached = shortage.failures() > 0;
        std::string trouble =
            scenario.troubleAfter(outcome, reached ? Expected::rightIfAny : Expected::picture);
        shortage.set(0, false);
        if (trouble.empty() && road.isLibrary && road.control.liveBlocks != blocks)
            trouble = std::to_string(road.control.liveBlocks - blocks) + " blocks were not deleted";
        if (trouble.empty())
            if (const std::string next = scenario.troubleInGoodRun(); !next.empty())
                trouble = "the next one, with memory: " + next;
        tally.count(attempt, trouble);
    }
}

void run(ProofForm form, ProofTally& tally) {
    const auto handler = [](UINT size) {
        return makeThumbnailScenario({.handler = builtFile("proof", L"Clipforge_Thumbnails.dll"),
                                      .size = size,
                                      .unloadEachRun = true});
    };
    Road roads[] = {
        {handler(64), *librariesAllocator(), true, 1},
        {handler(200), *librariesAllocator(), true, 5},
        {makeGpuScenario(), programAllocator(), false, 5},
        {makeSettingsScenario(), programAllocator(), false, 5},
    };
    for (Road& road : roads) {
        tally.count(road.scenario->name() + ", with memory", road.scenario->troubleInGoodRun());
        tryAllocations(road, form, false, tally);
        tryAllocations(road, form, true, tally);
    }
}

PROOF_CHECK("allocations", "each allocation fails once, on every thread", run);

} // namespace
