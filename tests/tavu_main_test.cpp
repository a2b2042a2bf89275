// The daemon as a whole in one process, between a port control server and clients that the test plays.
#include "tavu/tavu_main.h"

#include <memory>

#include "platform/oxhal/sim.h"
#include "platform/zeb/zeb_sink.h"
#include "support/key_server_world.h"
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

// A link from its publication to its first change of keys and its end, the peer's KaY played by the test. A
// step that does not come about is passed over, so that the same life can be led while memory is short.
class link_life : public daemon_world {
  protected:
    void lead() {
        if (!tavu_main_init() || !tavu_main_start())
            tavu_main_terminate();
        settle();
        serve_ports(1);
        enable_port();
        test::peer manager("manager");
        client_id_ = connect(manager);
        ask<oxmsi_subscription_req>(manager, OXMSI_PORT_STATE_CHANGE_SUBSCRIBE_REQ, {});
        oxmsi_link_added_req added = {};
        added.link.remote_port.assign("IDL_A1");
        added.link.remote_mpid = 7;
        added.link.du_type = OXMSI_DU_TYPE_3;
        added.link.link_status = OXMSI_LTM_LINK_STATUS_UP;
        ask(manager, OXMSI_IDL_TOPOLOGY_PUBLISH_LINK_ADDED_REQ, added);

        test::ca_member peer(find("mka-key-server", manager), "mka-client-of-7", 7);
        peer.obliging = true;
        peer.connect();
        run(peer);
        peer.join(ca);
        run(peer);
        peer.announce(ca);
        run(peer);
        secured_ = oxhal_sim::secy("DiPort_A1").wanted.protect_frames;
        calls_ = oxhal_sim::take_calls();
        for (int second = 0; second < 190; second++) {
            advance(1000);
            run(peer);
        }
        words_ = peer.heard();
        ask<oxmsi_subscription_req>(manager, OXMSI_PORT_STATE_CHANGE_UNSUBSCRIBE_REQ, {});
        ask<oxmsi_link_deleted_req>(manager, OXMSI_IDL_TOPOLOGY_PUBLISH_LINK_DELETED_REQ, {});
        run(peer);
        heard_ = manager.waiting();
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
    void ask(test::peer& manager, uint32_t number, Request request) {
        request.header = header(number & 0xff, client_id_);
        if constexpr (requires { request.link; })
            request.link.port.assign("IDL_A1");
        else
            request.port.assign("IDL_A1");
        manager.send(service_, number, request);
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
    void run(test::ca_member& peer) {
        do
            settle();
        while (peer.collect());
    }

    static constexpr const char* ca = "CA_mp3_IDL_A1_mp7_IDL_A1";
    uint32_t client_id_ = 0;
    bool secured_ = false;
    std::string calls_, words_, heard_;
    unsigned total_ = 0;
};

TEST_F(link_life, ends_secured_has_its_keys_changed_and_is_let_go) {
    lead();
    EXPECT_TRUE(secured_);
    EXPECT_TRUE(calls_.ends_with("transmit_sc_create DiPort_A1 00:00:00:00:00:00/0\n"
                                 "receive_sc_create DiPort_A1 02:00:00:00:00:00/7\n"
                                 "generate_key length=16\ngenerate_key length=16\n"
                                 "receive_sa_create2 DiPort_A1 02:00:00:00:00:00/7 an=1 pn=128\n"
                                 "receive_sa_enable DiPort_A1 02:00:00:00:00:00/7 an=1 true\n"
                                 "transmit_sa_create DiPort_A1 00:00:00:00:00:00/0 an=1 pn=128 conf\n"
                                 "transmit_sa_enable DiPort_A1 00:00:00:00:00:00/0 an=1 true\n"
                                 "protect_frames_set2 DiPort_A1 true\n"))
        << calls_;
    // Own SCI 0: joined, announced, keyed with AN 1, protected; the same with AN 2; told to leave.
    EXPECT_EQ(words_, "joined tx_sc_cfm rx_sc(0) rx_sa(0,1) tx_sa(1) protect rx_sa(0,2) tx_sa(2) protect");
    EXPECT_NE(heard_.find("0x1b1150"), std::string::npos) << heard_; // the deletion is confirmed
    EXPECT_FALSE(oxhal_sim::secy("DiPort_A1").wanted.protect_frames);
    EXPECT_EQ(oxhal_sim::association_count("DiPort_A1"), 0u);
}

TEST_F(link_life, goes_on_or_ends_orderly_whichever_allocation_fails) {
    unsigned before = test::allocations();
    EXPECT_EXIT((lead(), shut_down(), exit(static_cast<int>(std::min(test::allocations() - before, 200u)))),
                [this](int status) {
                    total_ = static_cast<unsigned>(WEXITSTATUS(status));
                    return WIFEXITED(status);
                },
                "");
    ASSERT_GT(total_, 10u);
    for (unsigned nth = 1; nth <= total_; nth++) {
        SCOPED_TRACE(nth);
        EXPECT_EXIT((test::fail_allocation(nth), lead(), shut_down(), exit(0)),
                    [](int status) { return WIFEXITED(status) && WEXITSTATUS(status) <= 1; }, "");
    }
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
