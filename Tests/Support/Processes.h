// Which processes and handles there are, as the system tells it.
#pragma once

#include "Common.h"

#include <tlhelp32.h>

/// The handles that a process holds. GetProcessHandleCount is not answered under Wine; the system's list
/// of all handles is, and by both.
inline int64_t countHandles(DWORD process = GetCurrentProcessId()) {
    struct List {
        uintptr_t count, reserved;
        struct {
            void* object;
            uintptr_t process, handle;
            uint32_t rest[4];
        } entries[1 << 14];
    };
    constexpr int systemExtendedHandleInformation = 64;
    static List list;
    const auto query = reinterpret_cast<LONG(WINAPI*)(int, void*, ULONG, ULONG*)>(
        reinterpret_cast<void*>(GetProcAddress(GetModuleHandleW(L"ntdll.dll"), "NtQuerySystemInformation")));
    if (DWORD count = 0; query(systemExtendedHandleInformation, &list, sizeof list, nullptr) < 0)
        return process == GetCurrentProcessId() && GetProcessHandleCount(GetCurrentProcess(), &count) ? count
                                                                                                      : 0;
    int64_t own = 0;
    for (uintptr_t i = 0; i < list.count; ++i)
        own += list.entries[i].process == process;
    return own;
}

/// The processes of a program that `parent` started and that are alive.
inline std::vector<DWORD> childProcesses(const std::wstring& program, DWORD parent = GetCurrentProcessId()) {
    std::vector<DWORD> found;
    const HANDLE all = CreateToolhelp32Snapshot(TH32CS_SNAPPROCESS, 0);
    PROCESSENTRY32W entry = {};
    entry.dwSize = sizeof entry;
    for (BOOL more = Process32FirstW(all, &entry); more; more = Process32NextW(all, &entry))
        if (entry.th32ParentProcessID == parent && program == entry.szExeFile)
            found.push_back(entry.th32ProcessID);
    CloseHandle(all);
    return found;
}

/// The threads of this process.
inline int64_t countThreads() {
    int64_t count = 0;
    const HANDLE all = CreateToolhelp32Snapshot(TH32CS_SNAPTHREAD, 0);
    THREADENTRY32 entry = {};
    entry.dwSize = sizeof entry;
    for (BOOL more = Thread32First(all, &entry); more; more = Thread32Next(all, &entry))
        count += entry.th32OwnerProcessID == GetCurrentProcessId();
    CloseHandle(all);
    return count;
}
