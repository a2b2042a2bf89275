// The MACsec service between clients that are mailboxes of the test and a port manager that only notes what
// reaches it.
#include "tavu/oxmsi/oxmsi_server.h"

#include "support/world.h"

using namespace tavu;

namespace {

std::string events; // what went up, in order

void note(const char* what, uint32_t client_id, uint32_t procedure, const std::string& rest) {
    events += std::string(what) + " " + std::to_string(client_id) + "/" + std::to_string(procedure) + " " +
              rest + "\n";
}
std::string describe(const oxmsi_link& link) {
    return std::string(link.port.c_str()) + " " + std::to_string(link.link_id) + " " +
           link.remote_port.printable().c_str() + " " + std::to_string(link.remote_mpid) + " " +
           std::to_string(link.du_type) + " " + std::to_string(link.link_status);
}

constexpr oxmsi_callbacks callbacks = {
    [](uint32_t client, uint32_t procedure, const oxmsi_link& link, const oka_hunt_path& path) {
        note("added", client, procedure, describe(link) + " " + path.printable().c_str());
    },
    [](uint32_t client, uint32_t procedure, const char* port, uint32_t link_id) {
        note("deleted", client, procedure, port + (" " + std::to_string(link_id)));
    },
    [](uint32_t client, uint32_t procedure, const oxmsi_link& link) {
        note("updated", client, procedure, describe(link));
    },
    [](uint32_t client, uint32_t procedure, const char* port) { note("subscribe", client, procedure, port); },
    [](uint32_t client, uint32_t procedure, const char* port) {
        note("unsubscribe", client, procedure, port);
    },
    [](uint32_t client) { events += "down " + std::to_string(client) + "\n"; },
    [](uint32_t client) { events += "closed " + std::to_string(client) + "\n"; },
};

// Big-endian words behind the number.
std::vector<uint8_t> words(std::initializer_list<uint32_t> values) {
    std::vector<uint8_t> bytes(4);
    for (uint32_t value : values) {
        for (int shift = 24; shift >= 0; shift -= 8)
            bytes.push_back(static_cast<uint8_t>(value >> shift));
    }
    return bytes;
}

class macsec_service : public test::world {
  protected:
    macsec_service() {
        events.clear();
        route_to([](const oka_message* message) { EXPECT_TRUE(oxmsi_dispatch_message(message)); });
        EXPECT_TRUE(oxmsi_server_init(root(), &callbacks));
        EXPECT_TRUE(oxmsi_server_start());
    }

    void publish() {
        EXPECT_TRUE(oxmsi_server_publish("oxmsi"));
        oka_message* prepared = oka_alloc(4, OXMSI_SERVER_UP_IND);
        oka_locate_async("oxmsi", &prepared, manager_.mailbox());
        settle();
        service_ = manager_.take(OXMSI_SERVER_UP_IND).sender();
    }

    void send(test::peer& from, uint32_t number, const std::vector<uint8_t>& bytes) {
        from.send_bytes(service_, number, bytes.data(), bytes.size());
        settle();
    }
    // The id that the client was given.
    uint32_t connect(test::peer& from, uint32_t reference) {
        send(from, OXMSI_CONNECTION_ESTABLISH_REQ, words({7, reference, 1, 1}));
        return from.take(OXMSI_CONNECTION_ESTABLISH_CFM).as<message_header>().connection_reference;
    }
    void close(test::peer& from, uint32_t client_id) {
        send(from, OXMSI_CONNECTION_CLOSE_REQ, words({8, client_id}));
        from.take(OXMSI_CONNECTION_CLOSE_CFM);
    }
    // Of everything that waits: number and bytes, one a line.
    static std::string taken(test::peer& from) {
        std::string all;
        while (!from.is_silent()) {
            uint32_t number = static_cast<uint32_t>(std::stoul(from.waiting().substr(2), nullptr, 16));
            all += std::string(oxmsi_msg_no_to_str(number)) + ": " + from.take(number).hex() + "\n";
        }
        return all;
    }

    test::peer manager_{"manager"};
    oka_mailbox service_ = OKA_MAILBOX_NONE;
};

TEST_F(macsec_service, answers_about_the_connection_in_these_bytes) {
    publish();
    send(manager_, OXMSI_CONNECTION_ESTABLISH_REQ,
         words({7, 900, 2, 3, 1})); // version 1 is the second choice
    EXPECT_EQ(taken(manager_), "OXMSI_CONNECTION_ESTABLISH_CFM: 00 00 00 07 00 00 00 01 00 00 00 01\n");
    send(manager_, OXMSI_CAPABILITIES_GET_REQ, words({8, 1}));
    EXPECT_EQ(taken(manager_), "OXMSI_CAPABILITIES_GET_CFM: 00 00 00 08 00 00 03 84 "
                               "00 00 00 01 00 00 00 01 00 00 00 08\n");
    // Who asks gets the answer.
    test::peer other("other");
    send(other, OXMSI_CAPABILITIES_GET_REQ, words({8, 1}));
    EXPECT_EQ(taken(other), "OXMSI_CAPABILITIES_GET_CFM: 00 00 00 08 00 00 03 84 "
                            "00 00 00 01 00 00 00 01 00 00 00 08\n");
    EXPECT_EQ(taken(manager_), "");
    send(manager_, OXMSI_CONNECTION_CLOSE_REQ, words({9, 1}));
    EXPECT_EQ(taken(manager_), "OXMSI_CONNECTION_CLOSE_CFM: 00 00 00 09 00 00 03 84\n");
    EXPECT_EQ(events, "closed 1\n");
    send(manager_, OXMSI_CONNECTION_CLOSE_REQ, words({9, 1}));
    EXPECT_TRUE(manager_.is_silent());
    // A request without a sender could never be answered, nor its client's end be noticed.
    EXPECT_EQ(oka::simulation::live().monitors, 0u);
    std::vector<uint8_t> request = words({7, 900, 1, 1});
    test::prepare_bytes(OXMSI_CONNECTION_ESTABLISH_REQ, request.data(), request.size());
    // That a mailbox is gone is what messaging says, and no other mailbox.
    EXPECT_EQ(connect(manager_, 1), 1u);
    send(manager_, OXMSI_CLIENT_DOWN_IND, words({}));
    EXPECT_EQ(events, "closed 1\n");
    EXPECT_EQ(oka::simulation::live().monitors, 1u);
}

TEST_F(macsec_service, refuses_or_drops_connection_requests_that_are_not_right) {
    publish();
    ASSERT_EQ(connect(manager_, 900), 1u);
    std::string rej = "OXMSI_CONNECTION_ESTABLISH_REJ: 00 00 00 07 00 00 03 ";
    const struct {
        const char* rule;
        std::vector<uint8_t> request;
        std::string answer;
    } rows[] = {
        {"shorter than one version", words({7, 900, 0}), ""},
        {"no version, even of a known client", words({7, 900, 0, 1}), rej + "84 00 00 00 02\n"},
        {"other versions only", words({7, 901, 1, 2}), rej + "85 00 00 00 02\n"},
        {"more versions than announced", words({7, 902, 1, 1, 1}), ""},
        {"a count whose size wraps to the right one", words({7, 902, 0x40000001, 1}), ""},
        {"known, before its versions are looked at", words({7, 900, 1, 2}), rej + "84 00 00 00 01\n"},
    };
    for (const auto& row : rows) {
        SCOPED_TRACE(row.rule);
        forget_traces();
        send(manager_, OXMSI_CONNECTION_ESTABLISH_REQ, row.request);
        EXPECT_EQ(taken(manager_), row.answer);
        EXPECT_NE(take_errors(), "");
    }
}

TEST_F(macsec_service, gives_the_lowest_free_id_to_at_most_32_clients) {
    publish();
    for (uint32_t id = 1; id <= 32; id++)
        ASSERT_EQ(connect(manager_, 100 + id), id);
    send(manager_, OXMSI_CONNECTION_ESTABLISH_REQ, words({7, 200, 1, 1}));
    EXPECT_EQ(manager_.take(OXMSI_CONNECTION_ESTABLISH_REJ).as<oxmsi_rej>().reason, 3u);
    close(manager_, 5);
    close(manager_, 3);
    EXPECT_EQ(connect(manager_, 200), 3u);
    EXPECT_EQ(connect(manager_, 201), 5u);
}

TEST_F(macsec_service, watches_each_mailbox_once_and_as_long_as_it_has_clients) {
    publish();
    test::peer other("other");
    EXPECT_EQ(connect(manager_, 1), 1u);
    EXPECT_EQ(connect(manager_, 2), 2u);
    EXPECT_EQ(connect(other, 1), 3u); // a reference is the mailbox's own
    EXPECT_EQ(oka::simulation::live().monitors, 2u);
    close(manager_, 1);
    EXPECT_EQ(oka::simulation::live().monitors, 2u);
    close(manager_, 2);
    EXPECT_EQ(oka::simulation::live().monitors, 1u);

    EXPECT_EQ(connect(other, 2), 1u);
    events.clear();
    other.disappear();
    settle();
    EXPECT_EQ(events, "down 1\ndown 3\n"); // the newest first
    EXPECT_EQ(oka::simulation::live().monitors, 0u);
}

struct request {
    uint32_t number;
    size_t size;
    const char* port = "IDL_A1";
    uint32_t du_type = 2;
    uint32_t status = 11;
    uint32_t client = 1;
    bool from_stranger = false;
};

std::vector<uint8_t> bytes_of(const request& request) {
    std::vector<uint8_t> bytes = words({5, request.client});
    std::vector<uint8_t> link = words({17, 21, 7, 22, request.du_type, request.status});
    bytes.resize(133);
    strncpy(reinterpret_cast<char*>(&bytes[12]), request.port, 16);
    memcpy(&bytes[28], "IDL_B2", 6);
    memcpy(&bytes[44], &link[4], 24);
    memcpy(&bytes[68], "unit-7", 6);
    if (request.number == OXMSI_IDL_TOPOLOGY_PUBLISH_LINK_DELETED_REQ)
        memcpy(&bytes[28], &link[4], 4);
    bytes.resize(request.size);
    return bytes;
}

TEST_F(macsec_service, checks_requests_in_order_and_hands_right_ones_up) {
    publish();
    test::peer stranger("stranger");
    ASSERT_EQ(connect(manager_, 900), 1u);
    constexpr uint32_t added = OXMSI_IDL_TOPOLOGY_PUBLISH_LINK_ADDED_REQ;
    constexpr uint32_t deleted = OXMSI_IDL_TOPOLOGY_PUBLISH_LINK_DELETED_REQ;
    constexpr uint32_t updated = OXMSI_IDL_TOPOLOGY_PUBLISH_LINK_UPDATED_REQ;
    constexpr uint32_t subscribe = OXMSI_PORT_STATE_CHANGE_SUBSCRIBE_REQ;
    constexpr uint32_t unsubscribe = OXMSI_PORT_STATE_CHANGE_UNSUBSCRIBE_REQ;
    constexpr const char* long_name = "sixteen_letters_";
    auto reject = [](const char* name, char reason) {
        return std::string("OXMSI_") + name + "_REJ: 00 00 00 05 00 00 03 84 00 00 00 0" + reason + "\n";
    };
    const struct {
        const char* rule;
        request sent;
        std::string outcome; // what went up, what was answered; nothing when the request is dropped
    } rows[] = {
        {"right", {added, 132}, "added 1/5 IDL_A1 17 IDL_B2 7 2 11 unit-7\n"},
        {"right", {deleted, 32}, "deleted 1/5 IDL_A1 17\n"},
        {"values are not checked", {updated, 68, "IDL_A1", 3, 12}, "updated 1/5 IDL_A1 17 IDL_B2 7 3 12\n"},
        {"right", {subscribe, 28}, "subscribe 1/5 IDL_A1\n"},
        {"right", {unsubscribe, 28}, "unsubscribe 1/5 IDL_A1\n"},
        {"size comes first", {added, 131, long_name, 0, 12, 9, true}, ""},
        {"size", {added, 133}, ""},
        {"size", {subscribe, 27}, ""},
        {"size", {unsubscribe, 4}, ""},
        {"client comes next", {added, 132, long_name, 0, 12, 2, true}, ""},
        {"then sender", {added, 132, long_name, 0, 12, 1, true}, ""},
        {"then name", {added, 132, long_name, 0, 12}, reject("IDL_TOPOLOGY_PUBLISH_LINK_ADDED", '5')},
        {"name", {deleted, 32, long_name}, reject("IDL_TOPOLOGY_PUBLISH_LINK_DELETED", '5')},
        {"name", {updated, 68, long_name}, reject("IDL_TOPOLOGY_PUBLISH_LINK_UPDATED", '5')},
        {"name", {subscribe, 28, long_name}, reject("PORT_STATE_CHANGE_SUBSCRIBE", '5')},
        {"name is no reason to refuse",
         {unsubscribe, 28, long_name},
         "OXMSI_PORT_STATE_CHANGE_UNSUBSCRIBE_CFM: 00 00 00 05 00 00 03 84\n"},
        {"then type", {added, 132, "IDL_A1", 3, 12}, reject("IDL_TOPOLOGY_PUBLISH_LINK_ADDED", '6')},
        {"then status", {added, 132, "IDL_A1", 2, 12}, reject("IDL_TOPOLOGY_PUBLISH_LINK_ADDED", '7')},
    };
    for (const auto& row : rows) {
        SCOPED_TRACE(std::string(oxmsi_msg_no_to_str(row.sent.number)) + ": " + row.rule);
        events.clear();
        forget_traces();
        send(row.sent.from_stranger ? stranger : manager_, row.sent.number, bytes_of(row.sent));
        EXPECT_EQ(events + taken(manager_), row.outcome);
        EXPECT_EQ(take_errors() == "", events != "" && !strcmp(row.sent.port, "IDL_A1"));
    }
}

TEST_F(macsec_service, sends_answers_in_these_bytes_to_known_clients_while_published) {
    struct row {
        std::function<bool(uint32_t client)> send;
        const char* bytes;
        bool may_be_lost = false;
    };
    const std::string head = "00 00 00 05 00 00 03 84";
    const std::string port = " 49 44 4c 5f 41 31 00 00 00 00 00 00 00 00 00 00";
    const row rows[] = {
        {[](uint32_t client) { return send_oxmsi_idl_link_added_cfm(client, 5, "IDL_A1", 1, 0); },
         "_IDL_TOPOLOGY_PUBLISH_LINK_ADDED_CFM: HP 00 00 00 01 00 00 00 00"},
        {[](uint32_t client) { return send_oxmsi_idl_link_deleted_cfm(client, 5, "IDL_A1", 1, 0); },
         "_IDL_TOPOLOGY_PUBLISH_LINK_DELETED_CFM: HP 00 00 00 01 00 00 00 00"},
        {[](uint32_t client) { return send_oxmsi_idl_link_updated_cfm(client, 5, "IDL_A1", 0, 1); },
         "_IDL_TOPOLOGY_PUBLISH_LINK_UPDATED_CFM: HP 00 00 00 00 00 00 00 01"},
        {[](uint32_t client) { return send_oxmsi_idl_link_added_rej(client, 5, 11); },
         "_IDL_TOPOLOGY_PUBLISH_LINK_ADDED_REJ: H 00 00 00 0b"},
        {[](uint32_t client) { return send_oxmsi_idl_link_deleted_rej(client, 5, 13); },
         "_IDL_TOPOLOGY_PUBLISH_LINK_DELETED_REJ: H 00 00 00 0d"},
        {[](uint32_t client) { return send_oxmsi_idl_link_updated_rej(client, 5, 10); },
         "_IDL_TOPOLOGY_PUBLISH_LINK_UPDATED_REJ: H 00 00 00 0a"},
        {[](uint32_t client) { return send_oxmsi_subscribe_port_status_cfm(client, 5); },
         "_PORT_STATE_CHANGE_SUBSCRIBE_CFM: H"},
        {[](uint32_t client) { return send_oxmsi_subscribe_port_status_rej(client, 5, 9); },
         "_PORT_STATE_CHANGE_SUBSCRIBE_REJ: H 00 00 00 09"},
        {[](uint32_t client) { return send_oxmsi_unsubscribe_port_status_cfm(client, 5); },
         "_PORT_STATE_CHANGE_UNSUBSCRIBE_CFM: H"},
        {[](uint32_t client) { return send_oxmsi_macsec_port_status_ind(client, 5, "IDL_A1", 0, 1); },
         "_PORT_STATE_CHANGE_IND: HP 00 00 00 01 00 00 00 00", true},
    };
    publish();
    ASSERT_EQ(connect(manager_, 900), 1u);
    for (const row& row : rows) {
        std::string expected = row.bytes;
        size_t at = expected.find(": H");
        bool with_port = expected[at + 3] == 'P';
        expected.replace(at + 2, with_port ? 2 : 1, with_port ? head + port : head);
        SCOPED_TRACE(expected);
        EXPECT_TRUE(row.send(1));
        settle();
        EXPECT_EQ(taken(manager_), "OXMSI" + expected + "\n");
        EXPECT_FALSE(row.send(2));
    }
    EXPECT_TRUE(oxmsi_server_unpublish());
    for (const row& row : rows) {
        // A status indication may be lost while nobody can hear it; an answer may not.
        EXPECT_EQ(row.send(1), row.may_be_lost) << row.bytes;
    }
}

TEST_F(macsec_service, starts_and_stops_in_turn_and_forgets_its_clients_without_a_word) {
    EXPECT_FALSE(oxmsi_server_start());
    EXPECT_FALSE(oxmsi_server_unpublish());
    publish();
    EXPECT_FALSE(oxmsi_server_publish("oxmsi"));
    ASSERT_EQ(connect(manager_, 1), 1u);
    EXPECT_TRUE(oxmsi_server_stop());
    EXPECT_FALSE(oxmsi_server_stop());
    EXPECT_EQ(events, "");
    EXPECT_EQ(oka::simulation::live().monitors, 0u);
    EXPECT_TRUE(oxmsi_server_start());
    publish(); // the name is free again
    EXPECT_EQ(connect(manager_, 2), 1u);

    // Unpublished, it hears of the death of its clients all the same.
    EXPECT_TRUE(oxmsi_server_unpublish());
    manager_.disappear();
    settle();
    EXPECT_EQ(events, "down 1\n");
    EXPECT_TRUE(oxmsi_server_stop());
    expect_nothing_left();
}

} // namespace
