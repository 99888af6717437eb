// What Windows will use for clips' thumbnails: who is bound, and where that server lies. Read from the
// registry as Explorer reads it; nothing is loaded.
#pragma once

#include <optional>
#include <string>

#include <windows.h>

std::optional<std::wstring> registryText(HKEY root, const std::wstring& key, const wchar_t* value = nullptr);
std::optional<DWORD> registryNumber(HKEY root, const std::wstring& key, const wchar_t* value);

/// Whom an entry counts for.
enum class Hive { user, machine };

/// The class that Explorer asks for a clip's thumbnail.
struct Binding {
    std::wstring classId; ///< with braces
    Hive hive = Hive::machine;
    std::wstring key; ///< below the classes: ".braw", or the type's name when the type brings its own
    bool isOurs = false;
};

struct Server {
    Hive hive = Hive::machine;
    std::wstring path;
    bool isApartment = false; ///< has the threading model that we need
    bool isInProcess = false; ///< asks Explorer not to isolate it, which we need
};

struct Installation {
    std::optional<Binding> binding;
    std::optional<Server> server; ///< of the bound class when that is ours, else of any class of ours
    bool isFor32BitOnly = false;  ///< our class is registered for 32-bit programs alone
    std::wstring folder;          ///< with a separator: the server's when it is there, else the given one
};

/// `folder`, with a separator at its end, is where the handler is looked for when it is not registered.
Installation inspectInstallation(const std::wstring& folder);

/// What a class calls itself, or its identifier.
std::wstring titleOfClass(const std::wstring& classId);
