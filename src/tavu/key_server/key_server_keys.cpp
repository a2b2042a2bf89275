#include "tavu/key_server/key_server_records.h"

namespace tavu::keysrv {

namespace {

// Goes into every key's name, of all CAs; never starts anew.
uint32_t key_name_counter = 0;

} // namespace

bool create_sak(connectivity_association& ca, const ca_member& owner) {
    KEYSRV_FUNCTION();
    sak_record* sak =
        ca.saks.find([&](const sak_record& candidate) { return candidate.identifier == owner.identifier; });
    if (sak && sak->taken_up) {
        TRACE_ERROR("KEYSRV: sci %s already existing", sci_to_str(owner.identifier).c_str());
        return false;
    }
    if (!sak)
        sak = ca.saks.add();
    if (!sak)
        return false;
    sak->identifier = owner.identifier;
    sak->key_len = owner.key_len;
    sak->taken_up = true;
    return true;
}

void delete_saks(connectivity_association& ca) {
    KEYSRV_FUNCTION();
    ca.saks.clear();
}

void set_saks_aside(connectivity_association& ca) {
    KEYSRV_FUNCTION();
    for (sak_record& sak : ca.saks) {
        sak.key.wipe();
        sak.rx_configured = false;
        sak.tx_configured = false;
        sak.taken_up = false;
    }
}

bool update_keys_in_ca(connectivity_association& ca) {
    KEYSRV_FUNCTION();
    for (sak_record& sak : ca.saks) {
        sak.rx_configured = false;
        sak.tx_configured = false;
        if (!generate_sak(sak.key_len, sak.key.refill()))
            return false;
        sak.an = (sak.an + 1) % number_of_ans;
        char name[128];
        snprintf(name, sizeof name, "%s-%s-%d", ca.name.c_str(), sci_to_str(sak.identifier).c_str(),
                 key_name_counter++);
        sak.key_name.assign(name);
        TRACE("KEYSRV: sci %s: key_name %s", sci_to_str(sak.identifier).c_str(), sak.key_name.c_str());
    }
    return true;
}

namespace {

void install(const sak_record& sak, secure_association& sa) {
    sa.packet_number = sa_packet_number;
    sa.configured = true;
    sa.key_len = sak.key_len;
    sa.key = sak.key;
    sa.key_name = sak.key_name;
}

void configure_rx_sa(const sak_record& sak, ca_member& member, rx_sc& channel) {
    channel.current_an = sak.an;
    secure_association& sa = channel.current_sa();
    install(sak, sa);
    TRACE_DETAIL("KEYSRV: rx_sci: %s, key_len=%d, key_name=%s", sci_to_str(sak.identifier).c_str(),
                 sa.key_len, sa.key_name.c_str());
    bool sent = ks_send_create_rx_sa_rreq(member, sak.identifier, sak.an, PROC_REF_RX_SA_CREATE);
    sa.key.wipe(); // the entry outlives the key
    if (!sent)
        return;
    sa.confirmed = false;
    TRACE("KEYSRV: ks_send_create_rx_sa_rreq succeed: member %d (rx_sc.sci: %s, curr_sa %d)",
          member.client_id, sci_to_str(channel.identifier).c_str(), channel.current_an);
}

} // namespace

// A request that cannot be sent is passed over: its member is going, or its wait runs out.
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

namespace {

void configure_tx_sa(const connectivity_association& ca, const sak_record& sak, ca_member& member) {
    member.current_tx_an = sak.an;
    secure_association& sa = member.current_tx_sa();
    install(sak, sa);
    TRACE_DETAIL("KEYSRV: tx_sci: %s, key_len=%d, key_name=%s", sci_to_str(sak.identifier).c_str(),
                 sa.key_len, sa.key_name.c_str());
    bool sent = ks_send_create_tx_sa_rreq(member, sak.an, PROC_REF_TX_SA_CREATE);
    sa.key.wipe();
    if (!sent) {
        TRACE_ERROR("KEYSRV: ks_send_create_tx_sa_rreq failed: member %d push out of ca %s", member.client_id,
                    ca.name.c_str());
        change_ca_member_state(member, CA_MEMBER_STATE_FAILED);
        return;
    }
    sa.confirmed = false;
    TRACE("KEYSRV: ks_send_create_tx_sa_rreq succeed: member %d (curr_sa %d)", member.client_id,
          member.current_tx_an);
}

} // namespace

// Its receivers have a key before its owner gets it, and its owner gets it once: installed anew, it would
// start again at the first packet number and use every nonce twice (IEEE 802.1AE-2018, 14.5). A confirmation
// that nobody asked for must not bring that about.
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
    }
}

namespace {

void set_protect_frames(ca_member& member, bool protect_frames) {
    KEYSRV_FUNCTION();
    member.protect_frames = protect_frames;
    if (ks_send_update_protect_rreq(member, protect_frames, PROC_REF_PROTECT_FRAMES))
        member.protect_frames_confirmed = false;
}

} // namespace

void set_protect_frames_of_ca(const connectivity_association& ca) {
    KEYSRV_FUNCTION();
    for (ca_member& member : members_of(ca))
        set_protect_frames(member, true);
}

} // namespace tavu::keysrv
