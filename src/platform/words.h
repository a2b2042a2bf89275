// Lists of words in the environment: how they are separated, and the text about a word that is not known.
#pragma once

#include <algorithm>
#include <cstddef>
#include <cstdio>
#include <string_view>

namespace platform {

// Takes the next word from the front of `text`; "" after the last.
inline std::string_view next_word(std::string_view& text, std::string_view separators = " ,") {
    text.remove_prefix(std::min(text.find_first_not_of(separators), text.size()));
    std::string_view word = text.substr(0, text.find_first_of(separators));
    text.remove_prefix(word.size());
    return word;
}

// Whether `words` lists `wanted`.
inline bool has_word(std::string_view words, std::string_view wanted) {
    for (std::string_view each = next_word(words); !each.empty(); each = next_word(words)) {
        if (each == wanted)
            return true;
    }
    return false;
}

// Writes into `wrong` that there is no such word, and the `count` words that there are, name_at(index) each.
template<typename NameAt>
void describe_unknown(std::string_view word, size_t count, NameAt name_at, char* wrong, size_t size) {
    int length = snprintf(wrong, size, "there is no '%.*s'; there are:",
                          static_cast<int>(std::min(word.size(), size_t{40})), word.data());
    for (size_t index = 0; index < count && length >= 0 && static_cast<size_t>(length) < size; ++index) {
        auto used = static_cast<size_t>(length);
        length += snprintf(wrong + used, size - used, " %s", name_at(index));
    }
}

} // namespace platform
