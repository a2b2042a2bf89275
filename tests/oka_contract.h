// The messaging contract as one suite. It runs over every arrangement of processes and transports: a test
// file instantiates `oka_contract` and `oka_process_contract` with those that it can set up. The tests do not
// know whether the agent that they talk to lives in this process.
#pragma once

#include <list>
#include <optional>
#include <vector>

#include "oka_agent.h"
#include "platform/oka/core/linux_clock.h"

namespace oka_tests {

struct arrangement {
    const char* name;
    const char* transports;              // OKA_TRANSPORTS; null: none, this process is alone
    const char* agent_unit;              // null: the agent lives in this process
    const char* prefix;                  // of the paths of its mailboxes
    const char* agent_network = nullptr; // the network namespace that it lives in; null: ours
};

inline void PrintTo(const arrangement& shown, std::ostream* out) {
    *out << shown.name;
}

class oka_contract : public testing::TestWithParam<arrangement> {
  protected:
    explicit oka_contract(int agent_processes = 1) : agent_processes_(agent_processes) {}

    void SetUp() override {
        if (GetParam().transports)
            setenv("OKA_TRANSPORTS", GetParam().transports, 1);
        else
            oka::plug_clock(&oka::linux_clock);
        setenv("OKA_UNIT", "here", 1);
        for (int count = 0; GetParam().agent_unit && count < agent_processes_; ++count)
            processes.emplace_back(GetParam().agent_unit, GetParam().agent_network);
        ASSERT_TRUE(start_service());
        root = oka_create_mailbox("root", 0);
        mailbox = oka_clone_mailbox(root, "mailbox");
        if (processes.empty())
            inside_.emplace(root);
        else
            processes.front().start();
        locate_agent();
    }

    void locate_agent() {
        locate(path_of("agent"), mailbox, 1);
        arrival answer = receive();
        ASSERT_EQ(answer.number, 1u);
        agent_mailbox = answer.sender;
    }

    void TearDown() override {
        stop_service();
        EXPECT_EQ(oka::simulation::live(), oka::simulation::balance{});
    }

    static std::string path_of(const std::string& name) { return GetParam().prefix + name; }

    // The next message for the test.
    arrival receive(int32_t timeout_ms = patience_ms, const uint32_t* numbers = nullptr) {
        for (;;) {
            arrival next = take(oka_receive(numbers, timeout_ms, OKA_ANY_SENDER));
            if (!inside_ || !next || !inside_->owns(next.receiver))
                return next;
            inside_->handle(next);
        }
    }

    void command(agent_command what, const std::string& text = "") {
        send_message(agent_mailbox, mailbox, what, text);
    }

    // Commands and waits until it is done; what came before the answer is returned.
    std::vector<arrival> command_done(agent_command what, const std::string& text = "") {
        command(what, text);
        std::vector<arrival> before;
        for (;;) {
            arrival next = receive();
            if (!next)
                ADD_FAILURE() << "the agent does not answer";
            if (!next || next.number == agent_done)
                return before;
            before.push_back(next);
        }
    }

    oka_mailbox create_and_locate(const std::string& name, uint32_t number = 1) {
        command_done(agent_create, name);
        locate(path_of(name), mailbox, number);
        arrival found = receive();
        EXPECT_EQ(found.number, number);
        EXPECT_EQ(found.receiver, mailbox);
        return found.sender;
    }

    // Everything that the agent sent before has arrived by then.
    void expect_silence() {
        command(chatter, "flush");
        arrival next = receive();
        EXPECT_EQ(next.number, chatter);
        EXPECT_EQ(next.bytes, "flush");
    }

    scratch_directory directory;
    oka_mailbox root = OKA_MAILBOX_NONE;
    oka_mailbox mailbox = OKA_MAILBOX_NONE;
    oka_mailbox agent_mailbox = OKA_MAILBOX_NONE;
    std::list<agent_process> processes;

  private:
    std::optional<agent> inside_;
    int agent_processes_;
};

TEST_P(oka_contract, a_locate_is_answered_once_whether_the_mailbox_came_before_or_comes_later) {
    locate(path_of("later"), mailbox, 2);
    locate(path_of("never"), mailbox, 3);
    expect_silence();
    command(agent_create, "later");
    arrival first = receive();
    arrival second = receive();
    if (first.number == agent_done)
        std::swap(first, second);
    EXPECT_EQ(first.number, 2u);
    EXPECT_EQ(first.receiver, mailbox);
    EXPECT_TRUE(first.is_prepared);
    EXPECT_EQ(second.number, agent_done);
    EXPECT_FALSE(second.is_prepared);
    locate(path_of("later"), root, 4);
    arrival again = receive();
    EXPECT_EQ(again.number, 4u);
    EXPECT_EQ(again.receiver, root);
    EXPECT_EQ(again.sender, first.sender);
    expect_silence();
}

TEST_P(oka_contract, a_mailbox_has_one_id_however_it_became_known) {
    oka_mailbox located = create_and_locate("talker");
    for (const arrival& said : command_done(agent_talk, "talker 1"))
        EXPECT_EQ(said.sender, located);
    // Now the agent finds us by itself, which may be over another connection.
    std::string own_path = GetParam().agent_unit && *GetParam().prefix ? "here/root" : "root";
    command(agent_seek, own_path);
    arrival sought = receive();
    EXPECT_EQ(sought.number, agent_done);
    EXPECT_EQ(sought.receiver, root);
    EXPECT_EQ(sought.sender, agent_mailbox);
    for (const arrival& said : command_done(agent_talk, "talker 1"))
        EXPECT_EQ(said.sender, located);
}

TEST_P(oka_contract, messages_arrive_whole_once_and_in_order) {
    oka_mailbox echo = create_and_locate("echo");
    const size_t sizes[] = {0, 1, 3, 164, 4092, OKA_MESSAGE_SIZE_MAX - sizeof(oka_message)};
    constexpr uint32_t rounds = 40;
    auto bytes_of_round = [&](uint32_t round) {
        return std::string(sizes[round % std::size(sizes)], static_cast<char>('a' + round % 26));
    };
    for (uint32_t round = 0; round < rounds; ++round)
        send_message(echo, mailbox, chatter, bytes_of_round(round));
    for (uint32_t round = 0; round < rounds; ++round) {
        arrival back = receive();
        ASSERT_EQ(back.number, chatter);
        EXPECT_EQ(back.sender, echo);
        ASSERT_EQ(back.bytes == bytes_of_round(round), true) << "round " << round;
    }
    // One byte more than everyone carries is dropped.
    send_message(echo, mailbox, chatter, std::string(OKA_MESSAGE_SIZE_MAX - sizeof(oka_message) + 1, 'x'));
    expect_silence();
    std::vector<arrival> talk = command_done(agent_talk, "echo 1000");
    ASSERT_EQ(talk.size(), 1000u);
    for (size_t index = 0; index < talk.size(); ++index)
        ASSERT_EQ(talk[index].bytes, std::to_string(index));
}

TEST_P(oka_contract, a_monitor_fires_once_after_everything_that_the_mailbox_sent) {
    oka_mailbox talker = create_and_locate("talker");
    monitor(talker, 2);
    command(agent_talk, "talker 20");
    command(agent_delete, "talker");
    uint32_t said = 0;
    uint32_t done = 0;
    arrival next;
    while ((next = receive()) && next.number != 2) {
        said += next.number == chatter;
        done += next.number == agent_done;
    }
    EXPECT_EQ(said, 20u);
    EXPECT_EQ(next.sender, talker);
    EXPECT_EQ(next.receiver, mailbox);
    EXPECT_TRUE(next.is_prepared);
    while (done++ < 2)
        EXPECT_EQ(receive().number, agent_done);
    // It is gone already: at once.
    monitor(talker, 3);
    EXPECT_EQ(receive(0).number, 3u);
    send_message(talker, mailbox, chatter);
    expect_silence();
    // Its name is free again, for a mailbox that is another one.
    EXPECT_NE(create_and_locate("talker", 4), talker);
}

TEST_P(oka_contract, no_monitor_fires_after_unmonitor) {
    oka_mailbox talker = create_and_locate("talker");
    oka_monitor_ref standing = monitor(talker, 2);
    oka_monitor_ref fired = monitor(talker, 3);
    EXPECT_NE(standing, 0u);
    EXPECT_NE(standing, fired);
    oka_unmonitor(standing);
    command(agent_delete, "talker");
    // With the agent's answer, taken past it, the other one's message is queued.
    const uint32_t numbers[] = {2, agent_delete, agent_done};
    EXPECT_EQ(receive(patience_ms, numbers).number, agent_done);
    oka_unmonitor(fired);
    oka_unmonitor(fired);
    expect_silence();
}

TEST_P(oka_contract, the_other_side_learns_that_our_mailbox_is_gone) {
    oka_mailbox watched = oka_clone_mailbox(root, "watched");
    send_message(agent_mailbox, watched, agent_watch_me);
    command_done(agent_create, "any");
    oka_delete_mailbox(watched);
    EXPECT_EQ(receive().number, agent_watched_is_gone);
    expect_silence();
}

TEST_P(oka_contract, receive_selects_by_number_and_sender_and_leaves_the_rest_in_order) {
    oka_mailbox one = oka_clone_mailbox(root, "one");
    oka_mailbox two = oka_clone_mailbox(root, "two");
    for (uint32_t number = 1; number <= 3; ++number) {
        send_message(mailbox, one, number);
        send_message(mailbox, two, 10 + number);
    }
    const uint32_t wanted[] = {2, 12, 3};
    EXPECT_EQ(take(oka_receive(wanted, 0, OKA_ANY_SENDER)).number, 12u);
    EXPECT_EQ(take(oka_receive(wanted, 0, one)).number, 3u);
    EXPECT_FALSE(take(oka_receive(wanted, 0, OKA_ANY_SENDER)));
    EXPECT_EQ(take(oka_receive(nullptr, 0, two)).number, 11u);
    for (uint32_t number : {1u, 2u, 13u})
        EXPECT_EQ(take(oka_receive(nullptr, 0, OKA_ANY_SENDER)).number, number);
    const uint32_t none[] = {0};
    send_message(mailbox, one, 1);
    EXPECT_FALSE(take(oka_receive(none, 20, OKA_ANY_SENDER)));
    EXPECT_EQ(receive().number, 1u);
}

TEST_P(oka_contract, a_name_that_is_no_name_or_is_taken_makes_no_mailbox) {
    const std::string too_long(80, 'n');
    for (const char* name : {"", ".", "..", ".hidden", "a/b", "/", too_long.c_str(), "root", "mailbox"})
        EXPECT_EQ(oka_clone_mailbox(root, name), OKA_MAILBOX_NONE) << name;
    EXPECT_EQ(oka_create_mailbox("second-root", 0), OKA_MAILBOX_NONE);
    EXPECT_EQ(oka_clone_mailbox(agent_mailbox + 100, "clone"), OKA_MAILBOX_NONE);
    if (!*GetParam().prefix) {
        EXPECT_EQ(oka_clone_mailbox(root, "agent"), OKA_MAILBOX_NONE);
    }
    const std::string longest(79, 'n');
    EXPECT_NE(oka_clone_mailbox(root, longest.c_str()), OKA_MAILBOX_NONE);
    for (const char* path : {"/agent", "here//agent", "here/../here/agent", "./agent", "here/", ""})
        locate(path, mailbox, 2);
    expect_silence();
}

// What only another process can do: die.
class oka_process_contract : public oka_contract {
  protected:
    oka_process_contract() : oka_contract(4) {}
};

TEST_P(oka_process_contract, a_process_that_dies_is_the_end_of_its_mailboxes_however_it_dies) {
    enum { exits, is_killed, is_killed_with_messages_unread };
    for (int way : {exits, is_killed, is_killed_with_messages_unread}) {
        SCOPED_TRACE(way);
        agent_process& process = processes.front();
        oka_mailbox talker = create_and_locate("talker");
        oka_mailbox silent = create_and_locate("silent");
        monitor(talker, 2);
        monitor(silent, 3);
        // What it said is still to be received when it is dead.
        command(agent_talk, "talker 7");
        if (way == exits)
            command(agent_exit);
        else
            process.wait_for_state('S');
        if (way == is_killed_with_messages_unread) {
            process.stop();
            command(chatter, "unread");
        }
        process.end(way == exits ? 0 : SIGKILL);
        uint32_t said = 0;
        uint32_t gone = 0;
        while (gone < 2) {
            arrival next = receive();
            ASSERT_TRUE(next);
            said += next.number == chatter;
            if (next.number == 2 || next.number == 3) {
                ++gone;
                EXPECT_EQ(next.sender, next.number == 2 ? talker : silent);
                EXPECT_EQ(said, 7u);
            }
        }
        // It comes back as another one.
        processes.pop_front();
        processes.front().start();
        oka_mailbox before = agent_mailbox;
        locate_agent();
        EXPECT_NE(agent_mailbox, before);
    }
}

} // namespace oka_tests
