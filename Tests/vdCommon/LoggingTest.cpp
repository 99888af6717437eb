#include "Utils/vdLogging.h"

#include <regex>
#include <thread>

#include <gtest/gtest.h>

#include "LogSession.h"

namespace {
/// Matches one line of `level` from the source file `stem`; `rest` is its function and message.
std::regex linePattern(const std::string& level, const std::string& stem, const std::string& rest) {
    return std::regex("\\d+\\|" + level + "\\|(\\d{5,}|(?=.{5}\\|)\\d+ +)\\|~(\\d |\\d\\d+)\\|" + stem +
                      "\\| " + rest);
}
} // namespace

TEST(Logging, LineShowsTimeLevelThreadProcessorSourceAndFunction) {
    const LogSession session(vdLogLevel::trace);
    const struct {
        vdLogLevel level;
        const char *name, *source, *stem;
    } table[] = {{vdLogLevel::trace, "TRACE", "C:\\src\\Manager.cpp", "Manager        "},
                 {vdLogLevel::debug, "DEBUG", "a/b\\ABCDEFGHIJKLMNOPQRST.x.cpp", "ABCDEFGHIJKLMNO"},
                 {vdLogLevel::info, "INFO", "Source/Instance", "Instance       "},
                 {vdLogLevel::warn, "WARN", "Clip.h", "Clip           "},
                 {vdLogLevel::error, "ERR", "", "               "}};
    std::string thread = std::to_string(GetCurrentThreadId());
    thread.resize(std::max<std::size_t>(thread.size(), 5), ' ');
    for (const auto& row : table) {
        writeLog("Releasing | all", row.level, row.source, "Release");
        const std::string line = session.lines().back();
        EXPECT_TRUE(std::regex_match(line, linePattern(row.name, row.stem, "Release\\|Releasing \\| all")))
            << line;
        EXPECT_NE(line.find("|" + thread + "|~"), std::string::npos) << line;
        EXPECT_LT(std::stoll(line), 60'000'000) << "microseconds since the session's start";
    }
}

TEST(Logging, ThresholdDecidesAndSuppressedMessagesAreNotBuilt) {
    for (int threshold = 0; threshold <= 5; ++threshold) {
        const LogSession session(static_cast<vdLogLevel>(threshold));
        int built = 0;
        for (int level = 0; level <= 4; ++level)
            VD_LOG_AS(static_cast<vdLogLevel>(level), "f", ++built);
        EXPECT_EQ(built, 5 - threshold);
        EXPECT_EQ(session.lines().size(), static_cast<std::size_t>(built));
    }
}

TEST(Logging, FileThatIsTakenCostsTheLineAlone) {
    const LogSession session(vdLogLevel::info);
    const HANDLE taken =
        CreateFileW(logPath().c_str(), GENERIC_READ, FILE_SHARE_READ, nullptr, OPEN_EXISTING, 0, nullptr);
    VD_LOG_INFO("lost");
    CloseHandle(taken);
    VD_LOG_INFO("kept");
    ASSERT_EQ(session.lines().size(), 1u);
    EXPECT_TRUE(session.lines()[0].ends_with("|kept"));
}

TEST(Logging, SecondSessionKeepsTheFirstAside) {
    writeFileBytes(logPath("BRAW_Thumbnail_lastSession.log"), "older");
    { const LogSession session(vdLogLevel::info); }
    VD_LOG_ERROR("after the session");
    const std::string first = readFileBytes(logPath());
    const LogSession session(vdLogLevel::info);
    EXPECT_EQ(readFileBytes(logPath("BRAW_Thumbnail_lastSession.log")), first);
    EXPECT_EQ(first.find("after"), std::string::npos);
    EXPECT_TRUE(session.lines().empty());
}

TEST(Logging, LinesOfManyThreadsStayWhole) {
    const LogSession session(vdLogLevel::info);
    const auto log25 = [] {
        for (int line = 0; line < 25; ++line)
            VD_LOG_AS(vdLogLevel::info, "f", std::string(200, 'x'));
    };
    { const std::jthread threads[] = {std::jthread(log25), std::jthread(log25), std::jthread(log25)}; }
    EXPECT_EQ(session.lines().size(), 75u);
    for (const std::string& line : session.lines())
        EXPECT_TRUE(std::regex_match(line, linePattern("INFO", "LoggingTest    ", "f\\|x{200}"))) << line;
}

TEST(Logging, HeaderDescribesTheMachineLineByLine) {
    const struct {
        int lines;
        const char* pattern;
    } table[] = {
        {1, "-{68}"},
        {1, "Log creation DateTime : \\d{4}-\\d\\d-\\d\\d \\d\\d:\\d\\d:\\d\\d"},
        {2, "Host and version : Desktop 3\\.1\\.5|Clipforge version 3\\.1\\.5 - BUILD 552"},
        {3, "Architecture : Win|Hardware informations : | {5}- System : "},
        {4, " {9}- (OEM ID|Number of processors|Page size|Processor type): \\d+"},
        {2, " {9}- M(in|ax)imum application address: (0x)?[0-9a-f]+"},
        {1, " {9}- Active processor mask: [1-9]\\d*"},
        {2, " {9}- CPU (vendor : .{12}|Brand String : [^\\0]*)"},
        {2, " {9}- (C|Logical c)ores number : \\d+"},
        {8, " {9}- (Is CPU Hyper threaded|SSE|SSE2|SSE3|SSE41|SSE42|AVX|AVX2) : [01]"},
        {2, " {5}- OS Version : | {8}- Windows .+ - (Client|Server)"},
        {2, " {5}- Memory : | {8}- There is  \\d+ percent of memory in use"},
        {6, " {8}- There are  \\d+ (total|free ) KB of (physical memory|paging file|virtual memory)"},
        {1, " {8}- There are  \\d+ free  KB of extended memory"},
    };
    std::vector<std::string> lines = LogSession(vdLogLevel::info).header(), expected;
    for (const auto& [count, pattern] : table)
        expected.resize(expected.size() + static_cast<std::size_t>(count), pattern);
    ASSERT_GT(lines.size(), expected.size() + 1);
    expected.resize(lines.size() - 1, " {4}- Drive [A-Z]:/ has :"
                                      "| {8}- Bytes (Total|Available): \\d+\\([0-9.e+]+ GB\\)"
                                      "| {8}- No answer from this drive");
    expected.push_back("-{68}");
    for (std::size_t i = 0; i < expected.size(); ++i)
        EXPECT_TRUE(std::regex_match(lines[i], std::regex(expected[i])))
            << lines[i] << " not " << expected[i];
}
