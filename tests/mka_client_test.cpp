#include "tavu/mka_client.h"

#include "support/octets.h"
#include "support/world.h"

using namespace tavu;
using test::octets;

namespace {

constexpr const char* ca = "CA_mp3_A_mp7_B";
constexpr uint32_t servers_reference = 42; // of the connection
constexpr sci own_sci = {{2, 0, 0, 0, 0, 7, 0, 0}};

std::string events;
bool client_is_deleted_from_inside = false;

void happened(const char* event, uint32_t id) {
    events += std::string(event) + "(" + std::to_string(id) + ")";
    if (client_is_deleted_from_inside) {
        EXPECT_TRUE(mka_client_delete(id));
    }
}
#define EVENT(name) [](uint32_t id, const oka_message*) { happened(#name, id); }

constexpr mka_client_callbacks callbacks = {
    EVENT(tx_sc_cfm), EVENT(tx_sc_rej),
    EVENT(rx_sc_req), EVENT(tx_sa_req),
    EVENT(rx_sa_req), EVENT(protect_frames_req),
    EVENT(ca_joined), [](uint32_t id) { happened("ca_left", id); },
    EVENT(close_cfm),
};

// How far a client has got.
enum stage { created, locating, establishing, capabilities, joining, joined };

class mka_client : public test::world {
  protected:
    mka_client() {
        events.clear();
        client_is_deleted_from_inside = false;
        route_to([this](const oka_message* message) { consumed_ = mka_client_dispatch_message(message); });
        EXPECT_TRUE(mka_client_init(root(), &callbacks));
        EXPECT_TRUE(mka_client_start());
    }

    // The number of the message that the client is waiting for comes back from `server` with these fields.
    void answer(uint32_t number, const octets& bytes) {
        server.send_bytes(mailbox, number, bytes.data(), bytes.size());
        settle();
    }

    // Brings client 1 along, with everything that it sent on the way taken.
    void bring_to(stage wanted, const mka_802_1ae_2006_capabilities* secy = nullptr) {
        EXPECT_EQ(mka_client_create(), 1u);
        if (wanted == created)
            return;
        EXPECT_TRUE(
            mka_client_join_ca(1, ca, wanted == locating ? "nowhere" : "mka-key-server", 10000, secy));
        settle();
        if (wanted == locating)
            return;
        mailbox = server.take(MKA_CONNECTION_ESTABLISH_REQ).sender();
        if (wanted == establishing)
            return;
        answer(MKA_CONNECTION_ESTABLISH_CFM, octets(101, servers_reference).word(1));
        server.take(MKA_CAPABILITIES_GET_REQ);
        if (wanted == capabilities)
            return;
        answer(MKA_CAPABILITIES_GET_CFM, octets(2, 1).word(0).fill(0, 8));
        server.take(MKA_HEARTBEAT_REQ);
        server.take(MKA_JOIN_CA_REQ);
        if (wanted == joining)
            return;
        answer(MKA_JOIN_CA_CFM, octets(3, 1).word(0));
        EXPECT_EQ(events, "ca_joined(1)");
        events.clear();
    }

    void finish() {
        EXPECT_TRUE(mka_client_stop());
        server.disappear();
        settle();
        EXPECT_EQ(oka::simulation::live().mailboxes, 1u);
        expect_nothing_left();
    }

    test::peer server{"mka-key-server"};
    oka_mailbox mailbox = OKA_MAILBOX_NONE; // the client's
    bool consumed_ = false;
};

TEST_F(mka_client, goes_its_way_to_the_ca_in_these_bytes) {
    mka_802_1ae_2006_capabilities secy = {};
    secy.num_of_rx_scs = 4;
    secy.num_of_rx_sas = 2;
    secy.replay_protection_supported = 1;
    secy.confidentiality_supported = 1;
    secy.additional_ciphers = 5; // and whatever else, it is not sent
    memset(secy.reserved, 0xee, sizeof secy.reserved);

    // The hunt path is 63 characters long, and nobody answers to it yet.
    std::string path = std::string(63, 'h') + "/mka-key-server";
    std::string long_ca(70, 'c');
    EXPECT_EQ(mka_client_create(), 1u);
    EXPECT_TRUE(mka_client_join_ca(1, long_ca.c_str(), path.c_str(), 10000, &secy));
    advance(10000);
    EXPECT_TRUE(traced("TAVU: Start locating server '" + path + "'"));
    test::peer remote(path.c_str());
    settle();

    test::received establish = remote.take(MKA_CONNECTION_ESTABLISH_REQ);
    EXPECT_EQ(establish.hex(), "00 00 00 65 00 00 00 01 00 00 00 01 00 00 00 01");
    mailbox = establish.sender();
    auto answer_remotely = [&](uint32_t number, const octets& bytes) {
        remote.send_bytes(mailbox, number, bytes.data(), bytes.size());
        settle();
    };
    answer_remotely(MKA_CONNECTION_ESTABLISH_CFM, octets(101, servers_reference).word(1));
    EXPECT_EQ(remote.take(MKA_CAPABILITIES_GET_REQ).hex(), "00 00 00 02 00 00 00 2a");
    answer_remotely(MKA_CAPABILITIES_GET_CFM, octets(2, 1).word(0).fill(0, 8));
    EXPECT_EQ(remote.take(MKA_HEARTBEAT_REQ).hex(), "00 00 00 05 00 00 00 2a");

    std::string name;
    for (int count = 0; count < 63; count++)
        name += " 63";
    EXPECT_EQ(remote.take(MKA_JOIN_CA_REQ).hex(),
              "00 00 00 03 00 00 00 2a" + name + " 00" + // the name is cut to 63 characters
                  " 00 00 27 10 00 00 00 01"             // port speed, one element
                  " 00 00 00 00 00 00 00 28"             // its type and length
                  " 00 00 00 04 00 00 00 02"             // receive channels and associations
                  " 00 00 00 01 00 00 00 01 00 00 00 00" // replay protection, confidentiality, offset
                  " 00 00 00 00 00 00 00 00 00 00 00 00");
    answer_remotely(MKA_JOIN_CA_CFM, octets(3, 1).word(0));
    EXPECT_EQ(events, "ca_joined(1)");
    EXPECT_TRUE(traced("TAVU: Firing handle_mka_client_ca_joined_ind for client client id = 1, CA name = '" +
                       std::string(63, 'c') + "'"));
    EXPECT_TRUE(traced("TAVU: fire_handle_mka_client_ca_joined_ind"));
    EXPECT_TRUE(traced("TAVU: Client with client id = 1 changing state: 'MKA_STATE_JOIN_CA' -> "
                       "'MKA_STATE_JOINED'"));
    EXPECT_EQ(take_errors(), "");
}

TEST_F(mka_client, joins_without_capabilities_in_92_bytes) {
    EXPECT_EQ(mka_client_create(), 1u);
    EXPECT_TRUE(mka_client_join_ca(1, "C", "mka-key-server", 1, nullptr));
    settle();
    mailbox = server.take(MKA_CONNECTION_ESTABLISH_REQ).sender();
    answer(MKA_CONNECTION_ESTABLISH_CFM, octets(101, servers_reference).word(1));
    answer(MKA_CAPABILITIES_GET_CFM, octets(2, 1).word(1).word(3).word(8));
    server.take(MKA_CAPABILITIES_GET_REQ);
    server.take(MKA_HEARTBEAT_REQ);
    test::received join = server.take(MKA_JOIN_CA_REQ);
    EXPECT_EQ(join.size(), 92u);
    EXPECT_EQ(join.hex().substr(3 * (76 - 4)), "00 00 00 01 00 00 00 00 00 00 00 00 00 00 00 00");
}

octets sa_request(uint32_t sak_len, size_t size, const char* name = ca) {
    return octets(103, 1)
        .text(name, 64)
        .fill(7, 8)
        .word(0)
        .word(1)
        .word(0)
        .word(128)
        .text("", 64)
        .word(sak_len)
        .fill(0xaa, 32)
        .resize(size);
}

struct answer_row {
    const char* rule;
    stage at;
    uint32_t number;
    octets bytes;
    std::string events;
    std::string errors;
};

const answer_row answers[] = {
    {"another version", establishing, MKA_CONNECTION_ESTABLISH_CFM, octets(101, 42).word(2), "ca_left(1)",
     "TAVU: Selected protocol version 2 is not supported, expected 1\n"},
    {"a procedure of nobody", establishing, MKA_CONNECTION_ESTABLISH_CFM, octets(99, 42).word(1), "",
     "TAVU: Invalid proc_ref value: 99\n"},
    {"a procedure of another client", establishing, MKA_CONNECTION_ESTABLISH_CFM, octets(102, 42).word(1), "",
     "TAVU: Could not find client client id = 2\n"},
    {"a short confirmation", establishing, MKA_CONNECTION_ESTABLISH_CFM, octets(101, 42), "",
     "TAVU: Message 0x1b0702 has wrong size: actual: 12 bytes, expected: 16 bytes\n"},
    {"a refused connection", establishing, MKA_CONNECTION_ESTABLISH_REJ, octets(101, 1).word(7), "ca_left(1)",
     ""},
    {"a connection twice", capabilities, MKA_CONNECTION_ESTABLISH_CFM, octets(101, 42).word(1), "",
     "TAVU: handle_connection_establish_cfm called in wrong state: current: 'MKA_STATE_GET_CAPABILITIES', "
     "expected: 'MKA_STATE_CONNECTION_ESTABLISH'\n"},

    {"capabilities of another procedure", capabilities, MKA_CAPABILITIES_GET_CFM,
     octets(3, 1).word(0).fill(0, 8), "ca_left(1)", "TAVU: Invalid proc_ref value: actual 3, expected 2\n"},
    {"capabilities for nobody", capabilities, MKA_CAPABILITIES_GET_CFM, octets(2, 9).word(0).fill(0, 8), "",
     "TAVU: Could not find client client id = 9\n"},
    {"short capabilities", capabilities, MKA_CAPABILITIES_GET_CFM, octets(2, 1).word(0).fill(0, 4), "",
     "TAVU: Parse error: msg_len=20 < expected_msg_len=24\n"},
    {"capabilities that announce nothing", capabilities, MKA_CAPABILITIES_GET_CFM,
     octets(2, 1).word(0).fill(0, 12), "", "TAVU: Parse error: msg_len=28 != expected_msg_len=24\n"},
    {"capabilities with an endless element count", capabilities, MKA_CAPABILITIES_GET_CFM,
     octets(2, 1).word(UINT32_MAX).fill(0, 8), "", "TAVU: Parse error: msg_len=24 != expected_msg_len=0\n"},
    {"bytes behind the capabilities", capabilities, MKA_CAPABILITIES_GET_CFM,
     octets(2, 1).word(1).word(0).word(8).word(0), "",
     "TAVU: Parse error: msg_len=28 != expected_msg_len=24\n"},
    {"no capabilities", capabilities, MKA_CAPABILITIES_GET_REJ, octets(3, 1).word(1), "ca_left(1)",
     "TAVU: Invalid proc_ref value: actual 3, expected 2\n"},

    {"a join of another procedure", joining, MKA_JOIN_CA_CFM, octets(4, 1).word(0), "ca_left(1)",
     "TAVU: Invalid proc_ref value: actual 4, expected 3\n"},
    {"a refused join", joining, MKA_JOIN_CA_REJ, octets(4, 1).word(5), "ca_left(1)",
     "TAVU: Invalid proc_ref value: actual 4, expected 3\n"},
    {"leaving while joining", joining, MKA_LEAVE_CA_RREQ, octets(100, 1).text(ca, 64), "ca_left(1)", ""},
    {"a confirmed leave", joining, MKA_LEAVE_CA_CFM, octets(4, 1), "ca_left(1)", ""},
    {"a leave of another procedure", joining, MKA_LEAVE_CA_CFM, octets(3, 1), "ca_left(1)",
     "TAVU: Invalid proc_ref value: actual 3, expected 4\n"},
    {"a request before the join", joining, MKA_CREATE_TX_SA_RREQ, sa_request(16, 184), "",
     "TAVU: handle_create_tx_sa_rreq called in wrong state: current: 'MKA_STATE_JOIN_CA', expected: "
     "'MKA_STATE_JOINED'\n"},

    {"a join twice", joined, MKA_JOIN_CA_CFM, octets(3, 1).word(0), "",
     "TAVU: handle_join_ca_cfm called in wrong state: current: 'MKA_STATE_JOINED', expected: "
     "'MKA_STATE_JOIN_CA'\n"},
    {"leaving once joined", joined, MKA_LEAVE_CA_RREQ, octets(100, 1).text(ca, 64), "",
     "TAVU: handle_leave_ca_rreq called in wrong state: current: 'MKA_STATE_JOINED', expected: "
     "'MKA_STATE_JOIN_CA'\n"},
    {"a transmit channel", joined, MKA_CREATE_TX_SC_CFM, octets(100, 1), "tx_sc_cfm(1)", ""},
    {"a refused transmit channel", joined, MKA_CREATE_TX_SC_REJ, octets(100, 1).word(17), "tx_sc_rej(1)", ""},
    {"a receive channel", joined, MKA_CREATE_RX_SC_RREQ, octets(102, 1).text(ca, 64).fill(7, 8),
     "rx_sc_req(1)", ""},
    {"a receive channel in another CA", joined, MKA_CREATE_RX_SC_RREQ,
     octets(102, 1).text("CA_mp3_A_mp7_C", 64).fill(7, 8), "ca_left(1)",
     "TAVU: Invalid ca_name value: actual 'CA_mp3_A_mp7_C', expected 'CA_mp3_A_mp7_B'\n"},
    {"a name without an end", joined, MKA_UPDATE_PROTECT_FRAMES_RREQ,
     octets(105, 1).text(ca + std::string(50, 'x'), 64).word(1), "ca_left(1)",
     "TAVU: Invalid ca_name value: actual 'CA_mp3_A_mp7_B" + std::string(50, 'x') +
         "', expected 'CA_mp3_A_mp7_B'\n"},
    {"protection", joined, MKA_UPDATE_PROTECT_FRAMES_RREQ, octets(105, 1).text(ca, 64).word(1),
     "protect_frames_req(1)", ""},
    {"a transmit key", joined, MKA_CREATE_TX_SA_RREQ, sa_request(16, 184), "tx_sa_req(1)", ""},
    {"a receive key", joined, MKA_CREATE_RX_SA_RREQ, sa_request(32, 200), "rx_sa_req(1)", ""},
    {"a key without bytes", joined, MKA_CREATE_TX_SA_RREQ, sa_request(0, 184), "ca_left(1)",
     "TAVU: Invalid sak_len value: sak_len = 0\n"},
    {"a key shorter than said", joined, MKA_CREATE_TX_SA_RREQ, sa_request(32, 184), "",
     "TAVU: Message 0x1b0716 has wrong size: actual: 184 bytes, expected: 200 bytes\n"},
    {"a key length that wraps", joined, MKA_CREATE_RX_SA_RREQ, sa_request(0xffffffff, 169), "",
     "TAVU: Message 0x1b0719 has wrong size: actual: 169 bytes, expected: 167 bytes\n"},
    {"no room for a key", joined, MKA_CREATE_RX_SA_RREQ, sa_request(1, 168), "",
     "TAVU: msg_len=168 < expected_len=169\n"},
    {"a key for another CA", joined, MKA_CREATE_RX_SA_RREQ, sa_request(16, 184, "CA"), "ca_left(1)",
     "TAVU: Invalid ca_name value: actual 'CA', expected 'CA_mp3_A_mp7_B'\n"},
    {"a confirmation nobody waits for", joined, MKA_CONNECTION_CLOSE_CFM, octets(0, 1), "close_cfm(1)", ""},
    {"a confirmation before anything", created, MKA_CONNECTION_CLOSE_CFM, octets(0, 1), "",
     "TAVU: handle_connection_close_cfm called in wrong state: current: 'MKA_STATE_CREATED', expected: 'any "
     "but MKA_STATE_CREATED'\n"},
    {"a truncated expiry", joined, MKA_CLIENT_HEARTBEAT_TIMEOUT_IND, octets(0, 1).resize(8), "",
     "TAVU: Message 0x1b1222 has wrong size: actual: 8 bytes, expected: 12 bytes\n"},
};

TEST_F(mka_client, takes_each_answer_for_what_it_is) {
    for (bool deleted : {false, true}) {
        for (const answer_row& row : answers) {
            SCOPED_TRACE(row.rule);
            events.clear();
            bring_to(row.at);
            mailbox = mailbox == OKA_MAILBOX_NONE || row.at == created ? root() : mailbox;
            forget_traces();
            client_is_deleted_from_inside = deleted;
            answer(row.number, row.bytes);
            EXPECT_TRUE(consumed_);
            EXPECT_EQ(events, row.events);
            EXPECT_EQ(take_errors(), row.errors);
            client_is_deleted_from_inside = false;
            EXPECT_EQ(mka_client_delete(1), row.events.empty() || !deleted);
            settle();
            server.forget_all();
            EXPECT_EQ(oka::simulation::live().timers, 0u);
        }
    }
    finish();
}

TEST_F(mka_client, leaves_numbers_that_are_not_its_own_to_others) {
    for (uint32_t number : {MKA_PEER_DOWN_IND, MKA_CONNECTION_ESTABLISH_REQ, MKA_HEARTBEAT_REQ,
                            MKA_HEARTBEAT_RCFM, MKA_SERVER_HEARTBEAT_TIMEOUT_IND, MKA_CLIENT_DOWN_IND}) {
        consumed_ = true;
        server.send(root(), number, message_header{});
        settle();
        EXPECT_FALSE(consumed_) << std::hex << number;
    }
}

TEST_F(mka_client, says_what_the_kay_has_to_say_in_these_bytes) {
    bring_to(joined);
    std::string name = " 43 41 5f 6d 70 33 5f 41 5f 6d 70 37 5f 42";
    for (int count = 0; count < 64 - 14; count++)
        name += " 00";
    const std::string references = "00 00 00 09 00 00 00 2a";
    const struct {
        bool sent;
        uint32_t number;
        std::string hex;
    } cases[] = {
        {mka_client_send_create_tx_sc_req(1, 9, own_sci), 0x1b0710,
         references + name + " 02 00 00 00 00 07 00 00"},
        {mka_client_send_create_rx_sc_rcfm(1, 9), 0x1b0714, references},
        {mka_client_send_create_rx_sc_rrej(1, 9, 2), 0x1b0715, references + " 00 00 00 02"},
        {mka_client_send_create_tx_sa_rcfm(1, 9), 0x1b0717, references},
        {mka_client_send_create_tx_sa_rrej(1, 9, 3), 0x1b0718, references + " 00 00 00 03"},
        {mka_client_send_create_rx_sa_rcfm(1, 9), 0x1b071a, references},
        {mka_client_send_create_rx_sa_rrej(1, 9, 4), 0x1b071b, references + " 00 00 00 04"},
        {mka_client_send_update_protect_frames_rcfm(1, 9), 0x1b071d, references},
        {mka_client_send_update_protect_frames_rrej(1, 9), 0x1b071e, references + " 00 00 00 0b"},
        {mka_client_send_leave_ca_req(1, 9), 0x1b070c, references + name},
        {mka_client_send_leave_ca_rcfm(1, 9), 0x1b070f, references},
        {mka_client_send_connection_close_req(1, 9), 0x1b0704, references},
    };
    settle();
    for (const auto& row : cases) {
        EXPECT_TRUE(row.sent);
        test::received sent = server.take(row.number);
        EXPECT_EQ(sent.hex(), row.hex) << std::hex << row.number;
        EXPECT_EQ(sent.sender(), mailbox);
    }
    EXPECT_TRUE(traced("0x1b0715 to mailbox " + std::to_string(server.mailbox()) +
                       ": TAVU: MKA_CREATE_RX_SC_RREJ connection reference=42, procedure reference=9"));
    EXPECT_EQ(take_errors(), "");
    EXPECT_FALSE(mka_client_send_create_rx_sa_rcfm(2, 9));
    EXPECT_EQ(take_errors(), "TAVU: Could not find client with client id = 2\n");
}

TEST_F(mka_client, asks_for_a_heartbeat_2500_ms_after_each_confirmation) {
    bring_to(joining);
    advance(2499);
    for (int round = 0; round < 3; round++) {
        answer(MKA_HEARTBEAT_CFM, octets(5, 1));
        EXPECT_EQ(take_errors(), "");
        answer(MKA_HEARTBEAT_CFM, octets(5, 1)); // once too often
        EXPECT_EQ(take_errors(), "TAVU: Heartbeat supervision is in 'HEARTBEAT_IDLE' state for client client "
                                 "id = 1\n");
        advance(2499);
        EXPECT_TRUE(server.is_silent());
        advance(1);
        EXPECT_EQ(server.take(MKA_HEARTBEAT_REQ).hex(), "00 00 00 05 00 00 00 2a");
        advance(2499);
        EXPECT_EQ(events, "");
    }
    forget_traces();
    advance(1);
    EXPECT_EQ(events, "ca_left(1)");
    EXPECT_EQ(take_errors(),
              "TAVU: Heartbeat timeout for client client id = 1 while waiting for heartbeat cfm\n");
    // Only the key server, the root and the test hold mailboxes; nothing is supervised any more.
    EXPECT_EQ(oka::simulation::live().monitors, 0u);
    EXPECT_EQ(oka::simulation::live().timers, 0u);
    EXPECT_TRUE(server.is_silent());
    EXPECT_TRUE(mka_client_join_ca(1, ca, "mka-key-server", 1, nullptr));
    finish();
}

TEST_F(mka_client, keeps_one_heartbeat_when_a_confirmation_comes_with_the_expiry_behind_it) {
    bring_to(joined);
    server.send_bytes(mailbox, MKA_HEARTBEAT_CFM, octets(5, 1).data(), 12);
    oka::simulation::advance_ms(2500);
    oka::simulation::queue_due_timers();
    settle();
    for (int round = 0; round < 4; round++) {
        EXPECT_EQ(oka::simulation::live().timers, 1u);
        server.take(MKA_HEARTBEAT_REQ);
        advance(20);
        answer(MKA_HEARTBEAT_CFM, octets(5, 1));
        advance(2499);
        EXPECT_TRUE(server.is_silent()) << server.waiting();
        advance(1);
    }
    EXPECT_EQ(events, "");
}

TEST_F(mka_client, answers_the_servers_heartbeat_in_any_state) {
    for (stage at : {establishing, joining, joined}) {
        bring_to(at);
        answer(MKA_HEARTBEAT_RREQ, octets(1, 1));
        EXPECT_EQ(server.take(MKA_HEARTBEAT_RCFM).hex(),
                  at == establishing ? "00 00 00 01 00 00 00 00" : "00 00 00 01 00 00 00 2a");
        EXPECT_TRUE(mka_client_delete(1));
        events.clear();
    }
}

TEST_F(mka_client, leaves_the_ca_when_the_key_server_dies) {
    bring_to(joining);
    client_is_deleted_from_inside = true;
    server.disappear();
    settle();
    EXPECT_EQ(events, "ca_left(1)");
    EXPECT_EQ(take_errors(), "");
    finish();
}

TEST_F(mka_client, ignores_expiries_that_nobody_waits_for) {
    const struct {
        stage at;
        uint32_t client;
        const char* text;
    } cases[] = {
        {joined, 7, "TAVU: Heartbeat timeout for client client id = 7, but no client found"},
        {created, 1,
         "TAVU: Heartbeat timeout for client client id = 1, but client is in state "
         "'MKA_STATE_CREATED'"},
        {locating, 1,
         "TAVU: Heartbeat timeout for client client id = 1, but no heartbeat supervision is "
         "running"},
    };
    for (const auto& row : cases) {
        bring_to(row.at);
        octets expiry(0, row.client);
        server.send_bytes(root(), MKA_CLIENT_HEARTBEAT_TIMEOUT_IND, expiry.data(), expiry.size());
        settle();
        EXPECT_TRUE(traced(row.text)) << row.text;
        EXPECT_EQ(events, "");
        EXPECT_TRUE(mka_client_delete(1));
    }
    EXPECT_EQ(take_errors(), "");
}

TEST_F(mka_client, joins_from_created_and_left_only) {
    EXPECT_FALSE(mka_client_join_ca(1, ca, "mka-key-server", 1, nullptr));
    EXPECT_EQ(take_errors(), "TAVU: Could not find client client id = 1\n");
    bring_to(joining);
    EXPECT_FALSE(mka_client_join_ca(1, ca, "mka-key-server", 1, nullptr));
    EXPECT_EQ(take_errors(), "TAVU: mka_client_join_ca called in wrong state: current: 'MKA_STATE_JOIN_CA', "
                             "expected: 'MKA_STATE_CREATED or MKA_STATE_CA_LEFT'\n");
    // Left at the server's word, the connection stays: the answer still goes out, a new join does not.
    answer(MKA_LEAVE_CA_RREQ, octets(100, 1).text(ca, 64));
    EXPECT_EQ(server.take(MKA_LEAVE_CA_RCFM).hex(), "00 00 00 64 00 00 00 2a");
    EXPECT_FALSE(mka_client_join_ca(1, ca, "mka-key-server", 1, nullptr));
    EXPECT_EQ(take_errors(),
              "TAVU: Client 1 mailbox is not uninitialized: " + std::to_string(mailbox) + "\n");
    server.disappear();
    settle();
    EXPECT_EQ(events, "ca_left(1)ca_left(1)");
    EXPECT_TRUE(mka_client_join_ca(1, ca, "mka-key-server", 1, nullptr));
}

TEST_F(mka_client, gives_the_lowest_free_id_to_at_most_32) {
    for (uint32_t id = 1; id <= 32; id++)
        EXPECT_EQ(mka_client_create(), id);
    EXPECT_EQ(mka_client_create(), 0u);
    EXPECT_EQ(take_errors(), "TAVU: Maximum number of clients = 32 reached\n");
    EXPECT_TRUE(mka_client_delete(17));
    EXPECT_TRUE(mka_client_delete(5));
    EXPECT_FALSE(mka_client_delete(5));
    EXPECT_EQ(take_errors(), "TAVU: Could not find client 5\n");
    test::fail_allocation(1);
    EXPECT_EQ(mka_client_create(), 0u);
    EXPECT_NE(take_errors().find("TAVU: Memory allocation of "), std::string::npos);
    EXPECT_EQ(mka_client_create(), 5u);
    EXPECT_EQ(mka_client_create(), 17u);
    EXPECT_TRUE(mka_client_join_ca(17, ca, "nowhere", 1, nullptr));
    finish();
}

TEST_F(mka_client, refuses_what_its_state_does_not_allow) {
    EXPECT_TRUE(mka_client_stop());
    const struct {
        const char* operation;
        bool done;
        const char* expected = "MKA_GLOBAL_STATE_READY";
    } cases[] = {
        {"mka_client_init", mka_client_init(root(), &callbacks), "MKA_GLOBAL_STATE_UNINITIALIZED"},
        {"mka_client_stop", mka_client_stop()},
        {"mka_client_create", mka_client_create() != 0},
        {"mka_client_delete", mka_client_delete(1)},
        {"mka_client_join_ca", mka_client_join_ca(1, ca, "mka-key-server", 1, nullptr)},
        {"mka_client_send_create_tx_sc_req", mka_client_send_create_tx_sc_req(1, 1, own_sci)},
        {"mka_client_send_create_rx_sc_rcfm", mka_client_send_create_rx_sc_rcfm(1, 1)},
        {"mka_client_send_create_rx_sc_rrej", mka_client_send_create_rx_sc_rrej(1, 1, 1)},
        {"mka_client_send_leave_ca_req", mka_client_send_leave_ca_req(1, 1)},
        {"mka_client_send_leave_ca_rcfm", mka_client_send_leave_ca_rcfm(1, 1)},
    };
    std::string errors;
    for (const auto& row : cases) {
        EXPECT_FALSE(row.done) << row.operation;
        errors += std::string("TAVU: ") + row.operation +
                  " called in wrong state: current: 'MKA_GLOBAL_STATE_INITIALIZED', expected: '" +
                  row.expected + "'\n";
    }
    EXPECT_EQ(take_errors(), errors);
}

TEST(mka_client_callbacks, must_all_be_there) {
    constexpr size_t count = sizeof(mka_client_callbacks) / sizeof(void*);
    EXPECT_EQ(count, 9u);
    EXPECT_FALSE(mka_client_init(1, nullptr));
    for (size_t missing = 0; missing < count; missing++) {
        mka_client_callbacks table = callbacks;
        memset(reinterpret_cast<uint8_t*>(&table) + missing * sizeof(void*), 0, sizeof(void*));
        EXPECT_FALSE(mka_client_init(1, &table)) << missing;
    }
    EXPECT_TRUE(mka_client_init(1, &callbacks));
}

} // namespace
