#pragma once

#include "Common.h"

/// A file or folder of the build that the running program belongs to; `name` is relative to the build folder.
/// Found from the program's own place: a path that CMake writes into a narrow text loses the letters beyond
/// ASCII.
inline std::filesystem::path builtFile(const std::filesystem::path& name) {
    wchar_t program[MAX_PATH] = {};
    GetModuleFileNameW(nullptr, program, MAX_PATH);
    std::filesystem::path folder = std::filesystem::path(program).parent_path();
    while (folder.has_relative_path() && !std::filesystem::exists(folder / "CMakeCache.txt"))
        folder = folder.parent_path();
    return (folder / name).make_preferred();
}
