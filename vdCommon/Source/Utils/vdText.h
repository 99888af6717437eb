// Text conversion, and helpers for UTF-8 text.
//
// Inside the product every text is UTF-8; it becomes UTF-16 at each Windows call. Conversions read up to the
// first terminating zero and give an empty text for empty or unconvertible input. All may throw
// std::bad_alloc; none keeps state, so any thread may call them.
#pragma once

#include <cstddef>
#include <cstdint>
#include <string>
#include <string_view>

std::wstring utf8ToUtf16(std::string_view utf8);
/// An unpaired surrogate becomes U+FFFD, as Windows' own conversion does.
std::string utf16ToUtf8(std::wstring_view utf16);

/// In characters: one UTF-8 sequence each, its length given by its lead byte. An invalid lead byte, a
/// terminating zero, or a sequence that the text's end cuts, ends the counting.
int charCount(std::string_view text);
std::string replaceAll(std::string_view text, std::string_view piece, std::string_view replacement);

/// Length in bytes of the UTF-8 sequence that `leadByte` starts, 0 when it starts none.
constexpr std::size_t utf8SequenceLength(unsigned char leadByte) {
    if (leadByte < 0x80)
        return leadByte == 0 ? 0 : 1;
    if ((leadByte & 0xE0) == 0xC0)
        return 2;
    if ((leadByte & 0xF0) == 0xE0)
        return 3;
    return (leadByte & 0xF8) == 0xF0 ? 4 : 0;
}
