// The contract of platform/oxhal.h: which call is right in which state of a SecY. The hardware itself is
// reached through the driver that OXHAL_DRIVER names.
#include "platform/oxhal.h"

#include <algorithm>
#include <cassert>
#include <cerrno>
#include <cstdlib>
#include <cstring>

#include "platform/oxhal/secy.h"
#include "platform/zeb.h"

namespace oxhal {
namespace {

static_assert(sizeof(oxhal_vport) == 108);
static_assert(sizeof(oxhal_macsec_port_cap) == 88);

constexpr uint32_t first_handle = 100; // apart from the index, so that the two are never mistaken

#define DRIVER(name) &name##_driver,
constexpr const driver* drivers[] = {OXHAL_DRIVERS(DRIVER)};
#undef DRIVER

const driver* driver_by_environment() {
    const char* name = getenv("OXHAL_DRIVER");
    if (!name || !*name)
        return drivers[0];
    char wrong[256];
    if (oxhal_check_driver(name, wrong, sizeof wrong)) {
        for (const driver* candidate : drivers) {
            if (!strcmp(candidate->name, name))
                return candidate;
        }
    }
    OXHAL_ERROR("OXHAL_DRIVER: %s", wrong);
    return nullptr;
}

port* find_port(uint32_t handle) {
    uint32_t index = handle - first_handle;
    return index < layer.list.count ? &layer.list.ports[index] : nullptr;
}

// One call, from its arguments to its result. The driver's observer hears of both, and may refuse the call.
class observed_call {
  public:
    explicit observed_call(const call& arguments) : what(arguments) {
        if (layer.current && layer.current->before)
            error = layer.current->before(what);
    }
    [[nodiscard]] bool allowed() const { return !error; }
    int ends(int result) {
        error = result;
        return ends();
    }
    int ends() {
        if (layer.current && layer.current->after)
            layer.current->after(what, error);
        return error;
    }

  protected:
    call what;
    int error = 0;
};

// A call about a port. It begins with the checks that are the same for every operation, and its result is
// traced.
class port_call : public observed_call {
  public:
    port_call(uint32_t handle, const call& arguments)
        : observed_call(with_port_name(arguments, handle)), on(find_port(handle)) {
        if (error)
            reason = "the driver refused";
        else if (!layer.current || !layer.prepared)
            refuse(EPERM, "oxhal_init and oxhal_macsec_init come first");
        else if (!on)
            refuse(ENODEV, "there is no port with that handle");
        else
            layer.current->refresh(*on);
    }

    // Checks made in a row: the first that does not hold is the call's error.
    port_call& expect(bool holds, int error_number, const char* why) {
        if (!holds && !error)
            refuse(error_number, why);
        return *this;
    }

    int ends(int result) {
        error = result;
        return ends();
    }
    int ends() {
        if (reason || ZEB_IS_TRACED(ZEB_GROUP_TRACE)) {
            char text[call_text_size];
            describe(what, text);
            if (reason)
                OXHAL_ERROR("%s: %s", text, reason);
            else
                ZEB_TRACE(ZEB_GROUP_TRACE, "OXHAL: %s = %d", text, error);
        }
        return observed_call::ends();
    }

    // Only while the call is allowed.
    port& secy() {
        assert(on && allowed());
        return *on;
    }

  private:
    static call with_port_name(call arguments, uint32_t handle) {
        const port* named = find_port(handle);
        arguments.port_name = named ? named->name : "?";
        return arguments;
    }
    void refuse(int error_number, const char* why) {
        error = error_number;
        reason = why;
    }

    port* on;
    const char* reason = nullptr;
};

// Changes one setting. All are handed to the driver together; the standard lets ES and SCB count only
// where the SCI is not always included, and never both (IEEE 802.1AE-2018, 9.5 and 10.5.3).
template<class Change>
int configure(port_call& running, Change change) {
    if (!running.allowed())
        return running.ends();
    port& secy = running.secy();
    settings wanted = secy.wanted;
    change(wanted);
    running.expect(wanted.always_include_sci || !wanted.es || !wanted.scb, EINVAL,
                   "ES and SCB exclude each other unless the SCI is always included");
    if (!running.allowed())
        return running.ends();
    int error = secy.enabled ? layer.current->configure(secy, wanted) : 0;
    if (!error)
        secy.wanted = wanted;
    return running.ends(error);
}

const char* to_str(bool value) {
    return value ? "true" : "false";
}

int configure_flag(const char* operation, uint32_t handle, bool value, bool settings::*member) {
    port_call running(handle, {.operation = operation, .word = to_str(value)});
    return configure(running, [&](settings& wanted) { wanted.*member = value; });
}

bool holds_associations(const channel& which) {
    for (const association& each : which.associations) {
        if (each.installed)
            return true;
    }
    return false;
}

channel* free_channel(port& secy, direction way) {
    for (channel& each : channels_of(secy, way)) {
        if (!each.exists)
            return &each;
    }
    return nullptr;
}

int create_channel(const char* operation, uint32_t handle, direction way, const oxhal_macsec_sci& sci) {
    port_call running(handle, {.operation = operation, .sci = &sci});
    if (!running.allowed())
        return running.ends();
    port& secy = running.secy();
    channel* place = free_channel(secy, way);
    running.expect(secy.enabled, ENETDOWN, "the controlled port is not enabled")
        .expect(!find_channel(secy, way, sci), EEXIST, "the channel exists already")
        .expect(place, ENOSPC, "the SecY has no room for another channel");
    if (!running.allowed())
        return running.ends();
    int error = layer.current->create_channel(secy, way, sci);
    if (!error)
        *place = {.exists = true, .sci = sci, .associations = {}};
    return running.ends(error);
}

int delete_channel(const char* operation, uint32_t handle, direction way, const oxhal_macsec_sci& sci) {
    port_call running(handle, {.operation = operation, .sci = &sci});
    if (!running.allowed())
        return running.ends();
    port& secy = running.secy();
    channel* which = find_channel(secy, way, sci);
    running.expect(which, ENOENT, "there is no such channel")
        .expect(!which || !holds_associations(*which), EBUSY, "the channel still has associations");
    if (!running.allowed())
        return running.ends();
    int error = layer.current->delete_channel(secy, way, *which);
    if (!error)
        *which = {};
    return running.ends(error);
}

// What fails does not keep the rest from being deleted; the first error is the result.
int delete_all_channels(const char* operation, uint32_t handle, direction way) {
    port_call running(handle, {.operation = operation});
    if (!running.allowed())
        return running.ends();
    port& secy = running.secy();
    int first_error = 0;
    for (channel& which : channels_of(secy, way)) {
        int error = which.exists ? layer.current->delete_channel(secy, way, which) : 0;
        if (!error)
            which = {};
        else if (!first_error)
            first_error = error;
    }
    return running.ends(first_error);
}

int create_association(const char* operation, uint32_t handle, direction way, const oxhal_macsec_sci& sci,
                       uint8_t an, uint32_t packet_number, bool confidentiality, oxhal_macsec_key key) {
    port_call running(handle, {.operation = operation,
                               .sci = &sci,
                               .an = an,
                               .label = "pn=",
                               .number = packet_number,
                               .word = way == direction::receive ? nullptr
                                       : confidentiality         ? "conf"
                                                                 : "no-conf"});
    if (!running.allowed())
        return running.ends();
    port& secy = running.secy();
    channel* of = find_channel(secy, way, sci);
    running.expect(of, ENOENT, "there is no such channel")
        .expect(an < associations_per_channel, EINVAL, "association numbers go from 0 to 3")
        .expect(packet_number, EINVAL, "packet numbers begin with 1")
        .expect(key.octets && is_key_length(key.length), EINVAL,
                "no cipher suite of the SecY has such a key");
    if (running.allowed())
        running.expect(!of->associations[an].installed, EEXIST, "the association number is taken");
    if (!running.allowed())
        return running.ends();
    association made = {.installed = true,
                        .in_use = false,
                        .confidentiality = confidentiality,
                        .packet_number = packet_number};
    int error = layer.current->create_association(secy, way, *of, an, made, key);
    if (!error)
        of->associations[an] = made;
    return running.ends(error);
}

// The association that a call means, or null after the call was refused.
association* find_association(port_call& running, direction way, const oxhal_macsec_sci& sci, uint8_t an,
                              channel** of) {
    if (!running.allowed())
        return nullptr;
    *of = find_channel(running.secy(), way, sci);
    running.expect(*of, ENOENT, "there is no such channel")
        .expect(an < associations_per_channel, EINVAL, "association numbers go from 0 to 3");
    if (running.allowed())
        running.expect((*of)->associations[an].installed, ENOENT, "there is no such association");
    return running.allowed() ? &(*of)->associations[an] : nullptr;
}

int enable_association(const char* operation, uint32_t handle, direction way, const oxhal_macsec_sci& sci,
                       uint8_t an, bool enable) {
    port_call running(handle, {.operation = operation, .sci = &sci, .an = an, .word = to_str(enable)});
    channel* of = nullptr;
    association* which = find_association(running, way, sci, an, &of);
    if (!which)
        return running.ends();
    int error = layer.current->enable_association(running.secy(), way, *of, an, enable);
    if (!error) {
        if (enable && way == direction::transmit) {
            for (association& each : of->associations)
                each.in_use = false;
        }
        which->in_use = enable;
    }
    return running.ends(error);
}

int delete_association(const char* operation, uint32_t handle, direction way, const oxhal_macsec_sci& sci,
                       uint8_t an) {
    port_call running(handle, {.operation = operation, .sci = &sci, .an = an});
    channel* of = nullptr;
    association* which = find_association(running, way, sci, an, &of);
    if (!which)
        return running.ends();
    int error = layer.current->delete_association(running.secy(), way, *of, an);
    if (!error)
        *which = {};
    return running.ends(error);
}

int read_in_use(const char* operation, uint32_t handle, direction way, const oxhal_macsec_sci& sci,
                uint8_t an, bool* in_use) {
    port_call running(handle, {.operation = operation, .sci = &sci, .an = an});
    running.expect(in_use, EINVAL, "there is no place for the answer");
    channel* of = nullptr;
    if (!find_association(running, way, sci, an, &of))
        return running.ends();
    return running.ends(layer.current->read_in_use(running.secy(), way, *of, an, in_use));
}

int list_ports() {
    if (int error = layer.current->init(layer.list))
        return error;
    assert(layer.list.count <= max_ports);
    for (uint32_t i = 0; i < layer.list.count; ++i) {
        layer.list.ports[i].handle = first_handle + i;
        layer.list.ports[i].wanted = initial_settings;
    }
    layer.initialised = true;
    return 0;
}

} // namespace

} // namespace oxhal

using namespace oxhal;

int oxhal_init(void) {
    if (layer.initialised) {
        OXHAL_ERROR("oxhal_init is called a second time");
        return EALREADY;
    }
    if (!layer.current)
        layer.current = driver_by_environment();
    if (!layer.current)
        return EINVAL;
    layer.list = {};
    observed_call running({.operation = "init"});
    return running.allowed() ? running.ends(list_ports()) : running.ends();
}

int oxhal_vport_iterate(uint32_t index, oxhal_vport* vport) {
    if (!layer.initialised || !vport || index >= layer.list.count)
        return ENOENT;
    *vport = {};
    vport->handle = layer.list.ports[index].handle;
    memcpy(vport->name, layer.list.ports[index].name, sizeof vport->name);
    return 0;
}

int oxhal_macsec_generate_key(uint32_t length, uint8_t* key) {
    observed_call running({.operation = "generate_key", .label = "length=", .number = length});
    if (!running.allowed())
        return running.ends();
    if (!key || length == 0 || length > 256) {
        OXHAL_ERROR("generate_key: a key of %u octets cannot be made", length);
        return running.ends(EINVAL);
    }
    auto* generate = layer.current ? layer.current->generate_key : nullptr;
    return running.ends(generate ? generate(length, key) : kernel_random(length, key));
}

int oxhal_macsec_init(void) {
    if (!layer.initialised || layer.prepared) {
        OXHAL_ERROR("oxhal_macsec_init is called %s", layer.prepared ? "a second time" : "before oxhal_init");
        return layer.prepared ? EALREADY : EPERM;
    }
    observed_call running({.operation = "init", .word = "macsec"});
    if (!running.allowed())
        return running.ends();
    int error = layer.current->prepare(layer.list);
    layer.prepared = !error;
    return running.ends(error);
}

int oxhal_macsec_port_cap_get(uint32_t port, const oxhal_macsec_port_cap_list** list) {
    port_call running(port, {.operation = "port_cap_get"});
    running.expect(list, EINVAL, "there is no place for the answer");
    return running.allowed() ? running.ends(layer.current->capabilities(running.secy(), list))
                             : running.ends();
}

int oxhal_macsec_enable_set(uint32_t port, bool enable) {
    port_call running(port, {.operation = "enable_set", .word = to_str(enable)});
    if (!running.allowed())
        return running.ends();
    oxhal::port& secy = running.secy();
    int error = layer.current->enable(secy, enable);
    if (!error) {
        secy.enabled = enable;
        forget_channels(secy);
    }
    return running.ends(error);
}

int oxhal_macsec_protect_frames_set2(uint32_t port, bool protect) {
    return configure_flag("protect_frames_set2", port, protect, &settings::protect_frames);
}

int oxhal_macsec_validate_frames_set2(uint32_t port, oxhal_macsec_validate_frames mode) {
    static constexpr const char* names[] = {"disabled", "strict", "check"};
    bool known = mode == OXHAL_MACSEC_VALIDATE_FRAMES_DISABLED ||
                 mode == OXHAL_MACSEC_VALIDATE_FRAMES_STRICT || mode == OXHAL_MACSEC_VALIDATE_FRAMES_CHECK;
    port_call running(port, {.operation = "validate_frames_set2", .word = known ? names[mode] : "?"});
    running.expect(known, EINVAL, "the mode is none of disabled, strict and check");
    return configure(running, [&](settings& wanted) { wanted.validate_frames = mode; });
}

int oxhal_macsec_replay_protect_set2(uint32_t port, bool enable) {
    return configure_flag("replay_protect_set2", port, enable, &settings::replay_protect);
}

int oxhal_macsec_replay_window_set(uint32_t port, uint32_t window) {
    port_call running(port, {.operation = "replay_window_set", .label = "", .number = window});
    return configure(running, [&](settings& wanted) { wanted.replay_window = window; });
}

int oxhal_macsec_es_set(uint32_t port, bool enable) {
    return configure_flag("es_set", port, enable, &settings::es);
}

int oxhal_macsec_scb_set(uint32_t port, bool enable) {
    return configure_flag("scb_set", port, enable, &settings::scb);
}

int oxhal_macsec_always_include_sci_set(uint32_t port, bool enable) {
    return configure_flag("always_include_sci_set", port, enable, &settings::always_include_sci);
}

int oxhal_macsec_transmit_sc_create(uint32_t port, oxhal_macsec_sci sci) {
    return create_channel("transmit_sc_create", port, direction::transmit, sci);
}

int oxhal_macsec_receive_sc_create(uint32_t port, oxhal_macsec_sci sci) {
    return create_channel("receive_sc_create", port, direction::receive, sci);
}

int oxhal_macsec_transmit_sc_delete(uint32_t port, oxhal_macsec_sci sci) {
    return delete_channel("transmit_sc_delete", port, direction::transmit, sci);
}

int oxhal_macsec_receive_sc_delete(uint32_t port, oxhal_macsec_sci sci) {
    return delete_channel("receive_sc_delete", port, direction::receive, sci);
}

int oxhal_macsec_transmit_sc_delete_all(uint32_t port) {
    return delete_all_channels("transmit_sc_delete_all", port, direction::transmit);
}

int oxhal_macsec_receive_sc_delete_all(uint32_t port) {
    return delete_all_channels("receive_sc_delete_all", port, direction::receive);
}

int oxhal_macsec_transmit_sa_create(uint32_t port, oxhal_macsec_sci sci, uint8_t an,
                                    uint32_t next_packet_number, bool confidentiality, oxhal_macsec_key key) {
    return create_association("transmit_sa_create", port, direction::transmit, sci, an, next_packet_number,
                              confidentiality, key);
}

int oxhal_macsec_receive_sa_create2(uint32_t port, oxhal_macsec_sci sci, uint8_t an,
                                    uint32_t lowest_packet_number, oxhal_macsec_key key) {
    return create_association("receive_sa_create2", port, direction::receive, sci, an, lowest_packet_number,
                              false, key);
}

int oxhal_macsec_transmit_sa_enable(uint32_t port, oxhal_macsec_sci sci, uint8_t an, bool enable) {
    return enable_association("transmit_sa_enable", port, direction::transmit, sci, an, enable);
}

int oxhal_macsec_receive_sa_enable(uint32_t port, oxhal_macsec_sci sci, uint8_t an, bool enable) {
    return enable_association("receive_sa_enable", port, direction::receive, sci, an, enable);
}

int oxhal_macsec_transmit_sa_delete(uint32_t port, oxhal_macsec_sci sci, uint8_t an) {
    return delete_association("transmit_sa_delete", port, direction::transmit, sci, an);
}

int oxhal_macsec_receive_sa_delete(uint32_t port, oxhal_macsec_sci sci, uint8_t an) {
    return delete_association("receive_sa_delete", port, direction::receive, sci, an);
}

int oxhal_macsec_transmit_sa_in_use_get(uint32_t port, oxhal_macsec_sci sci, uint8_t an, bool* in_use) {
    return read_in_use("transmit_sa_in_use_get", port, direction::transmit, sci, an, in_use);
}

int oxhal_macsec_receive_sa_in_use_get(uint32_t port, oxhal_macsec_sci sci, uint8_t an, bool* in_use) {
    return read_in_use("receive_sa_in_use_get", port, direction::receive, sci, an, in_use);
}
