#include "services/common/tipc_key.h"

#include <cerrno>
#include <cstring>
#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

namespace services {

namespace {

// "0x", the digits, and the white space that an editor leaves.
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

// Why the text is no key, or null.
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
    int file = open(path, O_RDONLY | O_CLOEXEC | O_NONBLOCK);
    struct stat facts = {};
    if (file < 0 || fstat(file, &facts) != 0) {
        error = std::string(path) + ": " + strerror(errno);
        if (file >= 0)
            close(file);
        return false;
    }
    secret_text content;
    ssize_t size = S_ISREG(facts.st_mode) ? read(file, content.text, text_max) : 0;
    close(file);
    const char* reason = nullptr;
    if (!S_ISREG(facts.st_mode))
        reason = "this is no file that can hold a key";
    else if (facts.st_mode & 077)
        reason = "others than its owner may read it; chmod 600";
    else if (size < 0)
        reason = "it cannot be read";
    else
        reason = decode(content.text, key);
    if (reason)
        error = std::string(path) + ": " + reason;
    return !reason;
}

} // namespace services
