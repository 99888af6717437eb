#include "LibraryFile.h"

#include <algorithm>
#include <iterator>
#include <vector>

#include <windows.h>

#include "BlackmagicRawAPIFile.h"
#include "Console.h"
#include "Paths.h"
#include "Utils/vdModule.h"

namespace {

/// A file's first bytes, as many as a DLL's headers need.
std::vector<char> headOf(const std::wstring& path) {
    std::vector<char> head(4096);
    const HANDLE file = CreateFileW(path.c_str(), GENERIC_READ, FILE_SHARE_READ | FILE_SHARE_DELETE, nullptr,
                                    OPEN_EXISTING, 0, nullptr);
    DWORD count = 0;
    if (file != INVALID_HANDLE_VALUE) {
        ReadFile(file, head.data(), static_cast<DWORD>(head.size()), &count, nullptr);
        CloseHandle(file);
    }
    head.resize(count);
    return head;
}

struct Machine {
    WORD code;
    const wchar_t* name;
};
constexpr Machine kMachines[] = {
    {IMAGE_FILE_MACHINE_I386, L"32-bit x86"},
    {IMAGE_FILE_MACHINE_ARM64, L"ARM64"},
    {IMAGE_FILE_MACHINE_ARMNT, L"32-bit ARM"},
};

/// Judges a file by its headers; `isProgram` when it is a sound program, though no DLL.
std::wstring faultOf(const std::vector<char>& head, bool& isProgram) {
    constexpr const wchar_t* noLibrary = L"is no DLL";
    IMAGE_DOS_HEADER dos{};
    if (head.size() < sizeof dos)
        return noLibrary;
    std::copy_n(head.data(), sizeof dos, reinterpret_cast<char*>(&dos));
    struct {
        DWORD signature;
        IMAGE_FILE_HEADER file;
    } headers{};
    const auto offset = static_cast<size_t>(dos.e_lfanew);
    if (dos.e_magic != IMAGE_DOS_SIGNATURE || dos.e_lfanew < 0 || offset + sizeof headers > head.size())
        return noLibrary;
    std::copy_n(head.data() + offset, sizeof headers, reinterpret_cast<char*>(&headers));
    const bool isLibrary = (headers.file.Characteristics & IMAGE_FILE_DLL) != 0;
    isProgram = headers.signature == IMAGE_NT_SIGNATURE && !isLibrary &&
                headers.file.Machine == IMAGE_FILE_MACHINE_AMD64;
    if (headers.signature != IMAGE_NT_SIGNATURE || !isLibrary)
        return noLibrary;
    if (headers.file.Machine == IMAGE_FILE_MACHINE_AMD64)
        return {};
    const auto* const machine = std::ranges::find(kMachines, headers.file.Machine, &Machine::code);
    return L"is for another processor (" +
           (machine != std::end(kMachines) ? std::wstring(machine->name)
                                           : hexadecimal(headers.file.Machine)) +
           L"); a 64-bit x86 library is needed";
}

std::wstring versionOf(const std::wstring& path) {
    const DWORD size = GetFileVersionInfoSizeW(path.c_str(), nullptr);
    std::vector<char> block(size);
    VS_FIXEDFILEINFO* info = nullptr;
    UINT length = 0;
    if (size == 0 || !GetFileVersionInfoW(path.c_str(), 0, size, block.data()) ||
        !VerQueryValueW(block.data(), L"\\", reinterpret_cast<void**>(&info), &length) ||
        length < sizeof *info)
        return {};
    return std::to_wstring(HIWORD(info->dwFileVersionMS)) + L"." +
           std::to_wstring(LOWORD(info->dwFileVersionMS)) + L"." +
           std::to_wstring(HIWORD(info->dwFileVersionLS)) + L"." +
           std::to_wstring(LOWORD(info->dwFileVersionLS));
}

} // namespace

LibraryFile examineLibrary(const std::wstring& path) {
    LibraryFile file;
    file.fault = obstacleTo(path);
    file.size = fileSize(path);
    if (!file.fault.empty())
        return file;
    file.fault = faultOf(headOf(path), file.isProgram);
    file.version = versionOf(path);
    file.isBlocked = GetFileAttributesW((path + L":Zone.Identifier").c_str()) != INVALID_FILE_ATTRIBUTES;
    return file;
}

std::wstring usualLibrary() {
    const std::wstring name = BlackmagicRawAPIFileName;
    const std::wstring beside = folderOf(programPath()) + name;
    const std::wstring host = BlackmagicRawAPIHostFolder + name;
    return fileSize(beside) < 0 && fileSize(host) >= 0 ? host : beside;
}
