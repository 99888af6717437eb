// A log of this process in a temporary profile, and its lines.
#pragma once

#include "EnvironmentVariable.h"
#include "TemporaryFolder.h"
#include "Utils/vdLogging.h"
#include "Utils/vdProduct.h"

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
        initLogging(level, "BRAW_Thumbnail.log", vdHostApp::desktop, productInfo().version);
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
    /// A text that does not end in CR LF keeps a last line with a "!" to fail comparisons by.
    static std::vector<std::string> split(std::string text) {
        std::vector<std::string> lines;
        if (!text.empty() && !text.ends_with("\r\n"))
            text += "!\r\n";
        for (std::size_t end; (end = text.find("\r\n")) != std::string::npos; text.erase(0, end + 2))
            lines.push_back(text.substr(0, end));
        return lines;
    }

    EnvironmentVariable m_profile{L"USERPROFILE", logHome().path().c_str()};
    std::size_t m_headerSize = 0;
};
