#include "tavu/mka/mka_server.h"

#include "support/octets.h"
#include "support/world.h"

using namespace tavu;
using test::octets;

namespace {

std::string events;

void happened(const char* event, uint32_t id) {
    events += std::string(event) + "(" + std::to_string(id) + ")";
}
#define EVENT(name) [](uint32_t id, const oka_message*) { happened(#name, id); }
#define EVENT_ALONE(name) [](uint32_t id) { happened(#name, id); }

constexpr mka_server_callbacks callbacks = {
    EVENT(connection_closed),   EVENT_ALONE(peer_down),   EVENT(leave_ca_req),
    EVENT(leave_ca_rcfm),       EVENT(create_tx_sc_req),  EVENT(create_rx_sc_rrej),
    EVENT(create_rx_sc_rcfm),   EVENT(create_tx_sa_rcfm), EVENT(create_tx_sa_rrej),
    EVENT(create_rx_sa_rcfm),   EVENT(create_rx_sa_rrej), EVENT(protect_frames_rcfm),
    EVENT(protect_frames_rrej), EVENT(join_ca_req),       EVENT_ALONE(heartbeat_timeout),
};

class mka_server : public test::world {
  protected:
    mka_server() {
        events.clear();
        route_to([](const oka_message* message) { EXPECT_TRUE(mka_server_dispatch_message(message)); });
        EXPECT_TRUE(mka_server_init(root(), "mka-key-server", &callbacks));
        EXPECT_TRUE(mka_server_start());
        oka_message* found = oka_alloc(4, 1);
        oka_locate_async("mka-key-server", &found, kay.mailbox());
        settle();
        mailbox = kay.take(1).sender();
    }

    void send(test::peer& from, uint32_t number, const octets& bytes) {
        from.send_bytes(mailbox, number, bytes.data(), bytes.size());
        settle();
    }
    void connect(test::peer& from, uint32_t reference) {
        send(from, MKA_CONNECTION_ESTABLISH_REQ, octets(100 + reference, reference).word(1).word(1));
    }
    // The KaY's only connection, id 1, with its own reference 7.
    void connect() {
        connect(kay, 7);
        kay.take(MKA_CONNECTION_ESTABLISH_CFM);
        kay.take(MKA_HEARTBEAT_RREQ);
        forget_traces();
    }
    void finish() {
        EXPECT_TRUE(mka_server_stop());
        EXPECT_EQ(oka::simulation::live().monitors, 0u);
        EXPECT_EQ(oka::simulation::live().timers, 0u);
        kay.disappear();
        expect_nothing_left();
    }

    test::peer kay{"mka-client-7"};
    oka_mailbox mailbox = OKA_MAILBOX_NONE; // the server's
};

TEST_F(mka_server, connects_and_answers_by_itself_in_these_bytes) {
    send(kay, MKA_CONNECTION_ESTABLISH_REQ, octets(107, 7).word(2).word(2).word(1));
    EXPECT_EQ(kay.take(MKA_CONNECTION_ESTABLISH_CFM).hex(), "00 00 00 6b 00 00 00 01 00 00 00 01");
    EXPECT_EQ(kay.take(MKA_HEARTBEAT_RREQ).hex(), "00 00 00 01 00 00 00 07");

    send(kay, MKA_CAPABILITIES_GET_REQ, octets(2, 1));
    EXPECT_EQ(kay.take(MKA_CAPABILITIES_GET_CFM).hex(),
              "00 00 00 02 00 00 00 07 00 00 00 00 00 00 00 00 00 00 00 00");
    send(kay, MKA_HEARTBEAT_REQ, octets(5, 1));
    EXPECT_EQ(kay.take(MKA_HEARTBEAT_CFM).hex(), "00 00 00 05 00 00 00 07");
    EXPECT_EQ(events, "");

    send(kay, MKA_CONNECTION_CLOSE_REQ, octets(9, 1));
    EXPECT_EQ(kay.take(MKA_CONNECTION_CLOSE_CFM).hex(), "00 00 00 09 00 00 00 07");
    EXPECT_EQ(events, "connection_closed(1)");
    EXPECT_EQ(take_errors(), "");
    send(kay, MKA_CONNECTION_CLOSE_REQ, octets(9, 1));
    EXPECT_TRUE(kay.is_silent());
}

TEST_F(mka_server, refuses_connections_it_cannot_serve) {
    const struct {
        const char* rule;
        octets bytes;
        const char* rejection; // its references and reason; nothing when the request is dropped
    } cases[] = {
        {"no version of ours", octets(108, 8).word(1).word(2), "00 00 00 6c 00 00 00 08 00 00 00 01"},
        {"connected already", octets(108, 7).word(1).word(1), "00 00 00 6c 00 00 00 07 00 00 00 06"},
        {"no room for a version", octets(108, 8).word(1), nullptr},
        {"more versions than said", octets(108, 8).word(0).word(1).word(1), nullptr},
        {"a count that wraps", octets(108, 8).word(0x40000001).word(1), nullptr},
    };
    connect();
    for (const auto& row : cases) {
        SCOPED_TRACE(row.rule);
        send(kay, MKA_CONNECTION_ESTABLISH_REQ, row.bytes);
        if (row.rejection) {
            EXPECT_EQ(kay.take(MKA_CONNECTION_ESTABLISH_REJ).hex(), row.rejection);
        }
        EXPECT_TRUE(kay.is_silent()) << kay.waiting();
        EXPECT_NE(take_errors(), "");
    }
    EXPECT_EQ(oka::simulation::live().timers, 1u);
}

TEST_F(mka_server, serves_64_clients_and_refuses_the_next) {
    for (uint32_t reference = 1; reference <= 64; reference++)
        connect(kay, reference);
    kay.forget_all();
    connect(kay, 65);
    EXPECT_EQ(kay.take(MKA_CONNECTION_ESTABLISH_REJ).hex(), "00 00 00 a5 00 00 00 41 00 00 00 07");
    EXPECT_EQ(oka::simulation::live().timers, 64u);
    EXPECT_EQ(oka::simulation::live().monitors, 1u);

    send(kay, MKA_CONNECTION_CLOSE_REQ, octets(9, 5));
    kay.take(MKA_CONNECTION_CLOSE_CFM);
    connect(kay, 65);
    EXPECT_EQ(kay.take(MKA_CONNECTION_ESTABLISH_CFM).hex(), "00 00 00 a5 00 00 00 05 00 00 00 01");
}

TEST_F(mka_server, a_connection_that_is_silent_and_no_member_makes_room) {
    test::peer other("mka-client-8");
    for (uint32_t reference = 1; reference <= 64; reference++)
        connect(kay, reference);
    for (uint32_t id : {3u, 4u, 5u})
        EXPECT_TRUE(mka_server_send_join_ca_cfm(id, 3, 0));
    ca_name name;
    name.assign("CA");
    EXPECT_TRUE(mka_server_send_leave_ca_rreq(4, 100, name));
    for (uint32_t id : {1u, 2u})
        send(kay, MKA_HEARTBEAT_RCFM, octets(1, id));
    advance(2501); // the others have been silent for too long
    for (uint32_t id : {4u, 6u, 7u}) {
        connect(other, id);
        EXPECT_EQ(other.take(MKA_CONNECTION_ESTABLISH_CFM).as<message_header>().connection_reference, id);
        other.forget_all();
    }
}

TEST_F(mka_server, believes_about_a_client_only_the_client_and_messaging) {
    test::peer stranger("stranger");
    connect();
    const octets request = octets(3, 1).text("CA", 64).word(0).word(0);
    send(stranger, MKA_CONNECTION_CLOSE_REQ, octets(9, 1));
    send(stranger, MKA_CREATE_TX_SA_RCFM, octets(103, 1));
    send(stranger, MKA_HEARTBEAT_REQ, octets(5, 1));
    send(stranger, MKA_CAPABILITIES_GET_REQ, octets(2, 1));
    EXPECT_EQ(take_errors(), [&] {
        std::string all;
        for (const char* name : {"MKA_CONNECTION_CLOSE_REQ", "MKA_CREATE_TX_SA_RCFM", "MKA_HEARTBEAT_REQ",
                                 "MKA_CAPABILITIES_GET_REQ"})
            all += std::string("TAVU: '") + name +
                   "' is received from wrong mailbox. Actual: " + std::to_string(stranger.mailbox()) +
                   ", expected: " + std::to_string(kay.mailbox()) + "\n";
        return all;
    }());
    for (test::peer* liar : {&stranger, &kay}) {
        send(*liar, MKA_CLIENT_DOWN_IND, octets(0, 1));
        send(*liar, MKA_SERVER_HEARTBEAT_TIMEOUT_IND, octets(1, 1));
        EXPECT_NE(take_errors(), "");
    }
    EXPECT_TRUE(stranger.is_silent() && kay.is_silent());
    EXPECT_EQ(events, "");
    // A connection that could not be answered is none.
    const octets establish = octets(108, 8).word(1).word(1);
    test::prepare_bytes(MKA_CONNECTION_ESTABLISH_REQ, establish.data(), establish.size());
    settle();
    EXPECT_EQ(oka::simulation::live().timers, 1u);
}

TEST_F(mka_server, watches_a_mailbox_as_long_as_it_has_a_client) {
    test::peer other("mka-client-8");
    connect(kay, 1);
    connect(other, 1);
    connect(kay, 2);
    connect(other, 2);
    EXPECT_EQ(oka::simulation::live().monitors, 2u);
    kay.disappear();
    settle();
    EXPECT_EQ(events, "peer_down(3)peer_down(1)"); // newest first
    send(other, MKA_CONNECTION_CLOSE_REQ, octets(9, 2));
    EXPECT_EQ(oka::simulation::live().monitors, 1u);
    send(other, MKA_CONNECTION_CLOSE_REQ, octets(9, 4));
    EXPECT_EQ(oka::simulation::live().monitors, 0u);
}

TEST_F(mka_server, hands_up_what_concerns_the_ca) {
    const octets name = octets(3, 1).text("CA", 64);
    const struct {
        uint32_t number;
        octets bytes;
        const char* event;
    } cases[] = {
        {0x1b070c, name, "leave_ca_req(1)"},
        {0x1b070f, octets(3, 1), "leave_ca_rcfm(1)"},
        {0x1b0710, octets(name).fill(7, 8), "create_tx_sc_req(1)"},
        {0x1b0714, octets(3, 1), "create_rx_sc_rcfm(1)"},
        {0x1b0715, octets(3, 1).word(2), "create_rx_sc_rrej(1)"},
        {0x1b0717, octets(3, 1), "create_tx_sa_rcfm(1)"},
        {0x1b0718, octets(3, 1).word(3), "create_tx_sa_rrej(1)"},
        {0x1b071a, octets(3, 1), "create_rx_sa_rcfm(1)"},
        {0x1b071b, octets(3, 1).word(4), "create_rx_sa_rrej(1)"},
        {0x1b071d, octets(3, 1), "protect_frames_rcfm(1)"},
        {0x1b071e, octets(3, 1).word(11), "protect_frames_rrej(1)"},
        // Without an element, with one, with two.
        {0x1b0709, octets(name).word(10000).word(0).fill(0, 8), "join_ca_req(1)"},
        {0x1b0709, octets(name).word(10000).word(1).word(0).word(40).fill(1, 32), "join_ca_req(1)"},
        {0x1b0709, octets(name).word(10000).word(2).word(1).word(8).word(0).word(40).fill(1, 32),
         "join_ca_req(1)"},
    };
    connect();
    for (const auto& row : cases) {
        SCOPED_TRACE(row.event);
        events.clear();
        send(kay, row.number, row.bytes);
        EXPECT_EQ(events, row.event);
        EXPECT_EQ(take_errors(), "");
        // One byte less or more is not that message; nor is the same from somebody unknown.
        for (size_t size : {row.bytes.size() - 1, row.bytes.size() + 1}) {
            send(kay, row.number, octets(row.bytes).resize(size));
            EXPECT_NE(take_errors(), "");
        }
        send(kay, row.number, octets(3, 9).append(row.bytes));
        EXPECT_NE(take_errors(), "");
        EXPECT_EQ(events, row.event);
    }
    send(kay, MKA_JOIN_CA_REQ, octets(name).word(1).word(UINT32_MAX).word(0).word(0));
    EXPECT_NE(take_errors(), "");
}

TEST_F(mka_server, says_what_the_key_server_has_to_say_in_these_bytes) {
    connect();
    ca_name name;
    name.assign("CA");
    std::string name_octets = " 43 41";
    for (int count = 0; count < 62; count++)
        name_octets += " 00";
    const sci identifier = {{2, 0, 0, 0, 0, 7, 0, 1}};
    const std::string sci_octets = " 02 00 00 00 00 07 00 01";
    const uint8_t sak[] = {0xa0, 0xa1, 0xa2, 0xa3, 0xa4};
    const std::string sak_octets = " a0 a1 a2 a3 a4";
    mka_sa_parameters key = {0, 1, 3, 128, {}, sizeof sak, {}};
    memcpy(key.sak.refill(), sak, sizeof sak);
    key.key_name.assign("CA");
    const std::string references = "00 00 00 66 00 00 00 07";
    const std::string sa_octets = references + name_octets + sci_octets +
                                  " 00 00 00 00 00 00 00 01 00 00 00 03 00 00 00 80" + name_octets;
    const struct {
        bool sent;
        uint32_t number;
        std::string hex;
    } cases[] = {
        {mka_server_send_join_ca_cfm(1, 102, 0), 0x1b070a, references + " 00 00 00 00"},
        {mka_server_send_join_ca_rej(1, 102, 9), 0x1b070b, references + " 00 00 00 09"},
        {mka_server_send_leave_ca_rreq(1, 102, name), 0x1b070e, references + name_octets},
        {mka_server_send_leave_ca_cfm(1, 102), 0x1b070d, references},
        {mka_server_send_create_tx_sc_cfm(1, 102), 0x1b0711, references},
        {mka_server_send_create_tx_sc_rej(1, 102, 17), 0x1b0712, references + " 00 00 00 11"},
        {mka_server_send_create_rx_sc_req(1, 102, name, identifier), 0x1b0713,
         references + name_octets + sci_octets},
        {mka_server_send_create_tx_sa_rreq(1, 102, name, identifier, key), 0x1b0716,
         sa_octets + " 00 00 00 05" + sak_octets},
        {mka_server_send_create_rx_sa_rreq(1, 102, name, identifier, key), 0x1b0719,
         sa_octets + " 00 00 00 05" + sak_octets},
        {mka_server_send_update_protect_frames_rreq(1, 102, name, true), 0x1b071c,
         references + name_octets + " 00 00 00 01"},
    };
    settle();
    for (const auto& row : cases) {
        EXPECT_TRUE(row.sent);
        test::received sent = kay.take(row.number);
        EXPECT_EQ(sent.hex(), row.hex) << std::hex << row.number;
        EXPECT_EQ(sent.sender(), mailbox);
    }
    EXPECT_FALSE(mka_server_send_create_tx_sa_rreq(2, 102, name, identifier, key));
}

TEST_F(mka_server, probes_every_2500_ms_and_reports_silence_once) {
    connect();
    for (int round = 0; round < 3; round++) {
        advance(2499);
        send(kay, MKA_HEARTBEAT_RCFM, octets(1, 1));
        EXPECT_EQ(take_errors(), "");
        send(kay, MKA_HEARTBEAT_RCFM, octets(1, 1)); // once too often
        EXPECT_NE(take_errors(), "");
        advance(2499);
        EXPECT_TRUE(kay.is_silent());
        advance(1);
        EXPECT_EQ(kay.take(MKA_HEARTBEAT_RREQ).hex(), "00 00 00 01 00 00 00 07");
    }
    // An answer to something else is none.
    send(kay, MKA_HEARTBEAT_RCFM, octets(5, 1));
    advance(2499);
    EXPECT_EQ(events, "");
    advance(20000);
    EXPECT_EQ(events, "heartbeat_timeout(1)");
    EXPECT_EQ(oka::simulation::live().timers, 0u);
    // The client stays: a late answer has no effect, its requests are served, its end is reported.
    send(kay, MKA_HEARTBEAT_RCFM, octets(1, 1));
    send(kay, MKA_HEARTBEAT_REQ, octets(5, 1));
    kay.take(MKA_HEARTBEAT_CFM);
    kay.disappear();
    settle();
    EXPECT_EQ(events, "heartbeat_timeout(1)peer_down(1)");
    finish();
}

TEST_F(mka_server, starts_and_stops_in_turn) {
    connect();
    EXPECT_FALSE(mka_server_start());
    EXPECT_TRUE(mka_server_stop());
    EXPECT_FALSE(mka_server_stop());
    {
        test::peer thief("mka-key-server");
        EXPECT_FALSE(mka_server_start());
    }
    EXPECT_TRUE(mka_server_start());
    finish();
}

} // namespace
