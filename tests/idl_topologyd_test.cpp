#include <cstdio>
#include <cstdlib>
#include <optional>

#include <unistd.h>

#include "services/common/topology_messages.h"
#include "services/idl-topologyd/command_line.h"
#include "services/idl-topologyd/links_file.h"
#include "services/idl-topologyd/topologyd.h"
#include "support/world.h"

using namespace tavu;
using namespace services;
using namespace topologyd;

namespace {

constexpr uint32_t ADDED = OXMSI_IDL_TOPOLOGY_PUBLISH_LINK_ADDED_REQ;
constexpr uint32_t UPDATED = OXMSI_IDL_TOPOLOGY_PUBLISH_LINK_UPDATED_REQ;
constexpr uint32_t DELETED = OXMSI_IDL_TOPOLOGY_PUBLISH_LINK_DELETED_REQ;
constexpr uint32_t SUBSCRIBE = OXMSI_PORT_STATE_CHANGE_SUBSCRIBE_REQ;
constexpr uint32_t UNSUBSCRIBE = OXMSI_PORT_STATE_CHANGE_UNSUBSCRIBE_REQ;

constexpr const char* link_a1 = "[[link]]\nport='IDL_A1'\nid=1\nremote-port='IDL_C2'\nremote-mpid=7\n"
                                "hunt-path='site/mp7'\n";
constexpr const char* link_b1 = "[[link]]\nport='IDL_B1'\nid=2\nremote-port='IDL_D1'\nremote-mpid=9\n"
                                "du-type='type-2'\nstatus='down'\n";

// As the first, but to a unit that secures nothing: what is published is up to this end alone.
constexpr const char* link_clear = "[[link]]\nport='IDL_A1'\nid=1\nremote-port='IDL_C2'\nremote-mpid=7\n"
                                   "du-type='type-2'\nhunt-path='site/mp7'\n";

struct port_state {
    uint32_t oper;
    uint32_t encryption;
};
constexpr port_state secured = {1, 1};
constexpr port_state joining = {0, 0};
constexpr port_state unsecured = {1, 0};

// idl-topologyd, with a daemon and a person whose words the test chooses.
class idl_topologyd : public test::world {
  protected:
    idl_topologyd() {
        EXPECT_TRUE(mkdtemp(directory));
        path = std::string(directory) + "/links.toml";
        route_to(topologyd_dispatch_message);
    }
    ~idl_topologyd() override {
        topologyd_stop();
        daemon.reset();
        other.reset();
        expect_nothing_left();
        unlink(path.c_str());
        rmdir(directory);
    }

    // Replaces the file as editors do.
    void write_file(const std::string& content) {
        std::string draft = path + ".new";
        FILE* file = fopen(draft.c_str(), "w");
        ASSERT_TRUE(file);
        fputs(content.c_str(), file);
        fclose(file);
        ASSERT_EQ(rename(draft.c_str(), path.c_str()), 0);
        settle();
    }
    void start(const std::string& content) {
        write_file(content);
        manager = oka_clone_mailbox(root(), topology_mailbox_name);
        EXPECT_TRUE(topologyd_start(manager, path.c_str()));
        settle();
    }

    // The daemon appears and takes the connection under client id 5.
    void daemon_appears() {
        daemon.emplace("oxmsi");
        settle();
        auto request = daemon->take(OXMSI_CONNECTION_ESTABLISH_REQ);
        const auto& header = request.as<message_header>();
        connection = header.connection_reference;
        reply(OXMSI_CONNECTION_ESTABLISH_CFM, header.procedure_reference, 5, {1});
    }
    void start_connected(const std::string& content) {
        start(content);
        daemon_appears();
    }
    // One link, asked for and confirmed, its subscription running.
    void start_published() {
        start_connected(link_clear);
        indicate(take_reference(SUBSCRIBE), joining);
        confirm(take_reference(ADDED), ADDED, secured);
        daemon->forget_all();
    }

    uint32_t take_reference(uint32_t number) {
        return daemon->take(number).as<message_header>().procedure_reference;
    }
    void reply(uint32_t number, uint32_t procedure, uint32_t reference,
               std::initializer_list<uint32_t> words) {
        be32 bytes[8] = {0u, procedure, reference};
        size_t count = 3;
        for (uint32_t word : words)
            bytes[count++] = word;
        daemon->send_bytes(manager, number, bytes, count * 4);
        settle();
    }
    void tell(uint32_t number, uint32_t procedure, port_state state, const char* port = "IDL_A1") {
        oxmsi_port_status status{};
        status.header.procedure_reference = procedure;
        status.header.connection_reference = connection;
        status.port.assign(port);
        status.oper_state = state.oper;
        status.encryption_state = state.encryption;
        daemon->send(manager, number, status);
        settle();
    }
    void confirm(uint32_t procedure, uint32_t request, port_state state) {
        tell(request + 1, procedure, state);
    }
    void indicate(uint32_t procedure, port_state state) {
        tell(OXMSI_PORT_STATE_CHANGE_IND, procedure, state);
    }
    void reject(uint32_t procedure, uint32_t request, uint32_t reason) {
        reply(request + 2, procedure, connection, {reason});
    }

    // The manager at the other end, MP 7, appears and says that it is ready.
    void other_end_appears() {
        other.emplace("site/mp7/idl-topologyd");
        says = {};
        says.version = topology_peer_version;
        says.port.assign("IDL_C2");
        says.remote_port.assign("IDL_A1");
        says.remote_mpid = own_mpid;
        says.life = 1000;
        settle();
        other_says(TOPOLOGY_PHASE_DOWN);
    }
    void other_says(topology_phase phase) {
        (void)heard();
        says.phase = phase;
        says.seen_life = told.life;
        other->send(manager, TOPOLOGY_PEER_LINK_IND, says);
        settle();
    }
    void other_starts_over(topology_phase phase) {
        says.life = says.life + 1;
        other_says(phase);
    }
    // What the other end was told last.
    const topology_peer_link_ind& heard() {
        while (!other->is_silent())
            told = other->take(TOPOLOGY_PEER_LINK_IND).as<topology_peer_link_ind>();
        return told;
    }
    // A link that is to be secured, down at both ends.
    void start_ready(uint32_t mpid = 3) {
        own_mpid = mpid;
        start_connected(link_a1);
        indicate(take_reference(SUBSCRIBE), unsecured);
        confirm(take_reference(ADDED), ADDED, unsecured);
        other_end_appears();
    }
    // The link is published up; returns the reference, and begins the subscription that goes with it.
    uint32_t take_up() {
        auto update = daemon->take(UPDATED);
        EXPECT_EQ(update.as<oxmsi_link_updated_req>().link.link_status, OXMSI_LTM_LINK_STATUS_UP);
        renew();
        return update.as<message_header>().procedure_reference;
    }
    void renew() {
        daemon->take(UNSUBSCRIBE);
        subscription = take_reference(SUBSCRIBE);
    }
    void start_encrypted() {
        start_ready();
        become_encrypted(take_up());
    }
    // Published up already, the link is secured, and that is indicated.
    void become_encrypted(uint32_t up) {
        indicate(subscription, joining);
        other_says(TOPOLOGY_PHASE_JOINING);
        confirm(up, UPDATED, secured);
        renew();
        indicate(subscription, secured);
        other_says(TOPOLOGY_PHASE_ENCRYPTED);
    }
    // The daemon is asked to forget the link and to take it as new.
    void take_anew() {
        confirm(take_reference(DELETED), DELETED, unsecured);
        confirm(take_reference(ADDED), ADDED, unsecured);
    }
    // The link is published down, and that is confirmed.
    void take_down() {
        auto update = daemon->take(UPDATED);
        EXPECT_EQ(update.as<oxmsi_link_updated_req>().link.link_status, OXMSI_LTM_LINK_STATUS_DOWN);
        confirm(update.as<message_header>().procedure_reference, UPDATED, unsecured);
    }

    // What a person sends, and the link as it is shown to one that asks.
    void ask(test::peer& person, uint32_t number, uint32_t version = topology_protocol_version) {
        topology_req request{};
        request.header.procedure_reference = 77;
        request.version = version;
        person.send(manager, number, request);
        settle();
    }
    void set_status(test::peer& person, const char* port, uint32_t status) {
        topology_link_set_req request{};
        request.version = topology_protocol_version;
        request.port.assign(port);
        request.status = status;
        person.send(manager, TOPOLOGY_LINK_SET_REQ, request);
        settle();
    }
    uint32_t take_reject(test::peer& person, uint32_t number) {
        return person.take(number).as<topology_rej>().reason;
    }
    topology_link shown_link(const test::received& snapshot) {
        EXPECT_EQ(snapshot.size(), sizeof(topology_snapshot) + sizeof(topology_link));
        topology_link link{};
        if (snapshot.size() >= sizeof(topology_snapshot) + sizeof link)
            memcpy(&link, &tavu::as<topology_snapshot>(snapshot.message()) + 1, sizeof link);
        return link;
    }

    char directory[32] = "/tmp/links-test-XXXXXX";
    std::string path;
    oka_mailbox manager = OKA_MAILBOX_NONE;
    std::optional<test::peer> daemon;
    uint32_t connection = 0;
    uint32_t subscription = 0;
    std::optional<test::peer> other;
    topology_peer_link_ind says{}; // what it says next
    topology_peer_link_ind told{}; // what it heard last
    uint32_t own_mpid = 3;
};

// --- The links file.

TEST(links_file, tells_file_line_key_and_remedy) {
    const std::string good = link_a1;
    const struct {
        const char* rule;
        std::string content;
        const char* error;
    } cases[] = {
        {"syntax", "[[link]\n", "F:1: not valid TOML"},
        {"empty", "", "F: no link is defined; write link = []"},
        {"stray key", "links=[]\nlink=[]", "F:1: unknown key 'links'"},
        {"not a list", "link=3", "F:1: 'link' must be a list"},
        {"not a table", "link=[3]", "F:1: every link must be a table"},
        {"unknown key", good + "mtu=9000\n", "F:7: link 'IDL_A1': unknown key 'mtu'; the keys of a link are"},
        {"missing key", "[[link]]\nport='P'\nremote-port='P'\nremote-mpid=7\nhunt-path='x'\n",
         "F:1: link 'P': key 'id' is missing; add id = (a number)"},
        {"hunt path of type 3", "[[link]]\nport='P'\nid=1\nremote-port='P'\nremote-mpid=7\n",
         "F:1: link 'P': key 'hunt-path' is missing"},
        {"wrong type", "[[link]]\nport=7\n", "F:2: link 'without a port': port must be text in quotes"},
        {"name of 16", "[[link]]\nport='IDL_A1_456789012'\n",
         "port is 16 characters long; shorten it to at most 15"},
        {"path of 64", "[[link]]\nport='P'\nhunt-path='" + std::string(64, 'x') + "'\n",
         "hunt-path is 64 characters long; shorten it to at most 63"},
        {"NUL in a name", "[[link]]\nport=\"A\\u0000B\"\n", "port must be printable ASCII"},
        {"number too small", "[[link]]\nport='P'\nid=-1\n", "F:3: link 'P': id is -1; it must be from 0 to"},
        {"number too large", "[[link]]\nport='P'\nid=4294967296\n", "id is 4294967296"},
        {"unknown status", good + "status='UP'\n",
         "F:7: link 'IDL_A1': status is \"UP\"; it must be one of up"},
        {"NUL in a word", good + "status=\"up\\u0000\"\n", "status is"},
        {"unknown kind", good + "du-type='type-1'\n",
         "du-type is \"type-1\"; it must be one of type-2 or type-3"},
        {"same port twice", good + good, "F:7: link 'IDL_A1': the port has a link already"},
    };
    for (const auto& each : cases) {
        links_file file = parse_links(each.content, "F");
        std::string all;
        for (const std::string& error : file.errors)
            all += error + "\n";
        EXPECT_NE(all.find(each.error), std::string::npos) << each.rule << ":\n" << all;
        EXPECT_TRUE(file.links.empty()) << each.rule;
    }
}

TEST(links_file, has_at_most_as_many_links_as_there_are_subscriptions) {
    std::string content;
    for (int i = 0; i < 33; i++) {
        if (i == 32) {
            EXPECT_TRUE(parse_links(content, "F").is_good());
        }
        content += "[[link]]\nport='P" + std::to_string(i) +
                   "'\nid=1\nremote-port='P'\nremote-mpid=7\ndu-type='type-2'\n";
    }
    EXPECT_FALSE(parse_links(content, "F").is_good());
}

TEST(links_file, that_cannot_be_read_is_an_error_and_no_hang) {
    EXPECT_NE(read_links_file("/nonexistent").errors.at(0).find("create it"), std::string::npos);
    EXPECT_NE(read_links_file("/tmp").errors.at(0).find("no regular file"), std::string::npos);
}

TEST(command_line, is_read_or_refused) {
    const struct {
        std::vector<const char*> arguments;
        action wanted;
        const char* text; // in the text or the path
    } cases[] = {
        {{}, action::RUN, "/etc/qel-tavu/links.toml"},
        {{"--links", "f", "--check"}, action::CHECK, "f"},
        {{"--links=f"}, action::RUN, "f"},
        {{"--help", "--check"}, action::TELL, "--links FILE"},
        {{"--links"}, action::REFUSE, "option '--links' needs a value: --links FILE"},
        {{"--check=yes"}, action::REFUSE, "option '--check' takes no value"},
        {{"--links=a", "--links=b"}, action::REFUSE, "given twice"},
        {{"--linkz=a"}, action::REFUSE, "unknown option '--linkz'"},
        {{"--", "--check"}, action::REFUSE, "unexpected argument '--check'"},
    };
    for (const auto& each : cases) {
        topologyd::command_line line = read_command_line(each.arguments);
        EXPECT_EQ(line.wanted, each.wanted) << each.text;
        EXPECT_NE((line.text + line.links_path).find(each.text), std::string::npos) << line.text;
    }
}

// --- Towards the daemon.

TEST_F(idl_topologyd, connects_subscribes_and_publishes) {
    start(std::string(link_a1) + link_b1);
    daemon.emplace("oxmsi");
    settle();
    EXPECT_EQ(daemon->take(OXMSI_CONNECTION_ESTABLISH_REQ).hex(),
              "00 00 00 01 00 00 00 01 00 00 00 01 00 00 00 01");
    reply(OXMSI_CONNECTION_ESTABLISH_CFM, 1, 5, {1});

    // References 2 to 5 of client 5; the names and the path, each filled up with zeros.
    EXPECT_EQ(daemon->take(SUBSCRIBE).hex(),
              "00 00 00 02 00 00 00 05 49 44 4c 5f 41 31 00 00 00 00 00 00 00 00 00 00");
    std::string zeros;
    for (int i = 0; i < 56; i++)
        zeros += " 00";
    EXPECT_EQ(daemon->take(ADDED).hex(),
              "00 00 00 03 00 00 00 05 49 44 4c 5f 41 31 00 00 00 00 00 00 00 00 00 00 "
              "49 44 4c 5f 43 32 00 00 00 00 00 00 00 00 00 00 00 00 00 01 00 00 00 00 00 00 00 07 "
              "00 00 00 00 00 00 00 02 00 00 00 03 73 69 74 65 2f 6d 70 37" +
                  zeros);
    daemon->take(SUBSCRIBE);
    auto added = daemon->take(ADDED);
    EXPECT_EQ(added.as<oxmsi_link_added_req>().link.du_type, 1u);
    EXPECT_EQ(added.as<oxmsi_link_added_req>().link.link_status, 3u);
    EXPECT_TRUE(daemon->is_silent());
}

TEST_F(idl_topologyd, brings_every_change_of_the_file_to_the_daemon) {
    const struct {
        const char* rule;
        const char* from;
        const char* to;
        std::vector<uint32_t> requests; // each confirmed before the next is taken
    } cases[] = {
        {"status", "hunt-path", "status='down'\nhunt-path", {UPDATED}},
        {"kind of unit", "type-2", "type-3", {UPDATED}},
        {"the other end's unit names the association", "=7", "=8", {DELETED, ADDED}},
        {"so does its port", "IDL_C2", "IDL_C3", {DELETED, ADDED}},
        {"hunt path", "site/mp7", "mp7", {DELETED, ADDED}},
        {"link id", "id=1", "id=2", {DELETED, ADDED}},
        {"a comment is no change", "hunt-path", "# note\nhunt-path", {}},
    };
    start_published();
    for (const auto& each : cases) {
        std::string changed = link_clear;
        changed.replace(changed.find(each.from), strlen(each.from), each.to);
        for (const std::string& content : {changed, std::string(link_clear)}) {
            write_file(content);
            for (uint32_t request : each.requests)
                confirm(take_reference(request), request, secured);
            EXPECT_TRUE(daemon->is_silent()) << each.rule << ": " << daemon->waiting();
        }
    }

    write_file(std::string(link_clear) + link_b1);
    daemon->take(SUBSCRIBE);
    confirm(take_reference(ADDED), ADDED, unsecured);
    write_file(link_b1);
    confirm(take_reference(DELETED), DELETED, unsecured);
    daemon->take(UNSUBSCRIBE);
    EXPECT_TRUE(daemon->is_silent()) << daemon->waiting();
}

TEST_F(idl_topologyd, keeps_the_links_in_force_while_the_file_is_bad) {
    start_published();
    forget_traces();
    write_file("[[link]]\nport='IDL_A1'\n");
    EXPECT_TRUE(traced("TOPOLOGYD: The links of the last good file stay in force"));
    unlink(path.c_str());
    settle();
    EXPECT_TRUE(daemon->is_silent()) << daemon->waiting();

    test::peer person("tavuctl-1");
    ask(person, TOPOLOGY_STATUS_REQ);
    indicate(daemon->take(UNSUBSCRIBE) ? take_reference(SUBSCRIBE) : 0, secured);
    auto snapshot = person.take(TOPOLOGY_STATUS_CFM);
    EXPECT_NE(strstr(snapshot.as<topology_snapshot>().file_error.octets, "No such file"), nullptr);
    EXPECT_EQ(shown_link(snapshot).publication, TOPOLOGY_LINK_PUBLISHED);

    // A file that is being written is not read before it is closed.
    FILE* file = fopen(path.c_str(), "w");
    settle();
    fputs("link=[]", file);
    fflush(file);
    settle();
    EXPECT_TRUE(daemon->is_silent());
    fclose(file);
    settle();
    daemon->take(DELETED);
}

TEST_F(idl_topologyd, sends_one_request_at_a_time_but_overtakes_one_that_waits_for_the_peer) {
    start_ready();
    uint32_t up = take_up();
    indicate(subscription, joining);
    write_file(std::string(link_a1) + "status='down'\n");
    uint32_t down = take_reference(UPDATED);
    // The daemon confirms the request that was overtaken; that says nothing about the link as it is now.
    confirm(up, UPDATED, joining);
    write_file(link_a1);
    other_starts_over(TOPOLOGY_PHASE_DOWN);
    EXPECT_TRUE(daemon->is_silent()) << "an update to 'down' is answered at once, and waited for";
    confirm(down, UPDATED, unsecured);
    take_up();
    EXPECT_TRUE(daemon->is_silent()) << daemon->waiting();
}

TEST_F(idl_topologyd, asks_again_after_a_refusal_ever_more_patiently) {
    start_connected(link_clear);
    indicate(take_reference(SUBSCRIBE), unsecured);
    for (uint32_t pause_ms : {1000u, 2000u, 4000u, 8000u, 16000u, 30000u, 30000u}) {
        reject(take_reference(ADDED), ADDED, OXMSI_REJ_UNKNOWN_PORT_NAME);
        advance(pause_ms - 1);
        EXPECT_TRUE(daemon->is_silent()) << pause_ms << " ms: " << daemon->waiting();
        advance(1);
    }
    confirm(take_reference(ADDED), ADDED, secured);
    // Confirmed, it starts from one second again; a change of the file does not wait at all.
    write_file(std::string(link_clear) + "status='down'\n");
    reject(take_reference(UPDATED), UPDATED, OXMSI_REJ_INTERNAL_ERROR);
    write_file(link_clear);
    daemon->take(DELETED);
}

TEST_F(idl_topologyd, finds_out_what_the_daemon_holds) {
    // A link that the daemon has though we did not add it is deleted first; one that it does not have is
    // added.
    start_connected(link_clear);
    indicate(take_reference(SUBSCRIBE), unsecured);
    reject(take_reference(ADDED), ADDED, OXMSI_REJ_MAX_NUMBER_OF_LINKS_REACHED);
    advance(1000);
    reject(take_reference(DELETED), DELETED, OXMSI_REJ_LINK_NOT_FOUND);
    confirm(take_reference(ADDED), ADDED, secured);
    write_file(std::string(link_clear) + "status='down'\n");
    reject(take_reference(UPDATED), UPDATED, OXMSI_REJ_LINK_NOT_FOUND);
    reject(take_reference(DELETED), DELETED, OXMSI_REJ_LINK_NOT_FOUND);
    daemon->take(ADDED);
    EXPECT_TRUE(daemon->is_silent()) << daemon->waiting();
}

TEST_F(idl_topologyd, renews_a_subscription_that_was_refused) {
    start_connected(link_a1);
    reject(take_reference(SUBSCRIBE), SUBSCRIBE, OXMSI_REJ_SUBSCRIPTION_ALREADY_EXIST);
    confirm(take_reference(ADDED), ADDED, secured);
    daemon->take(UNSUBSCRIBE);
    EXPECT_TRUE(daemon->is_silent());
    advance(1000);
    daemon->take(SUBSCRIBE);
}

TEST_F(idl_topologyd, asks_for_a_refused_connection_again) {
    start(link_a1);
    daemon.emplace("oxmsi");
    settle();
    for (uint32_t pause_ms : {1000u, 2000u}) {
        auto request = daemon->take(OXMSI_CONNECTION_ESTABLISH_REQ);
        const auto& header = request.as<message_header>();
        reply(OXMSI_CONNECTION_ESTABLISH_REJ, header.procedure_reference, header.connection_reference,
              {OXMSI_REJ_MAX_NUMBER_OF_CLIENTS_REACHED});
        advance(pause_ms - 1);
        EXPECT_TRUE(daemon->is_silent());
        advance(1);
    }
    // Gone while it is asked: found again as if it were new.
    daemon.reset();
    settle();
    daemon_appears();
    daemon->take(SUBSCRIBE);
}

TEST_F(idl_topologyd, drops_what_is_not_the_daemons_answer) {
    start_connected(link_a1);
    subscription = take_reference(SUBSCRIBE);
    uint32_t added = take_reference(ADDED);
    indicate(subscription, unsecured);
    forget_traces();

    test::peer stranger("stranger");
    oxmsi_rej rej{};
    rej.header.procedure_reference = added;
    rej.header.connection_reference = connection;
    rej.reason = OXMSI_REJ_UNKNOWN_PORT_NAME;
    stranger.send(manager, ADDED + 2, rej);
    stranger.send_bytes(manager, OXMSI_SERVER_DOWN_IND, &rej, 4);
    stranger.send_bytes(manager, OXMSI_SERVER_UP_IND, &rej, 4);
    stranger.send_bytes(manager, 0x1b9999, &rej, 16);
    settle();
    rej.header.connection_reference = connection + 1;
    daemon->send(manager, ADDED + 2, rej);
    daemon->send_bytes(manager, ADDED + 2, &rej, 15);
    daemon->send_bytes(manager, ADDED + 1, &rej, 16);
    daemon->send_bytes(manager, OXMSI_CONNECTION_ESTABLISH_CFM, &rej, 16);
    tell(OXMSI_PORT_STATE_CHANGE_IND, subscription, secured, "IDL_XX");
    tell(OXMSI_PORT_STATE_CHANGE_IND, subscription + 100, secured);
    EXPECT_FALSE(take_errors().empty());

    advance(60000);
    EXPECT_TRUE(daemon->is_silent()) << daemon->waiting();
    confirm(added, ADDED, secured);
    EXPECT_EQ(take_errors(), "") << "the answer that it waited for";
}

// --- Towards the other end.

TEST_F(idl_topologyd, tells_the_other_end_the_whole_state_of_a_link) {
    start_connected(link_a1);
    other.emplace("site/mp7/idl-topologyd");
    settle();
    EXPECT_EQ(other->take(TOPOLOGY_PEER_LINK_IND).hex().substr(0, 191),
              // reference, version 1, both ports, the other's MP id
              "00 00 00 01 00 00 00 00 00 00 00 01 49 44 4c 5f 41 31 00 00 00 00 00 00 00 00 00 00 "
              "49 44 4c 5f 43 32 00 00 00 00 00 00 00 00 00 00 00 00 00 07 "
              // a life, none seen, stopping, and no trouble
              "00 00 03 e9 00 00 00 00 00 00 00 02 00 00 00 00");
    indicate(take_reference(SUBSCRIBE), unsecured);
    reject(take_reference(ADDED), ADDED, OXMSI_REJ_UNKNOWN_PORT_NAME);
    EXPECT_EQ(heard().trouble, TOPOLOGY_TROUBLE_REFUSED);
    EXPECT_NE(strstr(told.words.octets, "no port of this name"), nullptr) << told.words.octets;
    advance(60000);
    EXPECT_TRUE(other->is_silent()) << "nothing changed";
}

TEST_F(idl_topologyd, goes_up_first_where_the_key_server_is) {
    start_ready();
    uint32_t up = take_up();
    indicate(subscription, joining);
    EXPECT_EQ(heard().phase, TOPOLOGY_PHASE_JOINING);
    EXPECT_EQ(told.seen_life, says.life);
    other_says(TOPOLOGY_PHASE_JOINING);
    confirm(up, UPDATED, secured);
    EXPECT_EQ(heard().phase, TOPOLOGY_PHASE_ENCRYPTED);
    renew(); // only a subscription that begins now is told of the end
    indicate(subscription, secured);
    advance(3600000);
    EXPECT_TRUE(daemon->is_silent()) << "a working link is left alone: " << daemon->waiting();
}

TEST_F(idl_topologyd, follows_when_there_is_something_to_join) {
    start_ready(9);
    EXPECT_TRUE(daemon->is_silent());
    for (topology_phase phase : {TOPOLOGY_PHASE_STARTING, TOPOLOGY_PHASE_PORT_DOWN}) {
        other_says(phase);
        EXPECT_TRUE(daemon->is_silent()) << phase_to_word(phase);
    }
    says.seen_life = told.life - 1;
    says.phase = TOPOLOGY_PHASE_JOINING;
    other->send(manager, TOPOLOGY_PEER_LINK_IND, says);
    settle();
    EXPECT_TRUE(daemon->is_silent()) << "it joins with an earlier life of ours";
    other_says(TOPOLOGY_PHASE_JOINING);
    take_up();
}

TEST_F(idl_topologyd, starts_over_when_the_life_of_the_link_ended) {
    struct end {
        const char* how;
        std::function<void()> happens;
        bool is_let_go = false; // deleted, and added as down
    };
    const end ends[] = {
        {"the port's keys are lost", [this] { indicate(subscription, joining); }},
        {"the cable is out, or the port was released", [this] { indicate(subscription, unsecured); }, true},
        {"the other end started over", [this] { other_starts_over(TOPOLOGY_PHASE_STOPPING); }},
        {"its daemon is gone", [this] { other_says(TOPOLOGY_PHASE_NO_DAEMON); }},
        {"it is not wanted there", [this] { other_says(TOPOLOGY_PHASE_OFF); }},
        {"its manager is gone", [this] { other.reset(); }},
    };
    start_encrypted();
    for (const end& each : ends) {
        uint32_t life = heard().life;
        each.happens();
        settle();
        each.is_let_go ? take_anew() : take_down();
        EXPECT_TRUE(daemon->is_silent()) << each.how << ": " << daemon->waiting();
        other ? other_starts_over(TOPOLOGY_PHASE_DOWN) : other_end_appears();
        EXPECT_NE(heard().life, life) << each.how;
        become_encrypted(take_up());
        advance(20000);
    }
}

TEST_F(idl_topologyd, waits_for_a_cable_and_asks_then_for_an_answer) {
    start_ready();
    confirm(take_up(), UPDATED, unsecured);
    indicate(subscription, unsecured);
    EXPECT_EQ(heard().phase, TOPOLOGY_PHASE_PORT_DOWN);
    EXPECT_EQ(told.trouble, TOPOLOGY_TROUBLE_PORT_DOWN);
    // Perhaps the daemon let the link go for some other client: ever less often it is published anew.
    for (uint32_t pause_ms : {1000u, 2000u, 4000u}) {
        advance(pause_ms - 1);
        EXPECT_TRUE(daemon->is_silent()) << pause_ms;
        advance(1);
        take_anew();
    }
    indicate(subscription, joining);
    EXPECT_EQ(heard().phase, TOPOLOGY_PHASE_JOINING);
    uint32_t again = take_reference(UPDATED);
    // While the other end has no cable there is nothing to lose patience with.
    other_says(TOPOLOGY_PHASE_PORT_DOWN);
    advance(60000);
    EXPECT_TRUE(daemon->is_silent()) << daemon->waiting();
    other_says(TOPOLOGY_PHASE_JOINING);
    confirm(again, UPDATED, secured);
    EXPECT_EQ(heard().phase, TOPOLOGY_PHASE_ENCRYPTED);
}

TEST_F(idl_topologyd, tries_again_ever_less_often_while_the_cause_lasts) {
    start_ready();
    for (uint32_t most_ms : {0u, 1000u, 2000u, 4000u, 8000u, 16000u, 30000u, 30000u}) {
        confirm(take_up(), UPDATED, joining); // it could not be secured
        take_down();
        other_says(TOPOLOGY_PHASE_DOWN);
        uint32_t waited_ms = 0;
        for (; daemon->is_silent() && waited_ms < most_ms; waited_ms++)
            advance(1);
        EXPECT_GE(waited_ms, most_ms * 3 / 4);
    }
    EXPECT_EQ(heard().trouble, TOPOLOGY_TROUBLE_FAILED);
    // A manager that comes back is a new cause: it is not waited any more.
    confirm(take_up(), UPDATED, joining);
    take_down();
    other.reset();
    settle();
    other_end_appears();
    take_up();
    // Keys that do not come are a failure too.
    indicate(subscription, joining);
    advance(4999);
    EXPECT_TRUE(daemon->is_silent());
    advance(1);
    take_down();
    EXPECT_EQ(heard().trouble, TOPOLOGY_TROUBLE_NO_KEYS);
}

TEST_F(idl_topologyd, is_not_harmed_by_an_end_that_talks_nonsense) {
    constexpr uint32_t IND = TOPOLOGY_PEER_LINK_IND;
    const struct {
        const char* rule;
        void (*spoil)(topology_peer_link_ind& bad);
        uint32_t size;
        uint32_t reason; // of the reject, 0 for none
    } cases[] = {
        {"another version", [](topology_peer_link_ind& bad) { bad.version = 2; }, 276, 1},
        {"another version is known before its size", [](topology_peer_link_ind& bad) { bad.version = 3; }, 20,
         1},
        {"too short for a version", [](topology_peer_link_ind&) {}, 15, 0},
        {"too short", [](topology_peer_link_ind&) {}, 275, 2},
        {"no life", [](topology_peer_link_ind& bad) { bad.life = 0; }, 276, 2},
        {"no such phase", [](topology_peer_link_ind& bad) { bad.phase = 9; }, 276, 2},
        {"a name without an end", [](topology_peer_link_ind& bad) { memset(&bad.port, 'x', 16); }, 276, 2},
        {"no such link", [](topology_peer_link_ind& bad) { bad.remote_port.assign("IDL_ZZ"); }, 276, 4},
        {"not the port at its end", [](topology_peer_link_ind& bad) { bad.port.assign("IDL_D1"); }, 276, 4},
    };
    start_encrypted();
    (void)heard();
    for (const auto& each : cases) {
        topology_peer_link_ind spoilt = says;
        spoilt.life = says.life + 7; // which would end the life of the link
        spoilt.header.procedure_reference = static_cast<uint32_t>(&each - cases);
        each.spoil(spoilt);
        for (int flood = 0; flood < 100; flood++)
            other->send_bytes(manager, IND, &spoilt, each.size);
        settle();
        if (each.reason != 0) {
            auto rej = other->take(TOPOLOGY_PEER_LINK_REJ);
            EXPECT_EQ(rej.as<topology_rej>().reason, each.reason) << each.rule;
        }
        EXPECT_TRUE(other->is_silent()) << each.rule << ": answered more than once: " << other->waiting();
        EXPECT_TRUE(daemon->is_silent()) << each.rule << ": " << daemon->waiting();
    }
    // Nor by one that is not the end of this link.
    test::peer stranger("site/mp9/idl-topologyd");
    topology_peer_link_ind foreign = says;
    foreign.life = says.life + 7;
    stranger.send(manager, IND, foreign);
    topology_rej rej{};
    rej.header.procedure_reference = heard().header.procedure_reference;
    stranger.send(manager, TOPOLOGY_PEER_LINK_REJ, rej);
    settle();
    EXPECT_TRUE(daemon->is_silent()) << daemon->waiting();

    // One that changes its mind all the time is met with ever longer pauses, and is not told all of it.
    uint32_t requests = 0;
    size_t words = 0;
    for (int flood = 0; flood < 500; flood++) {
        says.life = says.life + 1;
        says.phase = TOPOLOGY_PHASE_DOWN;
        says.seen_life = told.life;
        other->send(manager, IND, says);
        settle();
        for (; !other->is_silent(); words++)
            told = other->take(IND).as<topology_peer_link_ind>();
        while (!daemon->is_silent()) {
            auto request =
                daemon->take(static_cast<uint32_t>(std::stoul(daemon->waiting().substr(2), nullptr, 16)));
            requests++;
            if (request.number() == UPDATED)
                confirm(request.as<message_header>().procedure_reference, UPDATED, unsecured);
        }
    }
    EXPECT_LT(requests, 100u);
    EXPECT_LE(words, 51u);
}

TEST_F(idl_topologyd, says_what_is_wrong_and_where) {
    start_ready(9);
    test::peer person("tavuctl-1");
    ask(person, TOPOLOGY_WATCH_REQ);
    auto expect_trouble = [&](topology_trouble_code code, topology_end end, const char* words) {
        settle();
        person.forget_all();
        advance(1500);
        test::peer another("tavuctl-2");
        ask(another, TOPOLOGY_STATUS_REQ);
        advance(500);
        topology_link link = shown_link(another.take(TOPOLOGY_STATUS_CFM));
        EXPECT_EQ(link.trouble, code) << words << ": " << link.words.octets;
        EXPECT_EQ(link.trouble_end, end) << words;
        EXPECT_GE(link.trouble_since.in_ms(), 1500u) << words;
        EXPECT_NE(strstr(link.words.octets, words), nullptr) << link.words.octets;
        advance(100);
    };
    says.remote_mpid = 7;
    other_says(TOPOLOGY_PHASE_DOWN);
    expect_trouble(TOPOLOGY_TROUBLE_MPIDS, TOPOLOGY_END_HERE, "remote-mpid is 7 at both ends");
    says.remote_mpid = 9;
    says.trouble = TOPOLOGY_TROUBLE_NO_DAEMON;
    says.words.assign("no \x1b daemon");
    other_says(TOPOLOGY_PHASE_NO_DAEMON);
    expect_trouble(TOPOLOGY_TROUBLE_NO_DAEMON, TOPOLOGY_END_THERE, "no ? daemon");
    other_says(TOPOLOGY_PHASE_OFF);
    expect_trouble(TOPOLOGY_TROUBLE_OFF, TOPOLOGY_END_THERE, "not to be secured there");
    topology_rej rej{};
    rej.reason = TOPOLOGY_REJ_UNSUPPORTED_PROTOCOL_VERSION;
    rej.words.assign("version 9 only");
    other->send(manager, TOPOLOGY_PEER_LINK_REJ, rej);
    expect_trouble(TOPOLOGY_TROUBLE_PEER_REFUSES, TOPOLOGY_END_THERE, "refuses: version 9 only");
    other.reset();
    expect_trouble(TOPOLOGY_TROUBLE_NO_PEER, TOPOLOGY_END_THERE, "no idl-topologyd is found at 'site/mp7'");
    daemon.reset();
    expect_trouble(TOPOLOGY_TROUBLE_NO_DAEMON, TOPOLOGY_END_HERE, "qel-tavu is not reachable");
}

// --- Towards people.

TEST_F(idl_topologyd, answers_a_status_query_with_what_the_daemon_says_now) {
    start_published();
    advance(5000);
    test::peer person("tavuctl-1");
    ask(person, TOPOLOGY_STATUS_REQ);
    EXPECT_TRUE(person.is_silent());
    daemon->take(UNSUBSCRIBE);
    indicate(take_reference(SUBSCRIBE), joining);
    auto snapshot = person.take(TOPOLOGY_STATUS_CFM);
    EXPECT_EQ(snapshot.as<topology_snapshot>().header.procedure_reference, 77u);
    EXPECT_EQ(snapshot.as<topology_snapshot>().daemon_state, TOPOLOGY_DAEMON_CONNECTED);
    topology_link link = shown_link(snapshot);
    EXPECT_EQ(link.oper_state, 0u);
    EXPECT_EQ(link.state_since.in_ms(), 0u);
    EXPECT_EQ(link.published.in_ms(), 5000u);
    EXPECT_EQ(link.last_answer, ADDED + 1);

    // A daemon that is silent delays the answer by half a second only.
    ask(person, TOPOLOGY_STATUS_REQ);
    advance(499);
    EXPECT_TRUE(person.is_silent());
    advance(1);
    EXPECT_EQ(shown_link(person.take(TOPOLOGY_STATUS_CFM)).state_told.in_ms(), 500u);

    // And one that is gone not at all.
    ask(person, TOPOLOGY_STATUS_REQ);
    daemon.reset();
    settle();
    auto without = person.take(TOPOLOGY_STATUS_CFM);
    EXPECT_EQ(without.as<topology_snapshot>().daemon_state, TOPOLOGY_DAEMON_LOCATING);
    EXPECT_EQ(shown_link(without).oper_state, OXMSI_PORT_OPER_STATE_UNINITIALIZED);
}

TEST_F(idl_topologyd, tells_watchers_of_changes_and_looks_for_them) {
    start_published();
    std::optional<test::peer> person("tavuctl-1");
    ask(*person, TOPOLOGY_WATCH_REQ);
    EXPECT_EQ(shown_link(person->take(TOPOLOGY_WATCH_CFM)).encryption_state, 1u);
    for (port_state state : {secured, secured, joining}) {
        daemon->take(UNSUBSCRIBE);
        indicate(take_reference(SUBSCRIBE), state);
        EXPECT_EQ(person->is_silent(), state.oper == 1) << "only a change is told";
        advance(1000);
    }
    EXPECT_EQ(shown_link(person->take(TOPOLOGY_WATCH_IND)).oper_state, 0u);
    // Without a watcher, the daemon is left alone.
    person.reset();
    settle();
    daemon->forget_all();
    advance(10000);
    EXPECT_TRUE(daemon->is_silent()) << daemon->waiting();
}

TEST_F(idl_topologyd, sets_a_status_over_that_of_the_file) {
    start_published();
    test::peer person("tavuctl-1");
    set_status(person, "IDL_A1", OXMSI_LTM_LINK_STATUS_DOWN);
    EXPECT_TRUE(person.is_silent()) << "the daemon has not confirmed yet";
    take_down();
    auto confirmed = person.take(TOPOLOGY_LINK_SET_CFM);
    EXPECT_EQ(confirmed.as<topology_link_set_cfm>().link.is_status_set, 1u);
    EXPECT_EQ(confirmed.as<topology_link_set_cfm>().link.status, OXMSI_LTM_LINK_STATUS_DOWN);

    // It outlives a new connection and a file that leaves the link alone, and ends when the file changes it.
    daemon.reset();
    settle();
    daemon_appears();
    auto added = daemon->take(SUBSCRIBE) ? daemon->take(ADDED) : test::received();
    EXPECT_EQ(added.as<oxmsi_link_added_req>().link.link_status, OXMSI_LTM_LINK_STATUS_DOWN);
    confirm(added.as<message_header>().procedure_reference, ADDED, unsecured);
    write_file(std::string(link_clear) + link_b1);
    EXPECT_EQ(daemon->take(SUBSCRIBE).as<oxmsi_subscription_req>().port, "IDL_B1");
    daemon->take(ADDED);
    EXPECT_TRUE(daemon->is_silent()) << daemon->waiting();
    write_file(std::string(link_clear) + "status='macsec-pending'\n" + link_b1);
    EXPECT_EQ(daemon->take(UPDATED).as<oxmsi_link_updated_req>().link.link_status,
              OXMSI_LTM_LINK_STATUS_MACSEC_PENDING);
}

TEST_F(idl_topologyd, says_why_a_status_was_not_set) {
    start_published();
    test::peer person("tavuctl-1");
    constexpr uint32_t REJ = TOPOLOGY_LINK_SET_REJ;
    set_status(person, "IDL_ZZ", OXMSI_LTM_LINK_STATUS_DOWN);
    EXPECT_STREQ(person.take(REJ).as<topology_rej>().words.octets,
                 "the links file has no link on port 'IDL_ZZ'; it has IDL_A1");
    set_status(person, "IDL_A1", 12);
    EXPECT_EQ(take_reject(person, REJ), TOPOLOGY_REJ_INVALID_LINK_STATUS);

    set_status(person, "IDL_A1", OXMSI_LTM_LINK_STATUS_DOWN);
    reject(take_reference(UPDATED), UPDATED, OXMSI_REJ_UNKNOWN_PORT_NAME);
    EXPECT_EQ(take_reject(person, REJ), TOPOLOGY_REJ_REFUSED);

    set_status(person, "IDL_A1", OXMSI_LTM_LINK_STATUS_UP);
    set_status(person, "IDL_A1", topology_status_of_file);
    EXPECT_EQ(take_reject(person, REJ), TOPOLOGY_REJ_OVERTAKEN);
    write_file("link=[]");
    EXPECT_EQ(take_reject(person, REJ), TOPOLOGY_REJ_OVERTAKEN);

    write_file(link_clear);
    set_status(person, "IDL_A1", OXMSI_LTM_LINK_STATUS_BAD_CONNECTIVITY);
    daemon.reset();
    settle();
    EXPECT_EQ(take_reject(person, REJ), TOPOLOGY_REJ_NOT_CONNECTED);
    set_status(person, "IDL_A1", OXMSI_LTM_LINK_STATUS_DOWN);
    EXPECT_EQ(take_reject(person, REJ), TOPOLOGY_REJ_NOT_CONNECTED);
}

TEST_F(idl_topologyd, refuses_what_it_does_not_understand_and_more_than_it_can_keep) {
    start_published();
    test::peer person("tavuctl-1");
    ask(person, TOPOLOGY_STATUS_REQ, 2);
    EXPECT_EQ(take_reject(person, TOPOLOGY_STATUS_REJ), TOPOLOGY_REJ_UNSUPPORTED_PROTOCOL_VERSION);
    const be32 bytes[8] = {0u, 0u, 0u, topology_protocol_version};
    person.send_bytes(manager, TOPOLOGY_WATCH_REQ, bytes, 20);
    person.send_bytes(manager, TOPOLOGY_LINK_SET_REQ, bytes, 12);
    person.send_bytes(manager, TOPOLOGY_STATUS_REQ, bytes, 11);
    settle();
    EXPECT_EQ(take_reject(person, TOPOLOGY_WATCH_REJ), TOPOLOGY_REJ_MALFORMED);
    EXPECT_EQ(take_reject(person, TOPOLOGY_LINK_SET_REJ), TOPOLOGY_REJ_MALFORMED);
    EXPECT_TRUE(person.is_silent()) << "nobody can be told without a reference";

    for (int i = 0; i < 32; i++) {
        ask(person, TOPOLOGY_WATCH_REQ);
        person.take(TOPOLOGY_WATCH_CFM);
    }
    ask(person, TOPOLOGY_WATCH_REQ);
    EXPECT_EQ(take_reject(person, TOPOLOGY_WATCH_REJ), TOPOLOGY_REJ_BUSY);
    person.disappear();
    settle();
    test::peer another("tavuctl-2");
    ask(another, TOPOLOGY_WATCH_REQ);
    another.take(TOPOLOGY_WATCH_CFM);
}

} // namespace
