// What a failed thumbnail's result means, for people without training.
#pragma once

#include <string>

#include <windows.h>

/// Empty where the result alone says nothing.
std::wstring meaningOf(HRESULT result);
