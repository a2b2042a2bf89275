// Bringing the service up: which clock and which transports this process uses, and which unit it is of.
#include <cerrno>
#include <cstdlib>
#include <cstring>
#include <sys/random.h>
#include <unistd.h>

#include "platform/oka/core/core_internal.h"
#include "platform/oka/core/linux_clock.h"
#include "platform/oka/core/names.h"
#include "platform/oka/core/oka_trace.h"
#include "platform/oka/simulation/conductor.h"
#include "platform/oka/tipc/tipc_transport.h"
#include "platform/oka/unix/unix_transport.h"

namespace {

// Nobody plugged a clock, so this is a process like any other and not a simulation.
bool uses_defaults = false;

constexpr const oka::transport* known_transports[] = {&oka::unix_transport, &oka::tipc_transport};

bool plug_named(const char* name, size_t length) {
    if (length == 4 && !strncmp(name, "none", length))
        return true;
    for (const oka::transport* each : known_transports) {
        if (strlen(each->name) == length && !strncmp(name, each->name, length)) {
            oka::plug_transport(each);
            return true;
        }
    }
    return false;
}

int plug_transports() {
    const char* names = getenv("OKA_TRANSPORTS");
    if (!names || !*names)
        names = "unix";
    while (*(names += strspn(names, " ,"))) {
        size_t length = strcspn(names, " ,");
        if (!plug_named(names, length)) {
            OKA_ERROR(
                "OKA: OKA_TRANSPORTS: there is no transport '%.*s'; there are 'unix', 'tipc' and 'none'",
                static_cast<int>(length), names);
            return EINVAL;
        }
        names += length;
    }
    return 0;
}

// OKA_UNIT, or the host's name without its domain.
int find_own_unit(char (&unit)[oka::unit_path_size]) {
    const char* chosen = getenv("OKA_UNIT");
    if (chosen && *chosen) {
        if (!oka::valid_unit(chosen)) {
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
    if (!oka::valid_unit(unit))
        strcpy(unit, "unit");
    return 0;
}

} // namespace

void oka::choose_clock() {
    if (clock_plugged())
        return;
    if (is_conducted()) {
        plug_clock(&conductor_clock);
        plug_transport(&conductor_transport);
        return;
    }
    plug_clock(&linux_clock);
    uses_defaults = true;
}

uint64_t oka::random_number() {
    if (is_conducted())
        return conducted_random();
    // What asks for chance before the kernel has any gets the time: it spreads what happens, it hides
    // nothing.
    uint64_t number = 0;
    if (getrandom(&number, sizeof number, GRND_NONBLOCK) != sizeof number)
        number = linux_clock.now_ns();
    return number;
}

int oka_init(uint32_t, uint32_t, uint32_t, uint32_t, uint32_t) {
    oka::choose_clock();
    char own_unit[oka::unit_path_size];
    if (int error = find_own_unit(own_unit))
        return error;
    if (uses_defaults && !oka::transport_plugged()) {
        if (int error = plug_transports())
            return error;
    }
    return oka::start_core(own_unit);
}
