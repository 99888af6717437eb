// Texts for result codes.
#pragma once

#include <string>

#include <windows.h>

/// The system's message for a COM result code, in UTF-8 and without its line break; for a code the system has
/// none for, a text with the code's number. May throw std::bad_alloc.
std::string hresultText(HRESULT result);
