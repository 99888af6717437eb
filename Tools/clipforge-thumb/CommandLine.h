// A command's words: options by name, each with the place that its value goes to, and the words that are
// none.
#pragma once

#include <optional>
#include <span>
#include <string>
#include <string_view>
#include <variant>
#include <vector>

using Words = std::span<const std::wstring_view>;

/// An option that is only there or not, or one that takes the word behind it, which may not be empty.
struct Option {
    std::wstring_view name;
    std::variant<bool*, std::optional<std::wstring>*> place;
};

/// Fills the options' places and gives the other words in order. What follows "--" is no option. Throws
/// CommandError with EXIT_USAGE.
std::vector<std::wstring> parseWords(Words words, std::span<const Option> options);
