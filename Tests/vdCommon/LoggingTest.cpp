#include "Utils/vdLogging.h"

#include <chrono>
#include <future>
#include <new>
#include <regex>
#include <sstream>
#include <tuple>

#include <gtest/gtest.h>

#include "Imports.h"
#include "LogSession.h"
#include "Utils/vdProduct.h"
#include "Utils/vdSessionHeader.h"

namespace {
/// Matches one line of `level` from the source file `stem`; `rest` is its function and message.
std::regex linePattern(const std::string& level, const std::string& stem, const std::string& rest) {
    return std::regex("\\d+\\|" + level + "\\|(\\d{5,}|(?=.{5}\\|)\\d+ +)\\|~(\\d |\\d\\d+)\\|" + stem +
                      "\\| " + rest);
}

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

TEST(Logging, TimesAreMicroseconds) {
    const LogSession session(vdLogLevel::info);
    VD_LOG_INFO("first");
    Sleep(100);
    VD_LOG_INFO("second");
    const int64_t between = std::stoll(session.lines().at(1)) - std::stoll(session.lines().at(0));
    EXPECT_GE(between, 90'000);
    EXPECT_LT(between, 90'000'000) << "nanoseconds";
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

decltype(&_wfopen) g_open;
std::atomic<int> g_openingNow = 0, g_mostOpening = 0;
DWORD g_errorMode = 0;

FILE* countingOpen(const wchar_t* path, const wchar_t* mode) {
    g_mostOpening = std::max(g_mostOpening.load(), ++g_openingNow);
    g_errorMode = GetThreadErrorMode();
    Sleep(1);
    --g_openingNow;
    return g_open(path, mode);
}

TEST(Logging, LinesOfManyThreadsAreWrittenOneAfterTheOther) {
    const LogSession session(vdLogLevel::info);
    const auto log25 = [] {
        for (int line = 0; line < 25; ++line)
            VD_LOG_AS(vdLogLevel::info, "f", std::string(200, 'x'));
    };
    {
        const ReplacedImport open("_wfopen", &countingOpen);
        ASSERT_TRUE(open);
        g_open = open.former();
        const std::jthread threads[] = {std::jthread(log25), std::jthread(log25), std::jthread(log25)};
    }
    EXPECT_EQ(g_mostOpening, 1) << "the file was opened by several threads at a time";
    EXPECT_EQ(g_errorMode & SEM_FAILCRITICALERRORS, DWORD{SEM_FAILCRITICALERRORS});
    EXPECT_EQ(session.lines().size(), 75u);
    for (const std::string& line : session.lines())
        EXPECT_TRUE(std::regex_match(line, linePattern("INFO", "LoggingTest    ", "f\\|x{200}"))) << line;
}

/// What the machine says of itself in the test of the header: no figure twice.
void WINAPI tellSystem(SYSTEM_INFO* info) {
    *info = {};
    info->dwOemId = 9;
    info->dwNumberOfProcessors = 24;
    info->dwPageSize = 4096;
    info->dwProcessorType = 8664;
    info->lpMinimumApplicationAddress = reinterpret_cast<void*>(0x10000);
    info->lpMaximumApplicationAddress = reinterpret_cast<void*>(0x7FFFFFFEFFFF);
    info->dwActiveProcessorMask = 16777215;
}
BOOL WINAPI tellMemory(MEMORYSTATUSEX* status) {
    constexpr DWORDLONG KB = 1024; // and a part of one, which is cut off
    *status = {status->dwLength, 37,    64 * KB + 1023, 32 * KB, 80 * KB, 40 * KB, 134217727 * KB,
               134217000 * KB,   5 * KB};
    return TRUE;
}
DWORD WINAPI tellDrives(DWORD size, LPWSTR roots) {
    constexpr wchar_t text[] = L"C:\\\0Q:\\\0";
    EXPECT_EQ(size, 260u);
    std::copy(std::begin(text), std::end(text), roots);
    return static_cast<DWORD>(std::size(text)) - 1;
}
BOOL WINAPI tellSpace(LPCWSTR root, PULARGE_INTEGER caller, PULARGE_INTEGER total,
                      PULARGE_INTEGER available) {
    EXPECT_EQ(caller, nullptr);
    EXPECT_NE(GetThreadErrorMode() & SEM_FAILCRITICALERRORS, 0u) << "a drive may have no medium";
    // Nobody waits for a drive that takes its time: another thread gets on with the log meanwhile.
    std::string folder;
    EXPECT_EQ(std::async(std::launch::async, [&] { return getLogFolder(folder); })
                  .wait_for(std::chrono::seconds(20)),
              std::future_status::ready);
    total->QuadPart = 500'000'000'000;
    available->QuadPart = 1'073'741'824;
    return root[0] == L'C';
}
bool g_isWorkstation = false;
BOOL WINAPI tellProductType(OSVERSIONINFOEXW* wanted, DWORD fields, DWORDLONG conditions) {
    if (fields != VER_PRODUCT_TYPE) { // Windows 10 SP1, which is asked for three numbers at once
        DWORDLONG expected = 0;
        for (const DWORD field :
             {DWORD{VER_MAJORVERSION}, DWORD{VER_MINORVERSION}, DWORD{VER_SERVICEPACKMAJOR}})
            expected = VerSetConditionMask(expected, field, VER_GREATER_EQUAL);
        EXPECT_EQ(conditions, expected);
        EXPECT_EQ(fields, DWORD{VER_MAJORVERSION | VER_MINORVERSION | VER_SERVICEPACKMAJOR});
        return std::tuple(10u, 0u, 1u) >=
               std::tuple(wanted->dwMajorVersion, wanted->dwMinorVersion, wanted->wServicePackMajor);
    }
    EXPECT_EQ(conditions, VerSetConditionMask(0, VER_PRODUCT_TYPE, VER_EQUAL));
    return g_isWorkstation && wanted->wProductType == VER_NT_WORKSTATION;
}

TEST(Logging, HeaderSaysWhatTheMachineSays) {
    const ReplacedImport system("GetSystemInfo", &tellSystem);
    const ReplacedImport memory("GlobalMemoryStatusEx", &tellMemory);
    const ReplacedImport drives("GetLogicalDriveStringsW", &tellDrives);
    const ReplacedImport space("GetDiskFreeSpaceExW", &tellSpace);
    const ReplacedImport type("VerifyVersionInfoW", &tellProductType);
    ASSERT_TRUE(system && memory && drives && space && type);
    EXPECT_FALSE(isWindowsVersionOrGreater(10, 0, 2));
    std::ostringstream processor;
    writeProcessor(processor, readCpuInfo());
    for (const bool isWorkstation : {false, true}) {
        g_isWorkstation = isWorkstation;
        EXPECT_TRUE(std::regex_match(windowsName(), std::regex("1[01] B\\d+"))) << windowsName();
        const std::string before = localDateTimeText();
        std::vector<std::string> lines = LogSession(vdLogLevel::info).header();
        ASSERT_GT(lines.size(), 2u);
        EXPECT_LE("Log creation DateTime : " + before, lines[1]);
        EXPECT_GE("Log creation DateTime : " + localDateTimeText(), lines[1]);
        lines.erase(lines.begin() + 1);
        std::string text;
        for (const std::string& line : lines)
            text += line + "\n";
        const std::string rule = std::string(68, '-') + "\n";
        EXPECT_EQ(
            text,
            rule + "Host and version : Desktop " + versionToString(productInfo().version) +
                "\nClipforge version " PRODUCT_VERSION " - BUILD " PRODUCT_BUILD "\n"
                "Architecture : Win\nHardware informations : \n     - System : \n"
                "         - OEM ID: 9\n         - Number of processors: 24\n         - Page size: 4096\n"
                "         - Processor type: 8664\n         - Minimum application address: 0x10000\n"
                "         - Maximum application address: 0x7ffffffeffff\n"
                "         - Active processor mask: 16777215\n" +
                processor.str() + "     - OS Version : \n        - Windows " + windowsName() +
                (isWorkstation ? " - Client\n" : " - Server\n") +
                "     - Memory : \n        - There is  37 percent of memory in use\n"
                "        - There are  64 total KB of physical memory\n"
                "        - There are  32 free  KB of physical memory\n"
                "        - There are  80 total KB of paging file\n"
                "        - There are  40 free  KB of paging file\n"
                "        - There are  134217727 total KB of virtual memory\n"
                "        - There are  134217000 free  KB of virtual memory\n"
                "        - There are  5 free  KB of extended memory\n"
                "    - Drive C:/ has :\n        - Bytes Total: 500000000000(465.661 GB)\n"
                "        - Bytes Available: 1073741824(1 GB)\n"
                "    - Drive Q:/ has :\n        - No answer from this drive\n" +
                rule);
    }
}

BOOL WINAPI failMemory(MEMORYSTATUSEX*) {
    throw std::bad_alloc();
}

TEST(Logging, HeaderThatStopsSaysSo) {
    const ReplacedImport memory("GlobalMemoryStatusEx", &failMemory);
    const std::vector<std::string> lines = LogSession(vdLogLevel::info).header();
    ASSERT_GT(lines.size(), 3u);
    EXPECT_EQ(lines[lines.size() - 2], "!! Stopped : Error happened !!");
    EXPECT_EQ(lines.back(), std::string(68, '-'));
    EXPECT_TRUE(lines[lines.size() - 3].starts_with("        - Windows ")) << "what was there is kept";
}
} // namespace
