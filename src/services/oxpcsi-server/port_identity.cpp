#include "services/oxpcsi-server/port_identity.h"

#include <cstdlib>
#include <string>

#include "base/hash.h"
#include "services/common/small_file.h"

namespace oxpcsi {

namespace {

std::string machine_id() {
    for (const char* path : {"/etc/machine-id", "/proc/sys/kernel/random/boot_id"}) {
        char id[64];
        services::file_start file = services::read_start_of_file(path, id);
        if (file.size > 0)
            return {id, file.size};
    }
    return "";
}

} // namespace

port_identity derive_identity(const char* port) {
    const char* unit = getenv("OKA_UNIT");
    uint64_t hash = tavu::hash_of(machine_id() + "/" + (unit ? unit : "") + "/" + port);
    port_identity identity;
    for (uint8_t& octet : identity) {
        octet = static_cast<uint8_t>(hash);
        hash >>= 8;
    }
    constexpr uint8_t group = 0x01, locally_administered = 0x02;
    identity[0] = static_cast<uint8_t>((identity[0] | locally_administered) & ~group);
    return identity;
}

} // namespace oxpcsi
