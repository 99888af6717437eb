#include "TestWatch.h"

#include <atomic>
#include <cstdio>
#include <cstdlib>
#include <string>

#include <gtest/gtest.h>
#include <windows.h>

#include "ReferenceDecoderControl.h"

namespace {
/// What a test may take, on a machine that is busy with others.
constexpr ULONGLONG usualSeconds = 120;

constexpr UINT exitCodeOfHang = 4;

/// Watches one test after the other from a thread of its own.
class Watch : public testing::EmptyTestEventListener {
public:
    explicit Watch(ULONGLONG limit) : m_limit(limit) {}

    void begin() { CloseHandle(CreateThread(nullptr, 0, &Watch::run, this, 0, nullptr)); }

    void OnTestStart(const testing::TestInfo& test) override {
        const std::string name = std::string(test.test_suite_name()) + "." + test.name();
        // A test in a process of its own ends before the one that waits for it does.
        m_seconds = m_limit * (name.find(".DISABLED_") == name.npos ? 4 : 3) / 4;
        std::snprintf(m_name, sizeof m_name, "%s", name.c_str());
        m_deadline = GetTickCount64() + m_seconds * 1000;
    }
    void OnTestEnd(const testing::TestInfo&) override { m_deadline = never; }

private:
    static constexpr ULONGLONG never = ~0ull;

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

    const ULONGLONG m_limit;
    std::atomic<ULONGLONG> m_deadline{never};
    ULONGLONG m_seconds = 0;
    char m_name[256] = {};
};
} // namespace

void watchTests() {
    const char* const seconds = std::getenv("CLIPFORGE_TEST_SECONDS"); // for all tests; for trying the watch
    auto* const watch = new Watch(seconds ? std::strtoull(seconds, nullptr, 10) : usualSeconds);
    testing::UnitTest::GetInstance()->listeners().Append(watch); // owns it from now on
    watch->begin();
}
