// Joining, announcing, keying and refreshing: how a CA becomes secured and stays so.
#include "support/key_server_world.h"
#include "tavu/key_server/key_server_records.h"

namespace {

using namespace tavu;

constexpr const char* zeros_16 = "00 00 00 00 00 00 00 00 00 00 00 00 00 00 00 00 ";
// "ca1" in its field of 64 octets.
const std::string ca1_field =
    "63 61 31 00 00 00 00 00 00 00 00 00 00 00 00 00 " + std::string(zeros_16) + zeros_16 + zeros_16;

class key_server : public test::key_server_world {
  protected:
    // Both confirm, one after the other; nothing may happen in between.
    void both_confirm(uint32_t request) {
        b.confirm(request);
        run();
        EXPECT_EQ(heard(), " | ");
        a.confirm(request);
        run();
    }
    // The conversation that secures the CA, of two members with these numbers of their next keys.
    static std::string secured(const std::string& an_of_a, const std::string& an_of_b, const char* b = "2") {
        auto words = [](const std::string& peer, const std::string& theirs, const std::string& own) {
            return "rx_sc(" + peer + ") rx_sa(" + peer + "," + theirs + ") tx_sa(" + own + ") protect";
        };
        return words(b, an_of_b, an_of_a) + " | tx_sc_cfm " + words("1", an_of_a, an_of_b);
    }
    // And the one that refreshes it.
    static std::string refreshed(const std::string& an) {
        std::string rest = "," + an + ") tx_sa(" + an + ") protect";
        return "rx_sa(2" + rest + " | rx_sa(1" + rest;
    }
    std::string key_name(test::ca_member& member, uint32_t request) {
        return member.last[request].as<mka_create_sa_rreq>().key_name.c_str();
    }
};

TEST_F(key_server, admits_members_that_can_do_enough) {
    using can = mka_802_1ae_2006_capabilities;
    const struct {
        be32 can::*capability;
        uint32_t value;
        const char* heard;
    } rows[] = {
        {&can::num_of_rx_scs, 0, "join_rej:12"},
        {&can::num_of_rx_sas, 1, "join_rej:13"},
        {&can::num_of_rx_sas, 5, "join_rej:13"},
        {&can::replay_protection_supported, 2, "join_rej:14"},
        {&can::confidentiality_supported, 2, "join_rej:15"},
        {&can::confidentiality_offset_supported, 0x01000000, "join_rej:16"},
        {&can::num_of_rx_sas, 2, "joined"},
        {&can::num_of_rx_sas, 2, "join_rej:9"},
    };
    connect();
    a.join("ca2");
    a.join("ca1", 0);
    const can good = a.capabilities;
    a.capabilities.head.type = MKA_STANDARD_IEEE_802_1AEbn_2011;
    a.join("ca1");
    run();
    EXPECT_EQ(a.heard(), "join_rej:5 join_rej:10 join_rej:10");
    for (const auto& row : rows) {
        a.capabilities = good;
        a.capabilities.*row.capability = row.value;
        a.join("ca1");
        run();
        EXPECT_EQ(a.heard(), row.heard);
    }
}

TEST_F(key_server, takes_only_announcements_that_are_right) {
    join();
    test::ca_member stranger(server, "stranger", 9);
    add(stranger);
    test::ca_member c(server, "kay-3", 3);
    add(c);
    EXPECT_TRUE(key_server_add_ca("ca2"));
    c.join("ca2");
    run();
    c.heard();

    stranger.announce("ca1");
    c.announce("ca3");

    const sci own = a.identifier;
    a.identifier = keysrv::null_sci;
    a.announce("ca1");
    run();
    EXPECT_EQ(a.heard(), "tx_sc_rej:17");
    a.identifier = own;
    a.announce("ca1");
    run();
    EXPECT_EQ(a.heard(), "tx_sc_cfm");
    a.announce("ca1");
    b.identifier = own;
    b.announce("ca1");
    run();
    EXPECT_EQ(heard(), "tx_sc_rej:18 | tx_sc_rej:18");

    // The same SCI in another CA is fine; a member that announces elsewhere costs its own CA its members.
    c.identifier = own;
    c.announce("ca2");
    c.announce("ca1");
    run();
    EXPECT_EQ(c.heard() + stranger.heard(), "tx_sc_cfm tx_sc_rej:5 leave");
    EXPECT_EQ(heard(), " | ");
}

TEST_F(key_server, gives_a_member_one_channel_more_than_it_has_room_for) {
    test::ca_member c(server, "kay-3", 3);
    test::ca_member d(server, "kay-4", 4);
    a.capabilities.num_of_rx_scs = 1;
    b.capabilities.num_of_rx_scs = 8;
    announce();
    for (test::ca_member* member : {&c, &d}) {
        member->capabilities.num_of_rx_scs = 8;
        add(*member);
        member->join("ca1");
    }
    c.announce("ca1");
    run();
    EXPECT_EQ(a.heard(), "rx_sc(2) rx_sc(3)");
    EXPECT_EQ(c.heard(), "joined tx_sc_cfm rx_sc(2) rx_sc(1)");
    // Keys wait until the last channel of the last member is there.
    a.confirm(MKA_CREATE_RX_SC_RREQ);
    b.confirm(MKA_CREATE_RX_SC_RREQ);
    run();
    EXPECT_EQ((a.heard() + b.heard() + c.heard()).find("rx_sa"), std::string::npos);
    d.announce("ca1");
    run();
    EXPECT_EQ(a.heard(), "leave");
    EXPECT_EQ(d.heard(), "joined tx_sc_cfm leave");
}

TEST_F(key_server, secures_a_ca_step_by_step) {
    announce();
    EXPECT_EQ(heard(), "rx_sc(2) | tx_sc_cfm rx_sc(1)");
    EXPECT_EQ(a.last[MKA_CREATE_RX_SC_RREQ].hex(),
              "00 00 00 66 00 00 00 01 " + ca1_field + "02 00 00 00 00 00 00 02");

    // Keys are made in the order of the newest record; a confirmed last.
    both_confirm(MKA_CREATE_RX_SC_RREQ);
    EXPECT_EQ(heard(), "rx_sa(2,1) | rx_sa(1,1)");
    EXPECT_EQ(a.last[MKA_CREATE_RX_SA_RREQ].hex(),
              "00 00 00 68 00 00 00 01 " + ca1_field +
                  "02 00 00 00 00 00 00 02 00 00 00 00 00 00 00 01 00 00 00 01 00 00 00 80 "
                  // ca1-02:00:00:00:00:00:00:02-1
                  "63 61 31 2d 30 32 3a 30 30 3a 30 30 3a 30 30 3a 30 30 3a 30 30 3a 30 30 3a 30 32 2d 31 "
                  "00 00 00 " +
                  zeros_16 + zeros_16 + "00 00 00 10 02 02 02 02 02 02 02 02 02 02 02 02 02 02 02 02");
    both_confirm(MKA_CREATE_RX_SA_RREQ);
    EXPECT_EQ(heard(), "tx_sa(1) | tx_sa(1)");
    EXPECT_EQ(key_name(a, MKA_CREATE_TX_SA_RREQ), key_name(b, MKA_CREATE_RX_SA_RREQ));
    EXPECT_EQ(key_name(a, MKA_CREATE_TX_SA_RREQ), "ca1-02:00:00:00:00:00:00:01-0");
    EXPECT_EQ(a.last[MKA_CREATE_TX_SA_RREQ].as<mka_create_sa_rreq>().sak()[15], 1);
    EXPECT_EQ(b.last[MKA_CREATE_TX_SA_RREQ].as<mka_create_sa_rreq>().sak()[0], 2);
    EXPECT_TRUE(b.last[MKA_CREATE_TX_SA_RREQ].as<mka_create_sa_rreq>().identifier == b.identifier);
    both_confirm(MKA_CREATE_TX_SA_RREQ);
    EXPECT_EQ(heard(), "protect | protect");
    EXPECT_EQ(b.last[MKA_UPDATE_PROTECT_FRAMES_RREQ].hex(),
              "00 00 00 69 00 00 00 01 " + ca1_field + "00 00 00 01");
    both_confirm(MKA_UPDATE_PROTECT_FRAMES_RREQ);
    EXPECT_EQ(heard(), " | ");
    stop_and_expect_nothing_left();
}

TEST_F(key_server, replaces_all_keys_every_180_seconds_with_the_next_an) {
    secure();
    EXPECT_EQ(heard(), secured("1", "1"));
    pass(179999);
    EXPECT_EQ(heard(), " | ");
    pass(1);
    EXPECT_EQ(heard(), refreshed("2"));
    EXPECT_EQ(key_name(a, MKA_CREATE_TX_SA_RREQ).substr(27), "-3");
    EXPECT_EQ(key_name(b, MKA_CREATE_TX_SA_RREQ).substr(27), "-2");
    pass(180000);
    EXPECT_EQ(heard(), refreshed("3"));
    pass(180000);
    EXPECT_EQ(heard(), refreshed("0"));
    // An AN that comes round again waits for fresh confirmations.
    a.obliging = b.obliging = false;
    pass(180000);
    EXPECT_EQ(heard(), "rx_sa(2,1) | rx_sa(1,1)");
    both_confirm(MKA_CREATE_RX_SA_RREQ);
    EXPECT_EQ(heard(), "tx_sa(1) | tx_sa(1)");
    both_confirm(MKA_CREATE_TX_SA_RREQ);
    EXPECT_EQ(heard(), "protect | protect");
    both_confirm(MKA_UPDATE_PROTECT_FRAMES_RREQ);
    EXPECT_EQ(keys_made, 10);
}

TEST_F(key_server, goes_on_with_the_an_and_the_names_when_a_ca_is_formed_again) {
    secure();
    pass(180000 + 90000);
    heard();
    a.leave("ca1");
    run();
    EXPECT_EQ(heard(), "leave_cfm leave | leave");
    secure();
    EXPECT_EQ(heard(), secured("3", "3"));
    EXPECT_EQ(key_name(a, MKA_CREATE_TX_SA_RREQ).substr(27), "-5");

    pass(179999);
    EXPECT_EQ(heard(), " | ");

    // With another SCI, b starts an AN sequence of its own; its old SCI gets no further keys.
    a.leave("ca1");
    run();
    heard();
    b.identifier.octets[7] = 7;
    keys_made = 0;
    secure();
    EXPECT_EQ(heard(), secured("0", "1", "7"));
    EXPECT_EQ(keys_made, 2);
    // Taken out and configured anew, the CA has forgotten everything but the counter.
    EXPECT_TRUE(key_server_remove_ca("ca1"));
    run();
    EXPECT_EQ(heard(), "leave | leave");
    EXPECT_TRUE(key_server_add_ca("ca1"));
    secure();
    EXPECT_EQ(heard(), secured("1", "1", "7"));
    EXPECT_EQ(key_name(b, MKA_CREATE_TX_SA_RREQ).substr(27), "-8");
}

TEST_F(key_server, is_not_misled_by_confirmations_that_nobody_awaits) {
    // Before there is a new key, none is handed out, and not that of the forming before.
    secure();
    a.leave("ca1");
    run();
    heard();
    a.obliging = b.obliging = false;
    join();
    a.confirm(MKA_CREATE_RX_SC_RREQ);
    a.confirm(MKA_UPDATE_PROTECT_FRAMES_RREQ);
    b.announce("ca1");
    a.announce("ca1");
    run();
    heard();
    a.confirm(MKA_CREATE_RX_SA_RREQ);
    b.confirm(MKA_CREATE_RX_SA_RREQ);
    run();
    EXPECT_EQ(heard(), " | ");
    a.obliging = b.obliging = true;
    a.confirm(MKA_CREATE_RX_SC_RREQ);
    b.confirm(MKA_CREATE_RX_SC_RREQ);
    run();
    EXPECT_EQ(heard(), refreshed("2"));
    EXPECT_EQ(keys_made, 4);
    pass(100000);

    // A key is installed for transmission once, and what is confirmed twice does not put off its end.
    a.confirm(MKA_CREATE_RX_SA_RREQ);
    a.confirm(MKA_UPDATE_PROTECT_FRAMES_RREQ);
    run();
    EXPECT_EQ(heard(), " | ");
    pass(80000);
    EXPECT_EQ(heard(), refreshed("3"));

    // However often: neither requests nor records come of it.
    const unsigned before = test::allocations();
    for (int count = 0; count < 1000; count++) {
        for (uint32_t request : {MKA_CREATE_RX_SC_RREQ, MKA_CREATE_RX_SA_RREQ, MKA_CREATE_TX_SA_RREQ,
                                 MKA_UPDATE_PROTECT_FRAMES_RREQ})
            a.confirm(request);
    }
    run();
    EXPECT_EQ(heard(), " | ");
    EXPECT_EQ(test::allocations(), before);
    pass(180000);
    EXPECT_EQ(heard(), refreshed("0"));
}

TEST_F(key_server, cuts_key_names_to_63_characters) {
    const std::string long_name = "CA_mp3_IDL_A1_mp7_IDL_B1_and_then_some_more";
    EXPECT_TRUE(key_server_add_ca(long_name.c_str()));
    connect();
    a.obliging = b.obliging = true;
    for (test::ca_member* member : {&a, &b}) {
        member->join(long_name.c_str());
        member->announce(long_name.c_str());
    }
    run();
    EXPECT_EQ(key_name(a, MKA_CREATE_RX_SA_RREQ), (long_name + "-02:00:00:00:00:00:00:02").substr(0, 63));
}

} // namespace
