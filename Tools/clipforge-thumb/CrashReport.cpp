#include "CrashReport.h"

#include <iterator>
#include <string>

#include <windows.h>

#include "Console.h"
#include "Paths.h"

namespace {

/// "handler.dll+0x1234", or the bare address where no library lies.
std::wstring placeOf(const void* address) {
    HMODULE module = nullptr;
    wchar_t text[MAX_PATH] = {};
    const bool isKnown = GetModuleHandleExW(GET_MODULE_HANDLE_EX_FLAG_FROM_ADDRESS |
                                                GET_MODULE_HANDLE_EX_FLAG_UNCHANGED_REFCOUNT,
                                            static_cast<const wchar_t*>(address), &module) &&
                         GetModuleFileNameW(module, text, MAX_PATH) != 0;
    std::wstring place = isKnown ? fileName(text) + L"+" : L"";
    const auto offset = reinterpret_cast<uintptr_t>(address) - reinterpret_cast<uintptr_t>(module);
    swprintf(text, std::size(text), L"0x%llX", static_cast<unsigned long long>(offset));
    return place + text;
}

LONG WINAPI endWithOneLine(EXCEPTION_POINTERS* exception) {
    const EXCEPTION_RECORD& record = *exception->ExceptionRecord;
    printError(L"crashed: " + describe(static_cast<HRESULT>(record.ExceptionCode)) + L" in " +
               placeOf(record.ExceptionAddress));
    TerminateProcess(GetCurrentProcess(), EXIT_FAILED);
    return EXCEPTION_EXECUTE_HANDLER;
}

} // namespace

void reportCrashesOnOneLine() {
    SetErrorMode(SEM_FAILCRITICALERRORS | SEM_NOGPFAULTERRORBOX | SEM_NOOPENFILEERRORBOX);
    SetUnhandledExceptionFilter(endWithOneLine);
}
