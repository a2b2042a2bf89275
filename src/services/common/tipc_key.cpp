#include "services/common/tipc_key.h"

#include <cstring>

#include "services/common/small_file.h"

namespace services {

namespace {

// "0x", the digits, and white space that an editor adds.
constexpr size_t text_max = 2 + 2 * tipc_key::size_max + 16;

struct secret_text {
    char text[text_max + 1] = {};
    ~secret_text() { explicit_bzero(text, sizeof text); }
};

bool is_space(char letter) {
    return letter == ' ' || letter == '\n' || letter == '\r' || letter == '\t';
}

// The digit's value, or -1.
int value_of(char digit) {
    if (digit >= '0' && digit <= '9')
        return digit - '0';
    if (digit >= 'a' && digit <= 'f')
        return digit - 'a' + 10;
    if (digit >= 'A' && digit <= 'F')
        return digit - 'A' + 10;
    return -1;
}

// Null, or why the text is not a key.
const char* decode(const char* text, tipc_key& key) {
    while (is_space(*text))
        text++;
    if (text[0] != '0' || text[1] != 'x')
        return "a key begins with 0x";
    text += 2;
    for (; value_of(text[0]) >= 0 && value_of(text[1]) >= 0 && key.size < sizeof key.octets; text += 2)
        key.octets[key.size++] = static_cast<uint8_t>(value_of(text[0]) << 4 | value_of(text[1]));
    while (is_space(*text))
        text++;
    if (*text && value_of(*text) < 0)
        return "after 0x a key has hexadecimal digits only";
    if (*text || (key.size != 20 && key.size != 28 && key.size != 36))
        return "a key has 40, 56 or 72 hexadecimal digits after 0x";
    return nullptr;
}

} // namespace

tipc_key::~tipc_key() {
    explicit_bzero(octets, sizeof octets);
}

bool read_tipc_key(const char* path, tipc_key& key, std::string& error) {
    secret_text content;
    file_start file = read_start_of_file(path, {content.text, text_max});
    if (!file.error.empty())
        error = file.error;
    else if (file.mode & 077)
        error = "other users than its owner may read it; chmod 600";
    else if (const char* reason = decode(content.text, key))
        error = reason;
    else
        return true;
    error = std::string(path) + ": " + error;
    return false;
}

} // namespace services
