#include "Utils/vdText.h"

#include <gtest/gtest.h>

using namespace std::string_literals;

TEST(Text, ConvertsBothWaysUpToTheFirstZero) {
    const struct {
        std::string utf8;
        std::wstring utf16;
    } table[] = {
        {"", L""}, {"\xC3\xA9t\xC3\xA9", L"\x00E9t\x00E9"}, {"\xF0\x9F\x8E\xAC.braw", L"\xD83C\xDFAC.braw"}};
    for (const auto& [utf8, utf16] : table) {
        EXPECT_EQ(utf8ToUtf16(utf8), utf16);
        EXPECT_EQ(utf16ToUtf8(utf16), utf8);
        EXPECT_EQ(utf8ToUtf16(utf8 + "\0rest"s), utf16);
        EXPECT_EQ(utf16ToUtf8(utf16 + L"\0rest"s), utf8);
    }
    // What cannot be said is replaced, not dropped.
    EXPECT_EQ(utf16ToUtf8(L"a\xD83Cz"), "a\xEF\xBF\xBDz");
    EXPECT_EQ(utf16ToUtf8(L"a\xDFAC"), "a\xEF\xBF\xBD");
    EXPECT_EQ(utf8ToUtf16("a\xFFz"), L"a\xFFFDz");
}

TEST(Text, CountsCharactersNotBytes) {
    EXPECT_EQ(charCount("a\xC3\xA9\xE2\x82\xAC\xF0\x9F\x8E\xAC!"), 5);
    EXPECT_EQ(charCount("ab\xC3"), 2) << "cut sequence";
    EXPECT_EQ(charCount("a\x80z"), 1) << "continuation byte in the lead's place";
    EXPECT_EQ(charCount("a\xF8z"), 1) << "no such lead byte";
    EXPECT_EQ(replaceAll("a//b/", "/", "//"), "a////b//");
}
