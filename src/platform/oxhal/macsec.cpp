// The SecY of the Linux kernel: its controlled port is a MACsec interface on the common port. The transmit
// channel is part of that interface and has the interface's SCI, so creating it only checks that.
//
// Addresses, routes and being up or down are the business of the controlled port's user, as for any
// interface; that is why an interface found in place is emptied and kept rather than made anew.
#include <cerrno>
#include <cstdarg>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <net/if.h>

#include "platform/oxhal/clear_frames.h"
#include "platform/oxhal/macsec_kernel.h"
#include "platform/oxhal/secy.h"
#include "platform/zeb.h"

namespace {

using namespace oxhal;

// An error trace with the kernel's reason, and the error itself to return.
__attribute__((format(printf, 3, 4))) int failed(int error, const netlink& socket, const char* format, ...) {
    char what[160];
    va_list arguments;
    va_start(arguments, format);
    vsnprintf(what, sizeof what, format, arguments);
    va_end(arguments);
    const char* hint = error == EPERM       ? "; CAP_NET_ADMIN is needed"
                       : error == ETIMEDOUT ? "; the kernel does not answer"
                                            : "";
    OXHAL_ERROR("%s: %s%s%s%s", what, strerror(error), *socket.error_text() ? ", " : "", socket.error_text(),
                hint);
    return error;
}
#define FAILED_ROUTE(error, ...) failed(error, kernel::route(), __VA_ARGS__)
#define FAILED_GENERIC(error, ...) failed(error, kernel::generic(), __VA_ARGS__)

bool is_same(const oxhal_macsec_sci& one, const oxhal_macsec_sci& other) {
    return !memcmp(&one, &other, sizeof one);
}

const oxhal_macsec_sci* sci_for(direction way, const channel& of) {
    return way == direction::transmit ? nullptr : &of.sci;
}

// The kernel deletes only what is not active.
int remove_association(unsigned index, const oxhal_macsec_sci* sci, uint8_t an) {
    int error = kernel::activate_association(index, sci, an, false);
    return error ? error : kernel::delete_association(index, sci, an);
}

// Takes away what an earlier process left in the controlled port.
int remove_leftovers(const port& on) {
    unsigned index = on.controlled_port_index;
    kernel::contents found;
    int error;
    do {
        error = kernel::read_contents(index, found);
        for (uint8_t an = 0; !error && an < associations_per_channel; ++an) {
            if (found.transmit_installed & (1u << an))
                error = remove_association(index, nullptr, an);
        }
        for (uint32_t i = 0; !error && i < found.receive_channels; ++i)
            error = kernel::delete_receive_channel(index, found.receive[i].sci);
    } while (!error && found.receive_channels == kernel::max_channels);
    return error ? FAILED_GENERIC(error, "what was left in '%s' cannot be taken away", on.controlled_port)
                 : 0;
}

int create_interface(const port& on, unsigned common_index, const oxhal_macsec_sci& sci) {
    int error = kernel::create_interface(on.controlled_port, common_index, sci, on.wanted);
    if (error == EBUSY || error == EEXIST)
        return FAILED_ROUTE(
            error,
            "'%s' cannot be made: another MACsec interface on '%s' has its SCI; delete that one "
            "(ip macsec show; ip link delete ...)",
            on.controlled_port, on.common_port);
    return error ? FAILED_ROUTE(error, "'%s' cannot be made on '%s'", on.controlled_port, on.common_port) : 0;
}

int delete_interface(const port& on, unsigned index) {
    int error = kernel::delete_interface(index);
    return error && error != ENODEV ? FAILED_ROUTE(error, "'%s' cannot be deleted", on.controlled_port) : 0;
}

int change_settings(const port& on, const settings& wanted) {
    int error = kernel::change_settings(on.controlled_port_index, wanted);
    return error ? FAILED_ROUTE(error, "the settings of '%s' cannot be changed", on.controlled_port) : 0;
}

// A kernel that cannot do this still secures the link, so it is no reason to leave the port unsecured.
void set_filters(const port& on, unsigned common_index, const settings& wanted) {
    bool admit = wanted.validate_frames != OXHAL_MACSEC_VALIDATE_FRAMES_STRICT;
    int error = set_clear_frame_filters(kernel::route(), common_index, on.controlled_port_index, admit);
    if (!error)
        return;
    FAILED_ROUTE(error,
                 "clear frames reach the host by '%s' too, beside '%s'; load the kernel modules sch_ingress, "
                 "cls_matchall, act_mirred and act_gact",
                 on.common_port, on.controlled_port);
    // A kernel that can drop but not redirect would leave the host without any: twice is better than never.
    if (admit)
        remove_clear_frame_filters(kernel::route(), common_index);
}

// Finds the controlled port, or makes it; what is in its place without fitting is replaced.
int find_or_create(const port& on, const kernel::interface& common, bool& kept) {
    kernel::interface controlled;
    int error = kernel::find_interface(on.controlled_port, controlled);
    if (error && error != ENODEV)
        return FAILED_ROUTE(error, "'%s' cannot be read", on.controlled_port);
    kept = false;
    if (!error) {
        if (!controlled.is_macsec) {
            OXHAL_ERROR("%s: '%s' is an interface of another kind; give the controlled port another name in "
                        "OXHAL_PORTS",
                        on.name, on.controlled_port);
            return EEXIST;
        }
        // With another port identifier it is none that was made here.
        kept = controlled.lower == common.index && !controlled.sci.octets[6] && !controlled.sci.octets[7];
        error = kept ? 0 : delete_interface(on, controlled.index);
        if (kept || error)
            return error;
    }
    oxhal_macsec_sci sci = on.sci;
    if (is_same(sci, {})) // there was no transmit channel yet, and this is what it usually has
        memcpy(sci.octets, common.address, sizeof common.address);
    return create_interface(on, common.index, sci);
}

// Puts the controlled port on the common port. ENODEV, without a trace, while there is no common port.
int place_controlled_port(port& on) {
    kernel::interface common;
    int error = kernel::find_interface(on.common_port, common);
    if (error)
        return error == ENODEV ? error : FAILED_ROUTE(error, "'%s' cannot be read", on.common_port);
    bool kept = false;
    error = find_or_create(on, common, kept);
    if (error)
        return error;
    on.controlled_port_index = if_nametoindex(on.controlled_port);
    if (kept) {
        error = change_settings(on, on.wanted);
        if (!error)
            error = remove_leftovers(on);
    }
    if (error)
        on.controlled_port_index = 0;
    else
        set_filters(on, common.index, on.wanted);
    return error;
}

int init(port_list& list) {
    const char* text = getenv("OXHAL_PORTS");
    return read_ports(text ? text : "", list);
}

int prepare(const port_list&) {
    int error = kernel::open();
    if (error) {
        OXHAL_ERROR("no netlink socket: %s", strerror(error));
        return error;
    }
    error = kernel::find_family();
    if (error)
        FAILED_GENERIC(error,
                       "the kernel has no MACsec; load its module (modprobe macsec), or boot a kernel built "
                       "with CONFIG_MACSEC");
    return error;
}

int capabilities(const port&, const oxhal_macsec_port_cap_list** list) {
    static constexpr struct {
        uint32_t count;
        oxhal_macsec_port_cap entry;
    } kernel_capabilities = {
        .count = 1,
        .entry = usual_capability,
    };
    *list = reinterpret_cast<const oxhal_macsec_port_cap_list*>(&kernel_capabilities);
    return 0;
}

// A controlled port goes with its common port (a module is pulled, a cable's virtual end deleted) and takes
// channels and keys with it. When the common port is back, so is the controlled one, empty.
void refresh(port& on) {
    if (!on.enabled)
        return;
    unsigned index = if_nametoindex(on.controlled_port);
    if (index && index == on.controlled_port_index)
        return;
    if (on.controlled_port_index)
        OXHAL_ERROR("%s: '%s' is gone, and its channels with it; it returns with '%s'", on.name,
                    on.controlled_port, on.common_port);
    on.controlled_port_index = 0;
    forget_channels(on);
    if (!place_controlled_port(on))
        ZEB_TRACE(ZEB_GROUP_INFO, "OXHAL: %s: '%s' is there again", on.name, on.controlled_port);
}

int disable(port& on) {
    kernel::interface controlled;
    int error = kernel::find_interface(on.controlled_port, controlled);
    if (error && error != ENODEV)
        return FAILED_ROUTE(error, "'%s' cannot be read", on.controlled_port);
    if (!error && controlled.is_macsec)
        error = delete_interface(on, controlled.index);
    if (error && error != ENODEV)
        return error;
    if (unsigned common = if_nametoindex(on.common_port))
        remove_clear_frame_filters(kernel::route(), common);
    on.controlled_port_index = 0;
    return 0;
}

int enable(port& on, bool enable) {
    if (!enable)
        return disable(on);
    int error = place_controlled_port(on);
    if (error != ENODEV)
        return error;
    // One port without its interface must not keep the daemon, and with it all other ports, from running.
    OXHAL_ERROR("%s: there is no interface '%s' yet; '%s' is made when it has come", on.name, on.common_port,
                on.controlled_port);
    on.controlled_port_index = 0;
    return 0;
}

int configure(port& on, const settings& wanted) {
    if (!on.controlled_port_index)
        return 0; // kept for when it comes
    int error = change_settings(on, wanted);
    if (!error && wanted.validate_frames != on.wanted.validate_frames)
        set_filters(on, if_nametoindex(on.common_port), wanted);
    return error;
}

// The transmit channel is a part of the interface, and the kernel does not change its SCI: the interface is
// made anew, for which it must be empty.
int create_transmit_channel(port& on, const oxhal_macsec_sci& sci) {
    kernel::interface controlled;
    int error = kernel::find_interface(on.controlled_port, controlled);
    if (error)
        return FAILED_ROUTE(error, "'%s' cannot be read", on.controlled_port);
    on.sci = sci;
    if (is_same(controlled.sci, sci))
        return 0;
    for (const channel& each : on.receive) {
        if (each.exists) {
            OXHAL_ERROR(
                "%s: '%s' has another SCI than its transmit channel is to have, and receive channels already",
                on.name, on.controlled_port);
            return EINVAL;
        }
    }
    error = delete_interface(on, controlled.index);
    if (!error)
        error = create_interface(on, controlled.lower, sci);
    on.controlled_port_index = error ? 0 : if_nametoindex(on.controlled_port);
    if (!error)
        set_filters(on, controlled.lower, on.wanted);
    return error;
}

int create_channel(port& on, direction way, const oxhal_macsec_sci& sci) {
    if (!on.controlled_port_index) {
        OXHAL_ERROR("%s: there is no interface '%s', so no channel can be made", on.name, on.common_port);
        return ENODEV;
    }
    if (way == direction::transmit)
        return create_transmit_channel(on, sci);
    int error = kernel::create_receive_channel(on.controlled_port_index, sci);
    return error ? FAILED_GENERIC(error, "no receive channel in '%s'", on.controlled_port) : 0;
}

int delete_channel(port& on, direction way, const channel& which) {
    int error = 0;
    if (way == direction::receive)
        error = kernel::delete_receive_channel(on.controlled_port_index, which.sci);
    for (uint8_t an = 0; way == direction::transmit && an < associations_per_channel && !error; ++an) {
        if (which.associations[an].installed)
            error = remove_association(on.controlled_port_index, nullptr, an);
    }
    return error ? FAILED_GENERIC(error, "a channel of '%s' stays", on.controlled_port) : 0;
}

int create_association(port& on, direction way, const channel& of, uint8_t an, const association& what,
                       const oxhal_macsec_key& key) {
    int error =
        kernel::create_association(on.controlled_port_index, sci_for(way, of), an, what.packet_number, key);
    return error ? FAILED_GENERIC(error, "no association in '%s'", on.controlled_port) : 0;
}

// A transmit association is active before it encrypts, and the one before encrypts until then: no frame
// finds a SecY without one.
int enable_transmit(const port& on, const channel& of, uint8_t an) {
    int error = kernel::encrypt_with(on.controlled_port_index, an, of.associations[an].confidentiality);
    if (error) {
        error = FAILED_ROUTE(error, "an association of '%s' does not encrypt", on.controlled_port);
        (void)kernel::activate_association(on.controlled_port_index, nullptr, an, false);
        return error;
    }
    for (uint8_t other = 0; other < associations_per_channel; ++other) {
        if (other != an && of.associations[other].in_use)
            (void)kernel::activate_association(on.controlled_port_index, nullptr, other, false);
    }
    return 0;
}

int enable_association(port& on, direction way, const channel& of, uint8_t an, bool enable) {
    int error = kernel::activate_association(on.controlled_port_index, sci_for(way, of), an, enable);
    if (error)
        return FAILED_GENERIC(error, "an association of '%s' is not %sabled", on.controlled_port,
                              enable ? "en" : "dis");
    return enable && way == direction::transmit ? enable_transmit(on, of, an) : 0;
}

int delete_association(port& on, direction way, const channel& of, uint8_t an) {
    int error = remove_association(on.controlled_port_index, sci_for(way, of), an);
    return error ? FAILED_GENERIC(error, "an association of '%s' stays", on.controlled_port) : 0;
}

int read_in_use(const port& on, direction way, const channel& of, uint8_t an, bool* in_use) {
    kernel::contents found;
    int error = kernel::read_contents(on.controlled_port_index, found);
    if (error)
        return FAILED_GENERIC(error, "the associations of '%s' cannot be read", on.controlled_port);
    uint8_t active = way == direction::transmit && found.encoding_an == an ? found.transmit_active : 0;
    for (uint32_t i = 0; way == direction::receive && i < found.receive_channels; ++i) {
        if (is_same(found.receive[i].sci, of.sci))
            active = found.receive[i].active;
    }
    *in_use = active & (1u << an);
    return 0;
}

} // namespace

namespace oxhal {

const driver macsec_driver = {
    .name = macsec_driver_name,
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
    .generate_key = nullptr,
    .before = nullptr,
    .after = nullptr,
};

} // namespace oxhal
