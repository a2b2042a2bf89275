// Lists of words in the environment: how they are separated, and what is said about one that is not known.
#pragma once

#include <algorithm>
#include <cstddef>
#include <cstdio>
#include <string_view>

namespace platform {

// The next word of `text`, which loses it; "" after the last.
inline std::string_view next_word(std::string_view& text) {
    constexpr std::string_view separators = " ,";
    text.remove_prefix(std::min(text.find_first_not_of(separators), text.size()));
    std::string_view word = text.substr(0, text.find_first_of(separators));
    text.remove_prefix(word.size());
    return word;
}

// Into `wrong`: that there is no such word, and which there are: `count` of them, by name_at(index).
template<typename NameAt>
void describe_unknown(std::string_view word, size_t count, NameAt name_at, char* wrong, size_t size) {
    int length = snprintf(wrong, size, "there is no '%.*s'; write some of:",
                          static_cast<int>(std::min(word.size(), size_t{40})), word.data());
    for (size_t index = 0; index < count && length >= 0 && static_cast<size_t>(length) < size; ++index) {
        auto used = static_cast<size_t>(length);
        length += snprintf(wrong + used, size - used, " %s", name_at(index));
    }
}

} // namespace platform
