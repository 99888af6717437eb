#include "Paths.h"

#include <string_view>

#include <windows.h>

#include "Console.h"
#include "Utils/vdCloudFile.h"

namespace {

class FileHandle {
public:
    FileHandle(const std::wstring& path, DWORD access)
        : m_handle(CreateFileW(path.c_str(), access, FILE_SHARE_READ | FILE_SHARE_WRITE | FILE_SHARE_DELETE,
                               nullptr, OPEN_EXISTING, FILE_FLAG_BACKUP_SEMANTICS, nullptr)) {}
    ~FileHandle() {
        if (isOpen())
            CloseHandle(m_handle);
    }
    FileHandle(const FileHandle&) = delete;
    FileHandle& operator=(const FileHandle&) = delete;

    bool isOpen() const { return m_handle != INVALID_HANDLE_VALUE; }
    HANDLE get() const { return m_handle; }

private:
    HANDLE m_handle;
};

struct Signature {
    std::string_view bytes; ///< the file's first
    const wchar_t* kind;
};
constexpr Signature kSignatures[] = {
    {"\xFF\xD8\xFF", L"a JPEG picture"},
    {"\x89PNG", L"a PNG picture"},
    {"GIF8", L"a GIF picture"},
    {"BM", L"a BMP picture"},
    {{"II*\0", 4}, L"a TIFF picture"},
    {{"MM\0*", 4}, L"a TIFF picture"},
    {"P2", L"a grey picture"},
    {"P5", L"a grey picture"},
    {"RIFF", L"an AVI, WAV or WebP file"},
    {"\x1A\x45\xDF\xA3", L"a Matroska or WebM film"},
    {"%PDF", L"a PDF document"},
    {"PK\x03\x04", L"a ZIP archive"},
    {"MZ", L"a program"},
};

} // namespace

std::wstring fullPath(const std::wstring& path) {
    const DWORD size = path.empty() ? 0 : GetFullPathNameW(path.c_str(), 0, nullptr, nullptr);
    if (size == 0)
        return path;
    std::wstring full(size, L'\0');
    full.resize(GetFullPathNameW(path.c_str(), size, full.data(), nullptr));
    return full;
}

std::wstring fileName(const std::wstring& path) {
    return path.substr(path.find_last_of(L"\\/") + 1); // npos + 1 is 0
}

std::wstring programPath() {
    std::wstring path(32'768, L'\0');
    path.resize(GetModuleFileNameW(nullptr, path.data(), static_cast<DWORD>(path.size())));
    return path;
}

int64_t fileSize(const std::wstring& path) {
    WIN32_FILE_ATTRIBUTE_DATA data{};
    if (!GetFileAttributesExW(path.c_str(), GetFileExInfoStandard, &data))
        return -1;
    return static_cast<int64_t>(data.nFileSizeHigh) << 32 | data.nFileSizeLow;
}

bool isFolder(const std::wstring& path) {
    const DWORD attributes = GetFileAttributesW(path.c_str());
    return attributes != INVALID_FILE_ATTRIBUTES && (attributes & FILE_ATTRIBUTE_DIRECTORY) != 0;
}

bool isSameFile(const std::wstring& first, const std::wstring& second) {
    const FileHandle a(first, 0);
    const FileHandle b(second, 0);
    BY_HANDLE_FILE_INFORMATION one{};
    BY_HANDLE_FILE_INFORMATION other{};
    return a.isOpen() && b.isOpen() && GetFileInformationByHandle(a.get(), &one) &&
           GetFileInformationByHandle(b.get(), &other) &&
           one.dwVolumeSerialNumber == other.dwVolumeSerialNumber &&
           one.nFileIndexHigh == other.nFileIndexHigh && one.nFileIndexLow == other.nFileIndexLow;
}

std::wstring obstacleTo(const std::wstring& path) {
    if (isFolder(path))
        return L"is a folder";
    if (wouldBeFetched(path.c_str())) // by being opened, perhaps
        return {};
    const FileHandle file(path, GENERIC_READ);
    if (file.isOpen()) {
        LARGE_INTEGER size{};
        return GetFileSizeEx(file.get(), &size) && size.QuadPart == 0 ? L"is empty" : L"";
    }
    switch (const DWORD error = GetLastError()) {
    case ERROR_FILE_NOT_FOUND:
    case ERROR_PATH_NOT_FOUND:
    case ERROR_INVALID_NAME:
    case ERROR_BAD_PATHNAME:
        return L"does not exist";
    case ERROR_SHARING_VIOLATION:
        return L"is in use by another program, which lets nobody read it";
    case ERROR_ACCESS_DENIED:
        return L"may not be read by you (access denied)";
    default:
        return L"cannot be read: " + describe(HRESULT_FROM_WIN32(error));
    }
}

std::wstring kindOfNoClip(const std::wstring& path) {
    if (wouldBeFetched(path.c_str()))
        return {};
    const FileHandle file(path, GENERIC_READ);
    char bytes[8]{};
    DWORD count = 0;
    if (!file.isOpen() || !ReadFile(file.get(), bytes, sizeof bytes, &count, nullptr))
        return {};
    for (const Signature& signature : kSignatures) {
        if (std::string_view(bytes, count).starts_with(signature.bytes))
            return signature.kind;
    }
    return {};
}
