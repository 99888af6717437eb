#include <algorithm>
#include <charconv>
#include <cstdio>
#include <cstdlib>
#include <string>
#include <string_view>

#include <windows.h>

#include "ReferenceDecoderControl.h"

namespace {

struct MannerName {
    std::string_view name;
    ReferenceDecoderManners manner;
};

#define MANNER(name)                                                                                         \
    MannerName {                                                                                             \
#name, ReferenceDecoderManners::name                                                                 \
    }
constexpr MannerName kManners[] = {
    MANNER(resourceManagerHoldsCodec), MANNER(callbackIsNotCounted), MANNER(lastReleaseDoesNotWait),
    MANNER(threadsDoNotHoldLibrary),   MANNER(submitCompletesFirst), MANNER(changingThreads),
    MANNER(lateCompletions),           MANNER(ascendingResolutions), MANNER(shuffledResolutions),
    MANNER(otherSuccessCodes),         MANNER(buffersNeedMore),      MANNER(sizeBeforeTurning),
    MANNER(resolutionsBeforeTurning),  MANNER(noWorkingMemory),
};
#undef MANNER

struct KindName {
    std::string_view name;
    ReferenceDecoderFaultKind kind;
};

#define KIND(name)                                                                                           \
    KindName {                                                                                               \
#name, ReferenceDecoderFaultKind::name                                                               \
    }
constexpr KindName kKinds[] = {
    KIND(fail),      KIND(succeedEmpty), KIND(oneLess),   KIND(allOnes),           KIND(zero),
    KIND(value),     KIND(drop),         KIND(delay),     KIND(nullWrite),         KIND(stackOverflow),
    KIND(abort),     KIND(failFast),     KIND(terminate), KIND(exceptionOnThread), KIND(hang),
    KIND(eatMemory),
};
#undef KIND

struct Delay {
    std::string_view name;
    std::atomic<uint32_t> ReferenceDecoderControl::*milliseconds;
};
constexpr Delay kDelays[] = {
    {"jobDelay=", &ReferenceDecoderControl::jobDelayMilliseconds},
    {"readDelay=", &ReferenceDecoderControl::readDelayMilliseconds},
};

/// Cuts what follows the last `mark` off a word; empty where there is none.
std::string cutOff(std::string_view& word, char mark) {
    const size_t place = word.rfind(mark);
    if (place == std::string_view::npos)
        return {};
    std::string tail(word.substr(place + 1));
    word = word.substr(0, place);
    return tail;
}

bool isNumber(const std::string& text, int64_t& number) {
    char* end = nullptr;
    number = std::strtoll(text.c_str(), &end, 0);
    return *end == '\0';
}

/// KIND@CALL#OCCURRENCE=VALUE
bool armFault(std::string_view word, ReferenceDecoderControl& control) {
    int64_t value = 0, occurrence = 0;
    const bool areNumbers = isNumber(cutOff(word, '='), value) && isNumber(cutOff(word, '#'), occurrence);
    const std::string call = cutOff(word, '@');
    for (const KindName& kind : kKinds)
        if (areNumbers && !call.empty() && word == kind.name) {
            armReferenceDecoder(control, call.c_str(), static_cast<uint32_t>(occurrence), kind.kind, value);
            return true;
        }
    return false;
}

bool apply(std::string_view word, ReferenceDecoderControl& control) {
    for (const MannerName& manner : kManners)
        if (word == manner.name) {
            control.manners = control.manners | manner.manner;
            return true;
        }
    for (const Delay& delay : kDelays)
        if (word.starts_with(delay.name)) {
            word.remove_prefix(delay.name.size());
            uint32_t milliseconds = 0;
            const auto* const end = word.data() + word.size();
            const auto parsed = std::from_chars(word.data(), end, milliseconds);
            control.*delay.milliseconds = milliseconds;
            return parsed.ec == std::errc() && parsed.ptr == end;
        }
    return word.empty() || armFault(word, control);
}

} // namespace

void applyReferenceDecoderEnvironment(ReferenceDecoderControl& control) {
    char text[4096] = {};
    const DWORD length = GetEnvironmentVariableA("REFERENCE_DECODER", text, sizeof text);
    std::string_view words(text, length < sizeof text ? length : 0);
    while (!words.empty()) {
        const std::string_view word = words.substr(0, words.find(','));
        if (!apply(word, control)) {
            std::fprintf(stderr, "REFERENCE_DECODER: no such setting: %.*s\n", static_cast<int>(word.size()),
                         word.data());
            std::fflush(stderr);
            TerminateProcess(GetCurrentProcess(), 2);
        }
        words.remove_prefix(std::min(word.size() + 1, words.size()));
    }
}

bool referenceDecoderHas(ReferenceDecoderManners manners) {
    return referenceDecoderControl().manners & manners;
}
