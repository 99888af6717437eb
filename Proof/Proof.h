// The proof that nothing which the decoder, the machine or a file does can hurt the process we run in.
//
// A check tries one kind of trouble many times over and counts; the program prints a table of them all. Each
// subject stands in a file of its own, whose checks enter themselves with a PROOF_CHECK line.
#pragma once

#include "Common.h"

/// How thoroughly to try: a short form for every test run, the full one on demand.
enum class ProofForm { brief, full };

/// What a check tried and what survived it.
class ProofTally {
public:
    /// Counts one attempt; `work` gives nothing when it was survived, and tells what was lost otherwise. The
    /// attempt's name is known to whoever ends the program, should it crash or never end.
    template <class Work>
    void attempt(const std::string& name, const Work& work) {
        begin(name);
        count(name, work());
    }
    /// The same for an attempt that was made already.
    void count(const std::string& attempt, const std::string& trouble);
    /// Says what is being tried, for an attempt that takes its time: whoever is silent for long does not end.
    static void begin(const std::string& attempt);

    uint64_t tried() const { return m_tried; }
    uint64_t survived() const { return m_survived; }

private:
    uint64_t m_tried = 0;
    uint64_t m_survived = 0;
};

struct ProofCheck {
    const char* name; ///< as the table and --only show it
    const char* what; ///< what is tried, in the table's words
    void (*run)(ProofForm form, ProofTally& tally);
};

/// An attempt that leaves something in its process for good, and so is made in one of its own: a fault that
/// lasts. Gives what was lost, empty when it was survived. The arguments hold no quotes.
std::string tryLastingFault(const std::vector<std::string>& arguments);
std::string tryLastingFaultInChild(const std::vector<std::string>& arguments);

/// All checks, in the order of their names.
std::vector<ProofCheck>& proofChecks();

struct ProofEntry {
    explicit ProofEntry(const ProofCheck& check) { proofChecks().push_back(check); }
};
#define PROOF_CHECK(name, what, function)                                                                    \
    static const ProofEntry proofEntryOf_##function(ProofCheck{name, what, function})
