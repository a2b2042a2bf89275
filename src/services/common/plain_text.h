// Text from a file or from another unit may hold control characters. They must not reach a terminal or a
// journal.
#pragma once

#include <string>

namespace services {

// Whether the octet is a printable character of ASCII, which a blank is too.
constexpr bool is_plain(char octet) {
    return octet >= ' ' && octet <= '~';
}

// With a "?" for each octet that is not printable.
inline std::string plain_text(std::string text) {
    for (char& octet : text)
        octet = is_plain(octet) ? octet : '?';
    return text;
}

} // namespace services
