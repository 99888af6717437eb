// Puts functions of ours in the place of what a loaded library imports from Windows.
#pragma once

#include "Common.h"

/// Calls visit(library, function, slot) for each import by name of a library that is loaded or mapped as an
/// image, those that are bound on first use included.
template <class Visit>
void forEachImport(HMODULE module, const Visit& visit) {
    auto* const base = reinterpret_cast<char*>(module);
    const auto& dos = *reinterpret_cast<const IMAGE_DOS_HEADER*>(base);
    const auto& headers = *reinterpret_cast<const IMAGE_NT_HEADERS*>(base + dos.e_lfanew);
    const auto& directories = headers.OptionalHeader.DataDirectory;
    const auto visitLibrary = [&](DWORD library, DWORD names, DWORD slots) {
        const auto* name = reinterpret_cast<const ULONGLONG*>(base + names);
        auto** slot = reinterpret_cast<void**>(base + slots);
        for (; *name != 0; ++name, ++slot)
            if ((*name & IMAGE_ORDINAL_FLAG64) == 0)
                visit(std::string_view(base + library),
                      std::string_view(reinterpret_cast<const IMAGE_IMPORT_BY_NAME*>(base + *name)->Name),
                      slot);
    };
    if (const DWORD directory = directories[IMAGE_DIRECTORY_ENTRY_IMPORT].VirtualAddress)
        for (const auto* row = reinterpret_cast<const IMAGE_IMPORT_DESCRIPTOR*>(base + directory);
             row->Name != 0; ++row)
            visitLibrary(row->Name, row->OriginalFirstThunk, row->FirstThunk);
    if (const DWORD directory = directories[IMAGE_DIRECTORY_ENTRY_DELAY_IMPORT].VirtualAddress)
        for (const auto* row = reinterpret_cast<const IMAGE_DELAYLOAD_DESCRIPTOR*>(base + directory);
             row->DllNameRVA != 0; ++row)
            visitLibrary(row->DllNameRVA, row->ImportNameTableRVA, row->ImportAddressTableRVA);
}

/// The slot through which `module` calls the imported function, or null when it imports none of that name.
inline void** importSlot(HMODULE module, std::string_view function) {
    void** found = nullptr;
    forEachImport(module, [&](std::string_view, std::string_view name, void** slot) {
        if (name == function && found == nullptr)
            found = slot;
    });
    return found;
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
