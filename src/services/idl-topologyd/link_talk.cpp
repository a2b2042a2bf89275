#include "services/idl-topologyd/link_talk.h"

#include <algorithm>
#include <cstring>

#include "services/idl-topologyd/peers.h"
#include "services/idl-topologyd/trouble.h"

namespace topologyd {

namespace {

using namespace tavu;
using namespace services;

// What may be said to the other end of one link within `talk_window_ms`. A link that is taken through its
// life needs a dozen; one that needs more is played with.
constexpr uint32_t talk_max = 50;
constexpr uint64_t talk_window_ms = 1000;

topology_peer_link_ind word_of(const link_record& link, bool has_daemon, uint64_t now_ms) {
    topology_peer_link_ind word{};
    trouble own = own_trouble(link, has_daemon, now_ms);
    word.header.procedure_reference = link.agreed.reference;
    word.port = link.file.port;
    word.remote_port = link.file.remote_port;
    word.remote_mpid = link.file.remote_mpid;
    word.life = link.agreed.life;
    word.seen_life = link.agreed.peer.life;
    word.phase = phase_of(link, has_daemon, now_ms);
    word.trouble = own.code;
    word.words = own.words;
    return word;
}

bool may_tell(agreement& agreed, uint64_t now_ms) {
    if (now_ms - agreed.told_since_ms >= talk_window_ms) {
        agreed.told_since_ms = now_ms;
        agreed.recently_told = 0;
    }
    return agreed.recently_told < talk_max;
}

} // namespace

void tell_other_end(link_record& link, bool has_daemon, uint64_t now_ms) {
    agreement& agreed = link.agreed;
    if (!agreed.peer_is_found || (link.file.du_type != OXMSI_DU_TYPE_3 && agreed.told.life == 0))
        return;
    topology_peer_link_ind word = word_of(link, has_daemon, now_ms);
    if (memcmp(&word, &agreed.told, sizeof word) == 0 || !may_tell(agreed, now_ms))
        return;
    agreed.recently_told++;
    agreed.told = word;
    bool is_shown = word.trouble == agreed.shown.code && agreed.shown.end == TOPOLOGY_END_HERE;
    word.trouble_since = topology_age::of_ms(is_shown ? now_ms - agreed.shown.since_ms : 0);
    peers_tell(link.file.hunt_path, word);
}

void say_farewell(const link_record& link) {
    topology_peer_link_ind word = link.agreed.told;
    if (!link.agreed.peer_is_found || word.life == 0)
        return;
    word.phase = TOPOLOGY_PHASE_OFF;
    peers_tell(link.file.hunt_path, word);
}

void tell_again(link_record& link) {
    link.agreed.told = {};
}

uint64_t next_talk_ms(const link_record& link) {
    return link.agreed.recently_told < talk_max ? 0 : link.agreed.told_since_ms + talk_window_ms;
}

peer_word hear(const topology_peer_link_ind& said, uint64_t now_ms) {
    peer_word word;
    word.life = said.life;
    word.seen_life = said.seen_life;
    word.phase = static_cast<topology_phase>(uint32_t{said.phase});
    word.own_mpid = said.remote_mpid;
    word.trouble = said.trouble;
    word.trouble_since_ms = now_ms - std::min(said.trouble_since.in_ms(), now_ms - 1);
    word.words = quote_words(said.words.c_str());
    return word;
}

} // namespace topologyd
