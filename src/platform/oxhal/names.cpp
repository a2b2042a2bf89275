#include "platform/oxhal_names.h"

#include <algorithm>
#include <cstdio>
#include <cstring>
#include <string_view>

#include "platform/oxhal/secy.h"
#include "platform/words.h"

namespace {

#define DRIVER_NAME(name) oxhal::name##_driver_name,
constexpr const char* driver_names[] = {OXHAL_DRIVERS(DRIVER_NAME)};
#undef DRIVER_NAME

bool is_interface(std::string_view name) {
    return !name.empty() && name.size() < OXHAL_INTERFACE_NAME_SIZE && name != "." && name != ".." &&
           name.find_first_of("/:= ") == std::string_view::npos;
}

template<size_t Size>
void store(char (&into)[Size], std::string_view text) {
    snprintf(into, Size, "%.*s", static_cast<int>(text.size()), text.data());
}

// "NAME=INTERFACE:INTERFACE"
bool read_port(std::string_view word, oxhal_port_setting& port) {
    size_t equals = std::min(word.find('='), word.size());
    std::string_view name = word.substr(0, equals), rest = word.substr(std::min(equals + 1, word.size()));
    size_t colon = std::min(rest.find(':'), rest.size());
    std::string_view common = rest.substr(0, colon),
                     controlled = rest.substr(std::min(colon + 1, rest.size()));
    if (name.empty() || name.size() >= sizeof port.name ||
        name.find_first_of("/:") != std::string_view::npos || !is_interface(common) ||
        !is_interface(controlled))
        return false;
    store(port.name, name);
    store(port.common_port, common);
    store(port.controlled_port, controlled);
    return true;
}

// The name or interface of the fresh port that another port has already, or that it names twice itself; null
// if there is none.
const char* named_twice(const oxhal_port_settings& settings, const oxhal_port_setting& fresh) {
    if (!strcmp(fresh.common_port, fresh.controlled_port))
        return fresh.common_port;
    for (uint32_t i = 0; i < settings.count; ++i) {
        const oxhal_port_setting& other = settings.ports[i];
        if (!strcmp(other.name, fresh.name))
            return fresh.name;
        for (const char* interface : {fresh.common_port, fresh.controlled_port}) {
            if (!strcmp(other.common_port, interface) || !strcmp(other.controlled_port, interface))
                return interface;
        }
    }
    return nullptr;
}

} // namespace

bool oxhal_read_ports(const char* value, oxhal_port_settings* settings, char* wrong, size_t size) {
    *settings = {};
    std::string_view rest = value;
    for (auto word = platform::next_word(rest, " "); !word.empty(); word = platform::next_word(rest, " ")) {
        int length = static_cast<int>(std::min(word.size(), size_t{60}));
        oxhal_port_setting fresh = {};
        if (!read_port(word, fresh)) {
            snprintf(wrong, size,
                     "'%.*s' is no port; write it as DiPort_A1=eth1:sec-a1 (port, its interface, the MACsec "
                     "interface to make)",
                     length, word.data());
            return false;
        }
        if (const char* twice = named_twice(*settings, fresh)) {
            snprintf(wrong, size, "'%.*s' names '%s' a second time; each port and interface belongs to one",
                     length, word.data(), twice);
            return false;
        }
        if (settings->count == OXHAL_PORTS_MAX) {
            snprintf(wrong, size, "more than %d ports are named", OXHAL_PORTS_MAX);
            return false;
        }
        settings->ports[settings->count++] = fresh;
    }
    if (settings->count > 0)
        return true;
    snprintf(wrong, size, "no port is named; write them as DiPort_A1=eth1:sec-a1 DiPort_B1=eth2:sec-b1");
    return false;
}

bool oxhal_valid_interface_name(const char* name) {
    return is_interface(name);
}

bool oxhal_check_driver(const char* value, char* wrong, size_t size) {
    if (!*value || std::any_of(std::begin(driver_names), std::end(driver_names),
                               [=](const char* name) { return !strcmp(name, value); }))
        return true;
    platform::describe_unknown(
        value, std::size(driver_names), [](size_t at) { return driver_names[at]; }, wrong, size);
    return false;
}
