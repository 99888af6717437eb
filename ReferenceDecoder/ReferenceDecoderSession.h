// The process's side of the reference decoder: reads its account, arms faults, takes the recording of calls.
// Works the same whether the decoder is a loaded library, is unloaded meanwhile, or is linked in.
#pragma once

#include <cstdint>
#include <string>
#include <vector>

#include "ReferenceDecoderControl.h"

/// A copy of the decoder's account at one moment; the fields are explained at
/// ReferenceDecoderControl::Account.
struct ReferenceDecoderAccount {
    int64_t liveReferences, liveObjects, liveResources, liveResourceBytes, peakResourceBytes;
    int64_t overReleases, usesAfterRelease, resourceFaults, badArguments, callbackThrows;
    int64_t jobsSubmitted, jobsCompleted, jobsWithLut, statesWithClipAttributes, statesWithFrameAttributes;
    int64_t copiesAsync;
    int64_t loads, unloads, unbalancedUnloads, faultsFired;
    int64_t callerNanoseconds, callbackNanoseconds, callbackLibraryNanoseconds;

    /// Everything that was handed out has come back.
    bool isBalanced() const { return liveReferences == 0 && liveObjects == 0 && liveResources == 0; }
    /// Nothing was given back twice or used when gone. Holds under injected faults too, unlike badArguments,
    /// which a caller that was lied to may commit.
    bool isSound() const {
        return overReleases == 0 && usesAfterRelease == 0 && resourceFaults == 0 && callbackThrows == 0 &&
               unbalancedUnloads == 0;
    }
    /// Balanced, sound, and without any other breach of the contract.
    bool isClean() const { return isBalanced() && isSound() && badArguments == 0; }
    /// One line of what is not as it should be, or "clean".
    std::string describe() const;
};

struct ReferenceDecoderCall {
    std::string name;        ///< "IBlackmagicRawClip::GetWidth"
    uint32_t occurrence = 0; ///< 1 for the first since the reset
};

struct ReferenceDecoderFault {
    std::string name;
    uint32_t occurrence = 1; ///< 0: every one
    ReferenceDecoderFaultKind kind = ReferenceDecoderFaultKind::fail;
    int64_t value = 0; ///< HRESULT, number or milliseconds, by kind
};

struct ReferenceDecoderAttribute {
    uint32_t code = 0;
    uint32_t type = 0; ///< VARTYPE
    double number = 0;
    std::wstring text;
    int32_t result = 0; ///< HRESULT given
};

class ReferenceDecoderSession {
public:
    /// Joins the process's block; sessions of one process all see the same one. The session must live while
    /// the library is unloaded for the account to survive.
    ReferenceDecoderSession();

    /// Forgets all but the live counts: counters, recording, faults, attribute record and rules. Settings are
    /// those of the environment again. Not while a decoder works.
    void reset();

    ReferenceDecoderAccount account() const;

    /// From now on, processes that this one starts use this one's block: what is armed and set here holds for
    /// the library in them, at once, and their calls are counted and recorded here. An unloading in one of
    /// them counts as unbalanced while another works.
    void shareWithChildProcesses() const;
    /// Sets the live counts to 0: for what a process still had when it was ended.
    void writeOffLosses();

    void arm(const ReferenceDecoderFault& fault); ///< up to four at a time; more are ignored
    void disarm();

    /// Every crossing since the reset in order, the first 1024.
    std::vector<ReferenceDecoderCall> recording() const;
    uint32_t occurrencesOf(const std::string& name) const;

    std::vector<ReferenceDecoderAttribute> sentAttributes() const;
    /// {code, result of Set, result of the range query, result of the list query, read-only}
    void setAttributeRule(const ReferenceDecoderControl::AttributeRule& rule);

    void setManners(ReferenceDecoderManners manners);
    void setJobDelay(uint32_t milliseconds);
    void setReadDelay(uint32_t milliseconds);
    void setGuardResources(bool enabled);
    void setClipsHaveLut(bool enabled);

private:
    ReferenceDecoderControl& m_control;
};
