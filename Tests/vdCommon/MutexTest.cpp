#include "Utils/vdMutex.h"

#include <chrono>
#include <future>

#include <gtest/gtest.h>

#include "LogSession.h"
#include "Utils/vdClock.h"

using namespace std::chrono_literals;

namespace {
/// The part of each line that starts with the function's name.
std::vector<std::string> functionsAndMessages(const LogSession& session) {
    std::vector<std::string> texts;
    for (const std::string& line : session.lines())
        texts.push_back(line.substr(line.find("| ") + 2));
    return texts;
}

/// Locks once while another thread holds the lock for 50 ms, and once more when it is free.
template <class Mutex>
std::vector<std::string> linesOfAContendedLock(vdLogLevel level, std::string& name) {
    Mutex mutex;
    name = " MU" + std::to_string(reinterpret_cast<uintptr_t>(&mutex));
    std::promise<void> held;
    const LogSession session(level);
    std::jthread holder([&] {
        mutex.lock();
        held.set_value();
        std::this_thread::sleep_for(50ms);
        mutex.unlock();
    });
    held.get_future().wait();
    for (int i = 0; i < 2; ++i)
        const vdLock lock(mutex, "QueueMutex", "FindInQueue");
    return functionsAndMessages(session);
}
} // namespace

TEST(Mutex, OnlyAContendedLockTellsBeforeAndAfterTheWait) {
    std::string name;
    for (const auto contend : {&linesOfAContendedLock<vdMutex>, &linesOfAContendedLock<std::mutex>}) {
        const std::vector<std::string> lines = contend(vdLogLevel::info, name);
        ASSERT_EQ(lines.size(), 2u);
        EXPECT_EQ(lines[0], "FindInQueue|" + name + " No try_lock QueueMutex Will wait for it !");
        const std::string start = "FindInQueue|" + name + " QueueMutex lock dt ";
        ASSERT_TRUE(lines[1].starts_with(start) && lines[1].ends_with(" us")) << lines[1];
        EXPECT_GE(std::stoll(lines[1].substr(start.size())), 1000) << "microseconds of a wait of 50 ms";
        EXPECT_TRUE(contend(vdLogLevel::warn, name).empty());
    }
}

TEST(Mutex, HandedOverLockStaysTaken) {
    vdMutex mutex;
    {
        vdLock lock(mutex, "m");
        EXPECT_EQ(lock.handOver(), &mutex);
        EXPECT_EQ(lock.handOver(), nullptr);
    }
    EXPECT_FALSE(std::async(std::launch::async, [&] { return mutex.try_lock(); }).get());
    mutex.unlock();
}

TEST(Stopwatch, PausedLapsAreZeroButMoveOnAndTicksDoNotOverflow) {
    vdStopwatch watch;
    watch.start();
    std::this_thread::sleep_for(20ms);
    EXPECT_GE(watch.lapMicroseconds(), 15'000u);
    watch.pause();
    std::this_thread::sleep_for(300ms);
    EXPECT_EQ(watch.lap(), 0u);
    watch.start();
    EXPECT_LT(watch.lap(), 250'000'000u) << "the pause must not be counted";
    // Of a machine that has run for long: no overflow.
    EXPECT_EQ(ticksToNanoseconds(3'579'545LL * 3'000'000'000 / 100, 3'579'545), 30'000'000'000'000'000);
}
