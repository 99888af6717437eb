// The system's small lock and condition as types. They need no clean-up, so none is left behind on threads
// that outlive the library.
#pragma once

#include <windows.h>

namespace reference {

class Lock {
public:
    class Guard {
    public:
        explicit Guard(Lock& lock) : m_lock(lock) { AcquireSRWLockExclusive(&m_lock.m_lock); }
        ~Guard() { ReleaseSRWLockExclusive(&m_lock.m_lock); }
        Guard(const Guard&) = delete;
        Guard& operator=(const Guard&) = delete;

    private:
        Lock& m_lock;
    };

private:
    friend class Condition;
    SRWLOCK m_lock = SRWLOCK_INIT;
};

class Condition {
public:
    /// With `lock` held by the caller, who tests again afterwards what it waits for.
    void wait(Lock& lock) { SleepConditionVariableSRW(&m_condition, &lock.m_lock, INFINITE, 0); }
    void wakeOne() { WakeConditionVariable(&m_condition); }
    void wakeAll() { WakeAllConditionVariable(&m_condition); }

private:
    CONDITION_VARIABLE m_condition = CONDITION_VARIABLE_INIT;
};

} // namespace reference
