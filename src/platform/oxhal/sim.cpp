// The SecY in memory. The contract's rules are checked before a driver is asked, so all that is left here
// is what a test wants to see of the hardware, the keys that hardware would hold, and planned failures.
#include "platform/oxhal/sim.h"

#include <cerrno>
#include <cstdio>
#include <cstdlib>
#include <cstring>

#include "platform/oxhal/fingerprint.h"
#include "platform/oxhal/sim_report.h"
#include "platform/oxhal/sim_view.h"

namespace {

using namespace oxhal;

constexpr uint32_t max_capabilities = 4;
constexpr size_t max_text = 1u << 20; // the daemon on this driver may run for long; a test takes calls often
constexpr size_t max_operations = 40;
constexpr size_t max_plans = 8;

struct plan {
    const char* operation;
    unsigned calls_until;
    unsigned times; // 0: the place is free
    int error;
};

struct capability_list {
    uint32_t count;
    oxhal_macsec_port_cap entries[max_capabilities];
};
static_assert(offsetof(capability_list, entries) == offsetof(oxhal_macsec_port_cap_list, entries));

struct stored_key {
    uint8_t octets[OXHAL_KEY_SIZE_MAX];
    uint32_t length;
};

struct channel_keys {
    stored_key keys[associations_per_channel];
};

// What stands beside each port of the layer's list.
struct hardware {
    capability_list capabilities;
    bool without_list;
    channel_keys transmit;
    channel_keys receive[max_receive_channels];
};

struct {
    bool recording;
    hardware ports[max_ports];
    plan plans[max_plans];
    struct {
        const char* operation;
        unsigned calls;
    } counts[max_operations];
    uint8_t reported_key[OXHAL_KEY_SIZE_MAX]; // until the call that brought it has ended
} sim;

// Hardware forgets its keys when it loses power.
struct power {
    ~power() {
        for (hardware& each : sim.ports) {
            explicit_bzero(&each.transmit, sizeof each.transmit);
            explicit_bzero(&each.receive, sizeof each.receive);
        }
    }
} lost_with_the_process;

// Apart from the rest, which is wiped as plain memory.
std::string& call_texts() {
    static std::string texts;
    return texts;
}

hardware& hardware_of(const port& on) {
    return sim.ports[&on - ports().ports];
}

port* find_port(const char* name) {
    for (uint32_t i = 0; name && i < ports().count; ++i) {
        if (!strcmp(ports().ports[i].name, name))
            return &ports().ports[i];
    }
    return nullptr;
}

port& port_by_name(const char* name) {
    if (port* found = find_port(name))
        return *found;
    fprintf(stderr, "oxhal_sim: no port '%s'; is oxhal_init called?\n", name);
    abort();
}

channel_keys& keys_of(port& on, direction way, const channel& of) {
    hardware& behind = hardware_of(on);
    return way == direction::transmit ? behind.transmit : behind.receive[&of - on.receive];
}

bool has_key(port& on, direction way, const channel* of, uint8_t an, const uint8_t* key, size_t length) {
    if (!of || an >= associations_per_channel || !of->associations[an].installed)
        return false;
    const stored_key& held = keys_of(on, way, *of).keys[an];
    return length == held.length && !memcmp(held.octets, key, length);
}

void wipe(hardware& behind) {
    explicit_bzero(&behind.transmit, sizeof behind.transmit);
    explicit_bzero(&behind.receive, sizeof behind.receive);
}

int init(port_list& list) {
    const char* named = getenv("OXHAL_PORTS");
#define PORT_OF_UNIT(name) "DiPort_" #name "=port-" #name ":sec-" #name " "
    int error = read_ports(named && *named ? named : OXHAL_PORTS_OF_UNITS(PORT_OF_UNIT), list);
#undef PORT_OF_UNIT
    for (hardware& behind : sim.ports)
        behind.capabilities = {.count = 1, .entries = {usual_capability}};
    return error;
}

int prepare(const port_list&) {
    return 0;
}

int capabilities(const port& on, const oxhal_macsec_port_cap_list** list) {
    hardware& behind = hardware_of(on);
    *list = behind.without_list ? nullptr
                                : reinterpret_cast<const oxhal_macsec_port_cap_list*>(&behind.capabilities);
    return 0;
}

void refresh(port&) {}

int enable(port& on, bool) {
    wipe(hardware_of(on));
    return 0;
}

int configure(port&, const settings&) {
    return 0;
}
int create_channel(port&, direction, const oxhal_macsec_sci&) {
    return 0;
}

int delete_channel(port& on, direction way, const channel& which) {
    explicit_bzero(&keys_of(on, way, which), sizeof(channel_keys));
    return 0;
}

int create_association(port& on, direction way, const channel& of, uint8_t an, const association&,
                       const oxhal_macsec_key& key) {
    stored_key& held = keys_of(on, way, of).keys[an];
    memcpy(held.octets, key.octets, key.length);
    held.length = key.length;
    if (oxhal_sim::reports())
        memcpy(sim.reported_key, key.octets, key.length);
    return 0;
}

int enable_association(port&, direction, const channel&, uint8_t, bool) {
    return 0;
}

int delete_association(port& on, direction way, const channel& of, uint8_t an) {
    explicit_bzero(&keys_of(on, way, of).keys[an], sizeof(stored_key));
    return 0;
}

int read_in_use(const port&, direction, const channel& of, uint8_t an, bool* in_use) {
    *in_use = of.associations[an].in_use;
    return 0;
}

void count(const char* operation) {
    for (auto& each : sim.counts) {
        if (!each.operation)
            each.operation = operation;
        if (!strcmp(each.operation, operation)) {
            ++each.calls;
            return;
        }
    }
}

int before(const call& what) {
    count(what.operation);
    int error = 0;
    for (plan& each : sim.plans) {
        if (!each.times || (each.operation && strcmp(each.operation, what.operation)))
            continue;
        if (each.calls_until > 1) {
            --each.calls_until;
        } else {
            --each.times;
            error = each.error;
        }
    }
    if (error == 0 && oxhal_sim::reports()) {
        oxhal_sim::report_answer answer = oxhal_sim::ask(what);
        memcpy(sim.reported_key, answer.key, sizeof sim.reported_key);
        explicit_bzero(answer.key, sizeof answer.key);
        error = answer.error;
    }
    return error;
}

// Who watches the calls makes the keys too, so that a simulation can be repeated.
int generate_key(uint32_t length, uint8_t* key) {
    if (!oxhal_sim::reports())
        return kernel_random(length, key);
    for (uint32_t at = 0; at < length; ++at)
        key[at] = sim.reported_key[at % sizeof sim.reported_key];
    return 0;
}

void show_association(const association& from, const stored_key& key, oxhal_view_association& to) {
    if (!from.installed)
        return;
    to.installed = true;
    to.active = from.in_use;
    to.next_packet_number = from.packet_number;
    fingerprint_of(key.octets, key.length, to.fingerprint);
}

void show(port& on) {
    oxhal_view view = {};
    view.enabled = on.enabled;
    view.protect_frames = on.wanted.protect_frames;
    view.replay_protect = on.wanted.replay_protect;
    view.replay_window = on.wanted.replay_window;
    view.validate_frames = on.wanted.validate_frames;
    view.transmit.sci = on.transmit.sci;
    for (uint32_t an = 0; an < associations_per_channel; ++an) {
        const association& each = on.transmit.associations[an];
        show_association(each, hardware_of(on).transmit.keys[an], view.transmit.associations[an]);
        view.confidentiality |= each.in_use && each.confidentiality;
    }
    for (const channel& each : on.receive) {
        if (!each.exists)
            continue;
        oxhal_view_receive_channel& next = view.receive[view.receive_channels++];
        next.sci = each.sci;
        next.active = true;
        for (uint32_t an = 0; an < associations_per_channel; ++an)
            show_association(each.associations[an], keys_of(on, direction::receive, each).keys[an],
                             next.associations[an]);
    }
    oxhal_sim::show_view(on, view);
}

void after(const call& what, int result) {
    if (port* on = oxhal_sim::shows_views() ? find_port(what.port_name) : nullptr)
        show(*on);
    if (oxhal_sim::reports()) {
        oxhal_sim::report_end(what, result, sim.reported_key);
        explicit_bzero(sim.reported_key, sizeof sim.reported_key);
    }
    std::string& texts = call_texts();
    if (!sim.recording || texts.size() > max_text)
        return;
    char text[call_text_size];
    describe(what, text);
    texts += text;
    if (result) {
        snprintf(text, sizeof text, " = %d", result);
        texts += text;
    }
    texts += '\n';
}

bool changes_nothing(const std::string& line) {
    size_t end = line.find_first_of(" \n");
    return end >= 4 && !line.compare(end - 4, 4, "_get");
}

} // namespace

namespace oxhal {

const driver sim_driver = {
    .name = sim_driver_name,
    .init = init,
    .prepare = prepare,
    .capabilities = capabilities,
    .refresh = refresh,
    .enable = enable,
    .configure = configure,
    .create_channel = create_channel,
    .delete_channel = delete_channel,
    .create_association = create_association,
    .enable_association = enable_association,
    .delete_association = delete_association,
    .read_in_use = read_in_use,
    .generate_key = generate_key,
    .before = before,
    .after = after,
};

} // namespace oxhal

namespace oxhal_sim {

void install() {
    explicit_bzero(&sim, sizeof sim);
    sim.recording = true;
    call_texts().clear();
    reset(&sim_driver);
}

const port& secy(const char* port_name) {
    return port_by_name(port_name);
}

const channel* receive_channel(const char* port_name, const oxhal_macsec_sci& sci) {
    return find_channel(port_by_name(port_name), direction::receive, sci);
}

size_t channel_count(const char* port_name) {
    const port& on = port_by_name(port_name);
    size_t found = on.transmit.exists;
    for (const channel& each : on.receive)
        found += each.exists;
    return found;
}

size_t association_count(const char* port_name) {
    const port& on = port_by_name(port_name);
    size_t found = 0;
    for (uint8_t an = 0; an < associations_per_channel; ++an) {
        found += on.transmit.associations[an].installed;
        for (const channel& each : on.receive)
            found += each.associations[an].installed;
    }
    return found;
}

bool has_transmit_key(const char* port_name, uint8_t an, const uint8_t* key, size_t length) {
    port& on = port_by_name(port_name);
    return has_key(on, direction::transmit, &on.transmit, an, key, length);
}

bool has_receive_key(const char* port_name, const oxhal_macsec_sci& sci, uint8_t an, const uint8_t* key,
                     size_t length) {
    port& on = port_by_name(port_name);
    return has_key(on, direction::receive, find_channel(on, direction::receive, sci), an, key, length);
}

std::string take_all_calls() {
    std::string taken;
    taken.swap(call_texts());
    return taken;
}

std::string take_calls() {
    std::string all = take_all_calls();
    std::string changes;
    for (size_t begin = 0, end; (end = all.find('\n', begin)) != std::string::npos; begin = end + 1) {
        std::string line = all.substr(begin, end + 1 - begin);
        if (!changes_nothing(line))
            changes += line;
    }
    return changes;
}

unsigned call_count(const char* operation) {
    for (const auto& each : sim.counts) {
        if (each.operation && !strcmp(each.operation, operation))
            return each.calls;
    }
    return 0;
}

void fail(const char* operation, unsigned nth, int error, unsigned times) {
    for (plan& place : sim.plans) {
        if (!place.times) {
            place = {.operation = operation, .calls_until = nth, .times = times, .error = error};
            return;
        }
    }
    fprintf(stderr, "oxhal_sim: more than %zu planned failures\n", max_plans);
    abort();
}

void fail_never() {
    explicit_bzero(sim.plans, sizeof sim.plans);
}

void set_capabilities(const char* port_name, const oxhal_macsec_port_cap* entries, uint32_t count) {
    hardware& behind = hardware_of(port_by_name(port_name));
    behind.without_list = false;
    behind.capabilities = {};
    while (behind.capabilities.count < count && behind.capabilities.count < max_capabilities) {
        behind.capabilities.entries[behind.capabilities.count] = entries[behind.capabilities.count];
        ++behind.capabilities.count;
    }
}

void set_no_capability_list(const char* port_name) {
    hardware_of(port_by_name(port_name)).without_list = true;
}

} // namespace oxhal_sim
