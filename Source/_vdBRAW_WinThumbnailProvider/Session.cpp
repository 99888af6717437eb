#include "Session.h"

#include "Utils/vdLogging.h"
#include "Utils/vdProduct.h"
#include "Utils/vdSettings.h"

// The handler logging switch: off in what users get, on in a build that is to tell its whole road.
#ifndef CLIPFORGE_HANDLER_LOGGING
#define CLIPFORGE_HANDLER_LOGGING 0
#endif

namespace {
constexpr bool handlerLogging = CLIPFORGE_HANDLER_LOGGING != 0;

[[maybe_unused]] void startLogging() noexcept {
    const ProcessWideLock lock;
    if (!lock)
        return;
    loadOptions();
    // A second start would move the running session's file aside.
    const bool started = g_logThreshold != vdLogLevel::off;
    if (!started && options().loggingLevel != vdLogLevel::off)
        initLogging(vdLogLevel::info, "BRAW_Thumbnail.log", vdHostApp::desktop, productInfo().version);
}
} // namespace

void startSession() noexcept {
    if constexpr (handlerLogging)
        startLogging();
}
