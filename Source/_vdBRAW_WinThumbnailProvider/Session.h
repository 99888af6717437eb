// What the first object of a process starts, and what all objects of a process share.
#pragma once

#include <windows.h>

/// There is one decode manager, one options record and one log in the process, and the shell's apartments all
/// share them. A lock without constructor and destructor works at any moment of the module's life.
inline SRWLOCK g_processWideState = SRWLOCK_INIT;

class ProcessWideLock {
public:
    ProcessWideLock() noexcept { AcquireSRWLockExclusive(&g_processWideState); }
    ~ProcessWideLock() { ReleaseSRWLockExclusive(&g_processWideState); }
    ProcessWideLock(const ProcessWideLock&) = delete;
    ProcessWideLock& operator=(const ProcessWideLock&) = delete;
};

/// Called before each object is made, on any thread: fills the product's identity, and in a build that is to
/// tell its whole road reads the settings and starts the log. May throw std::bad_alloc.
void startSession();
