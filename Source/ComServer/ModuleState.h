// What keeps the whole module loaded.
#pragma once

#include <windows.h>

/// Everything that needs the module to stay loaded: class factories, server locks, provider objects. Changed
/// by interlocked operations alone.
inline volatile LONG g_moduleLockCount = 0;

/// Keeps the module loaded for as long as the object lives.
class ModuleLock {
public:
    ModuleLock() noexcept { InterlockedIncrement(&g_moduleLockCount); }
    ~ModuleLock() { InterlockedDecrement(&g_moduleLockCount); }
    ModuleLock(const ModuleLock&) = delete;
    ModuleLock& operator=(const ModuleLock&) = delete;
};
