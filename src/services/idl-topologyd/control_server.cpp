#include "services/idl-topologyd/control_server.h"

#include <algorithm>
#include <optional>
#include <string>

#include "base/dispatch.h"
#include "base/ignore_result.h"
#include "base/trace.h"
#include "protocols/message_numbers.h"
#include "protocols/topology_messages.h"
#include "services/common/one_shot.h"
#include "services/common/options.h"
#include "services/idl-topologyd/clock.h"
#include "services/idl-topologyd/links_follower.h"
#include "services/idl-topologyd/oxmsi_client.h"
#include "services/idl-topologyd/topology.h"

namespace topologyd {

namespace {

using namespace tavu;
using namespace services;

// A daemon that does not answer in this time is shown as it was last seen.
constexpr uint32_t refresh_timeout_ms = 500;
// The daemon does not tell of every change, so it is asked while somebody watches.
constexpr uint32_t watch_refresh_ms = 1000;
constexpr size_t requesters_max = 32;

// Someone whose request is not finished: a status or a set status that waits for the daemon, or a watch.
struct requester {
    uint32_t number; // of the request
    oka_mailbox mailbox;
    oka_monitor_ref monitor;
    uint32_t procedure_reference;
    uint32_t connection_reference;
    port_name port;                 // set status: which one
    std::optional<uint32_t> status; // set status: to what; nothing for the file's
    bool is_answered;
};

struct {
    oka_mailbox mailbox = OKA_MAILBOX_NONE;
    std::vector<requester> requesters;
    bool has_changed = false;
    one_shot refresh_timeout{REFRESH_TIMEOUT_IND};
    one_shot watch_refresh{WATCH_REFRESH_IND};
} self;

uint32_t reject_of(uint32_t request) {
    return request + 2;
}
uint32_t confirm_of(uint32_t request) {
    return request + 1;
}

bool is_connected() {
    return oxmsi_client_get_state() == OXMSI_CLIENT_STATE_CONNECTED;
}

topology_daemon_state daemon_state() {
    switch (oxmsi_client_get_state()) {
    case OXMSI_CLIENT_STATE_UNINITIALIZED:
    case OXMSI_CLIENT_STATE_LOCATING:
        return TOPOLOGY_DAEMON_LOCATING;
    case OXMSI_CLIENT_STATE_CONNECTING:
        return TOPOLOGY_DAEMON_CONNECTING;
    case OXMSI_CLIENT_STATE_REFUSED:
        return TOPOLOGY_DAEMON_REFUSED;
    case OXMSI_CLIENT_STATE_CONNECTED:
        return TOPOLOGY_DAEMON_CONNECTED;
    }
    return TOPOLOGY_DAEMON_LOCATING;
}

topology_publication publication_of(const link_record& link) {
    if (!link.is_in_file)
        return TOPOLOGY_LINK_REMOVING;
    if (link.published.pending != link_request::none)
        return TOPOLOGY_LINK_REQUESTED;
    return link.published.held == held_link::link ? TOPOLOGY_LINK_PUBLISHED : TOPOLOGY_LINK_WAITING;
}

topology_age age_of(uint64_t moment_ms) {
    return moment_ms == 0 ? topology_age::never() : topology_age::of_ms(now_ms() - moment_ms);
}

uint32_t ms_until(uint64_t moment_ms) {
    uint64_t now = now_ms();
    return moment_ms > now ? static_cast<uint32_t>(moment_ms - now) : 0;
}

void fill_link(topology_link& shown, const link_record& link) {
    shown.port = link.file.port;
    shown.remote_port = link.file.remote_port;
    shown.hunt_path = link.file.hunt_path;
    shown.link_id = link.file.id;
    shown.remote_mpid = link.file.remote_mpid;
    shown.du_type = link.file.du_type;
    shown.status_of_file = link.file.status;
    shown.status = link.set_status.value_or(link.file.status);
    shown.is_status_set = link.set_status.has_value();
    shown.publication = publication_of(link);
    shown.published = age_of(link.published.published_ms);
    shown.oper_state = link.published.oper_state;
    shown.encryption_state = link.published.encryption_state;
    shown.state_since = age_of(link.published.state_since_ms);
    shown.state_told = age_of(link.published.state_told_ms);
    shown.last_request = link.published.last_request;
    shown.requested = age_of(link.published.requested_ms);
    shown.last_answer = link.published.last_answer.number;
    shown.last_reason = link.published.last_answer.reason;
    shown.answered = age_of(link.published.answered_ms);
    shown.milliseconds_to_next =
        ms_until(std::max(link.published.requests.until_ms, link.agreed.failing.until_ms));
    shown.phase = phase_of(link, oxmsi_client_contact(), now_ms());
    shown.fault = link.shown.code;
    shown.fault_end = link.shown.end;
    shown.fault_since = age_of(link.shown.since_ms);
    shown.words = link.shown.words;
}

void send_snapshot(const requester& to, uint32_t number) {
    const std::vector<link_record>& links = topology_links();
    outgoing<topology_snapshot> snapshot(number, links.size() * sizeof(topology_link));
    snapshot->header.procedure_reference = to.procedure_reference;
    snapshot->header.connection_reference = to.connection_reference;
    snapshot->version = topology_protocol_version;
    snapshot->daemon_state = daemon_state();
    snapshot->daemon_since = age_of(oxmsi_client_state_since_ms());
    snapshot->daemon_reason = oxmsi_client_refusal();
    snapshot->links_file.assign(links_follower_path());
    snapshot->file_error.assign(links_follower_error());
    snapshot->link_count = static_cast<uint32_t>(links.size());
    auto* shown = reinterpret_cast<topology_link*>(snapshot.extra());
    for (const link_record& link : links)
        fill_link(*shown++, link);
    TRACE_SEND(snapshot, to.mailbox, "TOPOLOGYD: %s with %zu links", topology_msg_no_to_str(number),
               links.size());
    snapshot.send(to.mailbox, self.mailbox);
}

void send_link_set_cfm(const requester& to, const link_record& link) {
    outgoing<topology_link_set_cfm> cfm(TOPOLOGY_LINK_SET_CFM);
    cfm->header.procedure_reference = to.procedure_reference;
    cfm->header.connection_reference = to.connection_reference;
    fill_link(cfm->link, link);
    TRACE_SEND(cfm, to.mailbox, "TOPOLOGYD: %s for port '%s'", topology_msg_no_to_str(cfm.number()),
               link.file.port.c_str());
    cfm.send(to.mailbox, self.mailbox);
}

void send_rej(const requester& to, topology_reject_reason reason, const std::string& words) {
    outgoing<topology_rej> rej(reject_of(to.number));
    rej->header.procedure_reference = to.procedure_reference;
    rej->header.connection_reference = to.connection_reference;
    rej->reason = reason;
    rej->words.assign(words.c_str());
    TRACE_SEND(rej, to.mailbox, "TOPOLOGYD: %s: %s", topology_msg_no_to_str(rej.number()), words.c_str());
    rej.send(to.mailbox, self.mailbox);
}

// Keeps the requester until it is answered or gone; false, after a reject, when there are too many.
bool keep(requester& from) {
    if (self.requesters.size() >= requesters_max) {
        send_rej(from, TOPOLOGY_REJ_BUSY, "too many requests wait already; try again later");
        return false;
    }
    outgoing<host32> prepared(CLIENT_DOWN_IND);
    from.monitor = oka_monitor(from.mailbox, prepared.prepared());
    self.requesters.push_back(from);
    return true;
}

void forget_answered() {
    std::erase_if(self.requesters, [](const requester& each) {
        if (each.is_answered)
            oka_unmonitor(each.monitor);
        return each.is_answered;
    });
}

void handle_status_req(requester& from) {
    if (!keep(from) || !is_connected())
        return;
    if (!topology_is_refreshing())
        topology_refresh();
    if (!self.refresh_timeout.is_armed())
        self.refresh_timeout.arm(refresh_timeout_ms);
}

void handle_watch_req(requester& from) {
    if (!keep(from))
        return;
    send_snapshot(from, TOPOLOGY_WATCH_CFM);
    if (!self.watch_refresh.is_armed()) {
        topology_refresh();
        self.watch_refresh.arm(watch_refresh_ms);
    }
}

std::string known_ports() {
    std::string ports;
    for (const link_record& link : topology_links()) {
        if (link.is_in_file)
            ports += (ports.empty() ? "" : ", ") + std::string(link.file.port.c_str());
    }
    return ports.empty() ? "it has none" : "it has " + ports;
}

void handle_link_set_req(requester& from) {
    if (!topology_find(from.port)) {
        send_rej(from, TOPOLOGY_REJ_UNKNOWN_PORT,
                 "the links file has no link on port '" + std::string(from.port.printable().octets) + "'; " +
                     known_ports());
        return;
    }
    if (from.status && *from.status > OXMSI_LTM_LINK_STATUS_AUTHENTICATION_FAILED) {
        send_rej(from, TOPOLOGY_REJ_INVALID_LINK_STATUS,
                 "link status " + std::to_string(*from.status) + " does not exist");
        return;
    }
    if (!is_connected()) {
        send_rej(from, TOPOLOGY_REJ_NOT_CONNECTED,
                 "qel-tavu is not reachable, so nothing was changed; see that it runs, and try again");
        return;
    }
    if (!keep(from))
        return;
    for (requester& earlier : self.requesters) {
        if (&earlier == &self.requesters.back() || earlier.number != TOPOLOGY_LINK_SET_REQ ||
            !(earlier.port == from.port))
            continue;
        send_rej(earlier, TOPOLOGY_REJ_OVERTAKEN, "a newer setting of this port took its place");
        earlier.is_answered = true;
    }
    ignore_result(topology_set_status(from.port, from.status));
}

// Answers a set status when its fate is known.
bool settle_link_set(const requester& from) {
    const link_record* link = topology_find(from.port);
    if (!link || link->set_status != from.status)
        send_rej(from, TOPOLOGY_REJ_OVERTAKEN, "the links file changed this link before it was confirmed");
    else if (!is_connected())
        send_rej(from, TOPOLOGY_REJ_NOT_CONNECTED,
                 "qel-tavu went away before it confirmed; the setting is kept and published when it is back");
    else if (is_fulfilled(*link))
        send_link_set_cfm(from, *link);
    else if (link->published.requests.failures > 0)
        send_rej(from, TOPOLOGY_REJ_REFUSED,
                 std::string("qel-tavu refused: ") +
                     reject_reason_in_words(link->published.last_answer.reason) +
                     "; the setting is kept and asked for again");
    else
        return false;
    return true;
}

bool settle_status() {
    if (is_connected() && topology_is_refreshing() && self.refresh_timeout.is_armed())
        return false;
    return true;
}

void handle_client_down_ind(const oka_message* message) {
    oka_mailbox gone = oka_sender(message);
    std::erase_if(self.requesters, [gone](const requester& each) {
        if (each.mailbox == gone)
            oka_unmonitor(each.monitor);
        return each.mailbox == gone;
    });
}

struct request_row {
    uint32_t number;
    uint32_t size;
    void (*handle)(requester& from);
};

constexpr request_row request_table[] = {
    {TOPOLOGY_STATUS_REQ, sizeof(topology_req), handle_status_req},
    {TOPOLOGY_WATCH_REQ, sizeof(topology_req), handle_watch_req},
    {TOPOLOGY_LINK_SET_REQ, sizeof(topology_link_set_req), handle_link_set_req},
};

// Checks what every request has in common; rejects what is wrong, as far as there is someone to tell.
bool verify_request(const oka_message* message, const request_row& row, const requester& from) {
    if (oka_size(message) < sizeof(topology_req)) {
        send_rej(from, TOPOLOGY_REJ_MALFORMED, "the request is too short to carry a protocol version");
        return false;
    }
    uint32_t version = as<topology_req>(message).version;
    if (version != topology_protocol_version) {
        send_rej(from, TOPOLOGY_REJ_UNSUPPORTED_PROTOCOL_VERSION,
                 "idl-topologyd " QEL_TAVU_VERSION " speaks version " +
                     std::to_string(topology_protocol_version) + " of the protocol, not " +
                     std::to_string(version) + "; install the tavuctl that belongs to it");
        return false;
    }
    if (oka_size(message) != row.size) {
        send_rej(from, TOPOLOGY_REJ_MALFORMED,
                 "the request has " + std::to_string(oka_size(message)) + " bytes instead of " +
                     std::to_string(row.size));
        return false;
    }
    return true;
}

void handle_request(const oka_message* message, const request_row& row) {
    if (!verify_msg_length_minimum_size(message, sizeof(message_header)))
        return;
    const auto& header = as<message_header>(message);
    TRACE_RECEIVE(message, "TOPOLOGYD: %s procedure reference=%u", topology_msg_no_to_str(row.number),
                  uint32_t{header.procedure_reference});
    requester from{};
    from.number = row.number;
    from.mailbox = oka_sender(message);
    from.procedure_reference = header.procedure_reference;
    from.connection_reference = header.connection_reference;
    if (!verify_request(message, row, from))
        return;
    if (row.number == TOPOLOGY_LINK_SET_REQ) {
        const auto& request = as<topology_link_set_req>(message);
        from.port = request.port;
        if (request.status != topology_status_of_file)
            from.status = uint32_t{request.status};
    }
    row.handle(from);
}

void handle_watch_refresh() {
    bool is_watched = std::any_of(self.requesters.begin(), self.requesters.end(),
                                  [](const requester& each) { return each.number == TOPOLOGY_WATCH_REQ; });
    if (!is_watched)
        return;
    if (!topology_is_refreshing())
        topology_refresh();
    self.watch_refresh.arm(watch_refresh_ms);
}

} // namespace

void control_server_start(oka_mailbox mailbox) {
    self.mailbox = mailbox;
}

void control_server_stop() {
    self.refresh_timeout.stop();
    self.watch_refresh.stop();
    for (const requester& each : self.requesters)
        oka_unmonitor(each.monitor);
    self.requesters.clear();
}

void control_server_note_change() {
    self.has_changed = true;
}

void control_server_settle() {
    for (requester& each : self.requesters) {
        if (each.number == TOPOLOGY_STATUS_REQ && settle_status()) {
            send_snapshot(each, confirm_of(each.number));
            each.is_answered = true;
        } else if (each.number == TOPOLOGY_LINK_SET_REQ && !each.is_answered) {
            each.is_answered = settle_link_set(each);
        } else if (each.number == TOPOLOGY_WATCH_REQ && self.has_changed) {
            send_snapshot(each, TOPOLOGY_WATCH_IND);
        }
    }
    self.has_changed = false;
    forget_answered();
    bool is_waiting = std::any_of(self.requesters.begin(), self.requesters.end(),
                                  [](const requester& each) { return each.number == TOPOLOGY_STATUS_REQ; });
    if (!is_waiting)
        self.refresh_timeout.stop();
}

bool control_server_dispatch_message(const oka_message* message) {
    switch (message->number) {
    case CLIENT_DOWN_IND:
        handle_client_down_ind(message);
        return true;
    case REFRESH_TIMEOUT_IND:
        if (self.refresh_timeout.take(message))
            TRACE_ERROR("TOPOLOGYD: The daemon did not tell the status of every port within %u ms",
                        refresh_timeout_ms);
        return true;
    case WATCH_REFRESH_IND:
        if (self.watch_refresh.take(message))
            handle_watch_refresh();
        return true;
    default:
        break;
    }
    const request_row* row = tavu::find_row(request_table, message);
    if (row)
        handle_request(message, *row);
    return row;
}

} // namespace topologyd
