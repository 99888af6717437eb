// A crash in words.
#pragma once

#include <span>

#include <windows.h>

/// Writes what happened and where, "access violation reading 0x0 in some.dll+0x1234", without the heap, which
/// may be what is broken. Ends with a zero, cut where it is too long.
void describeException(const EXCEPTION_RECORD& record, std::span<wchar_t> text);
