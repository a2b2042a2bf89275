#include <cstdlib>
#include <fstream>
#include <optional>

#include <unistd.h>

#include "platform/oxhal/sim_view.h"
#include "protocols/topology_messages.h"
#include "services/idl-topologyd/link_record.h"
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

const std::string link_a1 = "[[link]]\nport='IDL_A1'\nid=1\nremote-port='IDL_C2'\nremote-mpid=7\n"
                            "hunt-path='site/mp7'\n";
// As the first, but to a unit that secures nothing: what is published is up to this end alone.
const std::string link_clear = link_a1 + "du-type='type-2'\n";

struct port_state {
    uint32_t oper;
    uint32_t encryption;
};
constexpr port_state secured = {1, 1};
constexpr port_state joining = {0, 0};
constexpr port_state unsecured = {1, 0};

struct shown {
    topology_snapshot head;
    topology_link link;
};

// idl-topologyd, with a daemon and a person whose words the test chooses.
class idl_topologyd : public test::world {
  protected:
    idl_topologyd() {
        EXPECT_TRUE(mkdtemp(directory));
        person.emplace("tavuctl-1");
        path = std::string(directory) + "/links.toml";
        setenv("OXHAL_DRIVER", "sim", 1);
        setenv("OXHAL_SIM_VIEW", (std::string(directory) + "/secys").c_str(), 1);
        route_to(topologyd_dispatch_message);
    }
    ~idl_topologyd() override {
        topologyd_stop();
        daemon.reset();
        other.reset();
        person.reset();
        expect_nothing_left();
        unlink(path.c_str());
        unlink((std::string(directory) + "/secys").c_str());
        rmdir(directory);
    }

    // Replaces the file as editors do.
    void write_file(const std::string& content) {
        std::string draft = path + ".new";
        std::ofstream(draft) << content;
        ASSERT_EQ(rename(draft.c_str(), path.c_str()), 0);
        settle();
    }
    void start(const std::string& content) {
        write_file(content);
        manager = oka_clone_mailbox(root(), topology_mailbox_name);
        EXPECT_TRUE(topologyd_start(manager, path.c_str()));
        settle();
        oka_message* found = oka_alloc(4, 1);
        oka_locate_async(topology_peer_mailbox_name, &found, person->mailbox());
        settle();
        peers = person->take(1).sender();
    }

    // The daemon appears and takes the connection under client id 5.
    void start_connected(const std::string& content) {
        start(content);
        daemon.emplace("oxmsi");
        settle();
        auto request = daemon->take(OXMSI_CONNECTION_ESTABLISH_REQ);
        connection = request.as<message_header>().connection_reference;
        daemon->answer(OXMSI_CAPABILITIES_GET_REQ, [this](const test::received& asked) {
            message_header header = asked.as<message_header>();
            header.connection_reference = connection;
            if (!daemon_stands_still)
                daemon->send(manager, OXMSI_CAPABILITIES_GET_CFM,
                             oxmsi_capabilities_get_cfm{header, {1, 1, 8}});
            else
                unanswered_probe = header;
        });
        reply(OXMSI_CONNECTION_ESTABLISH_CFM, request.as<message_header>().procedure_reference, 5, 1);
        subscription = take_reference(SUBSCRIBE);
    }
    // One link, asked for and confirmed, its subscription running.
    void start_published() {
        start_connected(link_clear);
        indicate(subscription, joining);
        confirm(ADDED, secured);
        daemon->forget_all();
    }

    uint32_t take_reference(uint32_t number) {
        return daemon->take(number).as<message_header>().procedure_reference;
    }
    void reply(uint32_t number, uint32_t procedure, uint32_t reference, uint32_t word) {
        const be32 bytes[4] = {0u, procedure, reference, word};
        daemon->send(manager, number, bytes);
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
    void indicate(uint32_t procedure, port_state state) {
        tell(OXMSI_PORT_STATE_CHANGE_IND, procedure, state);
    }
    // Takes the request, and answers it.
    void confirm(uint32_t request, port_state state) { tell(request + 1, take_reference(request), state); }
    void reject(uint32_t request, uint32_t reason) {
        reply(request + 2, take_reference(request), connection, reason);
    }

    // The manager at the other end, MP 7, appears and says that it is ready.
    void other_end_appears() {
        other.emplace("site/mp7/idl-topologyd-peer");
        says = {};
        says.version = topology_peer_version;
        says.port.assign("IDL_C2");
        says.remote_port.assign("IDL_A1");
        says.remote_mpid = own_mpid;
        says.incarnation = 1000;
        settle();
        other_says(TOPOLOGY_PHASE_DOWN);
    }
    void other_says(topology_phase phase) {
        (void)heard();
        says.phase = phase;
        says.seen_incarnation = told.incarnation;
        other->send(peers, TOPOLOGY_PEER_LINK_IND, says);
        settle();
    }
    void other_starts_over() {
        says.incarnation = says.incarnation + 1;
        other_says(TOPOLOGY_PHASE_DOWN);
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
        indicate(subscription, unsecured);
        confirm(ADDED, unsecured);
        other_end_appears();
    }
    uint32_t take_update(uint32_t status) {
        auto update = daemon->take(UPDATED);
        EXPECT_EQ(update.as<oxmsi_link_updated_req>().link.link_status, status);
        return update.as<message_header>().procedure_reference;
    }
    // The link is published up; returns the reference, and begins the subscription that goes with it.
    uint32_t take_up() {
        uint32_t up = take_update(OXMSI_LTM_LINK_STATUS_UP);
        renew();
        return up;
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
        tell(UPDATED + 1, up, secured);
        renew();
        indicate(subscription, secured);
        other_says(TOPOLOGY_PHASE_ENCRYPTED);
    }
    // The daemon is asked to forget the link and to take it as new.
    void take_anew() {
        confirm(DELETED, unsecured);
        confirm(ADDED, unsecured);
    }
    // The link is published down, and that is confirmed.
    void take_down() { tell(UPDATED + 1, take_update(OXMSI_LTM_LINK_STATUS_DOWN), unsecured); }

    // What a person sends.
    void ask(uint32_t number, uint32_t version = topology_protocol_version,
             oka_mailbox at = OKA_MAILBOX_NONE) {
        topology_req request{};
        request.header.procedure_reference = 77;
        request.version = version;
        person->send(at == OKA_MAILBOX_NONE ? manager : at, number, request);
        settle();
    }
    void set_status(const char* port, uint32_t status) {
        topology_link_set_req request{};
        request.version = topology_protocol_version;
        request.port.assign(port);
        request.status = status;
        person->send(manager, TOPOLOGY_LINK_SET_REQ, request);
        settle();
    }
    uint32_t take_reject(uint32_t number) { return person->take(number).as<topology_rej>().reason; }
    // The answer of a manager that waits in vain for the daemon's.
    test::received take_status() {
        ask(TOPOLOGY_STATUS_REQ);
        advance(500);
        return person->take(TOPOLOGY_STATUS_CFM);
    }

    char directory[32] = "/tmp/links-test-XXXXXX";
    std::string path;
    oka_mailbox manager = OKA_MAILBOX_NONE, peers = OKA_MAILBOX_NONE;
    std::optional<test::peer> daemon, other, person;
    uint32_t connection = 0, subscription = 0;
    topology_peer_link_ind says{}; // what it says next
    topology_peer_link_ind told{}; // what it heard last
    uint32_t own_mpid = 3;
    bool daemon_stands_still = false;
    message_header unanswered_probe{};
};

// --- The SecYs of both ends, while the link is encrypted.

class idl_topologyd_watch : public idl_topologyd {
  protected:
    void start_watching() {
        start_encrypted();
        other->answer(TOPOLOGY_PEER_SECY_IND,
                      [this](const test::received& word) { last_word = word.as<topology_peer_secy_ind>(); });
        show_secy();
    }
    // Keys are named by a number.
    static key_fingerprint key(uint8_t name) {
        key_fingerprint fingerprint;
        memset(fingerprint.octets, name, sizeof fingerprint.octets);
        return fingerprint;
    }
    static oxhal_view_association association(uint8_t name) {
        oxhal_view_association installed{};
        installed.installed = installed.active = true;
        memset(installed.fingerprint, name, sizeof installed.fingerprint);
        return installed;
    }
    void show_secy() {
        oxhal::port port{};
        strcpy(port.name, "DiPort_A1");
        oxhal_view view{};
        view.enabled = true;
        view.confidentiality = encrypts;
        view.protect_frames = protects;
        view.validate_frames = validates;
        view.transmit.associations[1] = association(sends_with);
        view.transmit.out_pkts_encrypted = sent;
        view.receive_channels = 1;
        view.receive[0].associations[1] = association(receives_with);
        view.receive[0].associations[1].active = receives;
        view.receive[0].in_pkts_ok = 5;
        oxhal_sim::show_view(port, view);
        oxhal_sim::write_counters("DiPort_A1", view);
    }
    topology_peer_secy_ind word_of_other(uint8_t its_transmit_key, uint8_t its_receive_key,
                                         uint64_t accepted = 0) {
        topology_peer_secy_ind word{};
        word.version = topology_peer_version;
        word.port = says.port;
        word.remote_port = says.remote_port;
        word.incarnation = says.incarnation;
        word.seen_incarnation = told.incarnation;
        word.transmit_key = key(its_transmit_key);
        word.receive_keys[1] = key(its_receive_key);
        word.accepted_low = static_cast<uint32_t>(accepted);
        return word;
    }
    // Five seconds pass, and the other end tells what it sees.
    void look(uint8_t its_transmit_key, uint8_t its_receive_key, uint64_t accepted = 0) {
        show_secy();
        advance(look_interval_ms);
        other->send(peers, TOPOLOGY_PEER_SECY_IND,
                    word_of_other(its_transmit_key, its_receive_key, accepted));
        settle();
    }
    bool is_up() { return heard().phase == TOPOLOGY_PHASE_ENCRYPTED; }
    void secure_again() {
        take_down();
        other_starts_over();
        become_encrypted(take_up());
    }

    uint8_t sends_with = 1, receives_with = 2;
    uint64_t sent = 0;
    bool protects = true, encrypts = true, receives = true;
    oxhal_macsec_validate_frames validates = OXHAL_MACSEC_VALIDATE_FRAMES_STRICT;
    topology_peer_secy_ind last_word{};
};

TEST_F(idl_topologyd_watch, starts_over_when_one_end_sends_with_what_the_other_does_not_have) {
    start_watching();
    for (auto [its_transmit, its_receive] : {std::pair{3, 1}, std::pair{2, 3}}) {
        // While keys are changed, a look may be between the ends.
        for (int change = 0; change < 3; change++) {
            look(static_cast<uint8_t>(its_transmit), static_cast<uint8_t>(its_receive));
            look(2, 1);
        }
        EXPECT_TRUE(last_word.transmit_key == key(1) && last_word.receive_keys[0] == key(2));
        EXPECT_EQ(last_word.accepted_low, 5u);
        look(static_cast<uint8_t>(its_transmit), static_cast<uint8_t>(its_receive));
        ASSERT_TRUE(is_up());
        look(static_cast<uint8_t>(its_transmit), static_cast<uint8_t>(its_receive));
        EXPECT_EQ(heard().fault, TOPOLOGY_FAULT_KEYS_DIFFER);
        ASSERT_FALSE(is_up());
        secure_again();
    }
    // It is still shown, until a look shows that it is gone.
    EXPECT_EQ(heard().fault, TOPOLOGY_FAULT_KEYS_DIFFER);
    look(2, 1);
    EXPECT_EQ(heard().fault, TOPOLOGY_FAULT_NONE);
    // Words of other times and of others are none.
    const uint32_t its_incarnation = says.incarnation;
    for (int count = 0; count < 3; count++) {
        says.incarnation = its_incarnation - 1;
        look(9, 9);
        says.incarnation = its_incarnation;
        const uint32_t own_incarnation = told.incarnation;
        told.incarnation = own_incarnation - 1;
        look(9, 9);
        told.incarnation = own_incarnation;
        other->send_bytes(peers, TOPOLOGY_PEER_SECY_IND, &last_word, sizeof last_word - 1);
        person->send(peers, TOPOLOGY_PEER_SECY_IND, word_of_other(9, 9));
        settle();
    }
    EXPECT_TRUE(is_up());
    // Nor are words that come all at once as many looks.
    look(2, 9);
    for (int count = 0; count < 3; count++)
        other->send(peers, TOPOLOGY_PEER_SECY_IND, word_of_other(2, 9));
    settle();
    EXPECT_TRUE(is_up());
    // A key that is installed, but not for receiving now, does not count.
    look(2, 1);
    receives = false;
    look(2, 1);
    look(2, 1);
    EXPECT_EQ(heard().fault, TOPOLOGY_FAULT_KEYS_DIFFER);
}

TEST_F(idl_topologyd_watch, starts_over_when_keys_grow_old_or_the_secy_does_not_encrypt) {
    start_watching();
    for (sends_with = 1; sends_with < 5; sends_with++) {
        for (int looks = 0; looks < 36; looks++) // 180 s
            look(2, sends_with);
    }
    int looks = 0;
    for (; is_up() && looks < 60; looks++)
        look(2, sends_with);
    EXPECT_EQ(looks, 43);
    EXPECT_EQ(heard().fault, TOPOLOGY_FAULT_KEYS_TOO_OLD);
    secure_again();
    sends_with = 7;
    look(2, 7);
    EXPECT_EQ(heard().fault, TOPOLOGY_FAULT_NONE);
    for (int row = 0; row < 3; row++) {
        protects = row != 0;
        encrypts = row != 1;
        validates = row != 2 ? OXHAL_MACSEC_VALIDATE_FRAMES_STRICT : OXHAL_MACSEC_VALIDATE_FRAMES_DISABLED;
        look(2, 7);
        EXPECT_TRUE(is_up()) << row;
        look(2, 7);
        EXPECT_EQ(heard().fault, TOPOLOGY_FAULT_UNPROTECTED) << row;
        EXPECT_FALSE(is_up()) << row;
        secure_again();
    }
}

TEST_F(idl_topologyd_watch, starts_over_ever_less_often_when_no_frame_arrives) {
    start_watching();
    uint64_t accepted = 100;
    int all_looks = 0;
    auto looks_until_it_starts_over = [&](uint64_t sent_each, uint64_t accepted_each) {
        int looks = 0;
        for (; is_up() && looks < 30; looks++) {
            sent += sent_each;
            sends_with = static_cast<uint8_t>(10 + ++all_looks / 30); // keys are changed in time
            look(2, sends_with, accepted += accepted_each);
        }
        return looks;
    };
    EXPECT_EQ(looks_until_it_starts_over(1000, 1), 30); // one of them is enough
    EXPECT_EQ(looks_until_it_starts_over(9, 0), 30);    // few may be for nobody there
    for (int expected : {3, 6, 10, 18}) {
        EXPECT_EQ(looks_until_it_starts_over(10, 0), expected);
        EXPECT_EQ(heard().fault, TOPOLOGY_FAULT_FRAMES_DROPPED);
        secure_again();
    }
    EXPECT_EQ(looks_until_it_starts_over(10, 10), 30);
    EXPECT_EQ(heard().fault, TOPOLOGY_FAULT_NONE);
    EXPECT_EQ(looks_until_it_starts_over(10, 0), 3);
}

// --- The links file.

TEST(links_file, tells_file_line_key_and_remedy) {
    const struct {
        const char* rule;
        std::string content;
        const char* error;
    } cases[] = {
        {"syntax", "[[link]\n", "F:1: not valid TOML"},
        {"empty", "", "F: no link is defined; write link = []"},
        {"stray key", "links=[]\nlink=[]", "F:1: unknown key 'links'"},
        {"not a table", "link=[3]", "F:1: every link must be a table"},
        {"unknown key", link_a1 + "mtu=9000\n", "F:7: link 'IDL_A1': unknown key 'mtu'; the keys"},
        {"missing key", "[[link]]\nport='P'\nremote-port='P'\nremote-mpid=7\nhunt-path='x'\n",
         "F:1: link 'P': key 'id' is missing; add id = (a number)"},
        {"hunt path of type 3", "[[link]]\nport='P'\nid=1\nremote-port='P'\nremote-mpid=7\n",
         "F:1: link 'P': key 'hunt-path' is missing"},
        {"wrong type", "[[link]]\nport=7\n", "F:2: link 'without a port': port must be text in quotes"},
        {"name of 16", "[[link]]\nport='IDL_A1_456789012'\n",
         "is 16 characters long; shorten it to at most 15"},
        {"path of 64", "[[link]]\nport='P'\nhunt-path='" + std::string(64, 'x') + "'\n",
         "hunt-path is 64 characters long; shorten it to at most 63"},
        {"NUL in a name", "[[link]]\nport=\"A\\u0000B\"\n", "port must be printable ASCII"},
        {"number too small", "[[link]]\nport='P'\nid=-1\n", "F:3: link 'P': id is -1; it must be from 0 to"},
        {"number too large", "[[link]]\nport='P'\nid=4294967296\n", "id is 4294967296"},
        {"unknown status", link_a1 + "status='UP'\n",
         "F:7: link 'IDL_A1': status is \"UP\"; it must be one of up"},
        {"unknown kind", link_a1 + "du-type='type-1'\n", "\"type-1\"; it must be one of type-2 or type-3"},
        {"same port twice", link_a1 + link_a1, "F:7: link 'IDL_A1': the port has a link already"},
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

TEST(links_file, names_the_units_at_the_other_ends_once) {
    std::string content;
    for (const char* rest :
         {"hunt-path='mp7'", "hunt-path='site/mp9'", "hunt-path='mp7'", "du-type='type-2'"})
        content += "[[link]]\nport='P" + std::to_string(content.size()) +
                   "'\nid=1\nremote-port='P'\nremote-mpid=7\n" + rest + "\n";
    EXPECT_EQ(units_of(parse_links(content, "F").links), "mp7 site/mp9");
}

TEST(links_file, has_at_most_as_many_links_as_there_are_subscriptions) {
    std::string content;
    for (int i = 0; i < 33; i++) {
        EXPECT_EQ(parse_links(content, "F").is_good(), i > 0) << i;
        content += "[[link]]\nport='P" + std::to_string(i) +
                   "'\nid=1\nremote-port='P'\nremote-mpid=7\ndu-type='type-2'\n";
    }
    EXPECT_FALSE(parse_links(content, "F").is_good());
}

// --- Towards the daemon.

TEST_F(idl_topologyd, connects_subscribes_publishes_and_tells_the_other_end) {
    start(link_a1);
    daemon.emplace("oxmsi");
    settle();
    EXPECT_EQ(daemon->take(OXMSI_CONNECTION_ESTABLISH_REQ).hex(),
              "00 00 00 01 00 00 00 01 00 00 00 01 00 00 00 01");
    reply(OXMSI_CONNECTION_ESTABLISH_REJ, 1, 1, OXMSI_REJ_MAX_NUMBER_OF_CLIENTS_REACHED);
    advance(999);
    EXPECT_TRUE(daemon->is_silent()) << daemon->waiting();
    advance(1);
    reply(OXMSI_CONNECTION_ESTABLISH_CFM, take_reference(OXMSI_CONNECTION_ESTABLISH_REQ), 5, 1);
    EXPECT_EQ(daemon->take(SUBSCRIBE).hex(),
              "00 00 00 03 00 00 00 05 49 44 4c 5f 41 31 00 00 00 00 00 00 00 00 00 00");
    EXPECT_EQ(daemon->take(ADDED).hex().substr(0, 203),
              "00 00 00 04 00 00 00 05 49 44 4c 5f 41 31 00 00 00 00 00 00 00 00 00 00 "
              "49 44 4c 5f 43 32 00 00 00 00 00 00 00 00 00 00 00 00 00 01 00 00 00 00 00 00 00 07 "
              "00 00 00 00 00 00 00 02 00 00 00 03 73 69 74 65");
    EXPECT_TRUE(daemon->is_silent()) << daemon->waiting();
    other.emplace("site/mp7/idl-topologyd-peer");
    settle();
    EXPECT_EQ(other->take(TOPOLOGY_PEER_LINK_IND).hex().substr(0, 191),
              // reference, version 1, both ports, the other's MP id
              "00 00 00 01 00 00 00 00 00 00 00 01 49 44 4c 5f 41 31 00 00 00 00 00 00 00 00 00 00 "
              "49 44 4c 5f 43 32 00 00 00 00 00 00 00 00 00 00 00 00 00 07 "
              // an incarnation, none seen, stopping, and no fault
              "00 00 03 e9 00 00 00 00 00 00 00 02 00 00 00 00");
    reply(ADDED + 2, 4, 2, OXMSI_REJ_UNKNOWN_PORT_NAME);
    EXPECT_EQ(heard().fault, TOPOLOGY_FAULT_REFUSED);
    EXPECT_NE(strstr(told.words.octets, "no port of this name"), nullptr) << told.words.octets;
}

TEST_F(idl_topologyd, brings_every_change_of_the_file_to_the_daemon) {
    const std::vector<uint32_t> update = {UPDATED}, anew = {DELETED, ADDED};
    const struct {
        const char* from;
        const char* to;
        std::vector<uint32_t> requests; // each confirmed before the next is taken
    } cases[] = {
        {"hunt-path", "status='down'\nhunt-path", update},
        {"type-2", "type-3", update},
        {"=7", "=8", anew}, // the unit at the other end names the association, and so does its port
        {"IDL_C2", "IDL_C3", anew},
        {"id=1", "id=2", anew},
        {"hunt-path", "# note\nhunt-path", {}},
    };
    start_published();
    for (const auto& each : cases) {
        std::string changed = link_clear;
        changed.replace(changed.find(each.from), strlen(each.from), each.to);
        for (const std::string& content : {changed, link_clear}) {
            write_file(content);
            for (uint32_t request : each.requests)
                confirm(request, secured);
            EXPECT_TRUE(daemon->is_silent()) << each.to << ": " << daemon->waiting();
        }
    }
    write_file("link=[]");
    confirm(DELETED, unsecured);
    daemon->take(UNSUBSCRIBE);
    EXPECT_TRUE(daemon->is_silent()) << daemon->waiting();
}

TEST_F(idl_topologyd, keeps_the_links_in_force_while_the_file_is_bad) {
    start_published();
    write_file("[[link]]\nport='IDL_A1'\n");
    EXPECT_TRUE(traced("TOPOLOGYD: The links of the last good file stay in force"));
    unlink(path.c_str());
    settle();
    EXPECT_NE(strstr(take_status().as<topology_snapshot>().file_error.octets, "No such file"), nullptr);
    daemon->forget_all();
    // A file that is being written is not read before it is closed.
    std::ofstream file(path);
    file << "link=[]" << std::flush;
    settle();
    EXPECT_TRUE(daemon->is_silent()) << daemon->waiting();
    file.close();
    settle();
    daemon->take(DELETED);
}

TEST_F(idl_topologyd, asks_again_after_a_refusal_ever_more_patiently) {
    start_connected(link_clear);
    for (uint32_t pause_ms : {1000u, 2000u, 4000u, 8000u, 16000u, 30000u, 30000u}) {
        reject(ADDED, OXMSI_REJ_UNKNOWN_PORT_NAME);
        advance(pause_ms - 1);
        EXPECT_TRUE(daemon->is_silent()) << pause_ms << " ms: " << daemon->waiting();
        advance(1);
    }
    confirm(ADDED, secured);
    // Confirmed, it starts from one second again; a change of the file does not wait at all.
    write_file(link_clear + "status='down'\n");
    reject(UPDATED, OXMSI_REJ_INTERNAL_ERROR);
    write_file(link_clear);
    // It finds out what the daemon holds: a link that is not ours is deleted first.
    reject(DELETED, OXMSI_REJ_LINK_NOT_FOUND);
    reject(ADDED, OXMSI_REJ_MAX_NUMBER_OF_LINKS_REACHED);
    advance(1000);
    daemon->take(DELETED);
}

TEST_F(idl_topologyd, drops_what_is_not_the_daemons_answer) {
    start_connected(link_a1);
    uint32_t added = take_reference(ADDED);
    oxmsi_rej rej{};
    rej.header.procedure_reference = added;
    rej.header.connection_reference = connection;
    rej.reason = OXMSI_REJ_UNKNOWN_PORT_NAME;
    for (uint32_t number : {ADDED + 2, OXMSI_SERVER_DOWN_IND, OXMSI_SERVER_UP_IND})
        person->send(manager, number, rej);
    daemon->send_bytes(manager, ADDED + 2, &rej, 15);
    daemon->send_bytes(manager, ADDED + 1, &rej, 16);
    daemon->send_bytes(manager, OXMSI_CONNECTION_ESTABLISH_CFM, &rej, 16);
    rej.header.connection_reference = connection + 1;
    daemon->send(manager, ADDED + 2, rej);
    tell(OXMSI_PORT_STATE_CHANGE_IND, subscription, secured, "IDL_XX");
    tell(OXMSI_PORT_STATE_CHANGE_IND, subscription + 100, secured);
    EXPECT_FALSE(take_errors().empty());
    EXPECT_TRUE(daemon->is_silent()) << daemon->waiting();
    tell(ADDED + 1, added, secured);
    EXPECT_EQ(take_errors(), "") << "the answer that it waited for";
}

// --- Towards the other end.

TEST_F(idl_topologyd, starts_over_when_the_other_end_does) {
    struct end {
        const char* how;
        std::function<void()> happens;
        bool is_let_go = false; // deleted, and added as down
    };
    const end ends[] = {
        {"the port's keys are lost", [this] { indicate(subscription, joining); }},
        {"the cable is out, or the port was released", [this] { indicate(subscription, unsecured); }, true},
        {"the other end started over", [this] { other_starts_over(); }},
        {"its daemon is gone", [this] { other_says(TOPOLOGY_PHASE_NO_DAEMON); }},
        {"it is not wanted there", [this] { other_says(TOPOLOGY_PHASE_OFF); }},
        {"its manager is gone", [this] { other.reset(); }},
    };
    start_encrypted();
    for (const end& each : ends) {
        uint32_t before = heard().incarnation;
        each.happens();
        settle();
        each.is_let_go ? take_anew() : take_down();
        EXPECT_TRUE(daemon->is_silent()) << each.how << ": " << daemon->waiting();
        other ? other_starts_over() : other_end_appears();
        EXPECT_NE(heard().incarnation, before) << each.how;
        become_encrypted(take_up());
        advance(20000);
    }
}

TEST_F(idl_topologyd, starts_over_when_its_daemon_or_itself_stood_still_for_long) {
    start_encrypted();
    auto daemon_goes_on = [&] {
        daemon_stands_still = false;
        daemon->send(manager, OXMSI_CAPABILITIES_GET_CFM,
                     oxmsi_capabilities_get_cfm{unanswered_probe, {1, 1, 8}});
        settle();
    };
    const uint32_t before = heard().incarnation;
    auto secure_again = [&] {
        take_down();
        other_starts_over();
        become_encrypted(take_up());
        advance(20000);
    };
    for (uint32_t ms : {1800u, 2700u}) {
        daemon_stands_still = true;
        advance(ms);
        EXPECT_EQ(heard().fault, TOPOLOGY_FAULT_STALLED);
        EXPECT_EQ(told.phase, TOPOLOGY_PHASE_ENCRYPTED);
        EXPECT_TRUE(daemon->is_silent()) << daemon->waiting();
        const auto status = take_status();
        EXPECT_NE(strstr(status.as<shown>().link.words.octets, "stands still"), nullptr);
        daemon->forget_all();
        daemon_goes_on();
    }
    EXPECT_NE(heard().incarnation, before);
    EXPECT_EQ(told.fault, TOPOLOGY_FAULT_NONE);
    secure_again();
    // This process, or the whole unit, is frozen and thawed. Nothing else shows it.
    const uint32_t then = heard().incarnation;
    oka::simulation::advance_ms(1500);
    settle();
    EXPECT_EQ(heard().incarnation, then);
    oka::simulation::advance_ms(2600);
    settle();
    EXPECT_NE(heard().incarnation, then);
    secure_again();
}

// Perhaps the port looks down because the daemon let the link go for some other client.
TEST_F(idl_topologyd, publishes_anew_ever_less_often_while_the_port_is_down) {
    start_ready();
    tell(UPDATED + 1, take_up(), unsecured);
    indicate(subscription, unsecured);
    EXPECT_EQ(heard().fault, TOPOLOGY_FAULT_PORT_DOWN);
    for (uint32_t pause_ms : {1000u, 2000u, 4000u}) {
        advance(pause_ms - 1);
        EXPECT_TRUE(daemon->is_silent()) << pause_ms;
        advance(1);
        take_anew();
    }
}

TEST_F(idl_topologyd, tries_again_ever_less_often_while_the_cause_lasts) {
    start_ready();
    for (uint32_t most_ms : {0u, 1000u, 2000u, 4000u, 8000u, 16000u, 30000u, 30000u}) {
        tell(UPDATED + 1, take_up(), joining); // it could not be secured
        take_down();
        other_says(TOPOLOGY_PHASE_DOWN);
        uint32_t waited_ms = 0;
        for (; daemon->is_silent() && waited_ms < most_ms; waited_ms++)
            advance(1);
        EXPECT_GE(waited_ms, most_ms * 3 / 4);
    }
    EXPECT_EQ(heard().fault, TOPOLOGY_FAULT_FAILED);
    // Keys that do not come are a failure, too.
    take_up();
    indicate(subscription, joining);
    advance(4999);
    EXPECT_TRUE(daemon->is_silent());
    advance(1);
    take_down();
    EXPECT_EQ(heard().fault, TOPOLOGY_FAULT_NO_KEYS);
}

TEST_F(idl_topologyd, is_not_harmed_by_an_end_that_talks_nonsense) {
    using word = topology_peer_link_ind;
    constexpr uint32_t IND = TOPOLOGY_PEER_LINK_IND;
    const struct {
        const char* rule;
        void (*spoil)(word& bad);
        uint32_t size;
        uint32_t reason; // of the reject, 0 for none
    } cases[] = {
        {"another version, whatever its size", [](word& bad) { bad.version = 2; }, 20, 1},
        {"too short for a version", [](word&) {}, 15, 0},
        {"too short", [](word&) {}, 275, 2},
        {"no incarnation", [](word& bad) { bad.incarnation = 0; }, 276, 2},
        {"no such phase", [](word& bad) { bad.phase = 9; }, 276, 2},
        {"a name without an end", [](word& bad) { memset(&bad.port, 'x', 16); }, 276, 2},
        {"no such link", [](word& bad) { bad.remote_port.assign("IDL_ZZ"); }, 276, 4},
        {"not the port at its end", [](word& bad) { bad.port.assign("IDL_D1"); }, 276, 4},
    };
    start_encrypted();
    (void)heard();
    for (const auto& each : cases) {
        word spoilt = says;
        spoilt.incarnation = says.incarnation + 7; // which would have the link start over
        spoilt.header.procedure_reference = static_cast<uint32_t>(&each - cases);
        each.spoil(spoilt);
        for (int flood = 0; flood < 100; flood++)
            other->send_bytes(peers, IND, &spoilt, each.size);
        settle();
        if (each.reason != 0) {
            EXPECT_EQ(other->take(TOPOLOGY_PEER_LINK_REJ).as<topology_rej>().reason, each.reason);
        }
        EXPECT_TRUE(other->is_silent()) << each.rule << ": answered more than once: " << other->waiting();
        EXPECT_TRUE(daemon->is_silent()) << each.rule << ": " << daemon->waiting();
    }
    // What a person may ask for is not to be had where managers speak.
    ask(TOPOLOGY_STATUS_REQ, topology_protocol_version, peers);
    EXPECT_TRUE(person->is_silent());
    // Nor by one that is not the end of this link.
    says.incarnation = says.incarnation + 7;
    test::peer("site/mp9/idl-topologyd").send(peers, IND, says);
    settle();
    EXPECT_TRUE(daemon->is_silent()) << daemon->waiting();
    // One that never listens is told only once.
    says.incarnation = says.incarnation - 7;
    says.seen_incarnation = 0;
    for (int flood = 0; flood < 100; flood++)
        other->send(peers, IND, says);
    settle();
    other->take(IND);
    EXPECT_TRUE(other->is_silent()) << other->waiting();
}

TEST_F(idl_topologyd, meets_an_end_that_changes_its_mind_all_the_time_with_pauses) {
    start_ready();
    int rounds = 0;
    for (; !daemon->is_silent() && rounds < 100; rounds++) {
        take_up();
        other_starts_over();
        take_down();
        other_says(TOPOLOGY_PHASE_DOWN);
    }
    EXPECT_EQ(rounds, 10);
    EXPECT_EQ(heard().fault, TOPOLOGY_FAULT_FLAPPING);
}

TEST_F(idl_topologyd, says_what_is_wrong_and_where) {
    start_ready(9);
    auto expect_fault = [&](topology_fault_code code, topology_end end, const char* words) {
        advance(1500);
        const auto status = take_status();
        const topology_link& link = status.as<shown>().link;
        EXPECT_EQ(link.fault, code) << words << ": " << link.words.octets;
        EXPECT_EQ(link.fault_end, end) << words;
        EXPECT_GE(link.fault_since.in_ms(), 1500u) << words;
        EXPECT_NE(strstr(link.words.octets, words), nullptr) << link.words.octets;
    };
    says.remote_mpid = 7;
    other_says(TOPOLOGY_PHASE_DOWN);
    expect_fault(TOPOLOGY_FAULT_MPIDS, TOPOLOGY_END_HERE, "remote-mpid is 7 at both ends");
    says.remote_mpid = 9;
    says.fault = TOPOLOGY_FAULT_NO_DAEMON;
    says.words.assign("no \x1b daemon");
    other_says(TOPOLOGY_PHASE_NO_DAEMON);
    expect_fault(TOPOLOGY_FAULT_NO_DAEMON, TOPOLOGY_END_THERE, "no ? daemon");
    other_says(TOPOLOGY_PHASE_OFF);
    expect_fault(TOPOLOGY_FAULT_OFF, TOPOLOGY_END_THERE, "not to be secured there");
    topology_rej rej{};
    rej.reason = TOPOLOGY_REJ_UNSUPPORTED_PROTOCOL_VERSION;
    rej.words.assign("version 9 only");
    other->send(peers, TOPOLOGY_PEER_LINK_REJ, rej);
    expect_fault(TOPOLOGY_FAULT_PEER_REFUSES, TOPOLOGY_END_THERE, "refuses: version 9 only");
    other.reset();
    expect_fault(TOPOLOGY_FAULT_NO_PEER, TOPOLOGY_END_THERE, "no idl-topologyd is found at 'site/mp7'");
    daemon.reset();
    expect_fault(TOPOLOGY_FAULT_NO_DAEMON, TOPOLOGY_END_HERE, "qel-tavu is not reachable");
}

// --- Towards people.

TEST_F(idl_topologyd, answers_a_status_query_with_what_the_daemon_says_now_or_within_half_a_second) {
    start_published();
    advance(5000);
    ask(TOPOLOGY_STATUS_REQ);
    EXPECT_TRUE(person->is_silent());
    daemon->take(UNSUBSCRIBE);
    indicate(take_reference(SUBSCRIBE), joining);
    const auto status = person->take(TOPOLOGY_STATUS_CFM);
    EXPECT_EQ(status.as<shown>().head.header.procedure_reference, 77u);
    EXPECT_EQ(status.as<shown>().link.oper_state, 0u);
    EXPECT_EQ(status.as<shown>().link.published.in_ms(), 5000u);
    EXPECT_EQ(take_status().as<shown>().link.state_told.in_ms(), 500u);
}

TEST_F(idl_topologyd, sets_a_status_until_the_file_changes_it_or_says_why_not) {
    constexpr uint32_t REJ = TOPOLOGY_LINK_SET_REJ, DOWN = OXMSI_LTM_LINK_STATUS_DOWN;
    start_published();
    set_status("IDL_A1", DOWN);
    EXPECT_TRUE(person->is_silent()) << "the daemon has not confirmed yet";
    take_down();
    EXPECT_EQ(person->take(TOPOLOGY_LINK_SET_CFM).as<topology_link_set_cfm>().link.is_status_set, 1u);
    write_file("# note\n" + link_clear);
    EXPECT_TRUE(daemon->is_silent()) << daemon->waiting();
    write_file(link_clear + "status='macsec-pending'\n");
    tell(UPDATED + 1, take_update(OXMSI_LTM_LINK_STATUS_MACSEC_PENDING), secured);

    set_status("IDL_ZZ", DOWN);
    EXPECT_STREQ(person->take(REJ).as<topology_rej>().words.octets,
                 "the links file has no link on port 'IDL_ZZ'; it has IDL_A1");
    set_status("IDL_A1", 12);
    EXPECT_EQ(take_reject(REJ), TOPOLOGY_REJ_INVALID_LINK_STATUS);
    set_status("IDL_A1", DOWN);
    reject(UPDATED, OXMSI_REJ_UNKNOWN_PORT_NAME);
    EXPECT_EQ(take_reject(REJ), TOPOLOGY_REJ_REFUSED);
    set_status("IDL_A1", OXMSI_LTM_LINK_STATUS_UP);
    set_status("IDL_A1", DOWN);
    EXPECT_EQ(take_reject(REJ), TOPOLOGY_REJ_OVERTAKEN);
    daemon.reset();
    settle();
    EXPECT_EQ(take_reject(REJ), TOPOLOGY_REJ_NOT_CONNECTED);
}

TEST_F(idl_topologyd, refuses_what_it_does_not_understand_and_more_than_it_can_keep) {
    start_published();
    ask(TOPOLOGY_STATUS_REQ, 2);
    EXPECT_EQ(take_reject(TOPOLOGY_STATUS_REJ), TOPOLOGY_REJ_UNSUPPORTED_PROTOCOL_VERSION);
    const be32 bytes[8] = {0u, 0u, 0u, topology_protocol_version};
    person->send_bytes(manager, TOPOLOGY_WATCH_REQ, bytes, 20);
    person->send_bytes(manager, TOPOLOGY_LINK_SET_REQ, bytes, 12);
    person->send_bytes(manager, TOPOLOGY_STATUS_REQ, bytes, 11);
    settle();
    EXPECT_EQ(take_reject(TOPOLOGY_WATCH_REJ), TOPOLOGY_REJ_MALFORMED);
    EXPECT_EQ(take_reject(TOPOLOGY_LINK_SET_REJ), TOPOLOGY_REJ_MALFORMED);
    EXPECT_TRUE(person->is_silent()) << "nobody can be told without a reference";
    for (int i = 0; i < 32; i++) {
        ask(TOPOLOGY_WATCH_REQ);
        person->take(TOPOLOGY_WATCH_CFM);
    }
    ask(TOPOLOGY_WATCH_REQ);
    EXPECT_EQ(take_reject(TOPOLOGY_WATCH_REJ), TOPOLOGY_REJ_BUSY);
}

// Row by row: the state that is left, and those that may be entered.
template<class State, size_t N>
void expect_changes(const uint32_t (&changes)[N], const char* const (&allowed)[N]) {
    for (size_t from = 0; from < N; from++) {
        for (size_t entered = 0; entered < N; entered++) {
            bool expected =
                from == entered || strchr(allowed[from], static_cast<int>('0' + entered)) != nullptr;
            EXPECT_EQ(tavu::is_allowed(changes, static_cast<State>(from), static_cast<State>(entered)),
                      expected)
                << from << " -> " << entered;
        }
    }
}

TEST(idl_topologyd_states, change_as_their_tables_say_and_in_no_other_way) {
    expect_changes<topologyd::agreement_state>(topologyd::agreement_state_changes,
                                               {"1", "0234", "034", "04", "0"});
    expect_changes<topologyd::held_link>(topologyd::held_link_changes, {"12", "02", "0"});
    expect_changes<topologyd::subscription_state>(topologyd::subscription_state_changes, {"1", "02", "01"});
}

} // namespace
