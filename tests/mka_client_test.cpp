#include "tavu/mka/mka_client.h"

#include "support/octets.h"
#include "support/world.h"

using namespace tavu;
using test::octets;

namespace {

constexpr const char* ca = "CA_mp3_A_mp7_B";
constexpr uint32_t servers_reference = 42;                                // of the connection
const std::string server_path = std::string(63, 'h') + "/mka-key-server"; // as long as one may be
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
        if (number == MKA_CLIENT_HEARTBEAT_TIMEOUT_IND)
            test::prepare_bytes(number, bytes.data(), bytes.size());
        else
            server.send_bytes(mailbox, number, bytes.data(), bytes.size());
        settle();
    }

    // Brings client 1 along, with everything that it sent on the way taken.
    void bring_to(stage wanted, const mka_802_1ae_2006_capabilities* secy = nullptr, const char* to = ca) {
        asked_.clear();
        EXPECT_EQ(mka_client_create(), 1u);
        if (wanted == created)
            return;
        EXPECT_TRUE(
            mka_client_join_ca(1, to, wanted == locating ? "nowhere" : server_path.c_str(), 10000, secy));
        settle();
        if (wanted == locating)
            return;
        mailbox = take(MKA_CONNECTION_ESTABLISH_REQ);
        if (wanted == establishing)
            return;
        answer(MKA_CONNECTION_ESTABLISH_CFM, octets(101, servers_reference).word(1));
        take(MKA_CAPABILITIES_GET_REQ);
        if (wanted == capabilities)
            return;
        answer(MKA_CAPABILITIES_GET_CFM, octets(2, 1).word(0).fill(0, 8));
        take(MKA_HEARTBEAT_REQ);
        take(MKA_JOIN_CA_REQ);
        if (wanted == joining)
            return;
        answer(MKA_JOIN_CA_CFM, octets(3, 1).word(0));
        EXPECT_EQ(events, "ca_joined(1)");
        events.clear();
    }
    // Notes the request; its sender.
    oka_mailbox take(uint32_t number) {
        test::received request = server.take(number);
        asked_.push_back(request.hex());
        return request.sender();
    }

    void finish() {
        EXPECT_TRUE(mka_client_stop());
        server.disappear();
        settle();
        EXPECT_EQ(oka::simulation::live().mailboxes, 1u);
        expect_nothing_left();
    }

    test::peer server{server_path.c_str()};
    oka_mailbox mailbox = OKA_MAILBOX_NONE; // the client's
    std::vector<std::string> asked_;        // in these bytes
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

    bring_to(joined, &secy, std::string(70, 'c').c_str());
    std::string name;
    for (int count = 0; count < 63; count++)
        name += " 63";
    const std::string requests[] = {
        "00 00 00 65 00 00 00 01 00 00 00 01 00 00 00 01",
        "00 00 00 02 00 00 00 2a",
        "00 00 00 05 00 00 00 2a",
        "00 00 00 03 00 00 00 2a" + name + " 00" + // the name is cut to 63 characters
            " 00 00 27 10 00 00 00 01"             // port speed, one element
            " 00 00 00 00 00 00 00 28"             // its type and length
            " 00 00 00 04 00 00 00 02"             // receive channels and associations
            " 00 00 00 01 00 00 00 01 00 00 00 00" // replay protection, confidentiality, offset
            " 00 00 00 00 00 00 00 00 00 00 00 00",
    };
    EXPECT_TRUE(std::equal(asked_.begin(), asked_.end(), std::begin(requests), std::end(requests)))
        << testing::PrintToString(asked_);
    EXPECT_EQ(take_errors(), "");
    EXPECT_TRUE(mka_client_delete(1));
    // Without capabilities the request ends behind the count of elements, and a place for one.
    bring_to(joining);
    EXPECT_EQ(asked_.back().substr(3 * (76 - 4)), "00 00 27 10 00 00 00 00 00 00 00 00 00 00 00 00");
}

octets sa_request(uint32_t sak_len, size_t size, const char* name = ca) {
    octets request = octets(103, 1).text(name, 64).fill(7, 8).word(0).word(1).word(0).word(128);
    return request.text("", 64).word(sak_len).fill(0xaa, 32).resize(size);
}

struct answer_row {
    const char* rule;
    stage at;
    uint32_t number;
    octets bytes;
    std::string events;
    bool is_error = false;
};

const answer_row answers[] = {
    {"another version", establishing, MKA_CONNECTION_ESTABLISH_CFM, octets(101, 42).word(2), "ca_left(1)",
     true},
    {"a procedure of nobody", establishing, MKA_CONNECTION_ESTABLISH_CFM, octets(99, 42).word(1), "", true},
    {"a short confirmation", establishing, MKA_CONNECTION_ESTABLISH_CFM, octets(101, 42), "", true},
    {"a refused connection", establishing, MKA_CONNECTION_ESTABLISH_REJ, octets(101, 1).word(7),
     "ca_left(1)"},
    {"capabilities of another procedure", capabilities, MKA_CAPABILITIES_GET_CFM,
     octets(3, 1).word(0).fill(0, 8), "ca_left(1)", true},
    {"short capabilities", capabilities, MKA_CAPABILITIES_GET_CFM, octets(2, 1).word(0).fill(0, 4), "", true},
    {"capabilities with an endless element count", capabilities, MKA_CAPABILITIES_GET_CFM,
     octets(2, 1).word(UINT32_MAX).fill(0, 8), "", true},
    {"bytes behind the capabilities", capabilities, MKA_CAPABILITIES_GET_CFM,
     octets(2, 1).word(1).word(0).word(8).word(0), "", true},
    {"a refused join", joining, MKA_JOIN_CA_REJ, octets(4, 1).word(5), "ca_left(1)", true},
    {"leaving while joining", joining, MKA_LEAVE_CA_RREQ, octets(100, 1).text(ca, 64), "ca_left(1)"},
    {"a confirmed leave", joining, MKA_LEAVE_CA_CFM, octets(4, 1), "ca_left(1)"},
    {"a request before the join", joining, MKA_CREATE_TX_SA_RREQ, sa_request(16, 184), "", true},
    {"a join twice", joined, MKA_JOIN_CA_CFM, octets(3, 1).word(0), "", true},
    {"leaving once joined", joined, MKA_LEAVE_CA_RREQ, octets(100, 1).text(ca, 64), "", true},
    {"a transmit channel", joined, MKA_CREATE_TX_SC_CFM, octets(100, 1), "tx_sc_cfm(1)"},
    {"a refused transmit channel", joined, MKA_CREATE_TX_SC_REJ, octets(100, 1).word(17), "tx_sc_rej(1)"},
    {"a receive channel", joined, MKA_CREATE_RX_SC_RREQ, octets(102, 1).text(ca, 64).fill(7, 8),
     "rx_sc_req(1)"},
    {"a receive channel in another CA", joined, MKA_CREATE_RX_SC_RREQ,
     octets(102, 1).text("CA_mp3_A_mp7_C", 64).fill(7, 8), "ca_left(1)", true},
    {"a name without an end", joined, MKA_UPDATE_PROTECT_FRAMES_RREQ,
     octets(105, 1).text(ca + std::string(50, 'x'), 64).word(1), "ca_left(1)", true},
    {"a transmit key", joined, MKA_CREATE_TX_SA_RREQ, sa_request(16, 184), "tx_sa_req(1)"},
    {"a receive key", joined, MKA_CREATE_RX_SA_RREQ, sa_request(32, 200), "rx_sa_req(1)"},
    {"a key without bytes", joined, MKA_CREATE_TX_SA_RREQ, sa_request(0, 184), "ca_left(1)", true},
    {"a key shorter than said", joined, MKA_CREATE_TX_SA_RREQ, sa_request(32, 184), "", true},
    {"a key length that wraps", joined, MKA_CREATE_RX_SA_RREQ, sa_request(0xffffffff, 169), "", true},
    {"the shortest key", joined, MKA_CREATE_RX_SA_RREQ, sa_request(1, 169), "rx_sa_req(1)"},
    {"no room for a key", joined, MKA_CREATE_RX_SA_RREQ, sa_request(1, 168), "", true},
    {"a key for another CA", joined, MKA_CREATE_RX_SA_RREQ, sa_request(16, 184, "CA"), "ca_left(1)", true},
    {"a confirmation nobody waits for", joined, MKA_CONNECTION_CLOSE_CFM, octets(0, 1), "close_cfm(1)"},
    {"a confirmation before anything", created, MKA_CONNECTION_CLOSE_CFM, octets(0, 1), "", true},
    {"an expiry before anything", created, MKA_CLIENT_HEARTBEAT_TIMEOUT_IND, octets(0, 1), ""},
    {"a late expiry", locating, MKA_CLIENT_HEARTBEAT_TIMEOUT_IND, octets(0, 1), ""},
    {"a truncated expiry", joined, MKA_CLIENT_HEARTBEAT_TIMEOUT_IND, octets(0, 1).resize(8), "", true},
};

TEST_F(mka_client, takes_each_answer_for_what_it_is) {
    for (bool deleted : {false, true}) {
        for (const answer_row& row : answers) {
            SCOPED_TRACE(row.rule);
            events.clear();
            bring_to(row.at);
            mailbox = row.at <= locating ? root() : mailbox;
            forget_traces();
            client_is_deleted_from_inside = deleted;
            answer(row.number, row.bytes);
            EXPECT_TRUE(consumed_);
            EXPECT_EQ(events, row.events);
            EXPECT_EQ(take_errors() != "", row.is_error);
            client_is_deleted_from_inside = false;
            EXPECT_EQ(mka_client_delete(1), row.events.empty() || !deleted);
            settle();
            server.forget_all();
            EXPECT_EQ(oka::simulation::live().timers, 0u);
        }
    }
    finish();
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
    EXPECT_EQ(take_errors(), "");
    EXPECT_FALSE(mka_client_send_create_rx_sa_rcfm(2, 9));
}

TEST_F(mka_client, asks_for_a_heartbeat_2500_ms_after_each_confirmation) {
    bring_to(joining);
    advance(2499);
    for (int round = 0; round < 3; round++) {
        answer(MKA_HEARTBEAT_CFM, octets(5, 1));
        EXPECT_EQ(take_errors(), "");
        answer(MKA_HEARTBEAT_CFM, octets(5, 1)); // once too often
        EXPECT_NE(take_errors(), "");
        advance(2499);
        EXPECT_TRUE(server.is_silent());
        advance(1);
        EXPECT_EQ(server.take(MKA_HEARTBEAT_REQ).hex(), "00 00 00 05 00 00 00 2a");
        advance(2499);
        EXPECT_EQ(events, "");
    }
    advance(1);
    EXPECT_EQ(events, "ca_left(1)");
    // Nothing is supervised any more.
    EXPECT_EQ(oka::simulation::live().monitors, 0u);
    EXPECT_EQ(oka::simulation::live().timers, 0u);
    EXPECT_TRUE(server.is_silent());
    finish();
}

TEST_F(mka_client, keeps_one_heartbeat_when_a_confirmation_comes_with_the_expiry_behind_it) {
    bring_to(joined);
    server.send_bytes(mailbox, MKA_HEARTBEAT_CFM, octets(5, 1).data(), 12);
    oka::simulation::advance_ms(2500);
    oka::simulation::queue_due_timers();
    settle();
    for (int round = 0; round < 2; round++) {
        EXPECT_EQ(oka::simulation::live().timers, 1u);
        server.take(MKA_HEARTBEAT_REQ);
        answer(MKA_HEARTBEAT_CFM, octets(5, 1));
        advance(2499);
        EXPECT_TRUE(server.is_silent()) << server.waiting();
        advance(1);
    }
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

TEST_F(mka_client, joins_from_created_and_left_only) {
    EXPECT_FALSE(mka_client_join_ca(1, ca, "mka-key-server", 1, nullptr));
    bring_to(joining);
    EXPECT_FALSE(mka_client_join_ca(1, ca, "mka-key-server", 1, nullptr));
    // Left at the server's word, the connection stays: the answer still goes out, a new join does not.
    answer(MKA_LEAVE_CA_RREQ, octets(100, 1).text(ca, 64));
    EXPECT_EQ(server.take(MKA_LEAVE_CA_RCFM).hex(), "00 00 00 64 00 00 00 2a");
    EXPECT_FALSE(mka_client_join_ca(1, ca, "mka-key-server", 1, nullptr));
    server.disappear();
    settle();
    EXPECT_EQ(events, "ca_left(1)ca_left(1)");
    EXPECT_TRUE(mka_client_join_ca(1, ca, "mka-key-server", 1, nullptr));
}

TEST_F(mka_client, believes_its_server_and_messaging_alone) {
    test::peer stranger("stranger");
    auto say = [&](uint32_t number, const octets& bytes) {
        stranger.send_bytes(mailbox, number, bytes.data(), bytes.size());
        settle();
        EXPECT_TRUE(stranger.is_silent());
    };
    bring_to(establishing);
    forget_traces();
    const std::string wrong_mailbox =
        "is received from wrong mailbox. Actual: " + std::to_string(stranger.mailbox()) +
        ", expected: " + std::to_string(server.mailbox());
    say(MKA_CONNECTION_ESTABLISH_CFM, octets(101, 43).word(1));
    EXPECT_EQ(take_errors(), "TAVU: 'MKA_CONNECTION_ESTABLISH_CFM' " + wrong_mailbox + "\n");
    EXPECT_TRUE(mka_client_delete(1));
    bring_to(joined);
    forget_traces();
    for (const answer_row& row : answers) {
        if (row.at == joined && row.number != MKA_CLIENT_HEARTBEAT_TIMEOUT_IND && !row.is_error)
            say(row.number, row.bytes);
    }
    EXPECT_TRUE(traced("TAVU: 'MKA_CREATE_TX_SA_RREQ' " + wrong_mailbox));
    for (uint32_t number : {MKA_CLIENT_HEARTBEAT_TIMEOUT_IND, MKA_SERVER_UP_IND, MKA_SERVER_DOWN_IND}) {
        forget_traces();
        say(number, octets(0, 1));
        server.send(mailbox, number, message_header{{}, 0, 1}); // nor is it the server's to say
        settle();
        EXPECT_NE(take_errors(), "");
    }
    EXPECT_EQ(events, "");
}

TEST_F(mka_client, fails_to_join_under_a_name_that_is_taken) {
    test::peer thief("mka-client-1");
    EXPECT_EQ(mka_client_create(), 1u);
    EXPECT_FALSE(mka_client_join_ca(1, ca, "mka-key-server", 1, nullptr));
    thief.disappear();
    EXPECT_TRUE(mka_client_join_ca(1, ca, "mka-key-server", 1, nullptr));
}

TEST_F(mka_client, gives_the_lowest_free_id_to_at_most_32) {
    for (uint32_t id = 1; id <= 32; id++)
        EXPECT_EQ(mka_client_create(), id);
    EXPECT_EQ(mka_client_create(), 0u);
    EXPECT_TRUE(mka_client_delete(17));
    EXPECT_TRUE(mka_client_delete(5));
    EXPECT_FALSE(mka_client_delete(5));
    EXPECT_EQ(mka_client_create(), 5u);
    EXPECT_EQ(mka_client_create(), 17u);
}

TEST_F(mka_client, refuses_what_its_state_does_not_allow) {
    EXPECT_TRUE(mka_client_stop());
    EXPECT_FALSE(mka_client_init(root(), &callbacks));
    EXPECT_FALSE(mka_client_stop());
    EXPECT_EQ(mka_client_create(), 0u);
    EXPECT_FALSE(mka_client_delete(1));
    EXPECT_FALSE(mka_client_join_ca(1, ca, "mka-key-server", 1, nullptr));
    EXPECT_FALSE(mka_client_send_create_tx_sc_req(1, 1, own_sci));
}

} // namespace
