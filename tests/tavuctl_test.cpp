#include <optional>

#include "platform/oka/simulation/simulation.h"
#include "services/tavuctl/command_line.h"
#include "services/tavuctl/session.h"
#include "services/tavuctl/snapshot.h"
#include "support/world.h"

using namespace tavu;
using namespace services;
using namespace tavuctl;

namespace {

// --- The command line.

TEST(tavuctl_command_line, is_read_or_refused) {
    const struct {
        std::vector<const char*> arguments;
        action wanted;
        const char* text;
    } cases[] = {
        {{"status"}, action::status, ""},
        {{"watch", "--json"}, action::watch, ""},
        {{"link", "set", "--status=file", "IDL_A1", "--timeout=1"}, action::link_set, ""},
        {{"status", "--help"}, action::answer, "Usage: tavuctl status"},
        {{"link", "set", "--help"}, action::answer, "4  not confirmed in time"},
        {{"--version"}, action::answer, "tavuctl 0."},
        {{"help"}, action::answer, "Usage: tavuctl COMMAND"},
        {{"status", "-h"}, action::answer, "Usage: tavuctl status"},
        {{"check", "unit.conf"}, action::check, ""},
        {{"check", "a", "b"}, action::answer, "unexpected argument 'b'"},
        {{}, action::answer, "say what to do\nTry 'tavuctl --help'."},
        {{"stauts"}, action::answer, "unknown command 'stauts'"},
        {{"link"}, action::answer, "Try 'tavuctl link --help'."},
        {{"status", "--jsno"}, action::answer, "unknown option '--jsno'"},
        {{"status", "--timeout=0"}, action::answer, "--timeout is '0'; it must be from 1 to 86400"},
        {{"status", "--timeout=99999999999999999999"}, action::answer, "--timeout is"},
        {{"link", "set"}, action::answer, "say which port's link to set"},
        {{"link", "set", "P"}, action::answer, "say which status"},
        {{"link", "set", "P", "--status", "on"}, action::answer, "--status is 'on'; it must be file, up"},
        {{"link", "set", "0123456789012345", "--status", "up"}, action::answer, "1 to 15 characters"},
    };
    for (const auto& each : cases) {
        command_line line = read_command_line(each.arguments);
        EXPECT_EQ(line.wanted, each.wanted) << each.text << ":\n" << line.answer.text;
        EXPECT_NE(line.answer.text.find(each.text), std::string::npos) << each.text << ":\n"
                                                                       << line.answer.text;
    }
}

// --- What is shown.

topology_link secured_link() {
    topology_link link{};
    link.port.assign("IDL_A1");
    link.remote_port.assign("IDL_C2");
    link.hunt_path.assign("mp7");
    link.link_id = 1;
    link.remote_mpid = 7;
    link.du_type = OXMSI_DU_TYPE_3;
    link.status = OXMSI_LTM_LINK_STATUS_UP;
    link.publication = TOPOLOGY_LINK_PUBLISHED;
    link.published = topology_age::of_ms(192400);
    link.oper_state = link.encryption_state = 1;
    link.state_since = topology_age::of_ms(192350);
    link.last_request = OXMSI_IDL_TOPOLOGY_PUBLISH_LINK_ADDED_REQ;
    link.requested = topology_age::of_ms(192400);
    link.last_answer = OXMSI_IDL_TOPOLOGY_PUBLISH_LINK_ADDED_CFM;
    return link;
}

// One that the daemon refused, with a status set over the file's.
topology_link refused_link() {
    topology_link link{};
    link.port.assign("X1");
    link.remote_port.assign("\"\x1b");
    link.link_id = 12;
    link.remote_mpid = 9;
    link.du_type = OXMSI_DU_TYPE_2;
    link.status_of_file = OXMSI_LTM_LINK_STATUS_UP;
    link.status = OXMSI_LTM_LINK_STATUS_DOWN;
    link.is_status_set = 1;
    link.oper_state = OXMSI_PORT_OPER_STATE_UNINITIALIZED;
    link.encryption_state = OXMSI_PORT_ENCRYPTION_STATE_UNINITIALIZED;
    link.published = link.state_since = link.state_told = topology_age::never();
    link.last_request = OXMSI_IDL_TOPOLOGY_PUBLISH_LINK_ADDED_REQ;
    link.requested = link.answered = topology_age::of_ms(500);
    link.last_answer = OXMSI_IDL_TOPOLOGY_PUBLISH_LINK_ADDED_REJ;
    link.last_reason = OXMSI_REJ_INTERNAL_ERROR;
    link.milliseconds_to_next = 500;
    link.phase = TOPOLOGY_PHASE_STOPPING;
    link.fault = TOPOLOGY_FAULT_NO_PEER;
    link.fault_end = TOPOLOGY_END_THERE;
    link.fault_since = topology_age::of_ms(2000);
    link.words.assign("nobody; look");
    return link;
}

snapshot snapshot_of(std::vector<topology_link> links) {
    snapshot shown{};
    shown.head.version = topology_protocol_version;
    shown.head.daemon_state = TOPOLOGY_DAEMON_CONNECTED;
    shown.head.daemon_since = topology_age::of_ms(200000);
    shown.head.links_file.assign("/etc/l.toml");
    shown.head.link_count = static_cast<uint32_t>(links.size());
    shown.links = std::move(links);
    return shown;
}

TEST(tavuctl_snapshot, is_a_table) {
    topology_link unanswered = secured_link();
    unanswered.publication = TOPOLOGY_LINK_REQUESTED;
    unanswered.phase = TOPOLOGY_PHASE_JOINING;
    topology_link refused = refused_link();
    refused.remote_port.assign("D");
    EXPECT_EQ(show_table(snapshot_of({unanswered, refused}), 100),
              "qel-tavu:   connected for 3 m 20 s\n"
              "links file: /etc/l.toml\n"
              "\n"
              "PORT    LINK  PEER        STATUS      CONTROLLED PORT  ENCRYPTION  SINCE     PUBLISHED  LAST "
              "ANSWER\n"
              "IDL_A1  1     mp7 IDL_C2  up          enabled          enabled     3 m 12 s  3 m 12 s   "
              "link added: no answer yet, for 3 m 12 s; it comes when the other end has joined\n"
              "X1      12    mp9 D       down (set)  not known        not known   -         -          "
              "link added: refused: qel-tavu is not ready, or out of memory; asked again in 0.4 s\n"
              "\n"
              "X1: wrong at mp9 for 2.1 s: nobody; look\n");

    snapshot without = snapshot_of({});
    without.head.file_error.assign("F:1: no");
    std::string table = show_table(without);
    EXPECT_NE(table.find("links file: not in force: F:1: no\n\nno links\n"), std::string::npos) << table;
}

TEST(tavuctl_snapshot, is_json) {
    EXPECT_EQ(show_json(snapshot_of({refused_link()})),
              R"({"daemon":{"state":"connected","since_ms":200000,"refusal":null},)"
              R"("links_file":{"path":"/etc/l.toml","in_force":true,"error":null},)"
              R"("links":[{"port":"X1","link_id":12,"remote_port":"\"\u001b","remote_mpid":9,"hunt_path":"",)"
              R"("du_type":"type-2","status":"down","status_of_file":"up","status_is_set":true,)"
              R"("publication":"waiting","published_ms":null,"controlled_port":null,"encryption":null,)"
              R"("state_since_ms":null,"state_told_ms":null,)"
              R"("last_request":"OXMSI_IDL_TOPOLOGY_PUBLISH_LINK_ADDED_REQ","requested_ms":500,)"
              R"("last_answer":"OXMSI_IDL_TOPOLOGY_PUBLISH_LINK_ADDED_REJ",)"
              R"("last_reason":"OXMSI_REJ_INTERNAL_ERROR","last_answer_in_words":)"
              R"("link added: refused: qel-tavu is not ready, or out of memory; asked again in 0.5 s",)"
              R"("answered_ms":500,"next_attempt_ms":500,"phase":"stopping",)"
              R"("fault":{"code":"no-peer","at":"other end","since_ms":2000,"words":"nobody; look"}}]})");
}

TEST(tavuctl_snapshot, tells_changes_but_no_ages) {
    snapshot before = snapshot_of({secured_link()});
    snapshot after = before;
    after.links[0].state_told = topology_age::of_ms(99);
    after.links[0].published = topology_age::of_ms(999999);
    EXPECT_EQ(show_changes(before, after), "");
    after.links[0].encryption_state = 0;
    EXPECT_EQ(show_changes(before, after),
              "IDL_A1: link 1 to mp7 IDL_C2, status up: controlled port enabled, encryption disabled; "
              "link added: confirmed\n");
    EXPECT_EQ(show_changes(before, snapshot_of({})), "IDL_A1: no longer a link\n");
}

TEST(tavuctl_snapshot, has_durations_that_people_read) {
    const std::pair<uint64_t, const char*> cases[] = {
        {0, "0.0 s"},          {59999, "59.9 s"},       {60000, "1 m 00 s"},  {3599999, "59 m 59 s"},
        {3600000, "1 h 00 m"}, {86399999, "23 h 59 m"}, {86400000, "1 d 0 h"}};
    for (const auto& [milliseconds, text] : cases)
        EXPECT_EQ(show_duration(milliseconds), text);
}

// --- The conversation, with a manager whose words the test chooses.

class tavuctl_session : public test::world {
  protected:
    tavuctl_session() {
        output.clear();
        errors.clear();
        route_to(session_dispatch_message);
    }
    ~tavuctl_session() override {
        manager.reset();
        settle();
    }

    void start(std::vector<const char*> arguments, bool has_screen = false) {
        static constexpr auto write_output = [](const std::string& text) { output += text; };
        static constexpr auto write_error = [](const std::string& text) { errors += text; };
        session_callbacks callbacks = {write_output, write_error, has_screen};
        if (own != OKA_MAILBOX_NONE)
            oka_delete_mailbox(own);
        own = oka_clone_mailbox(root(), "tavuctl-1");
        session_start(own, read_command_line(arguments), &callbacks);
        settle();
    }
    void manager_appears() {
        manager.emplace(topology_mailbox_name);
        settle();
    }
    uint32_t take_reference(uint32_t number) {
        return manager->take(number).as<message_header>().procedure_reference;
    }
    void reply(uint32_t number, snapshot shown, uint32_t reference, size_t cut = 0) {
        shown.head.header.procedure_reference = reference;
        std::string bytes(reinterpret_cast<const char*>(&shown.head), sizeof shown.head);
        for (const topology_link& link : shown.links)
            bytes.append(reinterpret_cast<const char*>(&link), sizeof link);
        manager->send_bytes(own, number, bytes.data(), bytes.size() - cut);
        settle();
    }
    void expect_done(exit_status status, const char* said) {
        EXPECT_EQ(session_get_state(), SESSION_STATE_DONE);
        EXPECT_EQ(session_exit_status(), status);
        EXPECT_NE((output + errors).find(said), std::string::npos) << output << errors;
        EXPECT_EQ(oka::simulation::live().timers, 0u);
        EXPECT_EQ(oka::simulation::live().monitors, 0u);
    }

    static inline std::string output;
    static inline std::string errors;
    std::optional<test::peer> manager;
    oka_mailbox own = OKA_MAILBOX_NONE;
};

TEST_F(tavuctl_session, asks_and_shows) {
    manager_appears();
    start({"status", "--json"});
    EXPECT_EQ(manager->take(TOPOLOGY_STATUS_REQ).hex(), "00 00 00 01 00 00 00 00 00 00 00 01");
    reply(TOPOLOGY_STATUS_CFM, snapshot_of({secured_link()}), 2);
    EXPECT_EQ(output, "") << "an answer to another request";
    reply(TOPOLOGY_STATUS_CFM, snapshot_of({secured_link()}), 1);
    expect_done(EXIT_STATUS_DONE, "\"encryption\":\"enabled\"");
}

TEST_F(tavuctl_session, says_when_nobody_answers) {
    start({"status"});
    advance(1999);
    EXPECT_EQ(session_get_state(), SESSION_STATE_LOCATING);
    advance(1);
    expect_done(EXIT_STATUS_UNREACHABLE, "tavuctl: no topology manager answers at ");
    EXPECT_NE(errors.find("OKA_DIR / OKA_UNIT"), std::string::npos);
    manager_appears();
    start({"status", "--timeout", "3"});
    advance(3000);
    expect_done(EXIT_STATUS_UNREACHABLE, "did not answer within 3.0 s");
    start({"status"});
    manager.reset();
    settle();
    expect_done(EXIT_STATUS_UNREACHABLE, "ended before it answered");
}

TEST_F(tavuctl_session, says_when_a_setting_is_not_confirmed_or_refused) {
    manager_appears();
    start({"link", "set", "IDL_A1", "--status", "down"});
    EXPECT_EQ(manager->take(TOPOLOGY_LINK_SET_REQ).hex(),
              "00 00 00 01 00 00 00 00 00 00 00 01 49 44 4c 5f 41 31 00 00 00 00 00 00 00 00 00 00 "
              "00 00 00 03");
    advance(10000);
    expect_done(EXIT_STATUS_UNCONFIRMED, "qel-tavu has not confirmed within 10.0 s; the setting is kept");
    start({"link", "set", "IDL_A1", "--status", "down"});
    topology_rej rej{};
    rej.header.procedure_reference = take_reference(TOPOLOGY_LINK_SET_REQ);
    memset(&rej.words, 'w', sizeof rej.words); // without an end
    manager->send(own, TOPOLOGY_LINK_SET_REJ, rej);
    settle();
    expect_done(EXIT_STATUS_FAILED, ("tavuctl: " + std::string(sizeof rej.words, 'w') + "\n").c_str());
}

TEST_F(tavuctl_session, refuses_answers_that_make_no_sense) {
    const snapshot good = snapshot_of({secured_link()});
    snapshot unterminated = good, miscounted = good;
    memset(&unterminated.links[0].port, 'p', sizeof(port_name));
    miscounted.head.link_count = 0x40000000;
    const struct {
        const char* rule;
        snapshot shown;
        size_t cut;
    } cases[] = {{"cut", good, 1},
                 {"less than its head", snapshot_of({}), 4},
                 {"text without an end", unterminated, 0},
                 {"more links than arrived", miscounted, 0}};
    manager_appears();
    for (const auto& each : cases) {
        start({"status"});
        reply(TOPOLOGY_STATUS_CFM, each.shown, take_reference(TOPOLOGY_STATUS_REQ), each.cut);
        EXPECT_EQ(session_exit_status(), EXIT_STATUS_FAILED) << each.rule;
        EXPECT_EQ(output, "") << each.rule;
    }
}

TEST_F(tavuctl_session, watches_until_it_is_interrupted) {
    manager_appears();
    start({"watch"}, true);
    manager->take(TOPOLOGY_WATCH_REQ);
    reply(TOPOLOGY_WATCH_CFM, snapshot_of({secured_link()}), 1);
    output.clear();
    advance(1000);
    EXPECT_NE(output.find("connected for 3 m 21 s"), std::string::npos) << output;
    // A manager that is restarted is found again, however long it takes.
    manager.reset();
    settle();
    EXPECT_NE(errors.find("ended; waiting for it"), std::string::npos);
    advance(3600000);
    manager_appears();
    manager->take(TOPOLOGY_WATCH_REQ);
    EXPECT_EQ(session_get_state(), SESSION_STATE_ASKING);
}

} // namespace
