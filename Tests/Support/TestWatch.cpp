#include "TestWatch.h"
#include "Common.h"

#include <cstdio>
#include <cstdlib>

#include <gtest/gtest.h>

#include "ReferenceDecoderControl.h"

namespace {
/// What a test may take, on a machine that is busy with others.
constexpr ULONGLONG usualSeconds = 120;

constexpr UINT exitCodeOfHang = 4;

/// The test that runs, for the thread that watches. Static: the thread goes with the process, after the
/// listener.
struct {
    std::atomic<ULONGLONG> deadline{~0ull};
    ULONGLONG seconds = 0;
    char name[256] = {};
} g_test;

/// Watches one test after the other from a thread of its own.
class Watch : public testing::EmptyTestEventListener {
public:
    explicit Watch(ULONGLONG limit) : m_limit(limit) {}

    void begin() { CloseHandle(CreateThread(nullptr, 0, &Watch::run, nullptr, 0, nullptr)); }

    void OnTestStart(const testing::TestInfo& test) override {
        const std::string name = std::string(test.test_suite_name()) + "." + test.name();
        // A test in a process of its own ends before the one that waits for it does.
        g_test.seconds = m_limit * (name.find(".DISABLED_") == name.npos ? 4 : 3) / 4;
        std::snprintf(g_test.name, sizeof g_test.name, "%s", name.c_str());
        g_test.deadline = GetTickCount64() + g_test.seconds * 1000;
    }
    void OnTestEnd(const testing::TestInfo&) override { g_test.deadline = ~0ull; }

private:
    static DWORD WINAPI run(void*) {
        while (GetTickCount64() < g_test.deadline || IsDebuggerPresent())
            Sleep(100);
        endProgram();
        return 0;
    }

    /// Takes no memory and no lock: whoever hangs may hold it.
    static void endProgram() {
        char text[512];
        const int length = std::snprintf(
            text, sizeof text, "[  HANGS   ] %s: no end within %llu s; the decoder's latest call: %s\n",
            g_test.name, g_test.seconds, referenceDecoderLatestCall());
        DWORD written = 0;
        WriteFile(GetStdHandle(STD_OUTPUT_HANDLE), text, static_cast<DWORD>(length), &written, nullptr);
        TerminateProcess(GetCurrentProcess(), exitCodeOfHang);
    }

    const ULONGLONG m_limit;
};
} // namespace

void watchTests() {
    const char* const seconds = std::getenv("CLIPFORGE_TEST_SECONDS"); // for all tests; for trying the watch
    auto* const watch = new Watch(seconds ? std::strtoull(seconds, nullptr, 10) : usualSeconds);
    testing::UnitTest::GetInstance()->listeners().Append(watch); // owns it from now on
    watch->begin();
}
