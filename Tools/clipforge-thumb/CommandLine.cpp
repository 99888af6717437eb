#include "CommandLine.h"

#include <algorithm>
#include <tuple>

#include "Console.h"

std::vector<std::wstring> parseWords(Words words, std::span<const Option> options) {
    std::vector<std::wstring> others;
    bool isBehindOptions = false;
    for (size_t i = 0; i < words.size(); ++i) {
        const std::wstring_view word = words[i];
        if (isBehindOptions || !word.starts_with(L"--")) {
            others.emplace_back(word);
            continue;
        }
        if (word == L"--") {
            isBehindOptions = true;
            continue;
        }
        const auto option = std::ranges::find(options, word, &Option::name);
        if (option == options.end())
            throw CommandError(L"there is no option " + std::wstring(word), EXIT_USAGE);
        if (bool* const* flag = std::get_if<bool*>(&option->place)) {
            **flag = true;
            continue;
        }
        if (++i == words.size() || words[i].empty())
            throw CommandError(std::wstring(word) + L" needs a value", EXIT_USAGE);
        *std::get<std::optional<std::wstring>*>(option->place) = words[i];
    }
    return others;
}
