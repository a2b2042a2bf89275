#include "support/unit_services.h"

#include <cstring>

#include "protocols/oxmsi_messages.h"
#include "protocols/oxpcsi_messages.h"

namespace bench {

using namespace tavu;

namespace {

constexpr uint32_t service_up_ind = 0x100;
constexpr uint32_t line_rate = 10000;

// An answer carries the procedure reference of its request.
template<class T>
void refer_to(outgoing<T>& answer, const oka_message* request) {
    answer->header.procedure_reference = as<message_header>(request).procedure_reference;
    answer->header.connection_reference = oxpcsi_client_connection_reference;
}

} // namespace

void unit_services::start(oka_mailbox port_control_server, oka_mailbox topology_manager) {
    port_control_ = port_control_server;
    manager_ = topology_manager;
    oka_message* found = oka_alloc(sizeof(oka_message), service_up_ind);
    oka_locate_async("oxmsi", &found, manager_);
}

void unit_services::handle(const oka_message* message) {
    if (oka_receiver(message) == port_control_)
        handle_port_control(message);
    else
        handle_topology(message);
}

// --- The port control server

void unit_services::handle_port_control(const oka_message* message) {
    if (message->number == OXPCSI_INIT_SERVICE_REQ) {
        outgoing<oxpcsi_init_service_cfm> answer(OXPCSI_INIT_SERVICE_CFM);
        refer_to(answer, message);
        answer->pv_selected = oxpcsi_protocol_version;
        answer.send(oka_sender(message), port_control_);
    } else if (message->number == OXPCSI_GET_ETH_PORT_SUPPORT_REQ) {
        answer_get_ports(message);
    } else if (message->number == OXPCSI_SUBSCRIBE_ETH_PORT_STATUS_REQ) {
        answer_subscribe(message);
    }
}

void unit_services::answer_get_ports(const oka_message* message) {
    outgoing<oxpcsi_get_eth_port_support_cfm> answer(OXPCSI_GET_ETH_PORT_SUPPORT_CFM,
                                                     (ports_ - 1) * sizeof(oxpcsi_port_entry));
    refer_to(answer, message);
    answer->no_ports = ports_;
    oxpcsi_port_entry* entries = &answer->first_entry;
    for (unsigned i = 0; i < ports_; i++) {
        const uint8_t mac_address[6] = {2, 0, 0, 0, static_cast<uint8_t>(own_mpid_), static_cast<uint8_t>(i)};
        entries[i].port_role = OXPCSI_PORT_ROLE_IDL;
        entries[i].votk_id = i + 1;
        memcpy(entries[i].mac_address, mac_address, sizeof mac_address);
        entries[i].port.assign(port_names[i]);
        entries[i].if_name.assign(port_names[i]);
    }
    answer.send(oka_sender(message), port_control_);
}

void unit_services::answer_subscribe(const oka_message* message) {
    outgoing<oxpcsi_subscribe_eth_port_status_cfm> answer(OXPCSI_SUBSCRIBE_ETH_PORT_STATUS_CFM);
    refer_to(answer, message);
    answer->sub_ref = 1;
    answer.send(oka_sender(message), port_control_);
    for (unsigned i = 0; i < ports_; i++) {
        outgoing<oxpcsi_eth_port_status2_ind> indication(OXPCSI_ETH_PORT_STATUS2_IND);
        refer_to(indication, message);
        indication->port_adm_state = OXPCSI_PORT_ADM_STATE_UNLOCKED;
        indication->port_oper_state = OXPCSI_PORT_OPER_STATE_ENABLED;
        indication->port_mod_present = OXPCSI_MODULE_PRESENT;
        indication->line_rate = line_rate;
        indication->port.assign(port_names[i]);
        indication.send(oka_sender(message), port_control_);
    }
}

// --- The topology manager

void unit_services::handle_topology(const oka_message* message) {
    switch (message->number) {
    case service_up_ind: {
        daemon_ = oka_sender(message);
        outgoing<oxmsi_connection_establish_req> request(OXMSI_CONNECTION_ESTABLISH_REQ);
        request->header.connection_reference = 1;
        request->num_of_protocol_versions = 1;
        request->first_protocol_version = oxmsi_protocol_version;
        request.send(daemon_, manager_);
        return;
    }
    case OXMSI_CONNECTION_ESTABLISH_CFM:
        client_id_ = as<message_header>(message).connection_reference;
        return;
    case OXMSI_IDL_TOPOLOGY_PUBLISH_LINK_ADDED_CFM:
        encrypted_ += as<oxmsi_port_status>(message).encryption_state == OXMSI_PORT_ENCRYPTION_STATE_ENABLED;
        unanswered_--;
        return;
    case OXMSI_CAPABILITIES_GET_CFM:
        unanswered_--;
        return;
    default: // nothing but rejects is left
        rejected_++;
        unanswered_--;
    }
}

void unit_services::add_links(unsigned count, uint32_t remote_mpid, const char* hunt_path) {
    encrypted_ = 0;
    for (unsigned i = 0; i < count; i++) {
        outgoing<oxmsi_link_added_req> request(OXMSI_IDL_TOPOLOGY_PUBLISH_LINK_ADDED_REQ);
        request->header.procedure_reference = i;
        request->header.connection_reference = client_id_;
        request->link.port.assign(port_names[i]);
        request->link.remote_port.assign(port_names[i]);
        request->link.link_id = i + 1;
        request->link.remote_mpid = remote_mpid;
        request->link.du_type = OXMSI_DU_TYPE_3;
        request->link.link_status = OXMSI_LTM_LINK_STATUS_UP;
        request->hunt_path.assign(hunt_path);
        request.send(daemon_, manager_);
        unanswered_++;
    }
}

void unit_services::ask_capabilities() {
    outgoing<message_header> request(OXMSI_CAPABILITIES_GET_REQ);
    request->connection_reference = client_id_;
    request.send(daemon_, manager_);
    unanswered_++;
}

} // namespace bench
