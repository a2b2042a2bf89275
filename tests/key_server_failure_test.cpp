// What ends a CA's keying, and what stays as it was; the life cycle; the tables of states.
#include <functional>

#include "support/key_server_world.h"
#include "tavu/key_server/key_server_records.h"

namespace {

using namespace tavu;

class key_server_failure : public test::key_server_world {
  protected:
    // Indications as a timer would deliver them.
    void time_out(const char* ca, uint32_t client_id, size_t size = sizeof(keysrv_msg_timeout_ind)) {
        keysrv_msg_timeout_ind indication{{{}, 106, 0}, MKA_CREATE_RX_SC_RREQ, 102, client_id, {}};
        indication.ca.assign(ca);
        test::prepare_bytes(KEYSRV_MSG_TIMEOUT_IND, &indication, size);
        run();
    }
    void refresh(const char* ca, size_t size = sizeof(keysrv_key_refresh_timer_ind)) {
        keysrv_key_refresh_timer_ind indication{};
        indication.ca.assign(ca);
        test::prepare_bytes(KEYSRV_KEY_REFRESH_TIMER_IND, &indication, size);
        run();
    }
    void expect_secured_afresh() {
        secure();
        std::string conversation = heard();
        EXPECT_EQ(conversation.substr(0, 8), "rx_sc(2)");
        EXPECT_EQ(conversation.substr(conversation.size() - 7), "protect");
    }
};

TEST_F(key_server_failure, a_request_without_an_answer_ends_the_keying_after_five_seconds) {
    const struct {
        uint32_t request;
        const char* heard;
    } rows[] = {
        {MKA_CREATE_RX_SC_RREQ, "rx_sc(2)"},
        {MKA_CREATE_RX_SA_RREQ, "rx_sa(2,1)"},
        {MKA_CREATE_TX_SA_RREQ, "tx_sa(2)"},
        {MKA_UPDATE_PROTECT_FRAMES_RREQ, "protect"},
    };
    for (const auto& row : rows) {
        SCOPED_TRACE(row.heard);
        a.obliging = false;
        b.obliging = true;
        announce();
        for (const auto& earlier : rows) {
            if (earlier.request == row.request)
                break;
            a.confirm(earlier.request);
            run();
        }
        std::string conversation = a.heard();
        EXPECT_EQ(conversation.substr(conversation.rfind(' ') + 1), row.heard);
        b.heard();
        pass(4999);
        EXPECT_EQ(heard(), " | ");
        pass(1);
        EXPECT_EQ(heard(), "leave | leave");
    }
    // The waits of the CA that was dropped end with it, and not that of the next forming.
    a.obliging = false;
    announce();
    pass(3000);
    b.leave("ca1");
    run();
    heard();
    expect_secured_afresh();
    pass(5000);
    EXPECT_EQ(heard(), " | ");
    a.leave("ca1");
    run();
    heard();
    // One that crossed its confirmation counts.
    expect_secured_afresh();
    time_out("ca1", 1);
    EXPECT_EQ(heard(), "leave | leave");
    stop_and_expect_nothing_left();
}

TEST_F(key_server_failure, whatever_happens_to_one_member_sends_its_whole_ca_away) {
    struct row {
        const char* rule;
        std::function<void()> event;
        const char* heard; // by the member that it happens to
    };
    const row rows[] = {
        {"leave", [&] { b.leave("ca1"); }, "leave_cfm leave"},
        {"leave, of another CA's name", [&] { b.leave("ca2"); }, "leave_cfm leave"},
        {"left on its own", [&] { b.say(MKA_LEAVE_CA_RCFM, 100); }, "leave_cfm leave"},
        {"channel refused", [&] { b.reject(MKA_CREATE_RX_SC_RREJ, 102); }, "leave"},
        {"receive SA refused", [&] { b.reject(MKA_CREATE_RX_SA_RREJ, 104); }, "leave"},
        {"protection refused", [&] { b.reject(MKA_UPDATE_PROTECT_FRAMES_RREJ, 105); }, "leave"},
        {"closed", [&] { b.close(); }, "closed leave"},
        {"dead", [&] { b.mailbox.disappear(); }, ""},
    };
    // A CA beside this one goes on undisturbed.
    EXPECT_TRUE(key_server_add_ca("ca2"));
    test::ca_member c(server, "kay-3", 1);
    test::ca_member d(server, "kay-4", 4);
    connect();
    for (test::ca_member* member : {&c, &d}) {
        add(*member);
        member->obliging = true;
        member->join("ca2");
        member->announce("ca2");
    }
    run();
    c.heard();
    d.heard();
    for (const row& row : rows) {
        SCOPED_TRACE(row.rule);
        expect_secured_afresh();
        row.event();
        run();
        EXPECT_EQ(heard(), std::string("leave | ") + row.heard);
    }
    EXPECT_EQ(c.heard() + d.heard(), "");
    pass(180000);
    EXPECT_EQ(c.heard() + " | " + d.heard(), "rx_sa(4,2) tx_sa(2) protect | rx_sa(1,2) tx_sa(2) protect");
    c.is_alive = false;
    pass(5000);
    EXPECT_EQ(c.heard() + " | " + d.heard(), "leave | leave");
    EXPECT_EQ(a.heard(), "");
    stop_and_expect_nothing_left();
}

TEST_F(key_server_failure, what_comes_from_no_member_is_traced_and_changes_nothing) {
    secure();
    heard();
    test::ca_member c(server, "kay-3", 3);
    add(c);
    const std::pair<const char*, std::function<void()>> rows[] = {
        {"leave of another's CA", [&] { c.leave("ca1"); }},
        {"left", [&] { c.say(MKA_LEAVE_CA_RCFM, 100); }},
        {"channel", [&] { c.say(MKA_CREATE_RX_SC_RCFM, 102); }},
        {"channel refused", [&] { c.reject(MKA_CREATE_RX_SC_RREJ, 102); }},
        {"time-out of no CA", [&] { time_out("ca9", 1); }},
        {"time-out of no member", [&] { time_out("ca1", 3); }},
        {"time-out cut short", [&] { time_out("ca1", 1, sizeof(keysrv_msg_timeout_ind) - 1); }},
        {"refresh of no CA", [&] { refresh("ca9"); }},
        {"refresh cut short", [&] { refresh("ca1", sizeof(keysrv_key_refresh_timer_ind) - 1); }},
        {"closed", [&] { c.close(); }},
    };
    for (const auto& [rule, happens] : rows) {
        SCOPED_TRACE(rule);
        forget_traces();
        happens();
        run();
        EXPECT_NE(take_errors(), "");
        EXPECT_EQ(heard(), " | ");
    }
    c.mailbox.disappear();
    pass(180000);
    EXPECT_EQ(heard(), "rx_sa(2,2) tx_sa(2) protect | rx_sa(1,2) tx_sa(2) protect");
}

TEST_F(key_server_failure, without_a_key_the_members_start_over) {
    keys_fail = true;
    secure();
    EXPECT_EQ(heard(), "rx_sc(2) leave | tx_sc_cfm rx_sc(1) leave");
    keys_fail = false;
    expect_secured_afresh();
    keys_fail = true;
    pass(180000);
    EXPECT_EQ(heard(), "leave | leave");
    keys_fail = false;
    pass(400000);
    EXPECT_EQ(heard(), " | ");
    expect_secured_afresh();
}

TEST_F(key_server_failure, a_refresh_that_is_due_at_the_wrong_time_is_put_off) {
    secure();
    b.leave("ca1");
    run();
    heard();
    a.obliging = b.obliging = false;
    announce();
    refresh("ca1");
    a.confirm(MKA_CREATE_RX_SC_RREQ);
    b.confirm(MKA_CREATE_RX_SC_RREQ);
    run();
    heard();
    refresh("ca1");
    EXPECT_EQ(heard(), " | ");
    a.obliging = b.obliging = true;
    a.confirm(MKA_CREATE_RX_SA_RREQ);
    b.confirm(MKA_CREATE_RX_SA_RREQ);
    run();
    EXPECT_EQ(heard(), "tx_sa(2) protect | tx_sa(2) protect");
    pass(180000);
    EXPECT_EQ(heard(), "rx_sa(2,3) tx_sa(3) protect | rx_sa(1,3) tx_sa(3) protect");
}

TEST_F(key_server_failure, refuses_operations_in_the_wrong_state) {
    secure();
    heard();
    EXPECT_FALSE(key_server_start());
    EXPECT_FALSE(key_server_add_ca("ca1"));    // there already
    EXPECT_FALSE(key_server_remove_ca("ca2")); // never there
    EXPECT_TRUE(key_server_stop());
    run();
    EXPECT_EQ(heard(), "leave | leave");
    EXPECT_FALSE(key_server_stop());
    EXPECT_FALSE(key_server_add_ca("ca2"));
    // The MKA server goes on, but a join has no CA to find and no answer.
    a.join("ca1");
    run();
    EXPECT_EQ(heard(), " | ");
}

// Every pair of states, against the changes written down here.
template<class Change>
void expect_changes(uint32_t states, const std::vector<std::string>& allowed, Change change) {
    for (uint32_t from = 0; from < states; from++) {
        for (uint32_t to = 0; to < states; to++) {
            bool is_allowed = from == to || allowed[from].find(std::to_string(to)) != std::string::npos;
            EXPECT_EQ(change(from, to), is_allowed ? to : from) << from << " -> " << to;
        }
    }
}

TEST(key_server_states, change_as_their_tables_say_and_in_no_other_way) {
    expect_changes(3, {"1", "02", ""}, [](uint32_t from, uint32_t to) -> uint32_t {
        keysrv::connectivity_association ca{};
        ca.state = static_cast<keysrv::ca_state>(from);
        change_ca_state(ca, static_cast<keysrv::ca_state>(to));
        return ca.state;
    });
    expect_changes(7, {"16", "26", "36", "46", "56", "6", "0"}, [](uint32_t from, uint32_t to) -> uint32_t {
        keysrv::ca_member member{};
        member.state = static_cast<keysrv::ca_member_state>(from);
        change_ca_member_state(member, static_cast<keysrv::ca_member_state>(to));
        return member.state;
    });
    expect_changes(3, {"2", "02", "01"}, [](uint32_t from, uint32_t to) -> uint32_t {
        keysrv::connectivity_association ca{};
        ca.refresh_state = static_cast<keysrv::key_refresh_state>(from);
        change_key_refresh_state(ca, static_cast<keysrv::key_refresh_state>(to));
        return ca.refresh_state;
    });
}

} // namespace
