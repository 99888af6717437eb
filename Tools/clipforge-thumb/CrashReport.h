// A crash in a library that we were asked to load, told as everything else is.
#pragma once

#include <span>

#include <windows.h>

/// Writes what happened and where, "access violation reading 0x0 in some.dll+0x1234", without the heap, which
/// may be what is broken. Ends with a zero, cut where it is too long.
void describeException(const EXCEPTION_RECORD& record, std::span<wchar_t> text);

/// From now on no error of this process opens a window, and a crash ends it with one line and EXIT_FAILED.
/// For the program's start: the setting is the process's and stays.
void reportCrashesOnOneLine();
