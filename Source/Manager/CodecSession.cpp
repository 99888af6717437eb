#include "CodecSession.h"

#include <new>
#include <utility>

#include "Utils/vdLogging.h"
#include "Utils/vdModule.h"

namespace {

/// How long a library that no longer needs its callback may take to give it back: its threads may be ending.
constexpr uint32_t callbackReturnMilliseconds = 2000;

/// True as soon as `condition` holds, false when it does not within that time.
template <class Condition>
bool waitFor(uint32_t milliseconds, const Condition& condition) {
    const ULONGLONG start = GetTickCount64();
    while (!condition()) {
        if (GetTickCount64() - start >= milliseconds)
            return false;
        Sleep(1);
    }
    return true;
}

} // namespace

brCodecSession::brCodecSession(Microsoft::WRL::ComPtr<IBlackmagicRawPipelineDevice> device)
    : m_device(std::move(device)) {
    m_library.take();
}

brCodecSession::~brCodecSession() {
    settle();
}

vdBRAW_Manager_Callback* brCodecSession::makeCallback() {
    *m_callback.ReleaseAndGetAddressOf() = new (std::nothrow) vdBRAW_Manager_Callback;
    return m_callback.Get();
}

bool brCodecSession::isAtRest(uint32_t milliseconds) const noexcept {
    return !m_callback || waitFor(milliseconds, [&] { return m_callback->jobsInFlight() <= 0; });
}

void brCodecSession::keepForGood() noexcept {
    if (std::exchange(m_isKept, true))
        return;
    pinOwnModule(); // the callback's code
    if (m_callback)
        m_callback->AddRef();
    m_library.keepForGood();
}

bool brCodecSession::settle() noexcept {
    if (m_isKept)
        return true;
    if (m_callback && !waitFor(callbackReturnMilliseconds, [&] { return m_callback->references() == 1; })) {
        VD_LOG_ERROR("The decoder library still holds the callback : both stay loaded for good");
        keepForGood();
        return false;
    }
    m_device.Reset();
    m_library.giveBack();
    return true;
}
