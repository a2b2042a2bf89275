// The contract of platform/oxhal.h as one suite for every driver: it runs over the SecY in memory, or over
// the one that OXHAL_DRIVER and OXHAL_PORTS name. There the first port's interface has the address
// 02:00:00:00:00:01.
#include <gtest/gtest.h>

#include <cstdlib>
#include <cstring>
#include <set>
#include <string>
#include <unistd.h>

#include "platform/oxhal.h"
#include "platform/oxhal_view.h"

namespace {

constexpr oxhal_macsec_sci own = {{0x02, 0, 0, 0, 0, 0x01, 0, 0}};
constexpr oxhal_macsec_sci peer = {{0x02, 0, 0, 0, 0, 0x02, 0, 0}};
constexpr oxhal_macsec_sci stranger = {{0x02, 0, 0, 0, 0, 0x03, 0, 0}};
constexpr uint8_t octets[17] = {1, 2, 3, 4, 5, 6, 7, 8, 9, 10, 11, 12, 13, 14, 15, 16, 17};
constexpr oxhal_macsec_key key = {octets, 16};

class oxhal_contract : public testing::Test {
  protected:
    void SetUp() override {
        setenv("OXHAL_DRIVER", "sim", 0);
        shown = testing::TempDir() + "oxhal_view." + std::to_string(getpid());
        setenv("OXHAL_SIM_VIEW", shown.c_str(), 1);
        ASSERT_EQ(oxhal_init(), 0);
        ASSERT_EQ(oxhal_macsec_init(), 0);
        ASSERT_EQ(oxhal_vport_iterate(0, &first), 0);
        port = first.handle;
        ASSERT_EQ(oxhal_macsec_enable_set(port, true), 0);
    }

    void TearDown() override {
        EXPECT_EQ(oxhal_macsec_transmit_sc_delete_all(port), 0);
        EXPECT_EQ(oxhal_macsec_receive_sc_delete_all(port), 0);
        unlink(shown.c_str());
    }

    oxhal_view view() const {
        oxhal_view seen;
        EXPECT_EQ(oxhal_view_get(first.name, &seen), 0);
        return seen;
    }
    int create_tx(uint8_t an) const { return oxhal_macsec_transmit_sa_create(port, own, an, 128, true, key); }
    int create_rx(uint8_t an, oxhal_macsec_sci of = peer) const {
        return oxhal_macsec_receive_sa_create2(port, of, an, 128, key);
    }
    // 1 in use, 0 installed and not in use, -1 not there.
    int tx(uint8_t an) const {
        bool in_use = false;
        return oxhal_macsec_transmit_sa_in_use_get(port, own, an, &in_use) ? -1 : in_use;
    }
    int rx(uint8_t an, oxhal_macsec_sci of = peer) const {
        bool in_use = false;
        return oxhal_macsec_receive_sa_in_use_get(port, of, an, &in_use) ? -1 : in_use;
    }
    void use_tx(uint8_t an) const {
        ASSERT_EQ(create_tx(an), 0);
        ASSERT_EQ(oxhal_macsec_transmit_sa_enable(port, own, an, true), 0);
    }
    void use_rx(uint8_t an) const {
        ASSERT_EQ(create_rx(an), 0);
        ASSERT_EQ(oxhal_macsec_receive_sa_enable(port, peer, an, true), 0);
    }
    // One channel of each direction, each with association 1 in use.
    void secure() const {
        ASSERT_EQ(oxhal_macsec_transmit_sc_create(port, own), 0);
        ASSERT_EQ(oxhal_macsec_receive_sc_create(port, peer), 0);
        use_rx(1);
        use_tx(1);
    }

    oxhal_vport first = {};
    uint32_t port = 0;
    std::string shown;
};

TEST_F(oxhal_contract, lists_its_ports) {
    std::set<uint32_t> handles;
    std::set<std::string> names = {""};
    oxhal_vport each;
    uint32_t count = 0;
    for (; oxhal_vport_iterate(count, &each) == 0; ++count) {
        ASSERT_LT(count, 16u);
        ASSERT_LT(strnlen(each.name, sizeof each.name), sizeof each.name);
        EXPECT_TRUE(handles.insert(each.handle).second && names.insert(each.name).second) << each.name;
    }
    EXPECT_GT(count, 0u);
}

TEST_F(oxhal_contract, can_do_what_the_daemon_asks_of_ieee_802_1ae_2006) {
    const oxhal_macsec_port_cap_list* list = nullptr;
    ASSERT_EQ(oxhal_macsec_port_cap_get(port, &list), 0);
    ASSERT_NE(list, nullptr);
    ASSERT_EQ(list->count, 1u);
    const oxhal_macsec_port_cap& can = list->entries[0];
    EXPECT_EQ(can.standard, static_cast<uint32_t>(OXHAL_MACSEC_STANDARD_IEEE_802_1AE_2006));
    EXPECT_EQ(can.replay_protection_supported, 1);
    EXPECT_EQ(can.confidentiality_supported, 1);
    EXPECT_EQ(can.num_of_rx_sas, 4u);
    // As many receive channels as it says, each with as many associations.
    for (uint32_t i = 0; i < can.num_of_rx_scs; ++i) {
        oxhal_macsec_sci sci = {{0x06, 0, 0, 0, 0, static_cast<uint8_t>(i), 0, 1}};
        ASSERT_EQ(oxhal_macsec_receive_sc_create(port, sci), 0) << i;
        for (uint8_t an = 0; an < can.num_of_rx_sas; ++an)
            ASSERT_EQ(create_rx(an, sci), 0) << i;
    }
}

TEST_F(oxhal_contract, a_transmit_association_takes_over_from_the_one_before) {
    ASSERT_EQ(oxhal_macsec_transmit_sc_create(port, own), 0);
    use_tx(0);
    for (uint8_t an : std::initializer_list<uint8_t>{1, 2, 3, 0}) {
        auto before = static_cast<uint8_t>((an + 3) & 3);
        ASSERT_EQ(create_tx(an), 0);
        EXPECT_EQ(tx(an), 0);
        EXPECT_EQ(tx(before), 1) << "one that is only created changes nothing";
        ASSERT_EQ(oxhal_macsec_transmit_sa_enable(port, own, an, true), 0);
        EXPECT_EQ(tx(an), 1);
        EXPECT_EQ(tx(before), 0) << "installed still";
        ASSERT_EQ(oxhal_macsec_transmit_sa_delete(port, own, before), 0);
        EXPECT_EQ(tx(before), -1);
        EXPECT_EQ(tx(an), 1);
    }
    ASSERT_EQ(oxhal_macsec_transmit_sa_enable(port, own, 0, false), 0);
    EXPECT_EQ(tx(0), 0);
    EXPECT_EQ(oxhal_macsec_transmit_sa_delete(port, own, 0), 0);
    EXPECT_EQ(oxhal_macsec_transmit_sc_delete(port, own), 0);
}

TEST_F(oxhal_contract, receive_associations_are_in_use_side_by_side_and_channel_by_channel) {
    for (const oxhal_macsec_sci& sci : {peer, stranger})
        ASSERT_EQ(oxhal_macsec_receive_sc_create(port, sci), 0);
    ASSERT_EQ(create_rx(0, stranger), 0);
    use_rx(0);
    use_rx(3);
    EXPECT_EQ(rx(0), 1);
    EXPECT_EQ(rx(3), 1);
    EXPECT_EQ(rx(0, stranger), 0);
    ASSERT_EQ(oxhal_macsec_receive_sa_enable(port, peer, 0, false), 0);
    EXPECT_EQ(rx(0), 0);
    ASSERT_EQ(oxhal_macsec_receive_sa_delete(port, peer, 3), 0) << "also while in use";
    EXPECT_EQ(rx(3), -1);
    ASSERT_EQ(oxhal_macsec_receive_sa_delete(port, peer, 0), 0);
    EXPECT_EQ(oxhal_macsec_receive_sc_delete(port, peer), 0);
    EXPECT_EQ(rx(0, stranger), 0);
}

TEST_F(oxhal_contract, refuses_what_the_secy_cannot_be_and_changes_nothing) {
    secure();
    // The attempt has been made when it comes here.
    auto refused = [this](const char* rule, int result) {
        EXPECT_NE(result, 0) << rule;
        EXPECT_EQ(tx(1), 1) << rule;
        EXPECT_EQ(rx(1), 1) << rule;
        EXPECT_EQ(tx(2), -1) << rule;
        EXPECT_EQ(rx(2), -1) << rule;
    };
    bool in_use;
    refused("a second transmit channel", oxhal_macsec_transmit_sc_create(port, stranger));
    refused("the same transmit channel again", oxhal_macsec_transmit_sc_create(port, own));
    refused("the same receive channel again", oxhal_macsec_receive_sc_create(port, peer));
    refused("a transmit channel with associations deleted", oxhal_macsec_transmit_sc_delete(port, own));
    refused("a receive channel with associations deleted", oxhal_macsec_receive_sc_delete(port, peer));
    refused("a channel deleted that is not there", oxhal_macsec_receive_sc_delete(port, stranger));
    refused("a transmit channel taken for a receive channel", oxhal_macsec_receive_sc_delete(port, own));
    refused("an association number twice (transmit)", create_tx(1));
    refused("an association number twice (receive)", create_rx(1));
    refused("an association number above 3 (transmit)", create_tx(4));
    refused("an association number above 3 (receive)", create_rx(255));
    refused("an association without its channel", create_rx(2, stranger));
    refused("a key that is too short",
            oxhal_macsec_transmit_sa_create(port, own, 2, 128, true, {octets, 15}));
    refused("a key that is too long", oxhal_macsec_receive_sa_create2(port, peer, 2, 128, {octets, 17}));
    refused("no key", oxhal_macsec_transmit_sa_create(port, own, 2, 128, true, {nullptr, 16}));
    refused("packet number 0", oxhal_macsec_transmit_sa_create(port, own, 2, 0, true, key));
    refused("enabling what is not installed", oxhal_macsec_transmit_sa_enable(port, own, 2, true));
    refused("deleting what is not installed", oxhal_macsec_receive_sa_delete(port, peer, 2));
    refused("asking about what is not installed", oxhal_macsec_receive_sa_in_use_get(port, peer, 2, &in_use));
    refused("a port that is none", oxhal_macsec_receive_sc_create(port + 1000, stranger));
    refused("a setting of a port that is none", oxhal_macsec_protect_frames_set2(0, true));
    refused("a validation mode that is none",
            oxhal_macsec_validate_frames_set2(port, static_cast<oxhal_macsec_validate_frames>(3)));
}

TEST_F(oxhal_contract, delete_all_empties_its_direction_and_enabling_the_controlled_port_again_both) {
    secure();
    EXPECT_EQ(oxhal_macsec_receive_sc_delete_all(port), 0);
    EXPECT_EQ(rx(1), -1);
    EXPECT_EQ(tx(1), 1);
    EXPECT_EQ(oxhal_macsec_transmit_sc_delete_all(port), 0);
    EXPECT_EQ(tx(1), -1);
    EXPECT_EQ(oxhal_macsec_transmit_sc_delete_all(port), 0) << "there is none any more";
    secure();
    ASSERT_EQ(oxhal_macsec_enable_set(port, true), 0);
    EXPECT_EQ(tx(1), -1);
    EXPECT_EQ(rx(1), -1);
    secure();
    ASSERT_EQ(oxhal_macsec_enable_set(port, false), 0);
    EXPECT_NE(oxhal_macsec_receive_sc_create(port, stranger), 0) << "no SecY, no channel";
}

TEST_F(oxhal_contract, takes_settings_in_any_order_with_or_without_the_controlled_port) {
    for (bool enabled : {true, false}) {
        ASSERT_EQ(oxhal_macsec_enable_set(port, enabled), 0);
        EXPECT_EQ(oxhal_macsec_replay_protect_set2(port, true), 0);
        for (uint32_t window : {0u, 100u, UINT32_MAX})
            EXPECT_EQ(oxhal_macsec_replay_window_set(port, window), 0);
        for (auto mode : {OXHAL_MACSEC_VALIDATE_FRAMES_STRICT, OXHAL_MACSEC_VALIDATE_FRAMES_CHECK,
                          OXHAL_MACSEC_VALIDATE_FRAMES_DISABLED})
            EXPECT_EQ(oxhal_macsec_validate_frames_set2(port, mode), 0);
        for (bool protect : {true, false})
            EXPECT_EQ(oxhal_macsec_protect_frames_set2(port, protect), 0);
        // With the SCI always included, ES and SCB have no effect, so both may be asked for.
        EXPECT_EQ(oxhal_macsec_always_include_sci_set(port, true), 0);
        EXPECT_EQ(oxhal_macsec_es_set(port, true), 0);
        EXPECT_EQ(oxhal_macsec_scb_set(port, true), 0);
        EXPECT_NE(oxhal_macsec_always_include_sci_set(port, false), 0);
        EXPECT_EQ(oxhal_macsec_scb_set(port, false), 0);
        EXPECT_EQ(oxhal_macsec_always_include_sci_set(port, false), 0);
        EXPECT_NE(oxhal_macsec_scb_set(port, true), 0);
        EXPECT_EQ(oxhal_macsec_es_set(port, false), 0);
        EXPECT_EQ(oxhal_macsec_scb_set(port, true), 0);
        EXPECT_EQ(oxhal_macsec_scb_set(port, false), 0);
        EXPECT_EQ(oxhal_macsec_always_include_sci_set(port, true), 0);
        EXPECT_EQ(oxhal_macsec_replay_window_set(port, 0), 0);
        EXPECT_EQ(oxhal_macsec_replay_protect_set2(port, false), 0);
    }
}

bool same_key(const oxhal_view_association& one, const oxhal_view_association& other) {
    return one.installed && other.installed &&
           !memcmp(one.fingerprint, other.fingerprint, sizeof one.fingerprint);
}

TEST_F(oxhal_contract, shows_what_is_installed_and_by_which_key_but_no_key) {
    secure();
    uint8_t next_key[16] = {7};
    ASSERT_EQ(oxhal_macsec_receive_sa_create2(port, peer, 2, 500, {next_key, 16}), 0);
    ASSERT_EQ(oxhal_macsec_replay_protect_set2(port, true), 0);
    ASSERT_EQ(oxhal_macsec_validate_frames_set2(port, OXHAL_MACSEC_VALIDATE_FRAMES_STRICT), 0);
    ASSERT_EQ(oxhal_macsec_protect_frames_set2(port, true), 0);
    oxhal_view seen = view();
    EXPECT_TRUE(seen.enabled && seen.protect_frames && seen.confidentiality && seen.replay_protect);
    EXPECT_EQ(seen.validate_frames, OXHAL_MACSEC_VALIDATE_FRAMES_STRICT);
    EXPECT_EQ(memcmp(&seen.transmit.sci, &own, sizeof own), 0);
    ASSERT_EQ(seen.receive_channels, 1u);
    const oxhal_view_receive_channel& from_peer = seen.receive[0];
    EXPECT_EQ(memcmp(&from_peer.sci, &peer, sizeof peer), 0);
    EXPECT_TRUE(seen.transmit.associations[1].active && from_peer.associations[1].active);
    EXPECT_TRUE(from_peer.associations[2].installed);
    EXPECT_FALSE(from_peer.associations[2].active || from_peer.associations[3].installed);
    EXPECT_EQ(from_peer.associations[2].next_packet_number, 500u);
    EXPECT_TRUE(same_key(seen.transmit.associations[1], from_peer.associations[1]))
        << "installed with one key";
    EXPECT_FALSE(same_key(from_peer.associations[1], from_peer.associations[2]));
    EXPECT_EQ(memmem(&seen, sizeof seen, next_key, 8), nullptr);

    ASSERT_EQ(oxhal_macsec_transmit_sa_delete(port, own, 1), 0);
    ASSERT_EQ(oxhal_macsec_receive_sc_delete_all(port), 0);
    seen = view();
    EXPECT_FALSE(seen.transmit.associations[1].installed);
    EXPECT_EQ(seen.receive_channels, 0u);
    ASSERT_EQ(oxhal_macsec_enable_set(port, false), 0);
    oxhal_view none;
    (void)oxhal_view_get(first.name, &none);
    EXPECT_FALSE(none.enabled);
    EXPECT_NE(oxhal_view_get("DiPort_Z9", &none), 0);
}

TEST_F(oxhal_contract, makes_keys_that_differ_and_stay_within_their_length) {
    uint8_t one[17] = {}, other[17] = {};
    ASSERT_EQ(oxhal_macsec_generate_key(16, one), 0);
    ASSERT_EQ(oxhal_macsec_generate_key(16, other), 0);
    EXPECT_NE(memcmp(one, other, 16), 0);
    EXPECT_EQ(one[16], 0);
    EXPECT_NE(oxhal_macsec_generate_key(0, one), 0);
    EXPECT_NE(oxhal_macsec_generate_key(16, nullptr), 0);
}

TEST(oxhal_start, comes_up_once_and_in_order) {
    setenv("OXHAL_DRIVER", "sim", 0);
    oxhal_vport any;
    EXPECT_NE(oxhal_vport_iterate(0, &any), 0);
    EXPECT_NE(oxhal_macsec_init(), 0);
    ASSERT_EQ(oxhal_init(), 0);
    ASSERT_EQ(oxhal_vport_iterate(0, &any), 0);
    EXPECT_NE(oxhal_macsec_enable_set(any.handle, true), 0);
    EXPECT_EQ(oxhal_macsec_init(), 0);
    EXPECT_NE(oxhal_init(), 0);
    EXPECT_NE(oxhal_macsec_init(), 0);
}

// In a process of its own, since initialisation is once.
void expect_start(bool right, const char* driver, const std::string& ports) {
    EXPECT_EXIT(
        {
            setenv("OXHAL_DRIVER", driver, 1);
            setenv("OXHAL_PORTS", ports.c_str(), 1);
            exit(oxhal_init() == 0 ? 0 : 1);
        },
        testing::ExitedWithCode(right ? 0 : 1), right ? "" : "OXHAL: ")
        << driver << " '" << ports << "'";
}

TEST(oxhal_start, wants_a_driver_that_there_is_and_ports_that_make_sense) {
    expect_start(true, "sim", "P=eth1:sec1");
    expect_start(true, "", "P=eth1:sec1");
    expect_start(true, "macsec", "  P=eth1:sec1   Q=eth2:sec2 ");
    expect_start(false, "hardware", "P=eth1:sec1");
    for (const char* ports : {"", " ", "P", "P=eth1", "P=:sec1", "P=eth1:", "=eth1:sec1", "P=eth1:sec1:x",
                              "P=eth1:sec1=x Q=eth2:sec2", "P=a-name-of-16-char:sec1", "P=../x:sec1",
                              "P=eth1:eth1", "P=eth1:sec1 P=eth2:sec2", "P=eth1:sec1 Q=eth1:sec2",
                              "P=eth1:sec1 Q=eth2:sec1", "P=eth1:sec1 Q=sec1:sec2"})
        expect_start(false, "macsec", ports);
    std::string ports;
    for (char name = 'A'; name <= 'Q'; name++)
        ports += std::string(1, name) + "=a" + name + ":b" + name + " ";
    expect_start(false, "macsec", ports);
    expect_start(true, "macsec", ports.substr(0, ports.find(" Q")));
}

} // namespace
