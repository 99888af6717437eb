// The file name extensions that a registration is about, for every server that registers.
#pragma once

/// How the shell shows a file with the extension.
enum class FileKind {
    clip,      ///< with a thumbnail, as a file of our type
    companion, ///< with our icon alone
};

struct FileExtension {
    const wchar_t* name;
    FileKind kind;
};

constexpr FileExtension fileExtensions[] = {
    {L".braw", FileKind::clip},
    {L".sidecar", FileKind::companion},
    {L".braw2", FileKind::companion},
};
