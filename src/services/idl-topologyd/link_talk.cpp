#include "services/idl-topologyd/link_talk.h"

#include <algorithm>
#include <cstring>

#include "services/idl-topologyd/faults.h"
#include "services/idl-topologyd/peers.h"

namespace topologyd {

namespace {

using namespace tavu;
using namespace services;

// What may be said to the other end of one link within `talk_window_ms`. A link that is taken through its
// states needs a dozen; one that needs more is flapping, or the other end means no good.
constexpr uint32_t talk_max = 50;
constexpr uint64_t talk_window_ms = 1000;

topology_peer_link_ind report_of(const link_record& link, daemon_contact daemon, uint64_t now_ms) {
    topology_peer_link_ind report{};
    fault own = own_fault(link, daemon, now_ms);
    report.header.procedure_reference = link.agreed.reference;
    report.port = link.file.port;
    report.remote_port = link.file.remote_port;
    report.remote_mpid = link.file.remote_mpid;
    report.incarnation = link.agreed.incarnation;
    report.seen_incarnation = link.agreed.peer.incarnation;
    report.phase = phase_of(link, daemon, now_ms);
    report.fault = own.code;
    report.words = own.words;
    return report;
}

bool may_tell(told_report& told, uint64_t now_ms) {
    if (now_ms - told.since_ms >= talk_window_ms) {
        told.since_ms = now_ms;
        told.recently = 0;
    }
    return told.recently < talk_max;
}

} // namespace

void tell_other_end(link_record& link, daemon_contact daemon, uint64_t now_ms) {
    told_report& told = link.told;
    if (!link.agreed.peer_is_found || (link.file.du_type != OXMSI_DU_TYPE_3 && told.report.incarnation == 0))
        return;
    topology_peer_link_ind report = report_of(link, daemon, now_ms);
    if (memcmp(&report, &told.report, sizeof report) == 0 || !may_tell(told, now_ms))
        return;
    told.recently++;
    told.report = report;
    bool is_shown = report.fault == link.shown.code && link.shown.end == TOPOLOGY_END_HERE;
    report.fault_since = topology_age::of_ms(is_shown ? now_ms - link.shown.since_ms : 0);
    peers_tell(link.file.hunt_path, report);
}

void say_farewell(const link_record& link) {
    topology_peer_link_ind report = link.told.report;
    if (!link.agreed.peer_is_found || report.incarnation == 0)
        return;
    report.phase = TOPOLOGY_PHASE_OFF;
    peers_tell(link.file.hunt_path, report);
}

void tell_again(link_record& link) {
    link.told.report = {};
}

uint64_t next_talk_ms(const link_record& link) {
    return link.told.recently < talk_max ? 0 : link.told.since_ms + talk_window_ms;
}

peer_report hear(const topology_peer_link_ind& said, uint64_t now_ms) {
    peer_report report;
    report.incarnation = said.incarnation;
    report.seen_incarnation = said.seen_incarnation;
    report.phase = static_cast<topology_phase>(uint32_t{said.phase});
    report.own_mpid = said.remote_mpid;
    report.fault = said.fault;
    report.fault_since_ms = now_ms - std::min(said.fault_since.in_ms(), now_ms - 1);
    report.words = quote_words(said.words.c_str());
    return report;
}

} // namespace topologyd
