#include "Utils/vdText.h"

#include <gtest/gtest.h>

using namespace std::string_literals;

TEST(Text, ConvertsBothWaysUpToTheFirstZero) {
    const struct {
        std::string utf8;
        std::wstring utf16;
    } table[] = {
        {"", L""},
        {"plain", L"plain"},
        {"\xC3\xA9t\xC3\xA9", L"\x00E9t\x00E9"},
        {"\xF0\x9F\x8E\xAC.braw", L"\xD83C\xDFAC.braw"},
    };
    for (const auto& [utf8, utf16] : table) {
        EXPECT_EQ(utf8ToUtf16(utf8), utf16);
        EXPECT_EQ(utf16ToUtf8(utf16), utf8);
        EXPECT_EQ(utf8ToUtf16(utf8 + "\0rest"s), utf16);
        EXPECT_EQ(utf16ToUtf8(utf16 + L"\0rest"s), utf8);
    }
    EXPECT_EQ(ansiToUtf16("\\\0x"s), L"\\");
}

TEST(Text, WhatCannotBeSaidIsReplacedNotDropped) {
    EXPECT_EQ(utf16ToUtf8(L"a\xD83Cz"), "a\xEF\xBF\xBDz");
    EXPECT_EQ(utf16ToUtf8(L"a\xDFAC"), "a\xEF\xBF\xBD");
    EXPECT_EQ(utf8ToUtf16("a\xFFz"), L"a\xFFFDz");
}

TEST(Text, CountsCharactersUntilTheTextIsBroken) {
    const struct {
        std::string_view text;
        int count;
    } table[] = {
        {"", 0},
        {"abc", 3},
        {"a\xC3\xA9\xE2\x82\xAC\xF0\x9F\x8E\xAC!", 5},
        {"ab\xC3", 2},                      // cut sequence
        {"a\x80z", 1},                      // continuation byte in the lead's place
        {"a\xF8z", 1},                      // no such lead byte
        {std::string_view("ab\0cd", 5), 2}, // embedded zero
    };
    for (const auto& [text, count] : table)
        EXPECT_EQ(charCount(text), count) << text;
}

TEST(Text, PositionsAreCharactersNotBytes) {
    const std::string text = "\xC3\xA9/\xF0\x9F\x8E\xAC/b";
    EXPECT_EQ(charAt(text, 2), "\xF0\x9F\x8E\xAC");
    EXPECT_EQ(charAt(text, 5), "");
    EXPECT_EQ(charAt(text, -1), "");
    EXPECT_EQ(substrChars(text, 1, 2), "/\xF0\x9F\x8E\xAC");
    EXPECT_EQ(substrChars(text, 3, 99), "/b");
    EXPECT_EQ(substrChars(text, 0, -1), "");
    EXPECT_EQ(findFirst(text, "/"), 1);
    EXPECT_EQ(findLast(text, "/"), 3);
    EXPECT_EQ(findLast(text, "\xC3\xA9"), 0);
    EXPECT_EQ(findFirst(text, "x"), -1);
    EXPECT_EQ(findLast("a\xFF/", "/"), -1);
}

TEST(Text, ReplacesWithoutLookingAtItsOwnReplacement) {
    EXPECT_EQ(replaceAll("a//b/", "/", "//"), "a////b//");
    EXPECT_EQ(replaceAll("aaa", "aa", "b"), "ba");
    EXPECT_EQ(replaceAll("abc", "", "x"), "abc");
}
