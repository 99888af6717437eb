#include "Utils/vdPaths.h"

#include <algorithm>
#include <cerrno>
#include <cstring>
#include <cwchar>
#include <filesystem>
#include <optional>
#include <utility>

#include <fcntl.h>
#include <io.h>
#include <sys/stat.h>
#include <windows.h>

#include "Utils/vdProduct.h"
#include "Utils/vdText.h"

namespace {
constexpr const wchar_t* profileVariable = L"USERPROFILE";
constexpr std::string_view makerSubPath = "\\AppData\\Roaming\\Verdane";
constexpr std::string_view logsFolderName = "Logs";

constexpr bool isSeparator(char c) {
    return c == '/' || c == '\\';
}

/// The variable's value as it is now; without one when it is missing.
std::optional<std::wstring> environmentVariable(const wchar_t* name) {
    std::wstring value;
    DWORD size = GetEnvironmentVariableW(name, nullptr, 0); // an empty one has room for its terminator
    if (size == 0)
        return {};
    // Another thread may lengthen the variable between the two calls.
    while (size > value.size()) {
        value.resize(size);
        size = GetEnvironmentVariableW(name, value.data(), size);
    }
    value.resize(size);
    return value;
}

/// Hinders nobody: others may read, write, move and delete the file meanwhile, and no program that the host
/// starts inherits it.
HANDLE openShared(std::string_view path, DWORD access, DWORD disposition) {
    return CreateFileW(utf8ToUtf16(path).c_str(), access,
                       FILE_SHARE_READ | FILE_SHARE_WRITE | FILE_SHARE_DELETE, nullptr, disposition,
                       FILE_ATTRIBUTE_NORMAL, nullptr);
}

/// What the runtime library says to Windows' most common refusals.
int errnoOf(DWORD error) {
    switch (error) {
    case ERROR_FILE_NOT_FOUND:
    case ERROR_PATH_NOT_FOUND:
    case ERROR_BAD_NETPATH:
    case ERROR_BAD_NET_NAME:
        return ENOENT;
    case ERROR_ACCESS_DENIED:
    case ERROR_SHARING_VIOLATION:
    case ERROR_LOCK_VIOLATION:
        return EACCES;
    case ERROR_TOO_MANY_OPEN_FILES:
        return EMFILE;
    case ERROR_NOT_ENOUGH_MEMORY:
        return ENOMEM;
    default:
        return EINVAL;
    }
}

/// How much of a path with forward slashes is its root, which is there or is not, but is never made: a server
/// and its share, or the two parts of a "\\?\" prefix, behind which "UNC" stands for two more. A drive is one
/// level like others.
std::size_t rootLength(std::string_view path) {
    constexpr std::string_view longShare = "//?/UNC/";
    if (!path.starts_with("//"))
        return 0;
    std::size_t end = path.starts_with(longShare) ? longShare.size() - 1 : 1;
    for (int parts = 0; parts < 2 && end != std::string_view::npos; ++parts)
        end = path.find('/', end + 1);
    return std::min(end, path.size());
}
} // namespace

std::string joinPath(std::string_view base, std::string_view addition) {
    std::string joined(base);
    while (!addition.empty()) {
        const std::size_t end = addition.find_first_of("/\\");
        if (const std::string_view component = addition.substr(0, end); !component.empty()) {
            if (joined.empty() || !isSeparator(joined.back()))
                joined += '\\';
            joined += component;
        }
        addition = end == std::string_view::npos ? std::string_view() : addition.substr(end + 1);
    }
    return joined;
}

std::string toBackslashes(std::string_view path) {
    return replaceAll(path, "/", "\\");
}

std::string toForwardSlashes(std::string_view path) {
    return replaceAll(path, "\\", "/");
}

std::string stripTrailingSeparators(std::string_view path) {
    while (!path.empty() && isSeparator(path.back()))
        path.remove_suffix(1);
    return std::string(path);
}

bool fileExists(std::string_view path) {
    return _waccess_s(utf8ToUtf16(path).c_str(), 0) == 0;
}

bool isDirectory(std::string_view path) {
    struct _stat64i32 status = {};
    return _wstat64i32(utf8ToUtf16(path).c_str(), &status) == 0 && (status.st_mode & _S_IFDIR) != 0;
}

int64_t fileSize(std::string_view path) {
    struct _stat64 status = {};
    return _wstat64(utf8ToUtf16(path).c_str(), &status) == 0 ? status.st_size : -1;
}

vdStatus createDirectory(std::string_view path) {
    const std::string folder = stripTrailingSeparators(toBackslashes(path));
    if (fileExists(folder))
        return {};
    if (_wmkdir(utf8ToUtf16(folder).c_str()) == 0)
        return {};
    const int error = errno;
    if (error == EEXIST)
        return {};
    return vdFailure(
        "Impossible to create Directory at : " + folder +
        (error == EACCES ? " - Privilege Access Error" : " (error " + std::to_string(error) + ")"));
}

vdStatus createDirectories(std::string_view path) {
    const std::string folder = stripTrailingSeparators(toForwardSlashes(path));
    for (std::size_t i = folder.find('/', rootLength(folder) + 1); i != std::string::npos;
         i = folder.find('/', i + 1))
        if (const vdStatus status = createDirectory(std::string_view(folder).substr(0, i)); status.failed)
            return status;
    return createDirectory(folder);
}

vdStatus moveFile(std::string_view from, std::string_view to) {
    if (_wrename(utf8ToUtf16(from).c_str(), utf8ToUtf16(to).c_str()) == 0)
        return {};
    return vdFailure("Impossible to move file from " + std::string(from) + " to " + std::string(to));
}

vdStatus removeFile(std::string_view path) {
    if (!fileExists(path) || _wremove(utf8ToUtf16(path).c_str()) == 0)
        return {};
    return vdFailure("Impossible to remove file " + std::string(path));
}

vdStatus removeDirectory(std::string_view path) {
    if (_wrmdir(utf8ToUtf16(path).c_str()) == 0)
        return {};
    const int error = errno;
    return vdFailure("Impossible to remove Directory at : " + std::string(path) + " : " +
                     std::strerror(error));
}

FILE* openForReading(std::string_view path, const char* mode) {
    const HANDLE handle = openShared(path, GENERIC_READ, OPEN_EXISTING);
    if (handle == INVALID_HANDLE_VALUE) {
        errno = errnoOf(GetLastError());
        return nullptr;
    }
    const int file = _open_osfhandle(reinterpret_cast<intptr_t>(handle), _O_RDONLY | _O_NOINHERIT);
    FILE* const stream = file != -1 ? _fdopen(file, mode) : nullptr;
    if (file == -1)
        CloseHandle(handle);
    else if (stream == nullptr)
        _close(file);
    return stream;
}

void openOutputStream(std::ofstream& stream, std::string_view path, std::ios::openmode mode) {
    if (stream.is_open())
        stream.close();
    stream.clear();
    stream.open(std::filesystem::path(utf8ToUtf16(path)), mode | std::ios::out);
}

std::wstring normaliseLibraryFolder(std::wstring_view folder) {
    std::wstring normal(folder);
    std::replace(normal.begin(), normal.end(), L'/', L'\\');
    if (!normal.empty() && normal.back() != L'\\')
        normal += L'\\';
    return normal;
}

vdStatus getUserHomeFolder(std::string& folder) {
    const std::optional<std::wstring> profile = environmentVariable(profileVariable);
    if (!profile)
        return vdFailure("getUserHomeFolder - Impossible to get USERPROFILE env ...");
    std::string home = utf16ToUtf8(*profile);
    if (home.empty() || !isDirectory(home))
        return vdFailure("Impossible to get User Folder Path ...");
    folder = std::move(home);
    return {};
}

vdStatus getRoamingFolder(std::string& folder) {
    if (const vdStatus status = getUserHomeFolder(folder); status.failed)
        return status;
    folder = joinPath(folder, makerSubPath);
    return createDirectories(folder);
}

vdStatus getProductFolder(std::string& folder) {
    if (const vdStatus status = getRoamingFolder(folder); status.failed)
        return status;
    folder = joinPath(folder, productInfo().folderName);
    return createDirectory(folder);
}

vdStatus getProductLogsFolder(std::string& folder, std::string_view subFolder) {
    if (const vdStatus status = getProductFolder(folder); status.failed)
        return status;
    folder = joinPath(folder, subFolder.empty() ? logsFolderName : subFolder);
    return createDirectory(folder);
}

vdStatus getOptionsFilePath(std::string& path) {
    if (const vdStatus status = getProductFolder(path); status.failed)
        return status;
    path = joinPath(path, productInfo().optionsFileName);
    // A folder that cannot be removed stays: reading it then fails, and the options keep their reset values.
    if (isDirectory(path))
        removeDirectory(path);
    if (fileExists(path))
        return {};
    // Looking for the file may have failed for another reason: one that is there keeps what it holds.
    const HANDLE file = openShared(path, FILE_APPEND_DATA, OPEN_ALWAYS);
    if (file == INVALID_HANDLE_VALUE)
        return vdFailure("Impossible to open new Ini File");
    CloseHandle(file);
    return {};
}
