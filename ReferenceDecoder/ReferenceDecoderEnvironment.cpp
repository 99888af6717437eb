#include <charconv>
#include <cstdio>
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
    MANNER(otherSuccessCodes),         MANNER(buffersNeedMore),      MANNER(reportsBeforeTurning),
};
#undef MANNER

struct Delay {
    std::string_view name;
    std::atomic<uint32_t> ReferenceDecoderControl::*milliseconds;
};
constexpr Delay kDelays[] = {
    {"jobDelay=", &ReferenceDecoderControl::jobDelayMilliseconds},
    {"readDelay=", &ReferenceDecoderControl::readDelayMilliseconds},
};

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
            const auto end = word.data() + word.size();
            const auto parsed = std::from_chars(word.data(), end, milliseconds);
            control.*delay.milliseconds = milliseconds;
            return parsed.ec == std::errc() && parsed.ptr == end;
        }
    return word.empty();
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
