/*
 * A text of blank-separated words used as a set (flags, links): whether it has the word, and with or without it.
 */
#ifndef HOST_MODEL_WORDS_H
#define HOST_MODEL_WORDS_H

#include <string>
#include <string_view>
#include <vector>

namespace keel {

bool has_word(std::string_view words, std::string_view word);
std::string with_word(std::string_view words, std::string_view word);
std::string without_word(std::string_view words, std::string_view word);
std::vector<std::string> split_words(std::string_view words);

} // namespace keel

#endif
