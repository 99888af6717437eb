#include "Utils/vdMutex.h"

#include <chrono>
#include <future>
#include <thread>

#include <gtest/gtest.h>

#include "LogSession.h"
#include "Utils/vdClock.h"

using namespace std::chrono_literals;

namespace {
/// The part of a line that starts with the function's name.
std::vector<std::string> functionsAndMessages(const LogSession& session) {
    std::vector<std::string> texts;
    for (const std::string& line : session.lines())
        texts.push_back(line.substr(line.find("| ") + 2));
    return texts;
}

template <class Mutex>
bool isFree(Mutex& mutex) {
    bool free = false;
    std::jthread([&] {
        free = mutex.try_lock();
        if (free)
            mutex.unlock();
    }).join();
    return free;
}

template <class Mutex>
void findInQueue(Mutex& mutex) {
    const vdLock lock(mutex, "QueueMutex", "FindInQueue");
}

/// Another thread holds the lock until this thread has told that it waits.
template <class Mutex>
std::vector<std::string> linesOfAContendedLock(Mutex& mutex, vdLogLevel level) {
    std::promise<void> held;
    const LogSession session(level);
    std::jthread holder([&] {
        while (!mutex.try_lock())
            ;
        held.set_value();
        const auto giveUp = std::chrono::steady_clock::now() + 10s;
        while (level <= vdLogLevel::info && session.lines().empty() &&
               std::chrono::steady_clock::now() < giveUp)
            std::this_thread::sleep_for(1ms);
        std::this_thread::sleep_for(20ms);
        mutex.unlock();
    });
    held.get_future().wait();
    findInQueue(mutex);
    holder.join();
    EXPECT_TRUE(isFree(mutex));
    return functionsAndMessages(session);
}

template <class Mutex>
void expectWaitLines(Mutex& mutex, const std::string& before, const std::string& after) {
    const std::string name = " MU" + std::to_string(reinterpret_cast<uintptr_t>(&mutex));
    EXPECT_EQ(before, "FindInQueue|" + name + " No try_lock QueueMutex Will wait for it !");
    const std::string start = "FindInQueue|" + name + " QueueMutex lock dt ";
    ASSERT_TRUE(after.starts_with(start) && after.ends_with(" us")) << after;
    EXPECT_GE(std::stoll(after.substr(start.size())), 1000) << "microseconds of a wait of 20 ms";
}
} // namespace

TEST(Mutex, UncontendedLockIsSilent) {
    vdMutex mutex;
    std::mutex plain;
    const LogSession session(vdLogLevel::info);
    findInQueue(mutex);
    findInQueue(plain);
    EXPECT_TRUE(session.lines().empty());
    g_logThreshold = vdLogLevel::trace;
    findInQueue(mutex);
    EXPECT_EQ(functionsAndMessages(session), std::vector<std::string>{"unlock|Mutex  unlocked"});
}

TEST(Mutex, ContendedLockTellsBeforeAndAfterTheWait) {
    vdMutex mutex;
    std::mutex plain;
    std::vector<std::string> lines = linesOfAContendedLock(mutex, vdLogLevel::info);
    ASSERT_EQ(lines.size(), 2u);
    expectWaitLines(mutex, lines[0], lines[1]);
    lines = linesOfAContendedLock(plain, vdLogLevel::info);
    ASSERT_EQ(lines.size(), 2u);
    expectWaitLines(plain, lines[0], lines[1]);
    EXPECT_TRUE(linesOfAContendedLock(plain, vdLogLevel::warn).empty());
}

TEST(Mutex, TraceShowsTheLockBetweenTheWaitLines) {
    vdMutex mutex;
    const LogSession session(vdLogLevel::trace);
    vdMutex named("Name");
    named.lock("caller");
    named.unlock();
    EXPECT_EQ(functionsAndMessages(session),
              (std::vector<std::string>{"lock|Mutex Name caller locked", "unlock|Mutex Name unlocked"}));

    std::vector<std::string> lines = linesOfAContendedLock(mutex, vdLogLevel::trace);
    ASSERT_GE(lines.size(), 4u);
    EXPECT_EQ(lines[1], "lock|Mutex   locked");
}

TEST(Mutex, HandedOverLockStaysTakenAndUnlocksOnce) {
    vdMutex mutex;
    {
        vdLock lock(mutex, "m");
        EXPECT_FALSE(isFree(mutex));
        EXPECT_EQ(lock.handOver(), &mutex);
        EXPECT_EQ(lock.handOver(), nullptr);
    }
    EXPECT_FALSE(isFree(mutex));
    mutex.unlock();
    vdLock lock(mutex, "m");
    lock.unlock();
    lock.unlock();
    EXPECT_TRUE(isFree(mutex));
}

TEST(Stopwatch, PausedLapsAreZeroButMoveOn) {
    vdStopwatch watch;
    EXPECT_EQ(watch.lap(), 0u);
    watch.start();
    std::this_thread::sleep_for(20ms);
    const uint64_t microseconds = watch.lapMicroseconds();
    EXPECT_GE(microseconds, 15'000u);
    EXPECT_LT(microseconds, 10'000'000u);
    watch.pause();
    std::this_thread::sleep_for(300ms);
    EXPECT_EQ(watch.lap(), 0u);
    watch.start();
    EXPECT_LT(watch.lap(), 250'000'000u) << "the pause must not be counted";
}

TEST(Clock, TicksBecomeNanosecondsWithoutOverflow) {
    EXPECT_EQ(ticksToNanoseconds(12'345'678'901, 10'000'000), 1'234'567'890'100);
    EXPECT_EQ(ticksToNanoseconds(7, 3), 2'333'333'333);
    EXPECT_EQ(ticksToNanoseconds(3'579'545LL * 3'000'000'000 / 100, 3'579'545), 30'000'000'000'000'000);
}
