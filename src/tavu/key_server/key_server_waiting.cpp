#include "tavu/key_server/key_server_records.h"

namespace tavu::keysrv {

namespace {

// A request whose confirmation is awaited.
struct waiting_msg {
    uint32_t client_id;
    uint32_t procedure_reference;
    uint32_t message_number;
    oka_timer_ref timer;
};

record_list<waiting_msg> waiting_msgs{"KEYSRV"};

void start_msg_timeout(waiting_msg& waiting, const ca_name& ca) {
    KEYSRV_FUNCTION();
    oka_timer_cancel(waiting.timer);
    outgoing<keysrv_msg_timeout_ind> message(KEYSRV_MSG_TIMEOUT_IND);
    message->header.procedure_reference = PROC_REF_MSG_TRANSACTION;
    message->awaited_number = waiting.message_number;
    message->awaited_procedure_reference = waiting.procedure_reference;
    message->client_id = waiting.client_id;
    message->ca = ca;
    waiting.timer = oka_timer_request_sig(key_server_msg_timeout_ms, message.prepared());
}

waiting_msg* find_waiting_msg(uint32_t client_id, uint32_t procedure_reference) {
    KEYSRV_FUNCTION();
    waiting_msg* found = waiting_msgs.find([&](const waiting_msg& candidate) {
        return candidate.client_id == client_id && candidate.procedure_reference == procedure_reference;
    });
    if (found)
        TRACE("KEYSRV: Found waiting message for client id = %u, procedure reference='%s'", client_id,
              proc_ref_to_str(procedure_reference));
    else
        TRACE("KEYSRV: No waiting message found for client id = %u, procedure reference='%s'", client_id,
              proc_ref_to_str(procedure_reference));
    return found;
}

waiting_msg* find_waiting_msg_by_client_id(uint32_t client_id) {
    KEYSRV_FUNCTION();
    return waiting_msgs.find([&](const waiting_msg& candidate) { return candidate.client_id == client_id; });
}

void delete_waiting_msg(waiting_msg& waiting) {
    KEYSRV_FUNCTION();
    if (waiting.timer != 0) {
        TRACE("KEYSRV: Stopping message timer for client id = %u, procedure reference='%s'",
              waiting.client_id, proc_ref_to_str(waiting.procedure_reference));
        oka_timer_cancel(waiting.timer);
    } else {
        TRACE("KEYSRV: No message timer running for client id = %u, procedure reference='%s'",
              waiting.client_id, proc_ref_to_str(waiting.procedure_reference));
    }
    waiting_msgs.remove(waiting);
}

// Without `cancel` the timer has fired already, and its reference may be another timer's by now.
void delete_timeout_on_msg_if_cancel(uint32_t client_id, uint32_t procedure_reference, bool cancel) {
    KEYSRV_FUNCTION();
    waiting_msg* waiting = find_waiting_msg(client_id, procedure_reference);
    if (!waiting)
        return;
    if (!cancel)
        waiting->timer = 0;
    delete_waiting_msg(*waiting);
}

} // namespace

bool create_timeout_on_msg(const ca_member& member, uint32_t message_number, uint32_t procedure_reference) {
    KEYSRV_FUNCTION();
    waiting_msg* waiting = waiting_msgs.add();
    if (!waiting)
        return false;
    waiting->client_id = member.client_id;
    waiting->procedure_reference = procedure_reference;
    waiting->message_number = message_number;
    start_msg_timeout(*waiting, member.ca);
    return true;
}

void delete_timeout_on_msg(uint32_t client_id, uint32_t procedure_reference) {
    KEYSRV_FUNCTION();
    delete_timeout_on_msg_if_cancel(client_id, procedure_reference, true);
}

void delete_all_waiting_msg_for_ca(const connectivity_association& ca) {
    KEYSRV_FUNCTION();
    for (const ca_member& member : members_of(ca)) {
        while (waiting_msg* waiting = find_waiting_msg_by_client_id(member.client_id))
            delete_waiting_msg(*waiting);
    }
}

void delete_all_waiting_msg() {
    KEYSRV_FUNCTION();
    while (waiting_msg* waiting = waiting_msgs.first())
        delete_waiting_msg(*waiting);
}

// Whether the request still waits is not asked: an indication that crossed its confirmation drops the CA too.
void handle_msg_timeout_ind(const oka_message* message) {
    KEYSRV_FUNCTION();
    const auto* indication = view<keysrv_msg_timeout_ind>(message);
    if (!indication)
        return;
    trace_received(message);
    uint32_t client_id = indication->client_id;
    uint32_t awaited_number = indication->awaited_number;
    connectivity_association* ca = find_ca_by_name(indication->ca);
    if (!ca) {
        TRACE_ERROR("KEYSRV: CA '%s' not found, message='%s'", indication->ca.printable().c_str(),
                    ks_msg_no_to_str(awaited_number));
        return;
    }
    if (!find_ca_member_by_client_id(client_id)) {
        TRACE_ERROR("KEYSRV: client id = %u not found, CA='%s', message='%s'", client_id, ca->name.c_str(),
                    ks_msg_no_to_str(awaited_number));
        return;
    }
    delete_timeout_on_msg_if_cancel(client_id, indication->awaited_procedure_reference, false);
    drop_all_ca_members(ca->name);
}

} // namespace tavu::keysrv
