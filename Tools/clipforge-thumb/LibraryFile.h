// A DLL's file, judged without loading it.
#pragma once

#include <cstdint>
#include <string>

struct LibraryFile {
    int64_t size = -1;    ///< bytes; -1 when there is no file
    std::wstring version; ///< as its maker wrote it into the file; may be empty
    /// Why it cannot be loaded, as the end of a sentence that begins with its name ("is no DLL"); empty when
    /// nothing speaks against it.
    std::wstring fault;
    bool isProgram = false; ///< is no DLL, but a sound 64-bit program
    bool isBlocked = false; ///< bears the mark of a download, for which Windows may refuse it
};

/// `path` is a full path.
LibraryFile examineLibrary(const std::wstring& path);

/// Where the decoder library lies for this installation: beside this program, else where a host integration
/// puts it, else the path beside this program, where none is.
std::wstring usualLibrary();
