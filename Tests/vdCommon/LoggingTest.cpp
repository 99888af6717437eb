#include "Utils/vdLogging.h"

#include <locale>
#include <regex>
#include <stdexcept>
#include <thread>

#include <gtest/gtest.h>

#include "LogSession.h"

namespace {
const std::string rule(68, '-');

/// Matches one line of `level` and message that this file logs from `function`.
std::regex linePattern(const std::string& level, const std::string& stem, const std::string& rest) {
    return std::regex("\\d+\\|" + level + "\\|(\\d{5,}|(?=.{5}\\|)\\d+ +)\\|~(\\d |\\d\\d+)\\|" + stem +
                      "\\| " + rest);
}

struct GroupedThousands : std::numpunct<char> {
    char do_thousands_sep() const override { return '.'; }
    std::string do_grouping() const override { return "\3"; }
};

struct GlobalLocale {
    std::locale former{std::locale::global(std::locale(std::locale::classic(), new GroupedThousands))};
    ~GlobalLocale() { std::locale::global(former); }
};

struct Unprintable {
    friend std::ostream& operator<<(std::ostream&, const Unprintable&) {
        throw std::runtime_error("no text");
    }
};
/// What holds before any session, checked before any test: there is no way back from a session.
class BeforeAnySession : public testing::Environment {
    void SetUp() override {
        const EnvironmentVariable profile(L"USERPROFILE", logHome().path().c_str());
        VD_LOG_ERROR("off");
        g_logThreshold = vdLogLevel::trace;
        VD_LOG_ERROR("no file yet");
        g_logThreshold = vdLogLevel::off;
        EXPECT_TRUE(std::filesystem::is_empty(logHome().path())) << "a line was written without a session";

        const EnvironmentVariable none(L"USERPROFILE", nullptr);
        std::string folder = "former";
        EXPECT_EQ(getLogFolder(folder).failed, 1);
        EXPECT_EQ(folder, "");
    }
};

const testing::Environment* const beforeAnySession = testing::AddGlobalTestEnvironment(new BeforeAnySession);
} // namespace

TEST(Logging, LineShowsTimeLevelThreadProcessorSourceAndFunction) {
    const LogSession session(vdLogLevel::info);
    const struct {
        const char* source;
        const char* stem;
    } table[] = {
        {"C:\\src\\Source\\Manager\\Manager.cpp", "Manager        "},
        {"Source/Manager/Instance", "Instance       "},
        {"a/b\\ABCDEFGHIJKLMNOPQRST.x.cpp", "ABCDEFGHIJKLMNO"},
        {"Fifteen_letters.h", "Fifteen_letters"},
        {"", "               "},
    };
    for (const auto& row : table)
        writeLog("Releasing | all", vdLogLevel::info, row.source, "Release");
    VD_LOG_AS(vdLogLevel::error, "given", "e" << 1);
    const std::vector<std::string> lines = session.lines();
    ASSERT_EQ(lines.size(), std::size(table) + 1);
    for (std::size_t i = 0; i < std::size(table); ++i)
        EXPECT_TRUE(
            std::regex_match(lines[i], linePattern("INFO", table[i].stem, "Release\\|Releasing \\| all")))
            << lines[i];
    EXPECT_TRUE(std::regex_match(lines.back(), linePattern("ERR", "LoggingTest    ", "given\\|e1")))
        << lines.back();
    std::string thread = std::to_string(GetCurrentThreadId());
    thread.resize(std::max<std::size_t>(thread.size(), 5), ' ');
    EXPECT_NE(lines[0].find("|INFO|" + thread + "|~"), std::string::npos) << lines[0];
    EXPECT_LT(std::stoll(lines[0]), 60'000'000)
        << "time must count from the session's start, in microseconds";
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

TEST(Logging, MessageThatCannotBeBuiltOrWrittenCostsTheLineAlone) {
    const GlobalLocale grouped;
    const LogSession session(vdLogLevel::info);
    VD_LOG_INFO("lost" << Unprintable());
    const HANDLE taken =
        CreateFileW(logPath().c_str(), GENERIC_READ, FILE_SHARE_READ, nullptr, OPEN_EXISTING, 0, nullptr);
    VD_LOG_INFO("lost too");
    CloseHandle(taken);
    VD_LOG_INFO(1234567);
    const std::vector<std::string> lines = session.lines();
    ASSERT_EQ(lines.size(), 1u);
    EXPECT_TRUE(lines[0].ends_with("|1234567")) << "the process's locale must not show: " << lines[0];
}

TEST(Logging, SecondSessionKeepsTheFirstAside) {
    writeFileBytes(logPath("BRAW_Thumbnail_lastSession.log"), "older");
    std::string first;
    {
        const LogSession session(vdLogLevel::info);
        VD_LOG_INFO("first");
        first = readFileBytes(logPath());
    }
    const LogSession session(vdLogLevel::info);
    EXPECT_EQ(readFileBytes(logPath("BRAW_Thumbnail_lastSession.log")), first);
    EXPECT_TRUE(session.lines().empty());
}

TEST(Logging, LinesOfManyThreadsStayWhole) {
    constexpr int threadCount = 4;
    constexpr int linesEach = 25;
    const LogSession session(vdLogLevel::info);
    {
        std::vector<std::jthread> threads;
        for (int i = 0; i < threadCount; ++i)
            threads.emplace_back([] {
                for (int line = 0; line < linesEach; ++line)
                    VD_LOG_AS(vdLogLevel::info, "f", std::string(200, 'x'));
            });
    }
    const std::regex pattern = linePattern("INFO", "LoggingTest    ", "f\\|x{200}");
    const std::vector<std::string> lines = session.lines();
    EXPECT_EQ(lines.size(), static_cast<std::size_t>(threadCount * linesEach));
    for (const std::string& line : lines)
        EXPECT_TRUE(std::regex_match(line, pattern)) << line;
}

TEST(Logging, HeaderDescribesTheMachineLineByLine) {
    const LogSession session(vdLogLevel::info);
    std::vector<std::string> expected = {
        rule,
        "Log creation DateTime : \\d{4}-\\d\\d-\\d\\d \\d\\d:\\d\\d:\\d\\d",
        "Host and version : Desktop 3\\.1\\.5",
        "Clipforge version 3\\.1\\.5 - BUILD 552",
        "Architecture : Win",
        "Hardware informations : ",
        "     - System : ",
    };
    for (const char* figure :
         {"OEM ID: \\d+", "Number of processors: [1-9]\\d*", "Page size: 4096", "Processor type: \\d+",
          "Minimum application address: (0x)?[0-9a-f]+", "Maximum application address: (0x)?[0-9a-f]+",
          "Active processor mask: [1-9]\\d*", "CPU vendor : .{12}", "CPU Brand String : [^\\0]*",
          "Cores number : \\d+", "Logical cores number : \\d+", "Is CPU Hyper threaded : [01]", "SSE : 1",
          "SSE2 : 1", "SSE3 : [01]", "SSE41 : [01]", "SSE42 : [01]", "AVX : [01]", "AVX2 : [01]"})
        expected.push_back(std::string(9, ' ') + "- " + figure);
    expected.insert(expected.end(),
                    {"     - OS Version : ", "        - Windows .+ - (Client|Server)",
                     "     - Memory : ", "        - There is  \\d+ percent of memory in use"});
    for (const char* figure :
         {"total KB of physical memory", "free  KB of physical memory", "total KB of paging file",
          "free  KB of paging file", "total KB of virtual memory", "free  KB of virtual memory",
          "free  KB of extended memory"})
        expected.push_back(std::string("        - There are  \\d+ ") + figure);
    const std::vector<std::string> lines = session.header();
    ASSERT_GT(lines.size(), expected.size() + 1);
    for (std::size_t i = 0; i < expected.size(); ++i)
        EXPECT_TRUE(std::regex_match(lines[i], std::regex(expected[i])))
            << lines[i] << "\nis not " << expected[i];
    const std::regex drive("    - Drive [A-Z]:/ has :"
                           "|        - Bytes (Total|Available): \\d+\\([0-9.e+]+ GB\\)"
                           "|        - No answer from this drive");
    for (std::size_t i = expected.size(); i + 1 < lines.size(); ++i)
        EXPECT_TRUE(std::regex_match(lines[i], drive)) << lines[i];
    EXPECT_EQ(lines.back(), rule);
}
