#include "DecoderFile.h"

#include <windows.h>

#include "BlackmagicRawAPIFile.h"

namespace {
constexpr const wchar_t* usualFolders[] = {
    L"%ProgramFiles(x86)%\\Blackmagic Design\\Blackmagic RAW\\Blackmagic RAW SDK\\Win\\Libraries",
    L"%ProgramFiles%\\Blackmagic Design\\Blackmagic RAW\\Blackmagic RAW SDK\\Win\\Libraries",
    L"%ProgramFiles(x86)%\\Blackmagic Design\\Blackmagic RAW\\Blackmagic RAW Player",
    L"%ProgramFiles%\\Blackmagic Design\\Blackmagic RAW\\Blackmagic RAW Player",
    L"%ProgramFiles%\\Blackmagic Design\\DaVinci Resolve",
};
} // namespace

std::vector<std::wstring> usualDecoderFolders() {
    std::vector<std::wstring> folders;
    for (const wchar_t* const pattern : usualFolders) {
        wchar_t folder[MAX_PATH];
        const DWORD length = ExpandEnvironmentStringsW(pattern, folder, MAX_PATH);
        if (length != 0 && length <= MAX_PATH)
            folders.emplace_back(folder);
    }
    return folders;
}

bool holdsDecoder(const std::wstring& folder) {
    WIN32_FILE_ATTRIBUTE_DATA file = {};
    if (folder.empty() || !GetFileAttributesExW(decoderIn(folder).c_str(), GetFileExInfoStandard, &file))
        return false;
    return file.nFileSizeHigh == 0 && file.nFileSizeLow == BlackmagicRawAPIFileSize &&
           (file.dwFileAttributes & FILE_ATTRIBUTE_DIRECTORY) == 0;
}

std::wstring decoderIn(const std::wstring& folder) {
    const bool separated = !folder.empty() && (folder.back() == L'\\' || folder.back() == L'/');
    return folder + (separated ? L"" : L"\\") + BlackmagicRawAPIFileName;
}
