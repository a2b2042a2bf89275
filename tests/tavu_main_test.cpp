// The daemon as a whole in one process, between a port control server and clients that the test plays.
#include "tavu/tavu_main.h"

#include <memory>

#include "platform/oxhal/sim.h"
#include "platform/zeb/zeb_sink.h"
#include "support/world.h"
#include "tavu/oxmsi_messages.h"
#include "tavu/oxpcsi_messages.h"

using namespace tavu;

namespace {

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
        static const char* const names[] = {"IDL_A1", "IDL_B1", "IDL_A2", "IDL_B2"};
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
            entry.port.assign(index < 4 ? names[index] : ("IDL_X" + std::to_string(index)).c_str());
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

TEST_F(daemon_world, publishes_its_service_once_the_ports_are_known) {
    start();
    EXPECT_EQ(get_tavu_main_state(), TAVU_MAIN_STATE_STARTED);
    test::peer manager("manager");
    EXPECT_EQ(connect(manager), 0u);
    serve_ports(4);
    EXPECT_EQ(get_tavu_main_state(), TAVU_MAIN_STATE_READY);
    EXPECT_FALSE(manager.is_silent()); // the locate from before is answered now
    EXPECT_EQ(take_errors(), "");
}

TEST_F(daemon_world, without_ports_it_is_ready_all_the_same) {
    start();
    serve_ports(0);
    EXPECT_EQ(get_tavu_main_state(), TAVU_MAIN_STATE_READY);
}

TEST_F(daemon_world, starts_anew_when_the_port_control_server_comes_back) {
    start();
    serve_ports(2);
    test::peer manager("manager");
    uint32_t id = connect(manager);
    ASSERT_NE(id, 0u);
    oka_message* down = oka_alloc(4, OXMSI_SERVER_DOWN_IND);
    oka_monitor(service_, &down);

    ports_->disappear();
    settle();
    EXPECT_EQ(get_tavu_main_state(), TAVU_MAIN_STATE_STARTED);
    manager.take(OXMSI_SERVER_DOWN_IND);
    serve_ports(2);
    EXPECT_EQ(get_tavu_main_state(), TAVU_MAIN_STATE_READY);
    EXPECT_EQ(connect(manager), 1u);
    EXPECT_EQ(take_errors(), "");
}

TEST_F(daemon_world, messages_that_nobody_takes_are_told_and_freed) {
    start();
    serve_ports(1);
    test::peer stranger("stranger");
    stranger.send_bytes(client_, 0x1b0701, "xxx", 3);
    stranger.send_bytes(client_, 4242, "xxxx", 4);
    settle();
    EXPECT_EQ(take_errors(), "TAVU: OKA message is too short: actual: 3 bytes, expected at least 4 bytes\n"
                             "TAVU: Unhandled message, message id: 4242\n");
}

TEST_F(daemon_world, a_second_initialisation_changes_nothing) {
    start();
    forget_traces();
    EXPECT_FALSE(tavu_main_init());
    EXPECT_EQ(take_errors(),
              "TAVU: tavu_main_init called in wrong state: current: 'TAVU_MAIN_STATE_STARTED', expected: "
              "'TAVU_MAIN_STATE_UNINITIALIZED'\n");
    EXPECT_EQ(get_tavu_main_state(), TAVU_MAIN_STATE_STARTED);
}

// In the child of a death test the traces go to stderr, where the test looks for the reason.
void show_errors() {
    zeb::set_sink(nullptr);
    procInfo.trace_group_mask = 1u << ZEB_GROUP_ERROR;
}

TEST_F(daemon_world, ends_with_status_1_when_it_cannot_go_on) {
    struct row {
        const char* rule;
        std::function<void()> life;
        const char* last_words;
    };
    const row rows[] = {
        {"hardware",
         [] {
             oxhal_sim::fail("init", 2); // the MACsec block's, after the library's own
             tavu_main();
         },
         "TAVU port manager initialization failed(.|\n)*Initialization failed, exiting(.|\n)*"
         "Fatal error occured. Exiting with error code: 1"},
        {"no MPID",
         [] {
             unsetenv("MPID");
             tavu_main();
         },
         "Read variable 'MPID' failed(.|\n)*Exiting with error code: 1"},
        {"nothing to receive any more", [] { tavu_main(); },
         "OKA message is NULL(.|\n)*Event loop left \\(should never happen\\), exiting"},
        {"a port that the hardware does not have",
         [this] {
             start();
             serve_ports(5);
         },
         "Cannot map IDL port name 'IDL_X4' to DiPort name(.|\n)*Could not create port managers(.|\n)*"
         "Exiting with error code: 1"},
        {"start rejected",
         [this] {
             start();
             ports_ = std::make_unique<test::peer>("oxpcsi-server");
             settle();
             client_ = ports_->take(OXPCSI_INIT_SERVICE_REQ).sender();
             ports_->send(client_, OXPCSI_INIT_SERVICE_REJ, oxpcsi_rej{header(1, 1), 1});
             settle();
         },
         "OXPCSI_REJ_SERVICE_INVALID_PV(.|\n)*Received oxpcsi_start_failed(.|\n)*Exiting with error code: 1"},
    };
    for (const row& row : rows) {
        SCOPED_TRACE(row.rule);
        EXPECT_EXIT((show_errors(), row.life()), testing::ExitedWithCode(1), row.last_words);
    }
}

} // namespace
