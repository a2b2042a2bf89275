// A client of the MACsec service as a test plays it: what it asks for in one line, and what it is told.
#pragma once

#include "protocols/oxmsi_messages.h"
#include "support/world.h"

namespace test {

// One connection to the service. Its procedure references count from 1; all its links lead to a port
// "IDL_B2".
class topology_manager {
  public:
    static constexpr uint32_t link_id = 17;

    topology_manager(const char* name, oka_mailbox service, std::function<void()> settle)
        : peer_(name), service_(service), settle_(std::move(settle)) {
        tavu::oxmsi_connection_establish_req request = {};
        request.header.connection_reference = 900;
        request.num_of_protocol_versions = 1;
        request.first_protocol_version = 1;
        peer_.send(service_, tavu::OXMSI_CONNECTION_ESTABLISH_REQ, request);
        settle_();
        client_ =
            peer_.take(tavu::OXMSI_CONNECTION_ESTABLISH_CFM).as<tavu::message_header>().connection_reference;
    }

    void add(const char* port, uint32_t status = tavu::OXMSI_LTM_LINK_STATUS_UP,
             uint32_t du_type = tavu::OXMSI_DU_TYPE_3, uint32_t remote_mpid = 7,
             const char* hunt_path = "unit-7") {
        tavu::oxmsi_link_added_req request = {};
        request.link = link(port, status, du_type, remote_mpid);
        request.hunt_path.assign(hunt_path);
        send(tavu::OXMSI_IDL_TOPOLOGY_PUBLISH_LINK_ADDED_REQ, request);
    }
    void update(const char* port, uint32_t status, uint32_t du_type = tavu::OXMSI_DU_TYPE_3,
                uint32_t remote_mpid = 7, uint32_t id = link_id) {
        tavu::oxmsi_link_updated_req request = {};
        request.link = link(port, status, du_type, remote_mpid);
        request.link.link_id = id;
        send(tavu::OXMSI_IDL_TOPOLOGY_PUBLISH_LINK_UPDATED_REQ, request);
    }
    void remove(const char* port, uint32_t id = link_id) {
        tavu::oxmsi_link_deleted_req request = {};
        request.port.assign(port);
        request.link_id = id;
        send(tavu::OXMSI_IDL_TOPOLOGY_PUBLISH_LINK_DELETED_REQ, request);
    }
    void subscribe(const char* port) { send_subscription(tavu::OXMSI_PORT_STATE_CHANGE_SUBSCRIBE_REQ, port); }
    void unsubscribe(const char* port) {
        send_subscription(tavu::OXMSI_PORT_STATE_CHANGE_UNSUBSCRIBE_REQ, port);
    }
    void close() { send(tavu::OXMSI_CONNECTION_CLOSE_REQ, bare_request{}); }
    void die() {
        peer_.disappear();
        settle_();
    }

    // What it has heard since, one a line: "ADDED_CFM 1 IDL_A1 oper 1 encryption 0", "ADDED_REJ 1 reason 11".
    std::string heard() {
        std::string all;
        while (!peer_.is_silent())
            all += describe(
                peer_.take(static_cast<uint32_t>(std::stoul(peer_.waiting().substr(2), nullptr, 16))));
        return all;
    }

  private:
    struct bare_request {
        tavu::message_header header;
    };

    static tavu::oxmsi_link link(const char* port, uint32_t status, uint32_t du_type, uint32_t remote_mpid) {
        tavu::oxmsi_link link = {};
        link.port.assign(port);
        link.remote_port.assign("IDL_B2");
        link.link_id = link_id;
        link.remote_mpid = remote_mpid;
        link.du_type = du_type;
        link.link_status = status;
        return link;
    }
    template<class T>
    void send(uint32_t number, T request) {
        request.header.procedure_reference = ++procedure_;
        request.header.connection_reference = client_;
        peer_.send(service_, number, request);
        settle_();
    }
    void send_subscription(uint32_t number, const char* port) {
        tavu::oxmsi_subscription_req request = {};
        request.port.assign(port);
        send(number, request);
    }
    static std::string describe(const received& message) {
        std::string what = tavu::oxmsi_msg_no_to_str(message.number());
        what.erase(0, what.find_last_of('_', what.find_last_of('_') - 1) + 1); // "ADDED_CFM"
        what += " " + std::to_string(message.as<tavu::message_header>().procedure_reference);
        if (message.size() == sizeof(tavu::oxmsi_rej)) {
            what += " reason " + std::to_string(message.as<tavu::oxmsi_rej>().reason);
        } else if (message.size() == sizeof(tavu::oxmsi_port_status)) {
            const auto& status = message.as<tavu::oxmsi_port_status>();
            what += std::string(" ") + status.port.c_str() + " oper " + std::to_string(status.oper_state) +
                    " encryption " + std::to_string(status.encryption_state);
        }
        return what + "\n";
    }

    peer peer_;
    oka_mailbox service_;
    std::function<void()> settle_;
    uint32_t client_ = 0;
    uint32_t procedure_ = 0;
};

} // namespace test
