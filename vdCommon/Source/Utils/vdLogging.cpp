#include "Utils/vdLogging.h"

#include <cstdint>
#include <fstream>
#include <locale>
#include <mutex>
#include <sstream>
#include <utility>

#include <windows.h>

#include "Utils/vdClock.h"
#include "Utils/vdErrorMode.h"
#include "Utils/vdPaths.h"
#include "Utils/vdProduct.h"
#include "Utils/vdSessionHeader.h"

namespace {
/// Everything but the start time is read and written under the lock.
struct vdLogger {
    std::mutex writing;
    std::string folder;
    std::string filePath;
    bool initialised = false;
    std::atomic<int64_t> startTime{0};
};

vdLogger g_logger;

constexpr std::string_view logExtension = ".log";
constexpr std::string_view lastSessionEnding = "_lastSession.log";

void appendPadded(std::string& line, std::string_view text, std::size_t width) {
    line += text;
    if (text.size() < width)
        line.append(width - text.size(), ' ');
}

/// Cut or padded to the width of the column.
void appendStem(std::string& line, std::string_view sourcePath) {
    constexpr std::size_t width = 15;
    const std::string_view name = sourcePath.substr(sourcePath.find_last_of("/\\") + 1);
    appendPadded(line, name.substr(0, name.rfind('.')).substr(0, width), width);
}

std::string composeLine(std::string_view message, vdLogLevel level, std::string_view sourcePath,
                        std::string_view functionName) {
    const int64_t elapsed = monotonicNanoseconds() - g_logger.startTime.load(std::memory_order_relaxed);
    const DWORD processor = GetCurrentProcessorNumber();
    std::string line = std::to_string(elapsed / 1000);
    line += '|';
    line += vdLogLevelNames[static_cast<int>(level)];
    line += '|';
    appendPadded(line, std::to_string(GetCurrentThreadId()), 5);
    line += "|~";
    appendPadded(line, std::to_string(processor), 2);
    line += '|';
    appendStem(line, sourcePath);
    line += "| ";
    line += functionName;
    line += '|';
    line += message;
    line += '\n';
    return line;
}

/// Failures are not reported: a session without its predecessor's file is better than no session.
void moveLastSessionAside(const std::string& filePath) {
    if (!fileExists(filePath))
        return;
    std::string lastSession = filePath.substr(0, filePath.size() - logExtension.size());
    lastSession += lastSessionEnding;
    removeFile(lastSession);
    moveFile(filePath, lastSession);
}

/// The header's lines. Composed before anything is locked: a drive may take long to answer.
std::string composeSessionHeader(std::string_view hostAndVersion) {
    const std::string rule(68, '-');
    std::ostringstream header;
    header.imbue(std::locale::classic());
    header << rule << "\n";
    try {
        header.exceptions(std::ios::badbit | std::ios::failbit);
        writeSessionHeaderBody(header, hostAndVersion);
    } catch (...) {
        header.exceptions(std::ios::goodbit);
        header.clear();
        header << "!! Stopped : Error happened !!\n";
    }
    header << rule << "\n";
    return std::move(header).str();
}

void writeSessionHeader(std::string_view header) {
    moveLastSessionAside(g_logger.filePath);
    std::ofstream stream;
    openOutputStream(stream, g_logger.filePath, std::ios::trunc);
    stream << header;
}
} // namespace

vdStatus getLogFolder(std::string& folder) {
    {
        const std::lock_guard lock(g_logger.writing);
        if (folder = g_logger.folder; !folder.empty())
            return {};
    }
    VD_LOG_INFO("Log folder not set yet");
    std::string found;
    if (const vdStatus status = getProductLogsFolder(found, productInfo().logSubFolder); status.failed) {
        VD_LOG_ERROR(status.text());
        return status;
    }
    VD_LOG_INFO("Log folder exists now");
    folder = found;
    const std::lock_guard lock(g_logger.writing);
    g_logger.folder = std::move(found);
    return {};
}

void initLogging(vdLogLevel level, std::string_view fileName, vdHostApp hostApp, vdVersion version) noexcept {
    const vdQuietErrors quiet;
    try {
        std::string folder;
        getLogFolder(folder);
        const std::string header =
            composeSessionHeader(hostAppName(hostApp) + " " + versionToString(version));
        const std::lock_guard lock(g_logger.writing);
        g_logger.filePath = joinPath(folder, fileName);
        g_logger.initialised = true;
        g_logThreshold = level;
        writeSessionHeader(header);
    } catch (...) {
        // Out of memory: the session goes on with whatever of the log stands.
    }
    g_logger.startTime = monotonicNanoseconds();
}

void writeLog(std::string_view message, vdLogLevel level, std::string_view sourcePath,
              std::string_view functionName) noexcept {
    if (!vdLogs(level))
        return;
    try {
        const std::string line = composeLine(message, level, sourcePath, functionName);
        const vdQuietErrors quiet;
        const std::lock_guard lock(g_logger.writing);
        if (!g_logger.initialised)
            return;
        std::ofstream stream;
        openOutputStream(stream, g_logger.filePath, std::ios::app);
        stream << line;
    } catch (...) {
        // The line is lost; the caller has its own work to do.
    }
}

void vdLogDetail::writeComposed(vdLogLevel level, const char* sourcePath, const char* functionName,
                                Compose compose, void* captures) noexcept {
    try {
        std::ostringstream stream;
        stream.imbue(std::locale::classic());
        compose(stream, captures);
        writeLog(stream.view(), level, sourcePath, functionName);
    } catch (...) {
        // As above.
    }
}
