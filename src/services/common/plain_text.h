// Text that came from elsewhere, a file or another unit, made fit for a terminal and a journal.
#pragma once

#include <string>

namespace services {

// Whether the octet is a printable character of ASCII; a blank is.
constexpr bool is_plain(char octet) {
    return octet >= ' ' && octet <= '~';
}

// A "?" in the place of everything else.
inline std::string plain_text(std::string text) {
    for (char& octet : text)
        octet = is_plain(octet) ? octet : '?';
    return text;
}

} // namespace services
