#include "tavu/key_server/key_server_keying.h"

#include "base/ignore_result.h"
#include "tavu/key_server/key_server_ending.h"
#include "tavu/key_server/key_server_requests.h"

namespace tavu::keysrv {

namespace {

constexpr uint32_t least_configured_members = 2;
constexpr unsigned most_saks = mka_server_max_clients;

// --- SAKs

// The oldest record that no member has taken up, or null.
sak_record* find_oldest_set_aside(connectivity_association& ca) {
    sak_record* oldest = nullptr;
    for (sak_record& sak : ca.saks) {
        if (!sak.taken_up)
            oldest = &sak;
    }
    return oldest;
}

// A new record; null, after an error trace, when memory is short or every record there may be is in use. SCIs
// that came and went leave records behind, of which the oldest makes room.
sak_record* add_sak(connectivity_association& ca) {
    if (ca.saks.size() >= most_saks) {
        sak_record* oldest = find_oldest_set_aside(ca);
        if (!oldest) {
            TRACE_ERROR("KEYSRV: Maximum number of SAKs (%u) of ca %s reached", most_saks, ca.name.c_str());
            return nullptr;
        }
        ca.saks.remove(*oldest);
    }
    return ca.saks.add();
}

// Makes the SAK record of a member whose first receive channel is there: a new one, or the one that it had
// when the CA was formed before. False when the member has one already or memory is short.
bool create_sak(connectivity_association& ca, const ca_member& owner) {
    KEYSRV_FUNCTION();
    sak_record* sak =
        ca.saks.find([&](const sak_record& candidate) { return candidate.identifier == owner.identifier; });
    if (sak && sak->taken_up) {
        TRACE_ERROR("KEYSRV: sci %s already existing", sci_to_str(owner.identifier).c_str());
        return false;
    }
    if (!sak)
        sak = add_sak(ca);
    if (!sak)
        return false;
    sak->identifier = owner.identifier;
    sak->sa.sak_len = owner.key_len;
    sak->sa.cipher_suite = ca.cipher;
    sak->sa.packet_number = sa_packet_number;
    sak->taken_up = true;
    return true;
}

// `key_len` new random octets. False, after an error trace, when there are none.
bool generate_sak(uint32_t key_len, uint8_t* key) {
    KEYSRV_FUNCTION();
    if (!key) {
        TRACE_ERROR("KEYSRV: Output buffer is NULL");
        return false;
    }
    if (!self.callbacks.generate_sak(key_len, key)) {
        TRACE_ERROR("KEYSRV: Could not generate new SAK");
        return false;
    }
    return true;
}

// Puts a new key into every SAK record; false when no key could be generated. Records that were not taken up
// when the CA was formed again belong to SCIs that no member has any more, and are removed.
bool update_keys_in_ca(connectivity_association& ca) {
    KEYSRV_FUNCTION();
    while (sak_record* left = find_oldest_set_aside(ca))
        ca.saks.remove(*left);
    for (sak_record& sak : ca.saks) {
        sak.rx_configured = false;
        sak.tx_configured = false;
        if (!generate_sak(sak.sa.sak_len, sak.sa.sak.refill()))
            return false;
        sak.sa.an = (sak.sa.an + 1) % number_of_ans;
        char name[128];
        snprintf(name, sizeof name, "%s-%s-%d", ca.name.c_str(), sci_to_str(sak.identifier).c_str(),
                 self.key_name_counter++);
        sak.sa.key_name.assign(name);
        TRACE("KEYSRV: sci %s: key_name %s", sci_to_str(sak.identifier).c_str(), sak.sa.key_name.c_str());
    }
    return true;
}

void configure_rx_sa(const sak_record& sak, const ca_member& member, rx_sc& channel) {
    channel.sas.current_an = sak.sa.an;
    TRACE_DETAIL("KEYSRV: rx_sci: %s, key_len=%d, key_name=%s", sci_to_str(sak.identifier).c_str(),
                 sak.sa.sak_len, sak.sa.key_name.c_str());
    if (!ks_send_create_rx_sa_rreq(member, sak, PROC_REF_RX_SA_CREATE))
        return;
    channel.sas.current_confirmed() = false;
    TRACE("KEYSRV: ks_send_create_rx_sa_rreq succeed: member %d (rx_sc.sci: %s, curr_sa %d)",
          member.client_id, sci_to_str(channel.identifier).c_str(), channel.sas.current_an);
}

// A request that cannot be sent is skipped; the loss of its member ends the keying soon.
void configure_rx_sas_in_ca(connectivity_association& ca) {
    KEYSRV_FUNCTION();
    for (sak_record& sak : ca.saks) {
        for (ca_member& member : members_of(ca)) {
            if (rx_sc* channel = find_rx_sc_by_sci(member, sak.identifier))
                configure_rx_sa(sak, member, *channel);
        }
        sak.rx_configured = true;
    }
}

void configure_tx_sa(const connectivity_association& ca, const sak_record& sak, ca_member& member) {
    member.tx_sas.current_an = sak.sa.an;
    TRACE_DETAIL("KEYSRV: tx_sci: %s, key_len=%d, key_name=%s", sci_to_str(sak.identifier).c_str(),
                 sak.sa.sak_len, sak.sa.key_name.c_str());
    if (!ks_send_create_tx_sa_rreq(member, sak, PROC_REF_TX_SA_CREATE)) {
        TRACE_ERROR("KEYSRV: ks_send_create_tx_sa_rreq failed: member %d push out of ca %s", member.client_id,
                    ca.name.c_str());
        change_ca_member_state(member, CA_MEMBER_STATE_FAILED);
        return;
    }
    member.tx_sas.current_confirmed() = false;
    TRACE("KEYSRV: ks_send_create_tx_sa_rreq succeed: member %d (curr_sa %d)", member.client_id,
          member.tx_sas.current_an);
}

// The receivers have a key before its owner gets it. The owner gets it only once: a key that is installed
// again starts at the first packet number and uses every nonce twice (IEEE 802.1AE-2018, 14.5), which an
// unexpected confirmation must not cause. The key is not needed here afterwards.
void configure_tx_sas_in_ca(connectivity_association& ca) {
    KEYSRV_FUNCTION();
    for (sak_record& sak : ca.saks) {
        if (!sak.rx_configured || sak.tx_configured)
            continue;
        for (ca_member& member : members_of(ca)) {
            if (member.identifier == sak.identifier)
                configure_tx_sa(ca, sak, member);
        }
        sak.tx_configured = true;
        sak.sa.sak.wipe();
    }
}

void set_protect_frames(ca_member& member, bool protect_frames) {
    KEYSRV_FUNCTION();
    if (ks_send_update_protect_rreq(member, protect_frames, PROC_REF_PROTECT_FRAMES))
        member.protect_frames_confirmed = false;
}

void set_protect_frames_of_ca(const connectivity_association& ca) {
    KEYSRV_FUNCTION();
    for (ca_member& member : members_of(ca))
        set_protect_frames(member, true);
}

// --- What has been confirmed

// What a member confirms is marked. False, after an error trace, when no such confirmation is outstanding: a
// repeated one must change nothing. `step` is the calling function.
bool was_outstanding(const ca_member& member, bool outstanding, const char* step = __builtin_FUNCTION()) {
    if (!outstanding)
        TRACE_ERROR("KEYSRV: %s: Unexpected msg for client id = %u, CA name = '%s'", step, member.client_id,
                    member.ca.c_str());
    return outstanding;
}

bool update_rx_sc_state(ca_member& member) {
    KEYSRV_FUNCTION();
    rx_sc* channel = member.rx_scs.find([](const rx_sc& candidate) { return !candidate.confirmed; });
    if (!was_outstanding(member, channel))
        return false;
    channel->confirmed = true;
    return true;
}

bool update_rx_sa_state(ca_member& member) {
    KEYSRV_FUNCTION();
    rx_sc* channel = member.rx_scs.find([](rx_sc& candidate) { return !candidate.sas.current_confirmed(); });
    if (!was_outstanding(member, channel))
        return false;
    channel->sas.current_confirmed() = true;
    return true;
}

bool update_tx_sa_state(ca_member& member) {
    KEYSRV_FUNCTION();
    if (!was_outstanding(member, !member.tx_sas.current_confirmed()))
        return false;
    member.tx_sas.current_confirmed() = true;
    return true;
}

bool update_protect_frames_state(ca_member& member) {
    KEYSRV_FUNCTION();
    if (!was_outstanding(member, !member.protect_frames_confirmed))
        return false;
    member.protect_frames_confirmed = true;
    return true;
}

bool check_all_rx_sc_confirmed(const connectivity_association& ca) {
    KEYSRV_FUNCTION();
    return all_members(ca, [](ca_member& member) {
        return !member.rx_scs.find([](const rx_sc& channel) { return !channel.confirmed; });
    });
}

bool check_all_rx_sa_confirmed(const connectivity_association& ca) {
    KEYSRV_FUNCTION();
    return all_members(ca, [](ca_member& member) {
        return !member.rx_scs.find([](rx_sc& channel) { return !channel.sas.current_confirmed(); });
    });
}

bool check_all_tx_sa_confirmed(const connectivity_association& ca) {
    KEYSRV_FUNCTION();
    return all_members(ca, [](ca_member& member) { return member.tx_sas.current_confirmed(); });
}

bool check_all_protect_frames_confirmed(const connectivity_association& ca) {
    KEYSRV_FUNCTION();
    return all_members(ca, [](const ca_member& member) { return member.protect_frames_confirmed; });
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
    ca_member* member = find_answering_member(client_id, message, handler);
    if (!member)
        return {};
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
    if (!update_rx_sc_state(*member))
        return;
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
    ignore_result(rekey(*ca));
}

void handle_ks_ca_member_create_rx_sa_rcfm(uint32_t client_id, const oka_message* message) {
    KEYSRV_FUNCTION();
    auto [member, ca] = take_confirmation(client_id, message, PROC_REF_RX_SA_CREATE);
    if (!member)
        return;
    TRACE("KEYSRV: handle_ks_ca_member_create_rx_sa_rcfm: ca = %s client_id=%u", ca->name.c_str(), client_id);
    if (!update_rx_sa_state(*member))
        return;
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
    if (!update_tx_sa_state(*member))
        return;
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
    // A member that is not secured yet is believed: its request is not outstanding when there was no memory
    // to await the answer.
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
    // An expiry that crossed its cancellation must not leave the timer that runs by then beside the next one.
    oka_timer_cancel(ca->key_refresh_timer);
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
