// The guard's workers as a test sees them, and what it sets for them.
#pragma once

#include "Processes.h"
#include "StandInRegistry.h"

constexpr wchar_t workerName[] = L"Clipforge_Worker.exe";

/// For the workers that start from now on.
inline void setPolicy(const wchar_t* name, DWORD value) {
    StandInRegistry::setNumber(HKEY_CURRENT_USER, L"Software\\Verdane\\Clipforge", name, value);
}

/// Whether that many workers of `host` are alive, or will be soon.
inline bool workersBecome(size_t count, DWORD milliseconds = 10000, DWORD host = GetCurrentProcessId()) {
    for (const ULONGLONG end = GetTickCount64() + milliseconds; GetTickCount64() < end; Sleep(2))
        if (childProcesses(workerName, host).size() == count)
            return true;
    return false;
}
