#include "services/idl-topologyd/trouble.h"

#include <string>

namespace topologyd {

namespace {

using namespace tavu;
using namespace services;

trouble describe(topology_trouble_code code, topology_end end, const std::string& what) {
    trouble described{};
    described.code = code;
    described.end = end;
    described.words.assign(what.c_str());
    return described;
}

trouble here(topology_trouble_code code, const std::string& what) {
    return describe(code, TOPOLOGY_END_HERE, what);
}

trouble there(topology_trouble_code code, const std::string& what) {
    return describe(code, TOPOLOGY_END_THERE, what);
}

trouble refusal_of_daemon(const link_record& link) {
    return here(TOPOLOGY_TROUBLE_REFUSED, std::string("qel-tavu refuses the link: ") +
                                              reject_reason_in_words(link.last_answer.reason) +
                                              "; asked again with pauses");
}

// The last failure, while it was not put right.
trouble failure_of(const agreement& agreed) {
    switch (agreed.failure) {
    case TOPOLOGY_TROUBLE_FAILED:
        return here(agreed.failure,
                    "qel-tavu could not secure the port, its traces say why (SecY, key server); "
                    "tried again with pauses");
    case TOPOLOGY_TROUBLE_BROKEN:
        return here(agreed.failure,
                    "the port lost its keys, qel-tavu's traces say why; tried again with pauses");
    case TOPOLOGY_TROUBLE_NO_KEYS:
        return here(agreed.failure,
                    "no keys came in time; compare ports and remote-mpid of both links files "
                    "with MPID of both units, then see qel-tavu's traces; tried again with pauses");
    case TOPOLOGY_TROUBLE_RESTLESS:
        return here(agreed.failure,
                    "the link starts over again and again, by a cable, by the other end, or by "
                    "another client of \"oxmsi\"; see idl-topologyd's traces at both ends");
    default:
        return {};
    }
}

// What the other end says of itself.
trouble trouble_there(const peer_word& peer) {
    if (peer.trouble == TOPOLOGY_TROUBLE_NONE)
        return {};
    trouble told{};
    told.code = static_cast<topology_trouble_code>(peer.trouble);
    told.end = TOPOLOGY_END_THERE;
    told.since_ms = peer.trouble_since_ms;
    told.words = peer.words;
    return told;
}

trouble trouble_between(const link_record& link) {
    const agreement& agreed = link.agreed;
    std::string path = link.file.hunt_path.c_str();
    if (!agreed.peer_is_found)
        return there(TOPOLOGY_TROUBLE_NO_PEER, "no idl-topologyd is found at '" + path +
                                                   "'; see that it runs there, that hunt-path is right, and "
                                                   "that messages pass");
    if (agreed.refusal.length() > 0)
        return there(TOPOLOGY_TROUBLE_PEER_REFUSES,
                     "idl-topologyd at '" + path + "' refuses: " + agreed.refusal.c_str());
    if (agreed.peer.life == 0)
        return there(TOPOLOGY_TROUBLE_SILENT_PEER, "idl-topologyd at '" + path +
                                                       "' has not said anything of this link; is it of this "
                                                       "version?");
    if (agreed.peer.own_mpid == link.file.remote_mpid)
        return here(TOPOLOGY_TROUBLE_MPIDS, "remote-mpid is " + std::to_string(link.file.remote_mpid) +
                                                " at both ends; each must name the other's MPID");
    if (agreed.peer.phase == TOPOLOGY_PHASE_OFF)
        return there(TOPOLOGY_TROUBLE_OFF, "the link is not to be secured there; set its status to up, and "
                                           "du-type to type-3");
    return {};
}

} // namespace

trouble own_trouble(const link_record& link, bool has_daemon, uint64_t now_ms) {
    if (!wants_security(link) || link.agreed.stands == standing::ENCRYPTED)
        return {};
    if (!has_daemon)
        return here(TOPOLOGY_TROUBLE_NO_DAEMON, "qel-tavu is not reachable; see that it runs, and that "
                                                "oxpcsi-server tells it its ports");
    if (link.requests.failures > 0)
        return refusal_of_daemon(link);
    if (phase_of(link, has_daemon, now_ms) == TOPOLOGY_PHASE_PORT_DOWN)
        return here(TOPOLOGY_TROUBLE_PORT_DOWN, "the port is not in operation; put the cable in, or set the "
                                                "interface up");
    return failure_of(link.agreed);
}

trouble trouble_of(const link_record& link, bool has_daemon, uint64_t now_ms) {
    if (!wants_security(link) || link.agreed.stands == standing::ENCRYPTED)
        return {};
    trouble own = own_trouble(link, has_daemon, now_ms);
    if (own.code == TOPOLOGY_TROUBLE_NO_DAEMON || own.code == TOPOLOGY_TROUBLE_REFUSED)
        return own;
    if (trouble between = trouble_between(link); between.code != TOPOLOGY_TROUBLE_NONE)
        return between;
    if (own.code != TOPOLOGY_TROUBLE_NONE)
        return own;
    return trouble_there(link.agreed.peer);
}

bool update_trouble(link_record& link, bool has_daemon, uint64_t now_ms) {
    trouble now = trouble_of(link, has_daemon, now_ms);
    trouble& shown = link.agreed.shown;
    bool goes_on = now.code == shown.code && now.end == shown.end;
    if (now.since_ms == 0)
        now.since_ms = goes_on ? shown.since_ms : now_ms;
    bool changed = !goes_on || !(now.words == shown.words);
    shown = now;
    return changed;
}

trouble_words quote_words(const char* said) {
    trouble_words words;
    words.assign(said);
    for (char* at = words.octets; *at; at++)
        *at = *at < ' ' || *at > '~' ? '?' : *at;
    return words;
}

} // namespace topologyd
