#include "host/model/words.h"

#include <algorithm>

namespace keel {

std::vector<std::string> split_words(std::string_view words) {
    constexpr std::string_view blanks = " \t\r\n\v\f";
    std::vector<std::string> all;
    while (true) {
        words.remove_prefix(std::min(words.size(), words.find_first_not_of(blanks)));
        if (words.empty())
            return all;
        all.emplace_back(words.substr(0, words.find_first_of(blanks)));
        words.remove_prefix(all.back().size());
    }
}

bool has_word(std::string_view words, std::string_view word) {
    const auto all = split_words(words);
    return std::find(all.begin(), all.end(), word) != all.end();
}

std::string with_word(std::string_view words, std::string_view word) {
    if (has_word(words, word))
        return std::string(words);
    return words.empty() ? std::string(word) : std::string(words) + " " + std::string(word);
}

std::string without_word(std::string_view words, std::string_view word) {
    std::string rest;
    for (const std::string &one : split_words(words))
        if (one != word)
            rest += (rest.empty() ? "" : " ") + one;
    return rest;
}

} // namespace keel
