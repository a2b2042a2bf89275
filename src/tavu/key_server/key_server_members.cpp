#include "tavu/key_server/key_server_records.h"

#include <tuple>

namespace tavu::keysrv {

namespace {

struct {
    record_list<connectivity_association> cas{"KEYSRV"};
    record_list<ca_member> members{"KEYSRV"};
} self;

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

const char* ca_state_to_str(ca_state state) {
    return enum_to_str(ca_state_names, state);
}
const char* member_state_to_str(ca_member_state state) {
    return enum_to_str(ca_member_state_names, state);
}

} // namespace

// --- Look-ups

members_of::iterator members_of::begin() const {
    return iterator(self.members, ca_);
}

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

void change_ca_state(connectivity_association& ca, ca_state state) {
    KEYSRV_FUNCTION();
    if (state != ca.state && !(ca_state_changes[ca.state] & to(state))) {
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
    if (state != member.state && !(ca_member_state_changes[member.state] & to(state))) {
        TRACE_ERROR("KEYSRV: Invalid state change issued: not applied in wrong state: current: '%s', "
                    "expected: '%s'",
                    member_state_to_str(member.state), member_state_to_str(state));
        return;
    }
    TRACE_STATE_CHANGE("KEYSRV: ca_mbr %u changing state: '%s' -> '%s'", member.client_id,
                       member_state_to_str(member.state), member_state_to_str(state));
    member.state = state;
}

// --- CAs and members

ca_member* add_ca_member() {
    KEYSRV_FUNCTION();
    return self.members.add();
}

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
    ca->cipher = MKA_CIPHER_GCM_AES_128;
    return true;
}

bool delete_ca(const ca_name& name) {
    KEYSRV_FUNCTION();
    TRACE("KEYSRV: Deleting CA '%s'", name.c_str());
    connectivity_association* ca = find_ca_by_name(name);
    if (!ca)
        return false;
    delete_saks(*ca);
    drop_all_ca_members(ca->name);
    self.cas.remove(*ca);
    return true;
}

void delete_all_ca() {
    KEYSRV_FUNCTION();
    while (const connectivity_association* ca = self.cas.first())
        std::ignore = delete_ca(ca->name);
}

// --- Dropping

namespace {

void delete_all_rx_sc_of_member(ca_member& member) {
    KEYSRV_FUNCTION();
    for (rx_sc& channel : member.rx_scs) {
        TRACE("KEYSRV: Removing rx_sc from sci %s", sci_to_str(channel.identifier).c_str());
        member.rx_scs.remove(channel);
    }
}

} // namespace

void drop_all_ca_members(const ca_name& name) {
    KEYSRV_FUNCTION();
    connectivity_association* ca = find_ca_by_name(name);
    if (!ca) {
        TRACE_ERROR("KEYSRV: Could not find CA '%s'", name.c_str());
        return;
    }
    stop_key_refresh_timer(*ca);
    for (const ca_member& member : members_of(*ca)) {
        if (!ks_send_leave_ca_rreq(member, PROC_REF_LEAVE_CA))
            TRACE_ERROR("KEYSRV: Leave don't send to member.client_id %d", member.client_id);
    }
    delete_all_waiting_msg_for_ca(*ca);
    TRACE("KEYSRV: Removing members from ca %s", ca->name.c_str());
    for (ca_member& member : members_of(*ca)) {
        TRACE_DETAIL("KEYSRV: Removing member '%s'", sci_to_str(member.identifier).c_str());
        delete_all_rx_sc_of_member(member);
        self.members.remove(member);
    }
    set_saks_aside(*ca);
    change_ca_state(*ca, CA_EMPTY);
}

} // namespace tavu::keysrv
