#include "TestWatch.h"

#include <atomic>
#include <cstdio>
#include <cstdlib>
#include <string>
#include <string_view>

#include <gtest/gtest.h>
#include <windows.h>

#include "ReferenceDecoderControl.h"

namespace {
/// Seconds that a test may take, on a machine that is busy with others. The first row whose text begins the
/// test's full name counts.
constexpr struct {
    std::string_view begins;
    ULONGLONG seconds;
} limits[] = {
    {"", 120},
};

constexpr UINT exitCodeOfHang = 4;

/// Watches one test after the other from a thread of its own.
class Watch : public testing::EmptyTestEventListener {
public:
    explicit Watch(ULONGLONG secondsForAll) : m_secondsForAll(secondsForAll) {}

    void begin() { CloseHandle(CreateThread(nullptr, 0, &Watch::run, this, 0, nullptr)); }

    void OnTestStart(const testing::TestInfo& test) override {
        const std::string name = std::string(test.test_suite_name()) + "." + test.name();
        // A test in a process of its own ends before the one that waits for it does.
        const ULONGLONG seconds = secondsFor(name) * (name.find(".DISABLED_") == name.npos ? 4 : 3) / 4;
        std::snprintf(m_name, sizeof m_name, "%s", name.c_str());
        m_seconds = seconds;
        m_deadline = GetTickCount64() + seconds * 1000;
    }
    void OnTestEnd(const testing::TestInfo&) override { m_deadline = never; }

private:
    static constexpr ULONGLONG never = ~0ull;

    ULONGLONG secondsFor(std::string_view name) const {
        if (m_secondsForAll != 0)
            return m_secondsForAll;
        for (const auto& [begins, seconds] : limits)
            if (name.substr(0, begins.size()) == begins)
                return seconds;
        return never / 1000;
    }

    static DWORD WINAPI run(void* self) {
        auto& watch = *static_cast<Watch*>(self);
        while (GetTickCount64() < watch.m_deadline || IsDebuggerPresent())
            Sleep(100);
        watch.endProgram();
        return 0;
    }

    /// Takes no memory and no lock: whoever hangs may hold it.
    void endProgram() {
        char text[512];
        const int length = std::snprintf(
            text, sizeof text, "[  HANGS   ] %s: no end within %llu s; the decoder's latest call: %s\n",
            m_name, m_seconds, referenceDecoderLatestCall());
        DWORD written = 0;
        WriteFile(GetStdHandle(STD_OUTPUT_HANDLE), text, static_cast<DWORD>(length), &written, nullptr);
        TerminateProcess(GetCurrentProcess(), exitCodeOfHang);
    }

    ULONGLONG m_secondsForAll;
    std::atomic<ULONGLONG> m_deadline{never};
    ULONGLONG m_seconds = 0;
    char m_name[256] = {};
};
} // namespace

void watchTests() {
    const char* const seconds = std::getenv("CLIPFORGE_TEST_SECONDS"); // for all tests; for trying the watch
    auto* const watch = new Watch(seconds == nullptr ? 0 : std::strtoull(seconds, nullptr, 10));
    testing::UnitTest::GetInstance()->listeners().Append(watch); // owns it from now on
    watch->begin();
}
