#include "Utils/vdText.h"

#include <climits>

#include <windows.h>

namespace {
/// Bytes of the character at `offset`, 0 where the counting ends.
std::size_t characterLength(std::string_view text, std::size_t offset) {
    if (offset >= text.size())
        return 0;
    const std::size_t length = utf8SequenceLength(static_cast<unsigned char>(text[offset]));
    return length <= text.size() - offset ? length : 0;
}
} // namespace

std::wstring utf8ToUtf16(std::string_view utf8) {
    utf8 = utf8.substr(0, utf8.find('\0'));
    if (utf8.empty() || utf8.size() > INT_MAX)
        return {};
    const int size = static_cast<int>(utf8.size());
    const int needed = MultiByteToWideChar(CP_UTF8, 0, utf8.data(), size, nullptr, 0);
    if (needed <= 0)
        return {};
    std::wstring wide(static_cast<std::size_t>(needed), L'\0');
    if (MultiByteToWideChar(CP_UTF8, 0, utf8.data(), size, wide.data(), needed) != needed)
        return {};
    return wide;
}

std::string utf16ToUtf8(std::wstring_view utf16) {
    utf16 = utf16.substr(0, utf16.find(L'\0'));
    if (utf16.empty() || utf16.size() > INT_MAX)
        return {};
    const int size = static_cast<int>(utf16.size());
    const int needed = WideCharToMultiByte(CP_UTF8, 0, utf16.data(), size, nullptr, 0, nullptr, nullptr);
    if (needed <= 0)
        return {};
    std::string utf8(static_cast<std::size_t>(needed), '\0');
    if (WideCharToMultiByte(CP_UTF8, 0, utf16.data(), size, utf8.data(), needed, nullptr, nullptr) != needed)
        return {};
    return utf8;
}

int charCount(std::string_view text) {
    int count = 0;
    for (std::size_t offset = 0, length = 0; (length = characterLength(text, offset)) != 0; offset += length)
        ++count;
    return count;
}

std::string replaceAll(std::string_view text, std::string_view piece, std::string_view replacement) {
    if (piece.empty())
        return std::string(text);
    std::string result;
    for (;;) {
        const std::size_t found = text.find(piece);
        result += text.substr(0, found);
        if (found == std::string_view::npos)
            return result;
        result += replacement;
        text.remove_prefix(found + piece.size());
    }
}
