#include "services/idl-topologyd/faults.h"

#include <string>

#include "services/common/plain_text.h"

namespace topologyd {

namespace {

using namespace tavu;
using namespace services;

fault describe(topology_fault_code code, topology_end end, const std::string& what) {
    fault described{};
    described.code = code;
    described.end = end;
    described.words.assign(what.c_str());
    return described;
}

fault here(topology_fault_code code, const std::string& what) {
    return describe(code, TOPOLOGY_END_HERE, what);
}

fault there(topology_fault_code code, const std::string& what) {
    return describe(code, TOPOLOGY_END_THERE, what);
}

fault refusal_of_daemon(const link_record& link) {
    return here(TOPOLOGY_FAULT_REFUSED, std::string("qel-tavu refuses the link: ") +
                                            reject_reason_in_words(link.published.last_answer.reason) +
                                            "; asked again with pauses");
}

fault failure_in_words(topology_fault_code code) {
    switch (code) {
    case TOPOLOGY_FAULT_FAILED:
        return here(code, "qel-tavu could not secure the port, its traces say why (SecY, key server); "
                          "tried again with pauses");
    case TOPOLOGY_FAULT_BROKEN:
        return here(code, "the port lost its keys, qel-tavu's traces say why; tried again with pauses");
    case TOPOLOGY_FAULT_NO_KEYS:
        return here(code, "no keys came in time; compare ports and remote-mpid of both links files "
                          "with MPID of both units, then see qel-tavu's traces; tried again with pauses");
    case TOPOLOGY_FAULT_FLAPPING:
        return here(code, "the link starts over again and again, by a cable, by the other end, or by "
                          "another client of \"oxmsi\"; see idl-topologyd's traces at both ends");
    case TOPOLOGY_FAULT_UNPROTECTED:
        return here(code,
                    "the port's SecY does not encrypt as it should, whatever qel-tavu says; does another "
                    "program change it? Both ends start over");
    case TOPOLOGY_FAULT_KEYS_DIFFER:
        return here(code, "one end sends with a key that the other does not have; both start over, see "
                          "qel-tavu's traces");
    case TOPOLOGY_FAULT_KEYS_TOO_OLD:
        return here(code,
                    "the keys were not replaced for more than 200 s; both ends start over, see qel-tavu's "
                    "traces at the end with the smaller MP id");
    case TOPOLOGY_FAULT_FRAMES_DROPPED:
        return here(code,
                    "no encrypted frame that is sent here arrives at the other end, though messages do; "
                    "see what is between the ends");
    default:
        return {};
    }
}

// What the other end says of itself.
fault fault_there(const peer_report& peer) {
    if (peer.fault == TOPOLOGY_FAULT_NONE)
        return {};
    fault told{};
    told.code = static_cast<topology_fault_code>(peer.fault);
    told.end = TOPOLOGY_END_THERE;
    told.since_ms = peer.fault_since_ms;
    told.words = peer.words;
    return told;
}

fault fault_between(const link_record& link) {
    const agreement& agreed = link.agreed;
    std::string path = link.file.hunt_path.c_str();
    if (!agreed.peer_is_found)
        return there(TOPOLOGY_FAULT_NO_PEER, "no idl-topologyd is found at '" + path +
                                                 "'; see that it runs there, that hunt-path is right, and "
                                                 "that messages pass");
    if (agreed.refusal.length() > 0)
        return there(TOPOLOGY_FAULT_PEER_REFUSES,
                     "idl-topologyd at '" + path + "' refuses: " + agreed.refusal.c_str());
    if (agreed.peer.incarnation == 0)
        return there(TOPOLOGY_FAULT_SILENT_PEER, "idl-topologyd at '" + path +
                                                     "' has not said anything of this link; is it of this "
                                                     "version?");
    if (agreed.peer.own_mpid == link.file.remote_mpid)
        return here(TOPOLOGY_FAULT_MPIDS, "remote-mpid is " + std::to_string(link.file.remote_mpid) +
                                              " at both ends; each must name the other's MPID");
    if (agreed.peer.phase == TOPOLOGY_PHASE_OFF)
        return there(TOPOLOGY_FAULT_OFF, "the link is not to be secured there; set its status to up, and "
                                         "du-type to type-3");
    return {};
}

} // namespace

fault own_fault(const link_record& link, daemon_contact daemon, uint64_t now_ms) {
    if (!wants_security(link))
        return {};
    if (daemon == daemon_contact::stalled)
        return here(TOPOLOGY_FAULT_STALLED, "qel-tavu stands still; keys are not changed, nor is the link "
                                            "repaired, until it goes on or is restarted");
    if (link.agreed.state == agreement_state::encrypted)
        return failure_in_words(link.watched.found);
    if (daemon == daemon_contact::none)
        return here(TOPOLOGY_FAULT_NO_DAEMON, "qel-tavu is not reachable; see that it runs, and that "
                                              "oxpcsi-server tells it its ports");
    if (link.published.requests.failures > 0)
        return refusal_of_daemon(link);
    if (phase_of(link, daemon, now_ms) == TOPOLOGY_PHASE_PORT_DOWN)
        return here(TOPOLOGY_FAULT_PORT_DOWN, "the port is not in operation; put the cable in, or set the "
                                              "interface up");
    return failure_in_words(link.agreed.failure); // the last, while it was not put right
}

fault fault_of(const link_record& link, daemon_contact daemon, uint64_t now_ms) {
    if (!wants_security(link))
        return {};
    fault own = own_fault(link, daemon, now_ms);
    if (link.agreed.state == agreement_state::encrypted)
        return own.code != TOPOLOGY_FAULT_NONE ? own : fault_there(link.agreed.peer);
    if (own.code == TOPOLOGY_FAULT_STALLED || own.code == TOPOLOGY_FAULT_NO_DAEMON ||
        own.code == TOPOLOGY_FAULT_REFUSED)
        return own;
    if (fault between = fault_between(link); between.code != TOPOLOGY_FAULT_NONE)
        return between;
    if (own.code != TOPOLOGY_FAULT_NONE)
        return own;
    return fault_there(link.agreed.peer);
}

bool update_fault(link_record& link, daemon_contact daemon, uint64_t now_ms) {
    fault now = fault_of(link, daemon, now_ms);
    fault& shown = link.shown;
    bool goes_on = now.code == shown.code && now.end == shown.end;
    if (now.since_ms == 0)
        now.since_ms = goes_on ? shown.since_ms : now_ms;
    bool changed = !goes_on || !(now.words == shown.words);
    shown = now;
    return changed;
}

fault_words quote_words(const char* said) {
    fault_words words;
    words.assign(services::plain_text(said).c_str());
    return words;
}

} // namespace topologyd
