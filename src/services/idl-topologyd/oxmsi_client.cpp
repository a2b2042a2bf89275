#include "services/idl-topologyd/oxmsi_client.h"

#include "base/dispatch.h"
#include "base/enum_text.h"
#include "base/ignore_result.h"
#include "base/trace.h"
#include "protocols/message_numbers.h"
#include "services/common/one_shot.h"
#include "services/idl-topologyd/clock.h"

namespace topologyd {

namespace {

using namespace tavu;

constexpr const char* service_name = "oxmsi";

struct {
    oxmsi_client_state state = OXMSI_CLIENT_STATE_UNINITIALIZED;
    uint64_t state_since_ms = 0;
    oxmsi_client_callbacks callbacks = {};
    oka_mailbox mailbox = OKA_MAILBOX_NONE;
    oka_mailbox daemon = OKA_MAILBOX_NONE;
    oka_monitor_ref monitor = 0;
    uint32_t connection_reference = 0; // a new one for each attempt
    uint32_t client_id = 0;
    uint32_t procedure_reference = 0; // of the last request
    uint32_t refusal = 0;
    back_off connecting;
    services::one_shot retry{CONNECT_RETRY_IND};
    daemon_probe probe;
    services::one_shot probe_timer{DAEMON_PROBE_IND};
} self;

constexpr enum_text state_names[] = {
    ENUM_TEXT(OXMSI_CLIENT_STATE_UNINITIALIZED), ENUM_TEXT(OXMSI_CLIENT_STATE_LOCATING),
    ENUM_TEXT(OXMSI_CLIENT_STATE_CONNECTING),    ENUM_TEXT(OXMSI_CLIENT_STATE_REFUSED),
    ENUM_TEXT(OXMSI_CLIENT_STATE_CONNECTED),
};

const char* state_to_str(oxmsi_client_state state) {
    return enum_to_str(state_names, state);
}

void change_state(oxmsi_client_state state) {
    TRACE_STATE_CHANGE("TOPOLOGYD: '%s' -> '%s'", state_to_str(self.state), state_to_str(state));
    self.state = state;
    self.state_since_ms = now_ms();
}

uint32_t next_procedure_reference() {
    if (++self.procedure_reference == 0)
        ++self.procedure_reference;
    return self.procedure_reference;
}

void locate() {
    change_state(OXMSI_CLIENT_STATE_LOCATING);
    outgoing<host32> prepared(OXMSI_SERVER_UP_IND);
    oka_locate_async(service_name, prepared.prepared(), self.mailbox);
}

void send_connection_establish_req() {
    change_state(OXMSI_CLIENT_STATE_CONNECTING);
    self.connection_reference++;
    outgoing<oxmsi_connection_establish_req> request(OXMSI_CONNECTION_ESTABLISH_REQ);
    request->header.procedure_reference = next_procedure_reference();
    request->header.connection_reference = self.connection_reference;
    request->num_of_protocol_versions = 1;
    request->first_protocol_version = oxmsi_protocol_version;
    TRACE_SEND(request, self.daemon, "TOPOLOGYD: %s client connection reference=%u",
               oxmsi_msg_no_to_str(request.number()), self.connection_reference);
    request.send(self.daemon, self.mailbox);
}

template<class T>
uint32_t send_request(outgoing<T>& request) {
    uint32_t reference = next_procedure_reference();
    request->header.procedure_reference = reference;
    request->header.connection_reference = self.client_id;
    TRACE_SEND(request, self.daemon, "TOPOLOGYD: %s client id=%u, procedure reference=%u",
               oxmsi_msg_no_to_str(request.number()), self.client_id, reference);
    request.send(self.daemon, self.mailbox);
    return reference;
}

bool is_connected() {
    return self.state == OXMSI_CLIENT_STATE_CONNECTED;
}

uint32_t send_subscription(uint32_t number, const port_name& port) {
    if (!is_connected())
        return 0;
    outgoing<oxmsi_subscription_req> request(number);
    request->port = port;
    return send_request(request);
}

struct header_alone {
    message_header header;
};

void send_probe() {
    outgoing<header_alone> request(OXMSI_CAPABILITIES_GET_REQ);
    probe_sent(self.probe, send_request(request), now_ms());
}

void start_probing() {
    self.probe = {.ticked_ms = now_ms()};
    self.probe_timer.arm(probe_interval_ms);
}

void stop_probing() {
    self.probe = {};
    self.probe_timer.stop();
}

void take_probe_result(probe_result result) {
    switch (result) {
    case probe_result::nothing:
        return;
    case probe_result::stalled:
        TRACE_ERROR("TOPOLOGYD: '%s' does not answer; does it stand still?", service_name);
        break;
    case probe_result::resumed:
        TRACE_INFO("TOPOLOGYD: '%s' answers again", service_name);
        break;
    case probe_result::lost:
        TRACE_INFO("TOPOLOGYD: '%s', or this process, stood still for seconds; every link starts over",
                   service_name);
        self.callbacks.handle_silence_ended();
        break;
    }
    self.callbacks.handle_progress();
}

void handle_probe_timer() {
    const probe_result result = probe_ticked(self.probe, now_ms());
    if (self.probe.reference == 0)
        send_probe();
    self.probe_timer.arm(probe_interval_ms);
    take_probe_result(result);
}

void handle_server_up_ind(const oka_message* message) {
    if (self.state != OXMSI_CLIENT_STATE_LOCATING || oka_sender(message) == OKA_MAILBOX_NONE) {
        TRACE_ERROR("TOPOLOGYD: A located mailbox arrived in state '%s'", state_to_str(self.state));
        return;
    }
    self.daemon = oka_sender(message);
    outgoing<host32> prepared(OXMSI_SERVER_DOWN_IND);
    self.monitor = oka_monitor(self.daemon, prepared.prepared());
    send_connection_establish_req();
    self.callbacks.handle_progress();
}

void handle_server_down_ind(const oka_message* message) {
    if (oka_sender(message) != self.daemon || self.daemon == OKA_MAILBOX_NONE)
        return;
    TRACE_INFO("TOPOLOGYD: '%s' is gone; every link is published again once it is back", service_name);
    bool was_connected = is_connected();
    self.daemon = OKA_MAILBOX_NONE;
    self.monitor = 0;
    self.refusal = 0;
    self.connecting.succeed();
    self.retry.stop();
    stop_probing();
    locate();
    if (was_connected)
        self.callbacks.handle_disconnected();
    self.callbacks.handle_progress();
}

// An answer counts when it comes from the daemon, in the state that expects it, under our own reference.
bool verify_header(const oka_message* message, const message_header& header, oxmsi_client_state expected,
                   uint32_t reference) {
    const char* name = oxmsi_msg_no_to_str(message->number);
    TRACE_RECEIVE(message, "TOPOLOGYD: %s client connection reference=%u, procedure reference=%u", name,
                  uint32_t{header.connection_reference}, uint32_t{header.procedure_reference});
    if (oka_sender(message) != self.daemon) {
        TRACE_ERROR("TOPOLOGYD: %s is not from '%s', dropped", name, service_name);
        return false;
    }
    if (self.state != expected) {
        TRACE_ERROR("TOPOLOGYD: %s arrived in state '%s', dropped", name, state_to_str(self.state));
        return false;
    }
    if (header.connection_reference != reference) {
        TRACE_ERROR("TOPOLOGYD: %s has connection reference %u, expected %u, dropped", name,
                    uint32_t{header.connection_reference}, reference);
        return false;
    }
    return true;
}

bool verify_connection_answer(const oka_message* message, const message_header& header, uint32_t reference) {
    return verify_header(message, header, OXMSI_CLIENT_STATE_CONNECTING, reference) &&
           header.procedure_reference == self.procedure_reference;
}

void handle_connection_establish_cfm(const oka_message* message) {
    const auto* cfm = view<oxmsi_connection_establish_cfm>(message);
    // The confirm carries the client id where every later answer carries our own reference.
    if (!cfm || !verify_connection_answer(message, cfm->header, cfm->header.connection_reference))
        return;
    self.client_id = cfm->header.connection_reference;
    self.refusal = 0;
    self.connecting.succeed();
    change_state(OXMSI_CLIENT_STATE_CONNECTED);
    TRACE_INFO("TOPOLOGYD: Connected to '%s' as client %u", service_name, self.client_id);
    start_probing();
    self.callbacks.handle_connected();
    self.callbacks.handle_progress();
}

void handle_connection_establish_rej(const oka_message* message) {
    const auto* rej = view<oxmsi_rej>(message);
    if (!rej || !verify_connection_answer(message, rej->header, self.connection_reference))
        return;
    self.refusal = rej->reason;
    self.connecting.fail(now_ms());
    uint32_t pause_ms = static_cast<uint32_t>(self.connecting.until_ms - now_ms());
    TRACE_ERROR("TOPOLOGYD: '%s' refused the connection: %s; trying again in %u ms", service_name,
                oxmsi_error_to_str(self.refusal), pause_ms);
    change_state(OXMSI_CLIENT_STATE_REFUSED);
    self.retry.arm(pause_ms);
    self.callbacks.handle_progress();
}

void handle_reject(const oka_message* message) {
    const auto* rej = view<oxmsi_rej>(message);
    if (!rej || !verify_header(message, rej->header, OXMSI_CLIENT_STATE_CONNECTED, self.connection_reference))
        return;
    self.callbacks.handle_answer(rej->header.procedure_reference,
                                 {message->number, rej->reason, OXMSI_PORT_OPER_STATE_UNINITIALIZED,
                                  OXMSI_PORT_ENCRYPTION_STATE_UNINITIALIZED});
}

// Link confirms and indications.
void handle_port_status(const oka_message* message) {
    const auto* status = view<oxmsi_port_status>(message);
    if (!status ||
        !verify_header(message, status->header, OXMSI_CLIENT_STATE_CONNECTED, self.connection_reference))
        return;
    daemon_answer answer{message->number, 0, status->oper_state, status->encryption_state};
    if (message->number == OXMSI_PORT_STATE_CHANGE_IND)
        self.callbacks.handle_indication(status->header.procedure_reference, status->port, answer);
    else
        self.callbacks.handle_answer(status->header.procedure_reference, answer);
}

// Confirms of subscriptions: what counts is the indication that follows.
void handle_subscription_cfm(const oka_message* message) {
    if (const auto* header = view<message_header>(message))
        ignore_result(
            verify_header(message, *header, OXMSI_CLIENT_STATE_CONNECTED, self.connection_reference));
}

void handle_capabilities_get_cfm(const oka_message* message) {
    const auto* cfm = view<oxmsi_capabilities_get_cfm>(message);
    if (cfm && verify_header(message, cfm->header, OXMSI_CLIENT_STATE_CONNECTED, self.connection_reference))
        take_probe_result(probe_answered(self.probe, cfm->header.procedure_reference, now_ms()));
}

constexpr tavu::dispatch_row dispatch_table[] = {
    {OXMSI_SERVER_UP_IND, handle_server_up_ind, tavu::origin::prepared},
    {OXMSI_SERVER_DOWN_IND, handle_server_down_ind, tavu::origin::prepared},
    {OXMSI_CONNECTION_ESTABLISH_CFM, handle_connection_establish_cfm},
    {OXMSI_CONNECTION_ESTABLISH_REJ, handle_connection_establish_rej},
    {OXMSI_CAPABILITIES_GET_CFM, handle_capabilities_get_cfm},
    {OXMSI_IDL_TOPOLOGY_PUBLISH_LINK_ADDED_CFM, handle_port_status},
    {OXMSI_IDL_TOPOLOGY_PUBLISH_LINK_ADDED_REJ, handle_reject},
    {OXMSI_IDL_TOPOLOGY_PUBLISH_LINK_DELETED_CFM, handle_port_status},
    {OXMSI_IDL_TOPOLOGY_PUBLISH_LINK_DELETED_REJ, handle_reject},
    {OXMSI_IDL_TOPOLOGY_PUBLISH_LINK_UPDATED_CFM, handle_port_status},
    {OXMSI_IDL_TOPOLOGY_PUBLISH_LINK_UPDATED_REJ, handle_reject},
    {OXMSI_PORT_STATE_CHANGE_SUBSCRIBE_CFM, handle_subscription_cfm},
    {OXMSI_PORT_STATE_CHANGE_SUBSCRIBE_REJ, handle_reject},
    {OXMSI_PORT_STATE_CHANGE_UNSUBSCRIBE_CFM, handle_subscription_cfm},
    {OXMSI_PORT_STATE_CHANGE_IND, handle_port_status},
};

uint32_t send_link_deleted_req(const link_attributes& link) {
    outgoing<oxmsi_link_deleted_req> request(OXMSI_IDL_TOPOLOGY_PUBLISH_LINK_DELETED_REQ);
    request->port = link.port;
    request->link_id = link.id;
    return send_request(request);
}

void fill_link(oxmsi_link& fields, const link_attributes& link) {
    fields.port = link.port;
    fields.remote_port = link.remote_port;
    fields.link_id = link.id;
    fields.remote_mpid = link.remote_mpid;
    fields.du_type = link.du_type;
    fields.link_status = link.status;
}

} // namespace

bool oxmsi_client_start(oka_mailbox mailbox, const oxmsi_client_callbacks* callbacks) {
    if (!is_in_state(self.state, OXMSI_CLIENT_STATE_UNINITIALIZED, state_to_str, "TOPOLOGYD"))
        return false;
    self.mailbox = mailbox;
    self.callbacks = *callbacks;
    locate();
    return true;
}

void oxmsi_client_stop() {
    if (self.monitor)
        oka_unmonitor(self.monitor);
    self.monitor = 0;
    self.daemon = OKA_MAILBOX_NONE;
    self.retry.stop();
    stop_probing();
    change_state(OXMSI_CLIENT_STATE_UNINITIALIZED);
}

uint32_t oxmsi_client_send_link(const due_request& due) {
    if (!is_connected())
        return 0;
    switch (due.request) {
    case link_request::none:
        return 0;
    case link_request::add: {
        outgoing<oxmsi_link_added_req> request(OXMSI_IDL_TOPOLOGY_PUBLISH_LINK_ADDED_REQ);
        fill_link(request->link, due.attributes);
        request->hunt_path = due.attributes.hunt_path;
        return send_request(request);
    }
    case link_request::update: {
        outgoing<oxmsi_link_updated_req> request(OXMSI_IDL_TOPOLOGY_PUBLISH_LINK_UPDATED_REQ);
        fill_link(request->link, due.attributes);
        return send_request(request);
    }
    case link_request::remove:
        return send_link_deleted_req(due.attributes);
    }
    return 0;
}

uint32_t oxmsi_client_subscribe(const port_name& port) {
    return send_subscription(OXMSI_PORT_STATE_CHANGE_SUBSCRIBE_REQ, port);
}

uint32_t oxmsi_client_unsubscribe(const port_name& port) {
    return send_subscription(OXMSI_PORT_STATE_CHANGE_UNSUBSCRIBE_REQ, port);
}

uint32_t oxmsi_request_number(link_request request) {
    switch (request) {
    case link_request::none:
        return 0;
    case link_request::add:
        return OXMSI_IDL_TOPOLOGY_PUBLISH_LINK_ADDED_REQ;
    case link_request::update:
        return OXMSI_IDL_TOPOLOGY_PUBLISH_LINK_UPDATED_REQ;
    case link_request::remove:
        return OXMSI_IDL_TOPOLOGY_PUBLISH_LINK_DELETED_REQ;
    }
    return 0;
}

oxmsi_client_state oxmsi_client_get_state() {
    return self.state;
}

uint64_t oxmsi_client_state_since_ms() {
    return self.state_since_ms;
}

daemon_contact oxmsi_client_contact() {
    if (!is_connected())
        return daemon_contact::none;
    return self.probe.is_stalled ? daemon_contact::stalled : daemon_contact::answers;
}

uint32_t oxmsi_client_refusal() {
    return self.refusal;
}

bool oxmsi_client_dispatch_message(const oka_message* message) {
    if (message->number == CONNECT_RETRY_IND) {
        if (self.retry.take(message)) {
            send_connection_establish_req();
            self.callbacks.handle_progress();
        }
        return true;
    }
    if (message->number == DAEMON_PROBE_IND) {
        if (self.probe_timer.take(message))
            handle_probe_timer();
        return true;
    }
    return tavu::dispatch_by(dispatch_table, message);
}

} // namespace topologyd
