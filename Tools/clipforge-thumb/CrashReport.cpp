#include "CrashReport.h"

#include <string>

#include <windows.h>

#include "Console.h"
#include "ExceptionText.h"

namespace {

LONG WINAPI endWithOneLine(EXCEPTION_POINTERS* exception) {
    wchar_t text[256];
    describeException(*exception->ExceptionRecord, text);
    printError(std::wstring(L"crashed: ") + text);
    TerminateProcess(GetCurrentProcess(), EXIT_FAILED);
    return EXCEPTION_EXECUTE_HANDLER;
}

} // namespace

void reportCrashesOnOneLine() {
    SetErrorMode(SEM_FAILCRITICALERRORS | SEM_NOGPFAULTERRORBOX | SEM_NOOPENFILEERRORBOX);
    SetUnhandledExceptionFilter(endWithOneLine);
}
