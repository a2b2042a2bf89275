// The daemon as a whole in one process.
#include "support/daemon_world.h"

#include <algorithm>
#include <functional>

#include "platform/zeb/zeb_sink.h"

using namespace tavu;

namespace {

using test::daemon_world;
using test::link_life;

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
        {"nothing to receive any more", [] { tavu_main(); },
         "OKA message is NULL(.|\n)*Event loop left \\(should never happen\\), exiting"},
        {"a port that the hardware does not have",
         [this] {
             start();
             serve_ports(5);
         },
         "Cannot map IDL port name 'IDL_X4' to DiPort name(.|\n)*Could not create port managers(.|\n)*"
         "Exiting with error code: 1"},
        {"a mailbox name that another process has",
         [] {
             const bool initialised = tavu_main_init();
             test::peer thief("tavu-main-oxpcsi-client");
             exit(initialised && !tavu_main_start());
         },
         "Could not start OXPCSI helper"},
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
