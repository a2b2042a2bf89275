#include "platform/oxhal/secy.h"

#include <cerrno>
#include <cstdio>
#include <cstring>
#include <sys/random.h>

namespace oxhal {

layer_state layer;

void reset(const driver* chosen) {
    explicit_bzero(&layer, sizeof layer);
    layer.current = chosen;
}

port_list& ports() {
    return layer.list;
}

void forget_channels(port& on) {
    on.transmit = {};
    for (channel& each : on.receive)
        each = {};
}

std::span<channel> channels_of(port& on, direction way) {
    return way == direction::transmit ? std::span(&on.transmit, 1) : std::span(on.receive);
}

channel* find_channel(port& on, direction way, const oxhal_macsec_sci& sci) {
    for (channel& each : channels_of(on, way)) {
        if (each.exists && !memcmp(&each.sci, &sci, sizeof sci))
            return &each;
    }
    return nullptr;
}

int kernel_random(uint32_t length, uint8_t* octets) {
    if (getrandom(octets, length, GRND_NONBLOCK) == static_cast<ssize_t>(length))
        return 0;
    int error = errno;
    OXHAL_ERROR("generate_key: the kernel's random number generator is not ready: %s; give the machine a "
                "source of entropy",
                strerror(error));
    return error;
}

int read_ports(const char* value, port_list& list) {
    oxhal_port_settings settings;
    char wrong[256];
    if (!oxhal_read_ports(value, &settings, wrong, sizeof wrong)) {
        OXHAL_ERROR("OXHAL_PORTS: %s", wrong);
        return EINVAL;
    }
    list.count = settings.count;
    for (uint32_t i = 0; i < list.count; ++i) {
        port& fresh = list.ports[i] = {};
        memcpy(fresh.name, settings.ports[i].name, sizeof fresh.name);
        memcpy(fresh.common_port, settings.ports[i].common_port, sizeof fresh.common_port);
        memcpy(fresh.controlled_port, settings.ports[i].controlled_port, sizeof fresh.controlled_port);
    }
    return 0;
}

void describe(const call& what, char (&text)[call_text_size]) {
    char sci[32] = "", an[16] = "", number[40] = "";
    if (what.sci) {
        const uint8_t* octet = what.sci->octets;
        snprintf(sci, sizeof sci, " %02x:%02x:%02x:%02x:%02x:%02x/%u", octet[0], octet[1], octet[2], octet[3],
                 octet[4], octet[5], octet[6] * 256u + octet[7]);
    }
    if (what.an >= 0)
        snprintf(an, sizeof an, " an=%d", what.an);
    if (what.label)
        snprintf(number, sizeof number, " %s%u", what.label, what.number);
    snprintf(text, call_text_size, "%s%s%s%s%s%s%s%s", what.operation, what.port_name ? " " : "",
             what.port_name ? what.port_name : "", sci, an, number, what.word ? " " : "",
             what.word ? what.word : "");
}

} // namespace oxhal
