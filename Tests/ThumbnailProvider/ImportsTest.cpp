// What the built libraries take from Windows. All of it becomes part of the shell's process, and the
// toolchain's runtime can bring along what no host wants there: an exception handler for the whole process,
// or the means to stop its threads.

#include "Imports.h"
#include "HandlerFixture.h"

namespace {
/// What may be imported from a library, by names that each end in a blank. Without names: anything.
struct AllowedImports {
    std::string_view library;
    std::string_view functions;
};

constexpr AllowedImports allowedImports[] = {
    {"ADVAPI32.dll",
     "DeregisterEventSource RegCloseKey RegCreateKeyExW RegDeleteTreeW RegGetValueW RegSetValueExW "
     "RegisterEventSourceW ReportEventW "},
    {"GDI32.dll", "CreateDIBSection DeleteObject "},
    {"OLEAUT32.dll", "SysAllocStringLen SysFreeString SysStringLen VariantClear VariantInit "},
    {"SHELL32.dll", "SHChangeNotify "},
    {"SHLWAPI.dll", "QISearch "},
    {"cudart64_110.dll", "cudaMemGetInfo cudaMemcpy "},
#ifdef CLIPFORGE_HARDENED
    {"KERNEL32.dll", "VirtualFree "}, // its allocator's
#endif
    {"msvcrt.dll", {}}, // the toolchain's C library: its own choice
    // Ours.
    {"KERNEL32.dll",
     "AcquireSRWLockExclusive AcquireSRWLockShared ActivateActCtx CloseHandle CreateActCtxW CreateFileW "
     "CreateMutexW DeactivateActCtx DeleteCriticalSection DisableThreadLibraryCalls "
     "EnterCriticalSection FindClose FindFirstFileExW FlsAlloc FlsFree FlsGetValue FlsSetValue "
     "FormatMessageW FreeLibrary GetCurrentProcessorNumber GetCurrentThreadId GetDiskFreeSpaceExW "
     "GetEnvironmentVariableW GetFileAttributesW GetLastError GetLogicalDriveStringsW "
     "GetModuleFileNameW GetModuleHandleExW GetModuleHandleW GetProcAddress GetSystemInfo GetThreadErrorMode "
     "GetTickCount64 GlobalMemoryStatusEx InitializeCriticalSection LeaveCriticalSection LoadLibraryExW "
     "LoadLibraryW LocalFree MultiByteToWideChar QueryPerformanceCounter QueryPerformanceFrequency "
     "ReleaseActCtx ReleaseMutex ReleaseSRWLockExclusive ReleaseSRWLockShared SetLastError "
     "SetThreadErrorMode Sleep TryAcquireSRWLockExclusive TryEnterCriticalSection VerifyVersionInfoW "
     "VerSetConditionMask VirtualProtect VirtualQuery WaitForSingleObject WideCharToMultiByte "},
    // The guard's: it starts processes and restores registry values; it looks at no file.
    {"ADVAPI32.dll",
     "CreateProcessAsUserW DuplicateTokenEx OpenProcessToken RegDeleteKeyW RegDeleteValueW RegEnumKeyExW "
     "RegOpenKeyExW RegQueryInfoKeyW RegQueryValueExW SetTokenInformation "},
    {"KERNEL32.dll",
     "AssignProcessToJobObject CreateEventW CreateFileMappingW CreateJobObjectW CreateProcessW "
     "DeleteProcThreadAttributeList GetCurrentProcess GetCurrentProcessId GetExitCodeProcess "
     "InitializeProcThreadAttributeList IsProcessInJob MapViewOfFile OpenProcess ResumeThread "
     "SetHandleInformation SetInformationJobObject SleepConditionVariableSRW TerminateProcess "
     "UnmapViewOfFile "
     "UpdateProcThreadAttribute VirtualAlloc WaitForMultipleObjects WakeConditionVariable "},
    // The toolchain's: exceptions, the simple mutex, code pages, the helper that binds on first use.
    {"KERNEL32.dll",
     "CreateEventA FormatMessageA GetModuleHandleA GetSystemTimeAsFileTime GetTickCount IsDBCSLeadByteEx "
     "LoadLibraryA LocalAlloc "
     "RaiseException RtlCaptureContext RtlLookupFunctionEntry RtlUnwindEx RtlVirtualUnwind SetEvent "
     "TlsGetValue "
     "WaitForMultipleObjects __C_specific_handler "},
};

bool isAllowed(std::string_view library, std::string_view function) {
    const std::string name = std::string(function) + ' ';
    return std::any_of(std::begin(allowedImports), std::end(allowedImports), [&](const AllowedImports& row) {
        const size_t place = row.functions.find(name);
        return row.library == library &&
               (row.functions.empty() || place == 0 ||
                (place != std::string_view::npos && row.functions[place - 1] == ' '));
    });
}

bool looksAtFiles(std::string_view function) {
    constexpr std::string_view names[] = {"CreateFileW", "GetFileAttributes", "FindFirstFile",
                                          "GetDiskFreeSpace"};
    return std::any_of(std::begin(names), std::end(names),
                       [&](std::string_view name) { return function.starts_with(name); });
}

TEST(ImportsTest, NothingIsImportedThatNobodyDecidedOn) {
    for (const char* const library :
         {"bin/Clipforge_Thumbnails.dll", "logging/Clipforge_Thumbnails.dll", "bin/Clipforge_Guard.dll"}) {
        const bool isGuard = std::string_view(library).ends_with("Guard.dll");
        const auto file = builtFile(library);
        const HMODULE module = LoadLibraryExW(file.c_str(), nullptr, DONT_RESOLVE_DLL_REFERENCES);
        ASSERT_NE(module, nullptr) << file;
        size_t count = 0;
        forEachImport(module, [&](std::string_view from, std::string_view function, void**) {
            ++count;
            EXPECT_TRUE(isAllowed(from, function))
                << function << " of " << from << " is new in " << file << ": wanted? Then enter it above.";
            EXPECT_FALSE(isGuard && looksAtFiles(function))
                << function << ": the clip may lie on a drive that does not answer";
        });
        EXPECT_GT(count, 50u);
        FreeLibrary(module);
    }
}
} // namespace
