// A folder that lives as long as the object, and the texts of files in it.
#pragma once

#include "Common.h"
#include <fstream>

class TemporaryFolder {
public:
    TemporaryFolder() {
        // A run that was ended may have left its folders behind, and process numbers come again.
        static std::atomic<int> count{0};
        do
            m_path = std::filesystem::temp_directory_path() /
                     ("clipforge-" + std::to_string(GetCurrentProcessId()) + "-" + std::to_string(count++));
        while (!std::filesystem::create_directory(m_path));
    }
    ~TemporaryFolder() {
        std::error_code ignored;
        std::filesystem::remove_all(m_path, ignored);
    }
    TemporaryFolder(const TemporaryFolder&) = delete;
    TemporaryFolder& operator=(const TemporaryFolder&) = delete;

    const std::filesystem::path& path() const { return m_path; }
    /// UTF-8, with backslashes.
    std::string text() const { return utf8(m_path); }
    /// The path of something inside, in UTF-8.
    std::string text(std::string_view inside) const { return utf8(m_path / std::filesystem::path(inside)); }

private:
    static std::string utf8(std::filesystem::path path) {
        const std::u8string text = path.make_preferred().u8string();
        return {text.begin(), text.end()};
    }
    std::filesystem::path m_path;
};

/// The file's bytes as they are, empty when it is missing.
inline std::string readFileBytes(const std::filesystem::path& path) {
    std::ifstream stream(path, std::ios::binary);
    return {std::istreambuf_iterator<char>(stream), {}};
}

inline void writeFileBytes(const std::filesystem::path& path, std::string_view bytes) {
    std::ofstream stream(path, std::ios::binary);
    stream.write(bytes.data(), static_cast<std::streamsize>(bytes.size()));
}

/// The file is there and nobody has it open: it could be deleted now.
inline bool isFree(const std::filesystem::path& path) {
    const HANDLE file =
        CreateFileW(path.c_str(), GENERIC_READ | DELETE, 0, nullptr, OPEN_EXISTING, 0, nullptr);
    return file != INVALID_HANDLE_VALUE && CloseHandle(file);
}
