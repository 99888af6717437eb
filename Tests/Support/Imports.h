// Puts functions of ours in the place of what a loaded library imports from Windows.
#pragma once

#include <string_view>

#include <windows.h>

/// The slot through which `module` calls the imported function, or null when it imports none of that name.
inline void** importSlot(HMODULE module, std::string_view function) {
    auto* const base = reinterpret_cast<char*>(module);
    const auto& dos = *reinterpret_cast<const IMAGE_DOS_HEADER*>(base);
    const auto& headers = *reinterpret_cast<const IMAGE_NT_HEADERS*>(base + dos.e_lfanew);
    const auto& directory = headers.OptionalHeader.DataDirectory[IMAGE_DIRECTORY_ENTRY_IMPORT];
    for (const auto* library =
             reinterpret_cast<const IMAGE_IMPORT_DESCRIPTOR*>(base + directory.VirtualAddress);
         library->Name != 0; ++library) {
        const auto* name = reinterpret_cast<const ULONGLONG*>(base + library->OriginalFirstThunk);
        auto** slot = reinterpret_cast<void**>(base + library->FirstThunk);
        for (; *name != 0; ++name, ++slot)
            if ((*name & IMAGE_ORDINAL_FLAG64) == 0 &&
                function == reinterpret_cast<const IMAGE_IMPORT_BY_NAME*>(base + *name)->Name)
                return slot;
    }
    return nullptr;
}

/// Replaces what the slot holds; gives what it held.
inline void* setImport(void** slot, void* function) {
    DWORD protection = 0;
    VirtualProtect(slot, sizeof *slot, PAGE_READWRITE, &protection);
    void* const former = *slot;
    *slot = function;
    VirtualProtect(slot, sizeof *slot, protection, &protection);
    return former;
}
