// The daemon as a whole in one process, between a port control server and clients that the test plays, and
// the life of one link of it.
#pragma once

#include <algorithm>
#include <cstdlib>
#include <iterator>
#include <memory>
#include <string>
#include <vector>

#include "platform/oxhal/sim.h"
#include "protocols/oxmsi_messages.h"
#include "protocols/oxpcsi_messages.h"
#include "protocols/port_names.h"
#include "support/key_server_world.h"
#include "support/world.h"
#include "tavu/tavu_main.h"

namespace test {

using namespace tavu;

class daemon_world : public test::world {
  protected:
    daemon_world() : world(messaging::left_to_module) {
        setenv("MPID", "3", 1);
        oxhal_sim::install();
        route_owned_to(route_message);
    }

    void start() {
        ASSERT_TRUE(tavu_main_init());
        ASSERT_TRUE(tavu_main_start());
        settle();
    }

    // A port control server with so many IDL ports, taken through the whole start.
    void serve_ports(unsigned count) {
        ports_ = std::make_unique<test::peer>("oxpcsi-server");
        settle();
        client_ = ports_->take(OXPCSI_INIT_SERVICE_REQ).sender();
        ports_->send(client_, OXPCSI_INIT_SERVICE_CFM, oxpcsi_init_service_cfm{header(1, 1), 2});
        settle();
        ports_->take(OXPCSI_GET_ETH_PORT_SUPPORT_REQ);
        std::vector<uint8_t> bytes(std::max<size_t>(64, 16 + 48 * count));
        auto& cfm = *reinterpret_cast<oxpcsi_get_eth_port_support_cfm*>(bytes.data());
        cfm.header = header(2, 1);
        cfm.no_ports = count;
        for (unsigned index = 0; index < count; index++) {
            oxpcsi_port_entry& entry = (&cfm.first_entry)[index];
            entry.port_role = OXPCSI_PORT_ROLE_IDL;
            entry.mac_address[5] = static_cast<uint8_t>(index);
            entry.port.assign(index < std::size(usual_port_names)
                                  ? usual_port_names[index]
                                  : ("IDL_X" + std::to_string(index)).c_str());
        }
        ports_->send_bytes(client_, OXPCSI_GET_ETH_PORT_SUPPORT_CFM, bytes.data(), bytes.size());
        settle();
        if (count == 0)
            return;
        ports_->take(OXPCSI_SUBSCRIBE_ETH_PORT_STATUS_REQ);
        ports_->send(client_, OXPCSI_SUBSCRIBE_ETH_PORT_STATUS_CFM,
                     oxpcsi_subscribe_eth_port_status_cfm{header(3, 1), 1});
        settle();
    }

    static message_header header(uint32_t procedure, uint32_t connection) {
        message_header header = {};
        header.procedure_reference = procedure;
        header.connection_reference = connection;
        return header;
    }

    // What a topology manager does to find the service; its client id, or 0 when there is no service.
    uint32_t connect(test::peer& manager) {
        oka_message* up = oka_alloc(4, OXMSI_SERVER_UP_IND);
        oka_locate_async("oxmsi", &up, manager.mailbox());
        settle();
        if (manager.is_silent())
            return 0;
        service_ = manager.take(OXMSI_SERVER_UP_IND).sender();
        manager.send(service_, OXMSI_CONNECTION_ESTABLISH_REQ,
                     oxmsi_connection_establish_req{header(1, 900), 1, 1});
        settle();
        return manager.take(OXMSI_CONNECTION_ESTABLISH_CFM).as<message_header>().connection_reference;
    }

    std::unique_ptr<test::peer> ports_;
    oka_mailbox client_ = OKA_MAILBOX_NONE;
    oka_mailbox service_ = OKA_MAILBOX_NONE;
};

// A link from its publication to its first change of keys and its end, the peer's KaY played by the test. A
// step that does not come about is passed over, so that the same life can be led while memory is short.
class link_life : public daemon_world {
  protected:
    void lead() {
        begin();
        secured_ = oxhal_sim::secy("DiPort_A1").wanted.protect_frames;
        calls_ = oxhal_sim::take_calls();
        pass(190);
        words_ = peer_->heard();
        end();
        heard_ = manager_->waiting();
        peer_.reset();
        manager_.reset();
    }
    // Until the link is secured.
    void begin() {
        if (!tavu_main_init() || !tavu_main_start())
            tavu_main_terminate();
        settle();
        serve_ports(1);
        enable_port();
        manager_ = std::make_unique<test::peer>("manager");
        client_id_ = connect(*manager_);
        ask<oxmsi_subscription_req>(OXMSI_PORT_STATE_CHANGE_SUBSCRIBE_REQ, {});
        publish();
    }
    void publish() {
        oxmsi_link_added_req added = {};
        added.link.remote_port.assign("IDL_A1");
        added.link.remote_mpid = 7;
        added.link.du_type = OXMSI_DU_TYPE_3;
        added.link.link_status = OXMSI_LTM_LINK_STATUS_UP;
        ask(OXMSI_IDL_TOPOLOGY_PUBLISH_LINK_ADDED_REQ, added);

        peer_.reset(); // its name is free again
        peer_ = std::make_unique<test::ca_member>(find("mka-key-server", *manager_), "mka-client-of-7", 7);
        peer_->obliging = true;
        peer_->connect();
        run();
        peer_->join(ca);
        run();
        peer_->announce(ca);
        run();
    }
    void pass(unsigned seconds) {
        for (; seconds > 0; seconds--) {
            advance(1000);
            run();
        }
    }
    void end() {
        ask<oxmsi_subscription_req>(OXMSI_PORT_STATE_CHANGE_UNSUBSCRIBE_REQ, {});
        ask<oxmsi_link_deleted_req>(OXMSI_IDL_TOPOLOGY_PUBLISH_LINK_DELETED_REQ, {});
        run();
    }

    void enable_port() {
        oxpcsi_eth_port_status2_ind ind = {};
        ind.header = header(3, 1);
        ind.port_adm_state = ind.port_oper_state = ind.port_mod_present = 1;
        ind.port.assign("IDL_A1");
        ports_->send(client_, OXPCSI_ETH_PORT_STATUS2_IND, ind);
        settle();
    }
    template<class Request>
    void ask(uint32_t number, Request request) {
        request.header = header(number & 0xff, client_id_);
        if constexpr (requires { request.link; })
            request.link.port.assign("IDL_A1");
        else
            request.port.assign("IDL_A1");
        manager_->send(service_, number, request);
        settle();
    }
    oka_mailbox find(const char* name, test::peer& finder) {
        oka_message* up = oka_alloc(4, MKA_SERVER_UP_IND);
        oka_locate_async(name, &up, finder.mailbox());
        settle();
        oka_mailbox found = OKA_MAILBOX_NONE;
        while (!finder.is_silent() && found == OKA_MAILBOX_NONE) {
            auto number = static_cast<uint32_t>(strtoul(finder.waiting().c_str(), nullptr, 16));
            test::received message = finder.take(number);
            if (number == MKA_SERVER_UP_IND)
                found = message.sender();
        }
        return found;
    }
    void run() {
        do
            settle();
        while (peer_->collect());
    }

    static constexpr const char* ca = "CA_mp3_IDL_A1_mp7_IDL_A1";
    std::unique_ptr<test::peer> manager_;
    std::unique_ptr<test::ca_member> peer_;
    uint32_t client_id_ = 0;
    bool secured_ = false;
    std::string calls_, words_, heard_;
    unsigned total_ = 0;
};

} // namespace test
