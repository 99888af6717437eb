// Every call into the library, and every callback out of it, passes through here once: it is counted and
// recorded under its name, timed, kept from letting an exception through, and shows the fault that the
// session armed for it.
#pragma once

#include <algorithm>
#include <cstddef>
#include <limits>
#include <new>
#include <string_view>
#include <type_traits>

#include <windows.h>

#include "ReferenceDecoderControl.h"

namespace reference {

inline ReferenceDecoderControl::Account& account() {
    return referenceDecoderControl().account;
}

/// A breach of the contract by the caller: counted, and answered with the given failure.
HRESULT badArgument(HRESULT result = E_INVALIDARG);

/// A call's name as a template argument.
template <size_t size>
struct CallName {
    char text[size]{};
    constexpr CallName() = default;
    constexpr CallName(const char (&literal)[size]) { std::copy_n(literal, size, text); }
};

template <size_t first, size_t second>
constexpr CallName<first + second - 1> operator+(const CallName<first>& a, const CallName<second>& b) {
    CallName<first + second - 1> joined;
    std::copy_n(a.text, first - 1, joined.text);
    std::copy_n(b.text, second, joined.text + first - 1);
    return joined;
}

/// Whether the contract leaves it to a call, or to a callback's result, which success code it tells.
template <CallName name>
constexpr bool mayTellOtherSuccess() {
    constexpr std::string_view call(name.text);
    for (const std::string_view strict :
         {"QueryInterface", "Factory::CreateCodec", "Factory::CreatePipelineIterator",
          "Factory::CreatePipelineDeviceIterator", "PipelineIterator::Next", "PipelineIterator::GetPipeline",
          "DeviceIterator::CreateDevice", "Configuration::SetFromDevice",
          "ConfigurationEx::GetResourceManager", "IBlackmagicRaw::SetCallback", "Callback::ReadComplete",
          "Frame::SetResourceFormat", "Attributes::SetClipAttribute", "Attributes::SetFrameAttribute",
          "AttributeRange", "AttributeList", "GetISOList"})
        if (call.ends_with(strict))
            return false;
    return true;
}

template <CallName name>
uint32_t callIndex() {
    static const uint32_t s_index = referenceDecoderCallName(referenceDecoderControl(), name.text);
    return s_index;
}

enum class Direction { intoLibrary, outOfLibrary };

/// Adds the time that it lives to the account. Only the outermost call of a thread is timed; a callback
/// starts a new outermost level.
class CallTimer {
public:
    explicit CallTimer(Direction direction);
    ~CallTimer();
    CallTimer(const CallTimer&) = delete;
    CallTimer& operator=(const CallTimer&) = delete;

private:
    std::atomic<int64_t>* m_time = nullptr; ///< the counter the time goes to, if any
    int64_t m_start = 0;
    uintptr_t m_outerLevel;
};

/// One crossing, for as long as it lasts.
class Crossing {
public:
    Crossing(uint32_t call, Direction direction, bool isRecorded = true);
    Crossing(const Crossing&) = delete;
    Crossing& operator=(const Crossing&) = delete;

    bool shows(ReferenceDecoderFaultKind kind) const { return m_fault == kind; }
    HRESULT faultResult() const { return static_cast<HRESULT>(m_value); }

    /// The call shall be answered without doing its work.
    bool isCutShort() const {
        return shows(ReferenceDecoderFaultKind::fail) || shows(ReferenceDecoderFaultKind::succeedEmpty);
    }
    HRESULT shortAnswer() const { return shows(ReferenceDecoderFaultKind::fail) ? faultResult() : S_OK; }

    /// The success that the call or callback tells in the place of S_OK.
    HRESULT success() const {
        if (!referenceDecoderHas(ReferenceDecoderManners::otherSuccessCodes))
            return S_OK;
        constexpr HRESULT other = 0x00040007; // of an interface's own facility
        return m_occurrence % 2 ? S_FALSE : other;
    }

    /// Turns a number that the call gives into the one that the armed fault wants.
    template <class Output>
    void bend(Output& output) const {
        if constexpr (std::is_arithmetic_v<Output>)
            switch (m_fault) {
            case ReferenceDecoderFaultKind::oneLess:
                output = static_cast<Output>(output - Output{1});
                break;
            case ReferenceDecoderFaultKind::allOnes:
                output = std::is_integral_v<Output> ? static_cast<Output>(0xFFFFFFFFu)
                                                    : std::numeric_limits<Output>::quiet_NaN();
                break;
            case ReferenceDecoderFaultKind::zero:
                output = Output{};
                break;
            case ReferenceDecoderFaultKind::value:
                output = static_cast<Output>(m_value);
                break;
            default:
                break;
            }
    }

private:
    void findFault(uint32_t call);

    CallTimer m_timer;
    ReferenceDecoderFaultKind m_fault = ReferenceDecoderFaultKind::none;
    int64_t m_value = 0;
    uint32_t m_occurrence = 0;
};

template <class Work>
HRESULT guarded(Work&& work) noexcept {
    try {
        return work();
    } catch (const std::bad_alloc&) {
        return E_OUTOFMEMORY;
    } catch (...) {
        return E_FAIL;
    }
}

/// A call into the library. `outputs` are the places that the call must be given and fills: they are 0 unless
/// the work succeeds.
template <CallName name, class Work, class... Output>
HRESULT crossInto(Work&& work, Output*... outputs) noexcept {
    Crossing crossing(callIndex<name>(), Direction::intoLibrary);
    if ((false || ... || (outputs == nullptr)))
        return badArgument(E_POINTER);
    ((*outputs = Output{}), ...);
    if (crossing.isCutShort())
        return crossing.shortAnswer();
    const HRESULT result = guarded(work);
    if (SUCCEEDED(result))
        (crossing.bend(*outputs), ...);
    return result == S_OK && mayTellOtherSuccess<name>() ? crossing.success() : result;
}

/// A callback about `object` (may be null), with the result and the object that it shall be given.
template <CallName name, class Object, class Call>
void crossOut(HRESULT result, Object* object, Call&& call) noexcept {
    Crossing crossing(callIndex<name>(), Direction::outOfLibrary);
    if (crossing.shows(ReferenceDecoderFaultKind::drop))
        return;
    if (crossing.shows(ReferenceDecoderFaultKind::fail))
        result = crossing.faultResult();
    if (result == S_OK && mayTellOtherSuccess<name>())
        result = crossing.success();
    if (crossing.shows(ReferenceDecoderFaultKind::succeedEmpty))
        object = nullptr;
    try {
        call(result, object);
    } catch (...) {
        ++account().callbackThrows;
    }
}

} // namespace reference
