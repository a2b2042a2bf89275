// The key by which the machines of a TIPC cluster encrypt what they send each other, as a file holds it: 20,
// 28 or 36 bytes as hexadecimal digits after "0x", that is an AES key of 16, 24 or 32 bytes and 4 bytes of
// salt.
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

// False, with what is wrong with the file and what to do in `error`. A file that others than its owner may
// read is refused, since what it holds is no secret.
[[nodiscard]] bool read_tipc_key(const char* path, tipc_key& key, std::string& error);

} // namespace services
