#include "ReferenceDecoderSession.h"

#include <algorithm>

#include <windows.h>

namespace {

using Account = ReferenceDecoderControl::Account;

#ifdef CLIPFORGE_HARDENED
constexpr bool kGuardsByDefault = true;
#else
constexpr bool kGuardsByDefault = false;
#endif

struct Counter {
    const char* name;
    std::atomic<int64_t> Account::*shared;
    int64_t ReferenceDecoderAccount::*copy;
    bool isLive;    ///< true at any time: a reset keeps it
    bool isTrouble; ///< not 0 once all is over means that something is wrong
};

#define COUNTER(name, isLive, isTrouble)                                                                     \
    Counter {                                                                                                \
#name, &Account::name, &ReferenceDecoderAccount::name, isLive, isTrouble                             \
    }
constexpr Counter kCounters[] = {
    COUNTER(liveReferences, true, true),
    COUNTER(liveObjects, true, true),
    COUNTER(liveResources, true, true),
    COUNTER(liveResourceBytes, true, true),
    COUNTER(peakResourceBytes, false, false),
    COUNTER(overReleases, false, true),
    COUNTER(usesAfterRelease, false, true),
    COUNTER(resourceFaults, false, true),
    COUNTER(badArguments, false, true),
    COUNTER(callbackThrows, false, true),
    COUNTER(jobsSubmitted, false, false),
    COUNTER(jobsCompleted, false, false),
    COUNTER(jobsWithLut, false, false),
    COUNTER(statesWithClipAttributes, false, false),
    COUNTER(statesWithFrameAttributes, false, false),
    COUNTER(copiesAsync, false, false),
    COUNTER(loads, false, false),
    COUNTER(unloads, false, false),
    COUNTER(unbalancedUnloads, false, true),
    COUNTER(faultsFired, false, false),
    COUNTER(callerNanoseconds, false, false),
    COUNTER(callbackNanoseconds, false, false),
    COUNTER(callbackLibraryNanoseconds, false, false),
};
#undef COUNTER
static_assert(sizeof(ReferenceDecoderAccount) == std::size(kCounters) * sizeof(int64_t));

} // namespace

std::string ReferenceDecoderAccount::describe() const {
    std::string text;
    for (const Counter& counter : kCounters)
        if (counter.isTrouble && this->*counter.copy != 0)
            text += (text.empty() ? "" : ", ") + std::string(counter.name) + " " +
                    std::to_string(this->*counter.copy);
    return text.empty() ? "clean" : text;
}

ReferenceDecoderSession::ReferenceDecoderSession() : m_control(referenceDecoderControl()) {
    if (kGuardsByDefault)
        setGuardResources(true);
}

void ReferenceDecoderSession::reset() {
    for (const Counter& counter : kCounters)
        if (!counter.isLive)
            m_control.account.*counter.shared = 0;
    for (auto& name : m_control.callNames)
        name.occurrences = 0;
    m_control.recordedCount = 0;
    m_control.latestCall = 0;
    m_control.sentAttributeCount = 0;
    m_control.ruleCount = 0;
    m_control.manners = ReferenceDecoderManners::none;
    m_control.jobDelayMilliseconds = 0;
    m_control.readDelayMilliseconds = 0;
    m_control.guardResources = kGuardsByDefault;
    m_control.clipsHaveLut = 0;
    disarm();
    applyReferenceDecoderEnvironment(m_control);
}

void ReferenceDecoderSession::shareWithChildProcesses() const {
    SetEnvironmentVariableW(referenceDecoderBlockVariable, referenceDecoderBlockName().c_str());
}

void ReferenceDecoderSession::writeOffLosses() {
    for (const Counter& counter : kCounters)
        if (counter.isLive)
            m_control.account.*counter.shared = 0;
}

ReferenceDecoderAccount ReferenceDecoderSession::account() const {
    ReferenceDecoderAccount copy{};
    for (const Counter& counter : kCounters)
        copy.*counter.copy = m_control.account.*counter.shared;
    return copy;
}

void ReferenceDecoderSession::arm(const ReferenceDecoderFault& fault) {
    armReferenceDecoder(m_control, fault.name.c_str(), fault.occurrence, fault.kind, fault.value);
}

void ReferenceDecoderSession::disarm() {
    for (auto& slot : m_control.faults)
        slot.kind = ReferenceDecoderFaultKind::none;
}

std::vector<ReferenceDecoderCall> ReferenceDecoderSession::recording() const {
    const uint32_t count =
        std::min(m_control.recordedCount.load(), ReferenceDecoderControl::maximumRecording);
    std::vector<ReferenceDecoderCall> calls(count);
    for (uint32_t i = 0; i < count; ++i)
        calls[i] = {m_control.callNames[m_control.recording[i].name].text, m_control.recording[i].occurrence};
    return calls;
}

uint32_t ReferenceDecoderSession::occurrencesOf(const std::string& name) const {
    return m_control.callNames[referenceDecoderCallName(m_control, name.c_str())].occurrences;
}

std::vector<ReferenceDecoderAttribute> ReferenceDecoderSession::sentAttributes() const {
    const uint32_t count =
        std::min(m_control.sentAttributeCount.load(), ReferenceDecoderControl::maximumAttributes);
    std::vector<ReferenceDecoderAttribute> attributes(count);
    for (uint32_t i = 0; i < count; ++i) {
        const auto& sent = m_control.sentAttributes[i];
        attributes[i] = {sent.code, sent.type, sent.number, sent.text, sent.result};
    }
    return attributes;
}

void ReferenceDecoderSession::setAttributeRule(const ReferenceDecoderControl::AttributeRule& rule) {
    const uint32_t index = m_control.ruleCount;
    if (index == ReferenceDecoderControl::maximumRules)
        return;
    m_control.rules[index] = rule;
    m_control.ruleCount = index + 1;
}

void ReferenceDecoderSession::setManners(ReferenceDecoderManners manners) {
    m_control.manners = manners;
}

void ReferenceDecoderSession::setReadDelay(uint32_t milliseconds) {
    m_control.readDelayMilliseconds = milliseconds;
}

void ReferenceDecoderSession::setJobDelay(uint32_t milliseconds) {
    m_control.jobDelayMilliseconds = milliseconds;
}

void ReferenceDecoderSession::setGuardResources(bool enabled) {
    m_control.guardResources = enabled;
}

void ReferenceDecoderSession::setClipsHaveLut(bool enabled) {
    m_control.clipsHaveLut = enabled;
}
