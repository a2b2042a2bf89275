// What tests lean on in the SecY in memory: its record of calls, its planned failures, its view of keys.
#include <gtest/gtest.h>

#include <cstring>

#include "platform/oxhal/sim.h"

namespace {

constexpr oxhal_macsec_sci own = {{0x02, 0, 0, 0, 0, 0x01, 0, 0}};
constexpr oxhal_macsec_sci peer = {{0x02, 0, 0, 0, 0, 0x02, 0x01, 0x02}};
constexpr uint8_t octets[16] = {0xde, 0xad, 0xbe, 0xef};
constexpr uint8_t others[16] = {0xde, 0xad, 0xbe, 0xee};
constexpr oxhal_macsec_key key = {octets, 16};
constexpr const char* name = "DiPort_B1";

uint32_t start() {
    oxhal_sim::install();
    EXPECT_EQ(oxhal_init(), 0);
    EXPECT_EQ(oxhal_macsec_init(), 0);
    oxhal_vport second;
    EXPECT_EQ(oxhal_vport_iterate(1, &second), 0);
    EXPECT_STREQ(second.name, name);
    EXPECT_EQ(oxhal_macsec_enable_set(second.handle, true), 0);
    oxhal_sim::take_all_calls();
    return second.handle;
}

TEST(oxhal_sim, writes_down_every_call_and_no_key) {
    uint32_t port = start();
    bool in_use;
    EXPECT_EQ(oxhal_macsec_transmit_sc_create(port, own), 0);
    EXPECT_EQ(oxhal_macsec_transmit_sa_create(port, own, 3, 128, true, key), 0);
    EXPECT_EQ(oxhal_macsec_transmit_sa_enable(port, own, 3, true), 0);
    EXPECT_EQ(oxhal_macsec_transmit_sa_in_use_get(port, own, 3, &in_use), 0);
    EXPECT_NE(oxhal_macsec_receive_sa_create2(port, peer, 0, 4000000000, key), 0);
    EXPECT_EQ(oxhal_macsec_validate_frames_set2(port, OXHAL_MACSEC_VALIDATE_FRAMES_CHECK), 0);
    EXPECT_EQ(oxhal_macsec_replay_window_set(port, 7), 0);
    EXPECT_NE(oxhal_macsec_protect_frames_set2(7, false), 0);
    EXPECT_EQ(oxhal_sim::call_count("transmit_sa_in_use_get"), 1u);
    EXPECT_EQ(oxhal_sim::take_calls(),
              "transmit_sc_create DiPort_B1 02:00:00:00:00:01/0\n"
              "transmit_sa_create DiPort_B1 02:00:00:00:00:01/0 an=3 pn=128 conf\n"
              "transmit_sa_enable DiPort_B1 02:00:00:00:00:01/0 an=3 true\n"
              "receive_sa_create2 DiPort_B1 02:00:00:00:00:02/258 an=0 pn=4000000000 = 2\n"
              "validate_frames_set2 DiPort_B1 check\n"
              "replay_window_set DiPort_B1 7\n"
              "protect_frames_set2 ? false = 19\n");
    EXPECT_EQ(oxhal_sim::take_all_calls(), "");
    EXPECT_TRUE(oxhal_sim::has_transmit_key(name, 3, octets, 16));
    EXPECT_FALSE(oxhal_sim::has_transmit_key(name, 3, others, 16));
    EXPECT_FALSE(oxhal_sim::has_transmit_key(name, 2, octets, 16));
    EXPECT_FALSE(oxhal_sim::has_receive_key(name, peer, 0, octets, 16));
    EXPECT_EQ(oxhal_macsec_transmit_sc_delete_all(port), 0);
    EXPECT_FALSE(oxhal_sim::has_transmit_key(name, 3, octets, 16));
    EXPECT_EQ(oxhal_sim::channel_count(name), 0u);
}

TEST(oxhal_sim, fails_where_it_is_told_to_and_changes_nothing_then) {
    uint32_t port = start();
    EXPECT_EQ(oxhal_macsec_receive_sc_create(port, peer), 0);
    oxhal_sim::fail("receive_sa_create2", 2, 77, 2);
    for (uint8_t an = 0; an < 4; ++an)
        EXPECT_EQ(oxhal_macsec_receive_sa_create2(port, peer, an, 1, key), an == 1 || an == 2 ? 77 : 0);
    EXPECT_EQ(oxhal_sim::association_count(name), 2u);
    EXPECT_FALSE(oxhal_sim::has_receive_key(name, peer, 1, octets, 16));

    oxhal_sim::fail(nullptr, 1, 5, 100);
    EXPECT_EQ(oxhal_macsec_receive_sc_delete_all(port), 5);
    EXPECT_EQ(oxhal_macsec_protect_frames_set2(port, true), 5);
    EXPECT_EQ(oxhal_macsec_enable_set(port, false), 5);
    EXPECT_EQ(oxhal_sim::association_count(name), 2u);
    EXPECT_FALSE(oxhal_sim::secy(name).wanted.protect_frames);
    EXPECT_TRUE(oxhal_sim::secy(name).enabled);
    oxhal_sim::fail_never();
    EXPECT_EQ(oxhal_macsec_receive_sc_delete_all(port), 0);
    EXPECT_EQ(oxhal_sim::channel_count(name), 0u);
}

TEST(oxhal_sim, answers_with_the_capabilities_that_it_is_given) {
    uint32_t port = start();
    const oxhal_macsec_port_cap_list* list = nullptr;
    oxhal_macsec_port_cap entries[2] = {};
    entries[0].standard = 2;
    entries[1].num_of_rx_scs = 3;
    oxhal_sim::set_capabilities(name, entries, 2);
    ASSERT_EQ(oxhal_macsec_port_cap_get(port, &list), 0);
    ASSERT_EQ(list->count, 2u);
    EXPECT_EQ(list->entries[0].standard, 2u);
    EXPECT_EQ(list->entries[1].num_of_rx_scs, 3u);
    oxhal_sim::set_capabilities(name, nullptr, 0);
    ASSERT_EQ(oxhal_macsec_port_cap_get(port, &list), 0);
    EXPECT_EQ(list->count, 0u);
    oxhal_sim::set_no_capability_list(name);
    ASSERT_EQ(oxhal_macsec_port_cap_get(port, &list), 0);
    EXPECT_EQ(list, nullptr);
}

} // namespace
