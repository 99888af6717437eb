// A log of this process in a temporary profile, and its lines.
#pragma once

#include <filesystem>
#include <string>
#include <vector>

#include "EnvironmentVariable.h"
#include "TemporaryFolder.h"
#include "Utils/vdLogging.h"

/// The profile of every log session here: the logger settles its folder once in a process.
inline const TemporaryFolder& logHome() {
    static const TemporaryFolder home;
    return home;
}

inline std::filesystem::path logPath(const char* name = "BRAW_Thumbnail.log") {
    return logHome().path() / "AppData/Roaming/Verdane/Clipforge/Logs" / name;
}

/// Starts a session and turns the log off again when it goes.
class LogSession {
public:
    explicit LogSession(vdLogLevel level) {
        initLogging(level, "BRAW_Thumbnail.log", vdHostApp::desktop, {3, 1, 5, 0});
        m_headerSize = readFileBytes(logPath()).size();
    }
    ~LogSession() { g_logThreshold = vdLogLevel::off; }
    LogSession(const LogSession&) = delete;
    LogSession& operator=(const LogSession&) = delete;

    std::vector<std::string> header() const {
        return split(readFileBytes(logPath()).substr(0, m_headerSize));
    }
    std::vector<std::string> lines() const { return split(readFileBytes(logPath()).substr(m_headerSize)); }

private:
    /// A line that does not end in CR LF keeps a "!" to fail comparisons by.
    static std::vector<std::string> split(const std::string& text) {
        std::vector<std::string> lines;
        for (std::size_t start = 0; start < text.size();) {
            const std::size_t end = text.find("\r\n", start);
            if (end == std::string::npos) {
                lines.push_back(text.substr(start) + "!");
                break;
            }
            lines.push_back(text.substr(start, end - start));
            start = end + 2;
        }
        return lines;
    }

    EnvironmentVariable m_profile{L"USERPROFILE", logHome().path().c_str()};
    std::size_t m_headerSize = 0;
};
