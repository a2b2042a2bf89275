#include "platform/oxhal/sim_view.h"

#include <atomic>
#include <cerrno>
#include <cstdlib>
#include <cstring>
#include <fcntl.h>
#include <sys/mman.h>
#include <unistd.h>

namespace oxhal_sim {

namespace {

using oxhal::max_ports;

// One writer, the process that has the SecY; a reader takes what did not change while it read.
struct shown_port {
    std::atomic<uint32_t> changes; // odd while it is written
    char name[sizeof oxhal::port::name];
    oxhal_view view;
    oxhal_view counters; // whose counters alone count
};

struct shown_ports {
    shown_port ports[max_ports];
};

shown_ports* map_file() {
    const char* path = getenv("OXHAL_SIM_VIEW");
    if (!path || !*path)
        return nullptr;
    int file = open(path, O_RDWR | O_CREAT | O_CLOEXEC, 0600);
    if (file < 0 || ftruncate(file, sizeof(shown_ports)) != 0) {
        OXHAL_ERROR("OXHAL_SIM_VIEW: '%.200s' cannot be used: %s", path, strerror(errno));
        if (file >= 0)
            close(file);
        return nullptr;
    }
    void* at = mmap(nullptr, sizeof(shown_ports), PROT_READ | PROT_WRITE, MAP_SHARED, file, 0);
    close(file);
    return at == MAP_FAILED ? nullptr : static_cast<shown_ports*>(at);
}

shown_ports* shown() {
    static shown_ports* const mapped = map_file();
    return mapped;
}

shown_port* find(const char* name) {
    for (shown_port& each : shown()->ports) {
        if (!strncmp(each.name, name, sizeof each.name))
            return &each;
    }
    return nullptr;
}

// The port's place, the first free one unless it has one.
shown_port* place_of(const char* name) {
    shown_port* found = find(name);
    if (!found && (found = find("")))
        strcpy(found->name, name);
    return found;
}

template<class Write>
void change(shown_port& place, Write write) {
    place.changes.fetch_add(1, std::memory_order_acq_rel);
    write();
    place.changes.fetch_add(1, std::memory_order_release);
}

void copy_counters(const oxhal_view& from, oxhal_view& to) {
    auto& out = to.transmit;
    out.out_pkts_protected = from.transmit.out_pkts_protected;
    out.out_pkts_encrypted = from.transmit.out_pkts_encrypted;
    out.out_octets_protected = from.transmit.out_octets_protected;
    out.out_octets_encrypted = from.transmit.out_octets_encrypted;
    for (uint32_t i = 0; i < to.receive_channels; ++i) {
        oxhal_view_receive_channel& in = to.receive[i];
        oxhal_view_receive_channel counted = from.receive[i];
        memcpy(&counted.sci, &in.sci, sizeof counted.sci);
        counted.active = in.active;
        memcpy(counted.associations, in.associations, sizeof counted.associations);
        in = counted;
    }
    to.out_pkts_untagged = from.out_pkts_untagged;
    to.out_pkts_too_long = from.out_pkts_too_long;
    to.in_pkts_untagged = from.in_pkts_untagged;
    to.in_pkts_no_tag = from.in_pkts_no_tag;
    to.in_pkts_bad_tag = from.in_pkts_bad_tag;
    to.in_pkts_unknown_sci = from.in_pkts_unknown_sci;
    to.in_pkts_no_sci = from.in_pkts_no_sci;
    to.in_pkts_overrun = from.in_pkts_overrun;
}

} // namespace

bool shows_views() {
    return shown();
}

void show_view(const oxhal::port& on, const oxhal_view& view) {
    if (shown_port* place = place_of(on.name))
        change(*place, [&] { place->view = view; });
}

int read_view(const char* port_name, oxhal_view& view) {
    if (!shown())
        return ENODEV;
    const shown_port* place = find(port_name);
    if (!place)
        return ENODEV;
    // A writer that died while it wrote must not hold its readers up.
    for (int tries = 0; tries < 1000; ++tries) {
        uint32_t before = place->changes.load(std::memory_order_acquire);
        view = place->view;
        if (view.enabled)
            copy_counters(place->counters, view);
        std::atomic_thread_fence(std::memory_order_acquire);
        if (!(before & 1) && place->changes.load(std::memory_order_relaxed) == before)
            return 0;
    }
    view = {};
    return EAGAIN;
}

int write_counters(const char* port_name, const oxhal_view& view) {
    shown_port* place = shown() ? find(port_name) : nullptr;
    if (!place)
        return ENODEV;
    change(*place, [&] { place->counters = view; });
    return 0;
}

} // namespace oxhal_sim
