#include "Utils/vdText.h"

#include <climits>
#include <utility>

#include <windows.h>

namespace {
std::wstring toUtf16(UINT codePage, std::string_view text) {
    text = text.substr(0, text.find('\0'));
    if (text.empty() || text.size() > INT_MAX)
        return {};
    const int size = static_cast<int>(text.size());
    const int needed = MultiByteToWideChar(codePage, 0, text.data(), size, nullptr, 0);
    if (needed <= 0)
        return {};
    std::wstring wide(static_cast<std::size_t>(needed), L'\0');
    if (MultiByteToWideChar(codePage, 0, text.data(), size, wide.data(), needed) != needed)
        return {};
    return wide;
}

/// Bytes of the character at `offset`, 0 where the counting ends.
std::size_t characterLength(std::string_view text, std::size_t offset) {
    if (offset >= text.size())
        return 0;
    const std::size_t length = utf8SequenceLength(static_cast<unsigned char>(text[offset]));
    return length <= text.size() - offset ? length : 0;
}

/// Up to `count` characters from the front of `text`.
std::string_view firstCharacters(std::string_view text, int count) {
    std::size_t end = 0;
    for (; count > 0; --count) {
        const std::size_t length = characterLength(text, end);
        if (length == 0)
            break;
        end += length;
    }
    return text.substr(0, end);
}

/// Positions of the first and of the last occurrence, -1 when there is none.
std::pair<int, int> findBoth(std::string_view text, std::string_view piece) {
    std::pair<int, int> found{-1, -1};
    if (piece.empty())
        return found;
    int position = 0;
    for (std::size_t offset = 0, length = 0; (length = characterLength(text, offset)) != 0;
         offset += length) {
        if (text.substr(offset).starts_with(piece)) {
            found.second = position;
            if (found.first < 0)
                found.first = position;
        }
        ++position;
    }
    return found;
}
} // namespace

std::wstring utf8ToUtf16(std::string_view utf8) {
    return toUtf16(CP_UTF8, utf8);
}

std::wstring ansiToUtf16(std::string_view ansi) {
    return toUtf16(CP_ACP, ansi);
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

std::string charAt(std::string_view text, int position) {
    return substrChars(text, position, 1);
}

std::string substrChars(std::string_view text, int position, int count) {
    if (position < 0)
        return {};
    const std::string_view before = firstCharacters(text, position);
    return std::string(firstCharacters(text.substr(before.size()), count));
}

int findFirst(std::string_view text, std::string_view piece) {
    return findBoth(text, piece).first;
}

int findLast(std::string_view text, std::string_view piece) {
    return findBoth(text, piece).second;
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
