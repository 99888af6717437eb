// How many GDI objects this process holds.
#pragma once

#include "Common.h"

/// Wine does not answer GetGuiResources; there the objects are counted in the process's own handle table.
inline uint32_t countGdiObjects() {
    const HMODULE ntdll = GetModuleHandleW(L"ntdll.dll");
    if (GetProcAddress(ntdll, "wine_get_version") == nullptr)
        return GetGuiResources(GetCurrentProcess(), GR_GDIOBJECTS);
    struct Entry {
        uint64_t object;
        uint8_t owner[4], unique[2], type, flags;
        uint64_t userPointer;
    };
    constexpr size_t handleTableInProcessBlock = 0xF8;
    const auto getProcessBlock = reinterpret_cast<const char*(WINAPI*)()>(
        reinterpret_cast<void*>(GetProcAddress(ntdll, "RtlGetCurrentPeb")));
    const auto* const table =
        *reinterpret_cast<const Entry* const*>(getProcessBlock() + handleTableInProcessBlock);
    uint32_t count = 0;
    for (size_t i = 0; table != nullptr && i < 65536; ++i)
        count += table[i].type != 0; // a free entry's object is the next free one
    return count;
}
