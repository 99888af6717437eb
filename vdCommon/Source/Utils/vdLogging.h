// The process-wide text log.
//
// Off until the session's owner calls initLogging. Each line is appended to the file by an open, write and
// close of its own, so the file on disk is complete after every line. Any thread may log.
#pragma once

#include <atomic>
#include <ostream>
#include <string>
#include <string_view>
#include <type_traits>

#include "Adobe/vdHostApp.h"
#include "Utils/vdStatus.h"
#include "Utils/vdVersion.h"

enum class vdLogLevel : int {
    trace = 0,
    debug = 1,
    info = 2,
    warn = 3,
    error = 4,
    off = 5,
};

/// The names of the levels, indexed by their value, as the lines and the settings file show them.
inline constexpr std::string_view vdLogLevelNames[] = {"TRACE", "DEBUG", "INFO",
                                                       "WARN",  "ERR",   "DESACTIVATED"};

/// A line of level L is written when L is at least this. Written by initLogging alone.
inline std::atomic<vdLogLevel> g_logThreshold{vdLogLevel::off};

inline bool vdLogs(vdLogLevel level) {
    return level >= g_logThreshold.load(std::memory_order_relaxed);
}

/// Starts the log: settles the folder, moves the previous session's file aside, writes the header. `fileName`
/// has no folder and ends in ".log". To be called before other threads log; a failure shows as a log without
/// a file, never as an exception.
void initLogging(vdLogLevel level, std::string_view fileName, vdHostApp hostApp, vdVersion version) noexcept;

/// Writes one line. `sourcePath` is the caller's source file; its stem stands in the line. A line that cannot
/// be written, for lack of the file or of memory, is lost and nothing else happens.
void writeLog(std::string_view message, vdLogLevel level, std::string_view sourcePath,
              std::string_view functionName) noexcept;

/// The log folder, created on the first call.
vdStatus getLogFolder(std::string& folder);

namespace vdLogDetail {
/// Builds the message with `compose` and writes it; what goes wrong in between costs the line alone.
using Compose = void (*)(std::ostream& stream, void* captures);
void writeComposed(vdLogLevel level, const char* sourcePath, const char* functionName, Compose compose,
                   void* captures) noexcept;

template <class F>
void compose(vdLogLevel level, const char* sourcePath, const char* functionName, F&& message) noexcept {
    writeComposed(
        level, sourcePath, functionName,
        [](std::ostream& stream, void* captures) {
            (*static_cast<std::remove_reference_t<F>*>(captures))(stream);
        },
        &message);
}
} // namespace vdLogDetail

/// A log line: the level's test comes first, and only when the line passes is its message built, as a stream
/// expression: VD_LOG_INFO("Closing " << name). VD_LOG_AS names the function where the compiler's own name
/// for it is not the one that the line shows, VD_LOG_FROM the source file as well.
#define VD_LOG_FROM(level, sourcePath, functionName, message)                                                \
    do {                                                                                                     \
        if (vdLogs(level)) [[unlikely]]                                                                      \
            vdLogDetail::compose(level, sourcePath, functionName,                                            \
                                 [&](std::ostream& vdLogStream) { vdLogStream << message; });                \
    } while (false)
#define VD_LOG_AS(level, functionName, message) VD_LOG_FROM(level, __FILE__, functionName, message)
#define VD_LOG_TRACE(message) VD_LOG_AS(vdLogLevel::trace, __func__, message)
#define VD_LOG_INFO(message) VD_LOG_AS(vdLogLevel::info, __func__, message)
#define VD_LOG_WARN(message) VD_LOG_AS(vdLogLevel::warn, __func__, message)
#define VD_LOG_ERROR(message) VD_LOG_AS(vdLogLevel::error, __func__, message)
