#include "tavu/oxpcsi/oxpcsi_helper.h"

#include <optional>

#include "support/world.h"

using namespace tavu;

namespace {

constexpr uint32_t servers_connection = 77;

std::string events;

constexpr oxpcsi_callbacks callbacks = {
    [] { events += "start_failed "; },
    [] { events += "server_up "; },
    [] { events += "server_down "; },
    [](const char* port) { events += std::string("change:") + port + " "; },
};

oxpcsi_port_entry entry(uint32_t role, const char* port, const char* interface, uint8_t last_octet) {
    oxpcsi_port_entry entry = {};
    entry.port_role = role;
    entry.votk_id = 9;
    entry.mac_address[5] = last_octet;
    entry.port.assign(port);
    entry.if_name.assign(interface);
    return entry;
}

class oxpcsi_helper : public test::world {
  protected:
    oxpcsi_helper() {
        events.clear();
        route_to([this](const oka_message* message) { consumed_ = oxpcsi_dispatch_message(message); });
        EXPECT_TRUE(oxpcsi_helper_init(root(), OXPCSI_PORT_ROLE_IDL, &callbacks));
    }

    void start() {
        EXPECT_TRUE(oxpcsi_helper_start("tavu-main-oxpcsi-client"));
        settle();
    }
    test::peer& server() {
        if (!server_)
            server_.emplace("oxpcsi-server");
        return *server_;
    }

    message_header header(uint32_t procedure, uint32_t connection = 1) { return {{}, procedure, connection}; }
    void confirm_service(uint32_t version = 2) {
        test::received request = server().take(OXPCSI_INIT_SERVICE_REQ);
        client_ = request.sender();
        asked_ += request.hex() + "\n";
        server().send(client_, OXPCSI_INIT_SERVICE_CFM,
                      oxpcsi_init_service_cfm{header(1, servers_connection), version});
        settle();
    }
    void confirm_ports(const std::vector<oxpcsi_port_entry>& entries, uint32_t missing = 0) {
        asked_ += server().take(OXPCSI_GET_ETH_PORT_SUPPORT_REQ).hex() + "\n";
        std::vector<uint8_t> bytes(std::max<size_t>(64, 16 + 48 * entries.size()));
        auto& cfm = *reinterpret_cast<oxpcsi_get_eth_port_support_cfm*>(bytes.data());
        cfm.header = header(2);
        cfm.no_ports = static_cast<uint32_t>(entries.size()) + missing;
        if (!entries.empty())
            memcpy(static_cast<void*>(&cfm.first_entry), entries.data(), 48 * entries.size());
        server().send_bytes(client_, OXPCSI_GET_ETH_PORT_SUPPORT_CFM, bytes.data(), bytes.size());
        settle();
    }
    void confirm_subscription() {
        asked_ += server().take(OXPCSI_SUBSCRIBE_ETH_PORT_STATUS_REQ).hex() + "\n";
        server().send(client_, OXPCSI_SUBSCRIBE_ETH_PORT_STATUS_CFM,
                      oxpcsi_subscribe_eth_port_status_cfm{header(3), 5});
        settle();
    }
    void become_ready() {
        server();
        start();
        confirm_service();
        confirm_ports(
            {entry(1, "IDL_A1", "eth1", 1), entry(4, "C2_1", "eth9", 9), entry(3, "IDL_B1", "eth2", 2)});
        confirm_subscription();
        EXPECT_EQ(get_oxpcsi_helper_state(), OXPCSI_HELPER_STATE_READY);
    }
    oxpcsi_eth_port_status2_ind status(const char* port) {
        oxpcsi_eth_port_status2_ind ind = {};
        ind.header = header(3);
        ind.port_adm_state = 1;
        ind.port_oper_state = 1;
        ind.port_mod_present = 1;
        ind.line_rate = 10000;
        ind.port.assign(port);
        ind.name_space.assign("fronthaul");
        return ind;
    }

    std::optional<test::peer> server_;
    oka_mailbox client_ = OKA_MAILBOX_NONE;
    std::string asked_; // the bytes of its requests, one a line
    bool consumed_ = false;
};

TEST_F(oxpcsi_helper, asks_for_the_service_its_ports_and_their_status_in_these_bytes) {
    start(); // before the server exists
    EXPECT_EQ(get_oxpcsi_helper_state(), OXPCSI_HELPER_STATE_LOCATING);
    server();
    settle();
    confirm_service();
    confirm_ports({entry(1, "IDL_A1", "eth1", 1)});
    EXPECT_EQ(events, "");
    confirm_subscription();
    EXPECT_EQ(events, "server_up ");
    EXPECT_EQ(asked_, "00 00 00 01 00 00 00 01 00 00 00 02 00 00 00 02 00 00 00 02\n"
                      "00 00 00 02 00 00 00 4d\n"
                      "00 00 00 03 00 00 00 4d 00 00 00 01 "
                      "00 00 00 00 00 00 00 00 00 00 00 00 00 00 00 00\n");
    oxpcsi_helper_stop();
    server_.reset();
    expect_nothing_left();
}

TEST_F(oxpcsi_helper, keeps_the_ports_of_its_role_newest_first) {
    become_ready();
    oxpcsi_port_data* first = oxpcsi_get_supported_ports_list();
    ASSERT_NE(first, nullptr);
    EXPECT_STREQ(first->port.c_str(), "IDL_B1");
    oxpcsi_port_data* second = oxpcsi_get_next_supported_port(first);
    ASSERT_NE(second, nullptr);
    EXPECT_STREQ(second->port.c_str(), "IDL_A1");
    EXPECT_EQ(oxpcsi_get_next_supported_port(second), nullptr);
    EXPECT_TRUE(second->admin_state == 666 && second->oper_state == 666);
    EXPECT_EQ(second->votk_id, 9u);
    EXPECT_EQ(second->mac_address[5], 1);
    EXPECT_STREQ(oxpcsi_get_if_name("IDL_A1"), "eth1");
    EXPECT_EQ(oxpcsi_get_if_name("C2_1"), nullptr);
}

TEST_F(oxpcsi_helper, takes_every_status_indication_and_reports_it_changed_or_not) {
    become_ready();
    events.clear();
    server().send(client_, OXPCSI_ETH_PORT_STATUS2_IND, status("IDL_A1"));
    server().send(client_, OXPCSI_ETH_PORT_STATUS2_IND, status("IDL_A1"));
    settle();
    EXPECT_EQ(events, "change:IDL_A1 change:IDL_A1 ");
    oxpcsi_port_data port;
    ASSERT_TRUE(oxpcsi_get_port_data("IDL_A1", port));
    EXPECT_TRUE(port.admin_state == 1 && port.oper_state == 1 && port.module_present == 1);
    EXPECT_EQ(port.line_rate, 10000u);
    EXPECT_STREQ(port.name_space.c_str(), "fronthaul");
}

TEST_F(oxpcsi_helper, drops_indications_that_are_not_right) {
    become_ready();
    struct row {
        const char* rule;
        void (*spoil)(oxpcsi_eth_port_status2_ind&);
        size_t size = sizeof(oxpcsi_eth_port_status2_ind);
    };
    const row rows[] = {
        {"size", [](auto&) {}, sizeof(oxpcsi_eth_port_status2_ind) - 1},
        {"connection", [](auto& ind) { ind.header.connection_reference = servers_connection; }},
        {"procedure", [](auto& ind) { ind.header.procedure_reference = 2; }},
        {"port name", [](auto& ind) { memset(ind.port.octets, 'x', 16); }},
        {"namespace", [](auto& ind) { memset(&ind.name_space, 'x', sizeof ind.name_space); }},
        {"module", [](auto& ind) { ind.port_mod_present = 2; }},
        {"filtered port", [](auto& ind) { ind.port.assign("C2_1"); }},
    };
    for (const row& row : rows) {
        SCOPED_TRACE(row.rule);
        events.clear();
        forget_traces();
        oxpcsi_eth_port_status2_ind ind = status("IDL_A1");
        row.spoil(ind);
        server().send_bytes(client_, OXPCSI_ETH_PORT_STATUS2_IND, &ind, row.size);
        settle();
        EXPECT_NE(take_errors(), "");
        EXPECT_EQ(events, "");
    }
    test::peer stranger("stranger");
    stranger.send(client_, OXPCSI_ETH_PORT_STATUS2_IND, status("IDL_A1"));
    settle();
    EXPECT_EQ(events, "");
}

TEST_F(oxpcsi_helper, a_bad_port_entry_costs_its_own_port_only) {
    server();
    start();
    confirm_service();
    oxpcsi_port_entry bad = entry(1, "", "eth2", 2);
    memset(bad.port.octets, 'y', 16);
    confirm_ports({bad, entry(1, "IDL_A1", "eth1", 1)});
    confirm_subscription();
    EXPECT_EQ(events, "server_up ");
    EXPECT_STREQ(oxpcsi_get_supported_ports_list()->port.c_str(), "IDL_A1");
    EXPECT_EQ(oxpcsi_get_next_supported_port(oxpcsi_get_supported_ports_list()), nullptr);
}

TEST_F(oxpcsi_helper, a_reply_with_more_entries_than_it_holds_is_dropped) {
    server();
    start();
    confirm_service();
    confirm_ports({entry(1, "IDL_A1", "eth1", 1)}, 0x10000000); // a count that wraps
    EXPECT_EQ(get_oxpcsi_helper_state(), OXPCSI_HELPER_STATE_INITIATED);
}

TEST_F(oxpcsi_helper, another_version_or_any_reject_ends_the_start) {
    server();
    auto reject = [this](uint32_t number, uint32_t procedure) {
        server().send(client_, number, oxpcsi_rej{header(procedure), 0});
        settle();
    };
    for (const std::string what : {"version", "service", "ports", "subscription"}) {
        SCOPED_TRACE(what);
        events.clear();
        server().forget_all();
        start();
        if (what == "service") {
            client_ = server().take(OXPCSI_INIT_SERVICE_REQ).sender();
            reject(OXPCSI_INIT_SERVICE_REJ, 1);
        } else {
            confirm_service(what == "version" ? 3 : 2);
        }
        if (what == "ports")
            reject(OXPCSI_GET_ETH_PORT_SUPPORT_REJ, 2);
        if (what == "subscription") {
            confirm_ports({entry(1, "IDL_A1", "eth1", 1)});
            reject(OXPCSI_SUBSCRIBE_ETH_PORT_STATUS_REJ, 3);
        }
        EXPECT_EQ(events, "start_failed ");
        EXPECT_EQ(get_oxpcsi_helper_state(), OXPCSI_HELPER_STATE_INITIAL);
        EXPECT_EQ(oxpcsi_get_supported_ports_list(), nullptr);
    }
    server_.reset();
    expect_nothing_left();
}

TEST_F(oxpcsi_helper, takes_only_what_comes_to_its_own_mailbox_from_who_may_say_so) {
    become_ready();
    // Neither a stranger nor the service itself says that the service is there or gone.
    test::peer stranger("stranger");
    events.clear();
    for (uint32_t number : {OXPCSI_SERVER_DOWN_IND, OXPCSI_SERVER_UP_IND}) {
        stranger.send_bytes(client_, number, "", 4);
        server().send_bytes(client_, number, "", 4);
        settle();
        EXPECT_NE(take_errors(), "");
    }
    EXPECT_EQ(events, "");
    EXPECT_EQ(get_oxpcsi_helper_state(), OXPCSI_HELPER_STATE_READY);
    EXPECT_FALSE(oxpcsi_helper_start("another"));
    server().send(root(), OXPCSI_ETH_PORT_STATUS2_IND, status("IDL_A1"));
    settle();
    EXPECT_FALSE(consumed_);
}

} // namespace
