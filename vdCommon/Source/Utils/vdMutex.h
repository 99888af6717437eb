// The logged lock, the discipline with which every lock is taken, and the lap stopwatch.
#pragma once

#include <cstdint>
#include <mutex>
#include <string>
#include <string_view>
#include <utility>

#include <windows.h>

#include "Utils/vdClock.h"

/// A named lock over one critical section. Not recursive in use; neither copied nor moved.
class vdMutex {
public:
    explicit vdMutex(std::string name = {});
    ~vdMutex();
    vdMutex(const vdMutex&) = delete;
    vdMutex& operator=(const vdMutex&) = delete;

    /// Blocks until owned. Writes a trace line before it asks.
    void lock(std::string_view caller = {}) noexcept;
    /// Takes the lock if it is free; writes nothing.
    bool try_lock() noexcept;
    /// Writes a trace line, then releases.
    void unlock() noexcept;

private:
    std::string m_name;
    CRITICAL_SECTION m_criticalSection;
};

namespace vdLockDetail {
/// Writes the line before and the line after a wait; `wait` does the blocking.
void logWait(const void* mutex, const char* label, const char* function, const char* file,
             void (*wait)(void* mutex), void* waitArgument) noexcept;
} // namespace vdLockDetail

/// Owns a vdMutex or a std::mutex for a scope, and tells the log when it had to wait: the lock is tried
/// first, and only when another thread holds it are two lines written, with the lock's address, `label` and
/// the time waited. Function and file are those of the site.
template <class Mutex>
class vdLock {
public:
    vdLock(Mutex& mutex, const char* label, const char* function = __builtin_FUNCTION(),
           const char* file = __builtin_FILE())
        : m_mutex(&mutex) {
        if (!mutex.try_lock())
            vdLockDetail::logWait(
                &mutex, label, function, file, [](void* m) { static_cast<Mutex*>(m)->lock(); }, &mutex);
    }
    ~vdLock() { unlock(); }
    vdLock(const vdLock&) = delete;
    vdLock& operator=(const vdLock&) = delete;

    /// Releases now; a second call does nothing.
    void unlock() {
        if (Mutex* mutex = handOver())
            mutex->unlock();
    }
    /// Leaves the lock taken: whoever is told of it now unlocks it. Null when it was released before.
    Mutex* handOver() { return std::exchange(m_mutex, nullptr); }

private:
    Mutex* m_mutex;
};

/// Measures laps on the monotonic clock. Paused at first: laps give 0 until start().
class vdStopwatch {
public:
    /// Nanoseconds since the previous lap, 0 when paused; starts the next lap either way.
    uint64_t lap() noexcept;
    /// The lap in whole microseconds.
    uint64_t lapMicroseconds() noexcept { return lap() / 1000; }
    /// Begins a measurement here.
    void start() noexcept {
        lap();
        m_paused = false;
    }
    void pause() noexcept { m_paused = true; }

private:
    bool m_paused = true;
    int64_t m_last = 0;
};
