// What the whole module shares: its handle, and what keeps it loaded.
#pragma once

#include <windows.h>

/// This library's own handle; set at process attach, constant afterwards.
inline HMODULE g_moduleHandle = nullptr;

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
