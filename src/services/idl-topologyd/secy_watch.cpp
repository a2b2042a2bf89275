#include "services/idl-topologyd/secy_watch.h"

#include <algorithm>
#include <iterator>

#include "base/trace.h"
#include "platform/oxhal_view.h"
#include "protocols/port_names.h"

namespace topologyd {

namespace {

using namespace services;

constexpr key_fingerprint no_key{};

key_fingerprint fingerprint_of(const oxhal_view_association& of) {
    static_assert(sizeof of.fingerprint == sizeof(key_fingerprint));
    key_fingerprint fingerprint;
    memcpy(fingerprint.octets, of.fingerprint, sizeof fingerprint.octets);
    return fingerprint;
}

void read_transmit(const oxhal_view& view, secy_look& look) {
    const oxhal_view_association* active =
        std::find_if(std::begin(view.transmit.associations), std::end(view.transmit.associations),
                     [](const oxhal_view_association& each) { return each.installed && each.active; });
    if (active != std::end(view.transmit.associations))
        look.transmit_key = fingerprint_of(*active);
    look.encrypts = view.enabled && view.protect_frames && view.confidentiality &&
                    view.validate_frames == OXHAL_MACSEC_VALIDATE_FRAMES_STRICT &&
                    !(look.transmit_key == no_key);
    look.sent = view.transmit.out_pkts_protected + view.transmit.out_pkts_encrypted;
}

void read_receive(const oxhal_view& view, secy_look& look) {
    key_fingerprint* next = std::begin(look.receive_keys);
    for (uint32_t i = 0; i < view.receive_channels; i++) {
        const oxhal_view_receive_channel& channel = view.receive[i];
        for (const oxhal_view_association& each : channel.associations) {
            if (each.installed && each.active && next != std::end(look.receive_keys))
                *next++ = fingerprint_of(each);
        }
        look.accepted += channel.in_pkts_ok + channel.in_pkts_unchecked + channel.in_pkts_delayed;
        look.late += channel.in_pkts_late;
        look.invalid += channel.in_pkts_invalid + channel.in_pkts_not_valid;
        look.without_key += channel.in_pkts_not_using_sa + channel.in_pkts_unused_sa;
    }
    look.without_key += view.in_pkts_unknown_sci + view.in_pkts_no_sci;
}

bool has_key(const key_fingerprint (&keys)[peer_secy_receive_keys], const key_fingerprint& wanted) {
    return std::find(std::begin(keys), std::end(keys), wanted) != std::end(keys);
}

// How much a counter has grown; it begins anew with its SecY.
uint64_t growth(uint64_t from, uint64_t to) {
    return to > from ? to - from : 0;
}

void tell_dropped(const secy_watch& watch, const secy_look& own, const char* port) {
    const uint64_t late = growth(watch.last.late, own.late);
    const uint64_t invalid = growth(watch.last.invalid, own.invalid);
    const uint64_t without_key = growth(watch.last.without_key, own.without_key);
    if (watch.has_last && late + invalid + without_key > 0)
        TRACE_INFO("TOPOLOGYD: Port '%s': frames that were dropped since the last look: %llu late, %llu not "
                   "authentic, %llu without a key for them",
                   port, static_cast<unsigned long long>(late), static_cast<unsigned long long>(invalid),
                   static_cast<unsigned long long>(without_key));
}

// Returns the fault once the doubt has been there at `needed` looks in a row.
topology_fault_code confirm(secy_watch& watch, repeated_doubt& doubt, topology_fault_code code,
                            uint32_t needed = 2) {
    doubt.looks = code != TOPOLOGY_FAULT_NONE && code == doubt.code ? doubt.looks + 1 : 1;
    doubt.code = code;
    if (code == TOPOLOGY_FAULT_NONE || doubt.looks < needed)
        return TOPOLOGY_FAULT_NONE;
    watch.found = code;
    return code;
}

topology_fault_code doubt_of_own(const secy_watch& watch, const secy_look& own, uint64_t now_ms) {
    if (!own.encrypts)
        return TOPOLOGY_FAULT_UNPROTECTED;
    return now_ms - watch.transmit_key_since_ms > oldest_key_ms ? TOPOLOGY_FAULT_KEYS_TOO_OLD
                                                                : TOPOLOGY_FAULT_NONE;
}

bool is_of_own_look(topology_fault_code code) {
    return code == TOPOLOGY_FAULT_UNPROTECTED || code == TOPOLOGY_FAULT_KEYS_TOO_OLD;
}

// The other end has accepted no frame since its report before last, although frames were sent until its last
// one and had time to arrive.
bool drops_all(const secy_watch& watch, uint64_t accepted) {
    return watch.words >= 2 && growth(watch.sent_at[1], watch.sent_at[0]) >= telling_frames &&
           accepted == watch.accepted_at[1];
}

uint64_t accepted_by(const topology_peer_secy_ind& peer) {
    return uint64_t{peer.accepted_high} << 32 | peer.accepted_low;
}

topology_fault_code doubt_of_both(const secy_watch& watch, const secy_look& own,
                                  const topology_peer_secy_ind& peer) {
    if (!has_key(peer.receive_keys, own.transmit_key) || !has_key(own.receive_keys, peer.transmit_key))
        return TOPOLOGY_FAULT_KEYS_DIFFER;
    return drops_all(watch, accepted_by(peer)) ? TOPOLOGY_FAULT_FRAMES_DROPPED : TOPOLOGY_FAULT_NONE;
}

} // namespace

bool look_at_secy(const tavu::port_name& port, secy_look& look) {
    const char* name = tavu::hardware_name_of(port.c_str());
    oxhal_view view;
    look = {};
    if (!name || oxhal_view_get(name, &view) != 0)
        return false;
    read_transmit(view, look);
    read_receive(view, look);
    return true;
}

void begin_watch(secy_watch& watch) {
    secy_watch fresh{};
    fresh.found = watch.found;
    fresh.futile_start_overs = watch.futile_start_overs;
    watch = fresh;
}

topology_fault_code take_own_look(secy_watch& watch, const secy_look& own, const char* port,
                                  uint64_t now_ms) {
    if (watch.transmit_key_since_ms == 0 || !(own.transmit_key == watch.transmit_key)) {
        watch.transmit_key = own.transmit_key;
        watch.transmit_key_since_ms = now_ms;
    }
    tell_dropped(watch, own, port);
    watch.last = own;
    watch.has_last = true;
    const topology_fault_code code = doubt_of_own(watch, own, now_ms);
    if (code == TOPOLOGY_FAULT_NONE && is_of_own_look(watch.found))
        watch.found = TOPOLOGY_FAULT_NONE;
    return confirm(watch, watch.of_own, code);
}

bool is_look_of_peer_due(const secy_watch& watch, uint64_t now_ms) {
    return watch.words == 0 || now_ms - watch.word_ms >= look_interval_ms / 2;
}

topology_fault_code take_look_of_peer(secy_watch& watch, const secy_look& own,
                                      const topology_peer_secy_ind& peer, uint64_t now_ms) {
    watch.word_ms = now_ms;
    const topology_fault_code code = doubt_of_both(watch, own, peer);
    const uint64_t accepted = accepted_by(peer);
    const bool arrives = watch.words > 0 && accepted > watch.accepted_at[0];
    if (arrives)
        watch.futile_start_overs = 0;
    if ((watch.found == TOPOLOGY_FAULT_FRAMES_DROPPED && arrives) ||
        (watch.found == TOPOLOGY_FAULT_KEYS_DIFFER && code != TOPOLOGY_FAULT_KEYS_DIFFER))
        watch.found = TOPOLOGY_FAULT_NONE;
    watch.sent_at[1] = watch.sent_at[0];
    watch.sent_at[0] = own.sent;
    watch.accepted_at[1] = watch.accepted_at[0];
    watch.accepted_at[0] = accepted;
    watch.words++;
    // Starting over does not help against what drops every frame on its way, so it is done ever less often.
    const uint32_t needed =
        code == TOPOLOGY_FAULT_FRAMES_DROPPED ? 2u << std::min(watch.futile_start_overs, 6u) : 2;
    const topology_fault_code fault = confirm(watch, watch.of_both, code, needed);
    if (fault == TOPOLOGY_FAULT_FRAMES_DROPPED)
        watch.futile_start_overs++;
    return fault;
}

void fill_look(topology_peer_secy_ind& told, const secy_look& own) {
    told.transmit_key = own.transmit_key;
    std::copy(std::begin(own.receive_keys), std::end(own.receive_keys), std::begin(told.receive_keys));
    told.accepted_high = static_cast<uint32_t>(own.accepted >> 32);
    told.accepted_low = static_cast<uint32_t>(own.accepted);
}

} // namespace topologyd
