// Values of ours in registry keys that belong to others, too: what stood there before comes back when we go.
#pragma once

#include <span>
#include <string>
#include <variant>

#include <windows.h>

/// `name` tells it apart among those of one memory, in this version and the next. A text that begins with
/// "%SystemRoot%\" is stored as one to be expanded; any other percent sign is a letter.
struct SharedValue {
    const wchar_t* name;
    std::wstring key;     ///< from the root on
    const wchar_t* value; ///< null for the key's default value
    std::variant<std::wstring, DWORD> data;
    bool onlyWhereNone = false; ///< leaves alone what somebody else has set
};

/// Writes the values under `root`, and remembers in the key `memory` what stood there. Done again, it
/// remembers what stood there first. A value that cannot be written ends it; restoreSharedValues then undoes
/// what was done. May throw std::bad_alloc.
HRESULT writeSharedValues(HKEY root, const std::wstring& memory, std::span<const SharedValue> values);

/// Puts back what `memory` tells, except where somebody else has written since, deletes the keys that were
/// made and are empty again, and the memory with its keys below `Software`. All are tried; the first failure
/// is the result. May throw std::bad_alloc.
HRESULT restoreSharedValues(HKEY root, const std::wstring& memory);
