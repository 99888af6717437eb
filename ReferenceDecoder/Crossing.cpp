#include "Crossing.h"

#include "Misbehaviour.h"

namespace reference {

namespace {

constexpr uintptr_t kInCallback = uintptr_t{1} << 16; ///< beside the depth of calls, in a thread's word

/// One word per thread: how deep its calls stand, and whether inside a callback. A slot of the system's, not
/// thread_local: nothing to free on threads that outlive the library.
class ThreadWord {
public:
    ~ThreadWord() { TlsFree(m_slot); }
    uintptr_t get() const { return reinterpret_cast<uintptr_t>(TlsGetValue(m_slot)); }
    void set(uintptr_t word) const { TlsSetValue(m_slot, reinterpret_cast<void*>(word)); }

private:
    DWORD m_slot = TlsAlloc();
};

const ThreadWord& level() {
    static const ThreadWord s_word;
    return s_word;
}

int64_t nanoseconds() {
    static const int64_t s_frequency = [] {
        LARGE_INTEGER frequency;
        QueryPerformanceFrequency(&frequency);
        return frequency.QuadPart;
    }();
    LARGE_INTEGER now;
    QueryPerformanceCounter(&now);
    constexpr int64_t second = 1'000'000'000;
    return now.QuadPart / s_frequency * second + now.QuadPart % s_frequency * second / s_frequency;
}

} // namespace

HRESULT badArgument(HRESULT result) {
    ++account().badArguments;
    return result;
}

CallTimer::CallTimer(Direction direction) : m_outerLevel(level().get()) {
    if (direction == Direction::outOfLibrary) {
        level().set(kInCallback);
        m_time = &account().callbackNanoseconds;
    } else {
        level().set(m_outerLevel + 1);
        if (m_outerLevel == 0)
            m_time = &account().callerNanoseconds;
        else if (m_outerLevel == kInCallback)
            m_time = &account().callbackLibraryNanoseconds;
    }
    if (m_time)
        m_start = nanoseconds();
}

CallTimer::~CallTimer() {
    if (m_time)
        *m_time += nanoseconds() - m_start;
    level().set(m_outerLevel);
}

Crossing::Crossing(uint32_t call, Direction direction, bool isRecorded) : m_timer(direction) {
    ReferenceDecoderControl& control = referenceDecoderControl();
    m_occurrence = ++control.callNames[call].occurrences;
    control.latestCall = call + 1;
    if (isRecorded)
        if (const uint32_t index = control.recordedCount++; index < ReferenceDecoderControl::maximumRecording)
            control.recording[index] = {call, m_occurrence};
    findFault(call);
    if (shows(ReferenceDecoderFaultKind::delay))
        Sleep(static_cast<DWORD>(m_value));
    misbehave(m_fault, m_value);
}

void Crossing::findFault(uint32_t call) {
    for (const auto& fault : referenceDecoderControl().faults) {
        const ReferenceDecoderFaultKind kind = fault.kind;
        if (kind != ReferenceDecoderFaultKind::none && fault.name == call &&
            (fault.occurrence == 0 || fault.occurrence == m_occurrence)) {
            m_fault = kind;
            m_value = fault.value;
            ++account().faultsFired;
        }
    }
}

} // namespace reference
