#include "tavu/key_server/key_server_records.h"

#include <tuple>

namespace tavu::keysrv {

namespace {

constexpr uint32_t least_configured_members = 2;

constexpr enum_text key_refresh_state_names[] = {
    ENUM_TEXT(KEY_REFRESH_STOPPED),
    ENUM_TEXT(KEY_REFRESH_IDLE),
    ENUM_TEXT(KEY_REFRESH_ONGOING),
};

const char* key_refresh_state_to_str(key_refresh_state state) {
    return enum_to_str(key_refresh_state_names, state);
}

} // namespace

void change_key_refresh_state(connectivity_association& ca, key_refresh_state state) {
    KEYSRV_FUNCTION();
    if (state != ca.refresh_state && !(key_refresh_state_changes[ca.refresh_state] & to(state))) {
        TRACE_ERROR("KEYSRV: Invalid key refresh state change issued: not applied in wrong state: current: "
                    "'%s', expected: '%s'",
                    key_refresh_state_to_str(ca.refresh_state), key_refresh_state_to_str(state));
        return;
    }
    TRACE_STATE_CHANGE("KEYSRV: ca %s changing state: '%s' -> '%s'", ca.name.c_str(),
                       key_refresh_state_to_str(ca.refresh_state), key_refresh_state_to_str(state));
    ca.refresh_state = state;
}

// --- The refresh timer

namespace {

void cancel_running_key_refresh_timer(connectivity_association& ca) {
    TRACE("KEYSRV: Stopping running key_refresh timer for port '%s'", ca.name.c_str());
    oka_timer_cancel(ca.key_refresh_timer);
    ca.key_refresh_timer = 0;
}

void start_key_refresh_timer(connectivity_association& ca) {
    KEYSRV_FUNCTION();
    if (ca.key_refresh_timer != 0)
        cancel_running_key_refresh_timer(ca);
    outgoing<keysrv_key_refresh_timer_ind> message(KEYSRV_KEY_REFRESH_TIMER_IND);
    message->ca = ca.name;
    ca.key_refresh_timer = oka_timer_request_sig(key_refresh_ms, message.prepared());
}

} // namespace

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

// --- What has been confirmed

namespace {

void update_rx_sc_state(ca_member& member) {
    KEYSRV_FUNCTION();
    rx_sc* channel = member.rx_scs.find([](const rx_sc& candidate) { return !candidate.confirmed; });
    if (channel)
        channel->confirmed = true;
}

void update_rx_sa_state(ca_member& member) {
    KEYSRV_FUNCTION();
    rx_sc* channel = member.rx_scs.find([](rx_sc& candidate) { return !candidate.current_sa().confirmed; });
    if (channel)
        channel->current_sa().confirmed = true;
}

void update_tx_sa_state(ca_member& member) {
    KEYSRV_FUNCTION();
    secure_association& sa = member.current_tx_sa();
    if (sa.confirmed)
        TRACE_ERROR("KEYSRV: update_tx_sa_state: Unexpected msg for client id = %u, CA name = '%s'",
                    member.client_id, member.ca.c_str());
    sa.confirmed = true;
}

// False when no confirmation was outstanding.
bool update_protect_frames_state(ca_member& member) {
    KEYSRV_FUNCTION();
    if (member.protect_frames_confirmed) {
        TRACE_ERROR("KEYSRV: update_protect_frames_state: Unexpected msg for client id = %u, CA name = '%s'",
                    member.client_id, member.ca.c_str());
        return false;
    }
    member.protect_frames_confirmed = true;
    return true;
}

bool check_all_rx_sc_confirmed(const connectivity_association& ca) {
    KEYSRV_FUNCTION();
    for (ca_member& member : members_of(ca)) {
        if (member.rx_scs.find([](const rx_sc& channel) { return !channel.confirmed; }))
            return false;
    }
    return true;
}

bool check_all_rx_sa_confirmed(const connectivity_association& ca) {
    KEYSRV_FUNCTION();
    for (ca_member& member : members_of(ca)) {
        if (member.rx_scs.find([](rx_sc& channel) { return !channel.current_sa().confirmed; }))
            return false;
    }
    return true;
}

bool check_all_tx_sa_confirmed(const connectivity_association& ca) {
    KEYSRV_FUNCTION();
    for (ca_member& member : members_of(ca)) {
        if (!member.current_tx_sa().confirmed)
            return false;
    }
    return true;
}

bool check_all_protect_frames_confirmed(const connectivity_association& ca) {
    KEYSRV_FUNCTION();
    for (const ca_member& member : members_of(ca)) {
        if (!member.protect_frames_confirmed)
            return false;
    }
    return true;
}

bool eval_retrigger_key_refresh_in_multidu(const connectivity_association& ca) {
    KEYSRV_FUNCTION();
    if (get_announced_member_in_ca(ca) < least_configured_members)
        return false;
    TRACE("KEYSRV: Key refresh can be re-triggered on ca %s due to joining members", ca.name.c_str());
    return true;
}

// --- The steps

// Gives the whole CA new keys. False when that failed, and the CA starts over.
bool rekey(connectivity_association& ca) {
    if (!update_keys_in_ca(ca)) {
        TRACE_ERROR("KEYSRV: update_keys_in_ca fails on ca %s", ca.name.c_str());
        change_key_refresh_state(ca, KEY_REFRESH_STOPPED);
        drop_all_ca_members(ca.name);
        return false;
    }
    configure_rx_sas_in_ca(ca);
    return true;
}

struct confirmation {
    ca_member* member; // null when there is nothing to do
    connectivity_association* ca;
};

// The common start of all confirmations; `handler` is its caller's name.
confirmation take_confirmation(uint32_t client_id, const oka_message* message, uint32_t procedure_reference,
                               const char* handler = __builtin_FUNCTION()) {
    trace_received(message);
    ca_member* member = find_ca_member_by_client_id(client_id);
    if (!member) {
        TRACE_ERROR("KEYSRV: %s: element not found (client_id=%u)", handler, client_id);
        return {};
    }
    connectivity_association* ca = find_ca_by_name(member->ca);
    if (!ca) {
        TRACE_ERROR("KEYSRV: %s: ca = %s not found (client_id=%u)", handler, member->ca.c_str(), client_id);
        drop_all_ca_members(member->ca);
        return {};
    }
    delete_timeout_on_msg(client_id, procedure_reference);
    return {member, ca};
}

} // namespace

void handle_ks_ca_member_create_rx_sc_rcfm(uint32_t client_id, const oka_message* message) {
    KEYSRV_FUNCTION();
    auto [member, ca] = take_confirmation(client_id, message, PROC_REF_RX_SC_CREATE);
    if (!member)
        return;
    if (member->identifier == null_sci) {
        TRACE_ERROR("KEYSRV: update_rx_sc_state: Unexpected msg for client id = %u, CA name = '%s'",
                    client_id, ca->name.c_str());
        return;
    }
    update_rx_sc_state(*member);
    change_ca_member_state(*member, CA_MEMBER_STATE_CONFIGURED_SC);
    if (!create_sak(*ca, *member)) {
        drop_all_ca_members(ca->name);
        return;
    }
    if (!check_all_rx_sc_confirmed(*ca)) {
        TRACE("KEYSRV: Some rx sc cfm missing for ca %s", ca->name.c_str());
        return;
    }
    if (!eval_retrigger_key_refresh_in_multidu(*ca)) {
        change_ca_state(*ca, CA_INCOMPLETE);
        TRACE("KEYSRV: Key refresh not available for ca %s: not enough configured members", ca->name.c_str());
        return;
    }
    change_ca_state(*ca, CA_OPERATIONAL);
    change_key_refresh_state(*ca, KEY_REFRESH_ONGOING);
    TRACE("KEYSRV: SA configuration possible for ca %s: at least %d configured members", ca->name.c_str(),
          least_configured_members);
    std::ignore = rekey(*ca);
}

void handle_ks_ca_member_create_rx_sa_rcfm(uint32_t client_id, const oka_message* message) {
    KEYSRV_FUNCTION();
    auto [member, ca] = take_confirmation(client_id, message, PROC_REF_RX_SA_CREATE);
    if (!member)
        return;
    TRACE("KEYSRV: handle_ks_ca_member_create_rx_sa_rcfm: ca = %s client_id=%u", ca->name.c_str(), client_id);
    update_rx_sa_state(*member);
    if (check_all_rx_sa_confirmed(*ca))
        configure_tx_sas_in_ca(*ca);
    else
        TRACE("KEYSRV: Some rx sa cfm missing for ca %s", ca->name.c_str());
}

void handle_ks_ca_member_create_tx_sa_rcfm(uint32_t client_id, const oka_message* message) {
    KEYSRV_FUNCTION();
    auto [member, ca] = take_confirmation(client_id, message, PROC_REF_TX_SA_CREATE);
    if (!member)
        return;
    update_tx_sa_state(*member);
    change_ca_member_state(*member, CA_MEMBER_STATE_CONFIGURED_SA);
    change_key_refresh_state(*ca, KEY_REFRESH_IDLE);
    if (check_all_tx_sa_confirmed(*ca))
        set_protect_frames_of_ca(*ca);
    else
        TRACE("KEYSRV: Some tx sa rcfm missing for ca %s", ca->name.c_str());
}

void handle_mka_client_update_protect_frames_rcfm(uint32_t client_id, const oka_message* message) {
    KEYSRV_FUNCTION();
    auto [member, ca] = take_confirmation(client_id, message, PROC_REF_PROTECT_FRAMES);
    if (!member)
        return;
    // One that comes twice must not put off the next refresh. A member that is not secured yet is believed:
    // its request is not outstanding when there was no memory to await the answer.
    if (!update_protect_frames_state(*member) && member->state != CA_MEMBER_STATE_CONFIGURED_SA)
        return;
    change_ca_member_state(*member, CA_MEMBER_STATE_SECURED);
    if (check_all_protect_frames_confirmed(*ca))
        start_key_refresh_timer(*ca);
    else
        TRACE("KEYSRV: Some protect frames rcfm missing for ca %s", ca->name.c_str());
}

void handle_key_refresh_timeout_ind(const oka_message* message) {
    KEYSRV_FUNCTION();
    const auto* indication = view<keysrv_key_refresh_timer_ind>(message);
    if (!indication)
        return;
    trace_received(message);
    connectivity_association* ca = find_ca_by_name(indication->ca);
    if (!ca) {
        TRACE_ERROR("KEYSRV: ca = %s not found", indication->ca.printable().c_str());
        return;
    }
    ca->key_refresh_timer = 0;
    switch (ca->refresh_state) {
    case KEY_REFRESH_ONGOING:
        TRACE_ERROR("KEYSRV: Key refresh timeout event for ca '%s' on unexpected state (state=%s): "
                    "retriggered",
                    ca->name.c_str(), key_refresh_state_to_str(ca->refresh_state));
        change_key_refresh_state(*ca, KEY_REFRESH_IDLE);
        start_key_refresh_timer(*ca);
        break;
    case KEY_REFRESH_STOPPED:
        TRACE_ERROR("KEYSRV: Key refresh timeout event for ca '%s' on unexpected state (state=%s): stopped",
                    ca->name.c_str(), key_refresh_state_to_str(ca->refresh_state));
        stop_key_refresh_timer(*ca);
        break;
    case KEY_REFRESH_IDLE:
        change_key_refresh_state(*ca, KEY_REFRESH_ONGOING);
        if (rekey(*ca))
            start_key_refresh_timer(*ca);
        break;
    }
}

} // namespace tavu::keysrv
