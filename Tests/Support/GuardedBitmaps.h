// Bitmaps whose pixels end where accessible memory ends: one byte too far stops the test.
#pragma once

#include <cstdlib>

#include "Imports.h"

/// CreateDIBSection for 32-bit bitmaps without a section of the caller's: puts the pixels at the end of one
/// whose length is no multiple of what Windows reserves addresses in, so that nothing can lie behind.
inline HBITMAP WINAPI createGuardedDIBSection(HDC context, const BITMAPINFO* info, UINT usage, void** bits,
                                              HANDLE, DWORD) {
    constexpr size_t page = 4096, granularity = 65536;
    const size_t bytes = static_cast<size_t>(info->bmiHeader.biWidth) *
                         static_cast<size_t>(std::abs(info->bmiHeader.biHeight)) * 4;
    size_t length = (bytes + page - 1) / page * page;
    if (length % granularity == 0)
        length += page;
    const HANDLE section =
        CreateFileMappingW(INVALID_HANDLE_VALUE, nullptr, PAGE_READWRITE, static_cast<DWORD>(length >> 32),
                           static_cast<DWORD>(length), nullptr);
    if (section == nullptr)
        return nullptr;
    const HBITMAP bitmap =
        CreateDIBSection(context, info, usage, bits, section, static_cast<DWORD>(length - bytes));
    CloseHandle(section); // the bitmap's view keeps it
    return bitmap;
}

/// From now on the library makes such bitmaps.
inline void guardBitmapsOf(HMODULE module) {
    if (void** const slot = importSlot(module, "CreateDIBSection"))
        setImport(slot, reinterpret_cast<void*>(&createGuardedDIBSection));
}
