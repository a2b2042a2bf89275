// The key with which the machines of a TIPC cluster encrypt their messages to each other. In its file it is
// "0x" and 40, 56 or 72 hexadecimal digits: an AES key of 16, 24 or 32 bytes, and 4 bytes of salt.
#pragma once

#include <cstddef>
#include <cstdint>
#include <string>

namespace services {

struct tipc_key {
    static constexpr size_t size_max = 36;

    uint8_t octets[size_max] = {};
    size_t size = 0;

    tipc_key() = default;
    ~tipc_key(); // wipes it
    tipc_key(const tipc_key&) = delete;
    tipc_key& operator=(const tipc_key&) = delete;
};

// False, with what is wrong with the file and what to do in `error`. A file that other users than its owner
// may read is refused, since its content is not secret.
[[nodiscard]] bool read_tipc_key(const char* path, tipc_key& key, std::string& error);

} // namespace services
