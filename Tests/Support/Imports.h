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

/// Has a module, by default the program itself, call `function` instead of what it imports by that name, for
/// as long as the object lives.
template <class Function>
class ReplacedImport {
public:
    ReplacedImport(const char* name, Function* function, HMODULE module = GetModuleHandleW(nullptr))
        : m_slot(importSlot(module, name)),
          m_former(m_slot ? setImport(m_slot, reinterpret_cast<void*>(function)) : nullptr) {}
    ~ReplacedImport() {
        if (m_slot)
            setImport(m_slot, m_former);
    }
    ReplacedImport(const ReplacedImport&) = delete;
    ReplacedImport& operator=(const ReplacedImport&) = delete;

    /// Without it, nothing calls the stand-in.
    explicit operator bool() const { return m_slot != nullptr; }
    /// What would have been called.
    Function* former() const { return reinterpret_cast<Function*>(m_former); }

private:
    void** m_slot;
    void* m_former;
};
