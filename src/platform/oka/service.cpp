// Bringing the service up: which transports this process uses, and which unit it is of.
#include <algorithm>
#include <cerrno>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <iterator>
#include <string_view>
#include <unistd.h>

#include "platform/oka/core/core_internal.h"
#include "platform/oka/core/oka_trace.h"
#include "platform/oka/core/signals.h"
#include "platform/oka/tipc/tipc_transport.h"
#include "platform/oka/unix/unix_transport.h"
#include "platform/oka_names.h"
#include "platform/words.h"

namespace {

constexpr const oka::transport* known_transports[] = {&oka::unix_transport, &oka::tipc_transport};
static_assert(std::size(known_transports) <= oka::transports_at_once);

const oka::transport* find_transport(std::string_view name) {
    for (const oka::transport* each : known_transports) {
        if (each->name == name)
            return each;
    }
    return nullptr;
}

const char* transport_name(size_t index) {
    return known_transports[index]->name;
}

struct transport_choice {
    const oka::transport* chosen[std::size(known_transports)];
    size_t count = 0;

    bool contains(const oka::transport* one) const {
        return std::find(chosen, chosen + count, one) != chosen + count;
    }
};

// As oka_check_transports.
bool read_transports(std::string_view value, transport_choice& choice, char* wrong, size_t size) {
    if (value.empty())
        value = oka::unix_transport.name;
    for (std::string_view name = platform::next_word(value); !name.empty();
         name = platform::next_word(value)) {
        const oka::transport* found = find_transport(name);
        if (!found) {
            platform::describe_unknown(name, std::size(known_transports), transport_name, wrong, size);
            return false;
        }
        if (choice.contains(found)) {
            snprintf(wrong, size, "'%s' is named twice; remove either", found->name);
            return false;
        }
        choice.chosen[choice.count++] = found;
    }
    if (choice.count == 0)
        snprintf(wrong, size, "no transport is named; write %s", oka::unix_transport.name);
    return choice.count > 0;
}

int plug_transports() {
    const char* value = getenv("OKA_TRANSPORTS");
    transport_choice choice;
    char wrong[128];
    if (!read_transports(value ? value : "", choice, wrong, sizeof wrong)) {
        OKA_ERROR("OKA: OKA_TRANSPORTS is '%.80s'; %s", value, wrong);
        return EINVAL;
    }
    std::for_each(choice.chosen, choice.chosen + choice.count, oka::plug_transport);
    return 0;
}

// OKA_UNIT, or the host's name without its domain.
int find_own_unit(char (&unit)[OKA_UNIT_PATH_SIZE]) {
    const char* chosen = getenv("OKA_UNIT");
    if (chosen && *chosen) {
        if (!oka_valid_unit_path(chosen)) {
            OKA_ERROR("OKA: OKA_UNIT '%.300s' is no path of a unit", chosen);
            return EINVAL;
        }
        strcpy(unit, chosen);
        return 0;
    }
    if (gethostname(unit, sizeof unit - 1) < 0)
        unit[0] = '\0';
    unit[sizeof unit - 1] = '\0';
    unit[strcspn(unit, ".")] = '\0';
    if (!oka_valid_unit_path(unit))
        strcpy(unit, "unit");
    return 0;
}

} // namespace

bool oka_check_transports(const char* value, char* wrong, size_t size) {
    transport_choice choice;
    return read_transports(value, choice, wrong, size);
}

int oka_init(uint32_t, uint32_t, uint32_t, uint32_t, uint32_t) {
    char own_unit[OKA_UNIT_PATH_SIZE];
    if (int error = find_own_unit(own_unit))
        return error;
    if (!oka::clock_plugged() && !oka::transport_plugged()) {
        if (int error = plug_transports())
            return error;
        if (!oka::watch_signals())
            return EMFILE;
    }
    return oka::start_core(own_unit);
}
