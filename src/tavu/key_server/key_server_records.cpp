#include "tavu/key_server/key_server_records.h"

#include <cassert>

namespace tavu::keysrv {

key_server_state self;

namespace {

constexpr enum_text global_state_names[] = {
    ENUM_TEXT(KEYSRV_GLOBAL_STATE_UNINITIALIZED),
    ENUM_TEXT(KEYSRV_GLOBAL_STATE_INITIAL),
    ENUM_TEXT(KEYSRV_GLOBAL_STATE_STARTED),
    ENUM_TEXT(KEYSRV_GLOBAL_STATE_READY),
};

constexpr enum_text ca_state_names[] = {
    ENUM_TEXT(CA_EMPTY),
    ENUM_TEXT(CA_INCOMPLETE),
    ENUM_TEXT(CA_OPERATIONAL),
};

constexpr enum_text ca_member_state_names[] = {
    ENUM_TEXT(CA_MEMBER_STATE_INITIAL),        ENUM_TEXT(CA_MEMBER_STATE_JOINED),
    ENUM_TEXT(CA_MEMBER_STATE_SELF_ANNOUNCED), ENUM_TEXT(CA_MEMBER_STATE_CONFIGURED_SC),
    ENUM_TEXT(CA_MEMBER_STATE_CONFIGURED_SA),  ENUM_TEXT(CA_MEMBER_STATE_SECURED),
    ENUM_TEXT(CA_MEMBER_STATE_FAILED),
};

constexpr enum_text key_refresh_state_names[] = {
    ENUM_TEXT(KEY_REFRESH_STOPPED),
    ENUM_TEXT(KEY_REFRESH_IDLE),
    ENUM_TEXT(KEY_REFRESH_ONGOING),
};

const char* ca_state_to_str(ca_state state) {
    return enum_to_str(ca_state_names, state);
}
const char* member_state_to_str(ca_member_state state) {
    return enum_to_str(ca_member_state_names, state);
}

} // namespace

// --- Look-ups

connectivity_association* find_ca_by_name(const ca_name& name) {
    KEYSRV_FUNCTION();
    return self.cas.find([&](const connectivity_association& candidate) { return candidate.name == name; });
}

ca_member* find_ca_member_by_client_id(uint32_t client_id) {
    KEYSRV_FUNCTION();
    return self.members.find([&](const ca_member& candidate) { return candidate.client_id == client_id; });
}

ca_member* find_ca_member_by_sci(const ca_name& ca, const sci& identifier) {
    KEYSRV_FUNCTION();
    return self.members.find(
        [&](const ca_member& candidate) { return candidate.ca == ca && candidate.identifier == identifier; });
}

rx_sc* find_rx_sc_by_sci(ca_member& member, const sci& identifier) {
    KEYSRV_FUNCTION();
    return member.rx_scs.find([&](const rx_sc& candidate) { return candidate.identifier == identifier; });
}

uint32_t get_rx_sc_number(const ca_member& member) {
    KEYSRV_FUNCTION();
    return member.rx_scs.size();
}

uint32_t get_announced_member_in_ca(const connectivity_association& ca) {
    KEYSRV_FUNCTION();
    uint32_t count = 0;
    for (const ca_member& member : members_of(ca)) {
        if (member.state == CA_MEMBER_STATE_CONFIGURED_SC || member.state == CA_MEMBER_STATE_CONFIGURED_SA)
            count++;
    }
    TRACE("KEYSRV: member count = %u", count);
    return count;
}

text<24> sci_to_str(const sci& identifier) {
    const uint8_t* octet = identifier.octets;
    text<24> output;
    snprintf(output.octets, sizeof output.octets, "%02x:%02x:%02x:%02x:%02x:%02x:%02x:%02x", octet[0],
             octet[1], octet[2], octet[3], octet[4], octet[5], octet[6], octet[7]);
    return output;
}

// --- States

bool is_ready(const char* operation, const char* file, int line) {
    return is_in_state(self.state, KEYSRV_GLOBAL_STATE_READY, state_to_str, "KEYSRV", operation, file, line);
}

const char* state_to_str(keysrv_global_state state) {
    return enum_to_str(global_state_names, state);
}

void change_ks_state(keysrv_global_state state) {
    KEYSRV_FUNCTION();
    TRACE_STATE_CHANGE("KEYSRV:  change_ks_state: changing state: '%s' -> '%s'", state_to_str(self.state),
                       state_to_str(state));
    self.state = state;
}

void change_ca_state(connectivity_association& ca, ca_state state) {
    KEYSRV_FUNCTION();
    if (!is_allowed(ca_state_changes, ca.state, state)) {
        TRACE_ERROR("KEYSRV: Invalid state change issued: not applied in wrong state: current: '%s', "
                    "expected: '%s'",
                    ca_state_to_str(ca.state), ca_state_to_str(state));
        return;
    }
    TRACE_STATE_CHANGE("KEYSRV: ca %s changing state: '%s' -> '%s'", ca.name.c_str(),
                       ca_state_to_str(ca.state), ca_state_to_str(state));
    ca.state = state;
}

void change_ca_member_state(ca_member& member, ca_member_state state) {
    KEYSRV_FUNCTION();
    if (!is_allowed(ca_member_state_changes, member.state, state)) {
        TRACE_ERROR("KEYSRV: Invalid state change issued: not applied in wrong state: current: '%s', "
                    "expected: '%s'",
                    member_state_to_str(member.state), member_state_to_str(state));
        return;
    }
    TRACE_STATE_CHANGE("KEYSRV: ca_mbr %u changing state: '%s' -> '%s'", member.client_id,
                       member_state_to_str(member.state), member_state_to_str(state));
    member.state = state;
}

const char* key_refresh_state_to_str(key_refresh_state state) {
    return enum_to_str(key_refresh_state_names, state);
}

void change_key_refresh_state(connectivity_association& ca, key_refresh_state state) {
    KEYSRV_FUNCTION();
    if (!is_allowed(key_refresh_state_changes, ca.refresh_state, state)) {
        TRACE_ERROR("KEYSRV: Invalid key refresh state change issued: not applied in wrong state: current: "
                    "'%s', expected: '%s'",
                    key_refresh_state_to_str(ca.refresh_state), key_refresh_state_to_str(state));
        return;
    }
    TRACE_STATE_CHANGE("KEYSRV: ca %s changing state: '%s' -> '%s'", ca.name.c_str(),
                       key_refresh_state_to_str(ca.refresh_state), key_refresh_state_to_str(state));
    ca.refresh_state = state;
}

// --- CAs and members

bool add_ca(const ca_name& name) {
    KEYSRV_FUNCTION();
    if (find_ca_by_name(name))
        return false;
    connectivity_association* ca = self.cas.add();
    if (!ca)
        return false;
    ca->name = name;
    ca->state = CA_EMPTY;
    ca->refresh_state = KEY_REFRESH_STOPPED;
    ca->cipher = cipher_of_cas;
    return true;
}

ca_member* add_ca_member() {
    KEYSRV_FUNCTION();
    return self.members.add();
}

namespace {

void delete_all_rx_sc_of_member(ca_member& member) {
    KEYSRV_FUNCTION();
    for (rx_sc& channel : member.rx_scs) {
        TRACE("KEYSRV: Removing rx_sc from sci %s", sci_to_str(channel.identifier).c_str());
        member.rx_scs.remove(channel);
    }
}

} // namespace

void remove_ca_members(connectivity_association& ca) {
    KEYSRV_FUNCTION();
    TRACE("KEYSRV: Removing members from ca %s", ca.name.c_str());
    for (ca_member& member : members_of(ca)) {
        TRACE_DETAIL("KEYSRV: Removing member '%s'", sci_to_str(member.identifier).c_str());
        delete_all_rx_sc_of_member(member);
        self.members.remove(member);
    }
}

void set_saks_aside(connectivity_association& ca) {
    KEYSRV_FUNCTION();
    assert(!(members_of(ca).begin() != nullptr));
    for (sak_record& sak : ca.saks) {
        sak.sa.sak.wipe();
        sak.rx_configured = false;
        sak.tx_configured = false;
        sak.taken_up = false;
    }
}

// --- The refresh timer

namespace {

void cancel_running_key_refresh_timer(connectivity_association& ca) {
    TRACE("KEYSRV: Stopping running key_refresh timer for port '%s'", ca.name.c_str());
    oka_timer_cancel(ca.key_refresh_timer);
    ca.key_refresh_timer = 0;
}

} // namespace

void start_key_refresh_timer(connectivity_association& ca) {
    KEYSRV_FUNCTION();
    if (ca.key_refresh_timer != 0)
        cancel_running_key_refresh_timer(ca);
    outgoing<keysrv_key_refresh_timer_ind> message(KEYSRV_KEY_REFRESH_TIMER_IND);
    message->ca = ca.name;
    ca.key_refresh_timer = oka_timer_request_sig(key_refresh_ms, message.prepared());
}

// A CA whose first keying was interrupted has no timer, and keeps its refresh state for the next keying.
void stop_key_refresh_timer(connectivity_association& ca) {
    KEYSRV_FUNCTION();
    if (ca.key_refresh_timer == 0) {
        TRACE("KEYSRV: No key_refresh timer running for port '%s'", ca.name.c_str());
        return;
    }
    cancel_running_key_refresh_timer(ca);
    ca.refresh_state = KEY_REFRESH_STOPPED;
}

// --- What is received

const char* ks_msg_no_to_str(uint32_t number) {
    return mka_msg_no_to_str(number, KEYSRV_KEY_REFRESH_TIMER_IND);
}

void trace_received(const oka_message* message) {
    const auto& header = as<message_header>(message);
    TRACE_RECEIVE(message, "KEYSRV: %s connection reference=%u, procedure reference=%u",
                  ks_msg_no_to_str(header.number), uint32_t{header.connection_reference},
                  uint32_t{header.procedure_reference});
}

ca_member* find_answering_member(uint32_t client_id, const oka_message* message, const char* handler) {
    trace_received(message);
    ca_member* member = find_ca_member_by_client_id(client_id);
    if (!member)
        TRACE_ERROR("KEYSRV: %s: element not found (client_id=%u)", handler, client_id);
    return member;
}

} // namespace tavu::keysrv
