// The messaging core on virtual time: what cannot be seen with real clocks, or only by luck.
#include <unistd.h>

#include <gtest/gtest.h>

#include "platform/oka.h"
#include "platform/oka/simulation/simulation.h"
#include "platform/oka_timer.h"
#include "platform/oka_watch.h"

namespace sim = oka::simulation;

namespace {

constexpr uint32_t word = 0x0700;

class core_test : public testing::Test {
  protected:
    void SetUp() override {
        sim::plug();
        ASSERT_TRUE(oka_timer_service_init());
        ASSERT_EQ(oka_init(37, 0, 0, 0, 0), 0);
        root = oka_create_mailbox("root", 0);
        ASSERT_NE(root, OKA_MAILBOX_NONE);
    }

    void TearDown() override {
        EXPECT_TRUE(oka_timer_service_stop());
        oka_exit();
        EXPECT_EQ(sim::live(), sim::balance{});
    }

    static oka_message* message(uint32_t number) { return oka_alloc(sizeof(oka_message), number); }

    static oka_timer_ref start_timer(uint32_t timeout_ms, uint32_t number) {
        oka_message* prepared = message(number);
        return oka_timer_request_sig(timeout_ms, &prepared);
    }

    static oka_monitor_ref supervise(oka_mailbox mailbox, uint32_t number) {
        oka_message* prepared = message(number);
        return oka_monitor(mailbox, &prepared);
    }

    static void send(uint32_t number, oka_mailbox to, oka_mailbox from) {
        oka_message* sent = message(number);
        oka_send(&sent, to, from);
    }

    struct received {
        uint32_t number;
        oka_mailbox sender;
        oka_mailbox receiver;
        bool operator==(const received&) const = default;
    };
    static received next() {
        oka_message* taken = oka_receive(nullptr, OKA_WAIT_FOREVER, OKA_ANY_SENDER);
        if (!taken)
            return {0, 0, 0};
        received seen = {taken->number, oka_sender(taken), oka_receiver(taken)};
        oka_free(&taken);
        return seen;
    }
    static constexpr received nothing = {0, 0, 0};

    oka_mailbox root = OKA_MAILBOX_NONE;
};

TEST_F(core_test, timers_are_delivered_in_the_order_of_their_due_times) {
    start_timer(300, 3);
    start_timer(100, 1);
    oka_timer_ref second = start_timer(200, 2);
    start_timer(300, 4);
    EXPECT_EQ(sim::next_timer_ms(), sim::now_ms() + 100);
    sim::advance_ms(99);
    EXPECT_EQ(next(), nothing);
    oka_timer_cancel(second);
    sim::advance_ms(1000);
    EXPECT_EQ(next(), (received{1, OKA_MAILBOX_NONE, root}));
    EXPECT_EQ(next().number, 3u);
    EXPECT_EQ(next().number, 4u);
    EXPECT_EQ(next(), nothing);
    EXPECT_EQ(sim::next_timer_ms(), sim::never_ms);
}

TEST_F(core_test, an_expired_timer_is_delivered_although_it_is_cancelled) {
    oka_timer_ref timer = start_timer(10, word);
    sim::advance_ms(10);
    sim::queue_due_timers();
    oka_timer_cancel(timer);
    EXPECT_EQ(next().number, word);
}

TEST_F(core_test, a_busy_queue_does_not_starve_timers) {
    start_timer(10, word);
    sim::advance_ms(10);
    oka_mailbox peer = sim::create_mailbox("peer");
    int before = 0;
    for (send(1, root, peer); next().number == 1 && before < 1000; ++before)
        send(1, root, peer);
    EXPECT_LT(before, 100);
    EXPECT_EQ(next().number, 1u);
}

TEST_F(core_test, a_monitor_message_goes_where_the_mailbox_became_known) {
    oka_mailbox client = oka_clone_mailbox(root, "client");
    oka_mailbox other = oka_clone_mailbox(root, "other");
    oka_mailbox located = sim::create_mailbox("located");
    oka_message* prepared = message(1);
    oka_locate_async("located", &prepared, client);
    EXPECT_EQ(next(), (received{1, located, client}));
    supervise(located, 2);
    // What arrives later moves only the supervisions that are asked for later.
    send(3, other, located);
    EXPECT_EQ(next().number, 3u);
    supervise(located, 4);
    send(5, root, located);
    oka_delete_mailbox(located);
    EXPECT_EQ(next().number, 5u);
    EXPECT_EQ(next(), (received{2, located, client}));
    EXPECT_EQ(next(), (received{4, located, other}));
    // It is gone already, and is remembered.
    supervise(located, 6);
    EXPECT_EQ(next(), (received{6, located, root}));
    EXPECT_EQ(next(), nothing);
}

TEST_F(core_test, a_monitor_message_falls_back_to_the_root_mailbox) {
    oka_mailbox client = oka_clone_mailbox(root, "client");
    for (bool fired_first : {false, true}) {
        oka_mailbox peer = sim::create_mailbox("peer");
        send(1, client, peer);
        next();
        supervise(peer, word);
        oka_delete_mailbox(fired_first ? peer : client);
        oka_delete_mailbox(fired_first ? client : peer);
        EXPECT_EQ(next(), (received{word, peer, root})) << fired_first;
        client = oka_clone_mailbox(root, "client");
    }
}

TEST_F(core_test, receiving_ends_when_only_messages_wait_that_are_not_selected) {
    send(1, root, root);
    const uint32_t wanted[] = {1, 2};
    EXPECT_EQ(oka_receive(wanted, OKA_WAIT_FOREVER, OKA_ANY_SENDER), nullptr);
    EXPECT_EQ(next(), (received{1, root, root}));
}

TEST_F(core_test, a_deleted_mailbox_takes_its_messages_and_locates_along) {
    oka_mailbox client = oka_clone_mailbox(root, "client");
    send(1, client, root);
    oka_message* prepared = message(2);
    oka_locate_async("later", &prepared, client);
    oka_delete_mailbox(client);
    send(3, client, root);
    sim::create_mailbox("later");
    EXPECT_EQ(next(), nothing);
    EXPECT_EQ(sim::live().locates, 0u);
}

class watch_test : public core_test {
  protected:
    void SetUp() override {
        core_test::SetUp();
        ASSERT_EQ(pipe(ends), 0);
        watch = oka_watch(ends[0], root, word);
        EXPECT_NE(watch, 0u);
        EXPECT_EQ(next(), nothing);
        write_byte();
    }
    void write_byte() { EXPECT_EQ(write(ends[1], "x", 1), 1); }
    void read_byte() {
        char byte;
        EXPECT_EQ(read(ends[0], &byte, 1), 1);
    }

    int ends[2];
    oka_watch_ref watch = 0;
};

TEST_F(watch_test, a_readable_descriptor_is_one_message_at_a_time) {
    write_byte();
    // A reader that leaves something unread is told again, after the messages that were queued before.
    for (int unread = 2; unread > 0; --unread) {
        EXPECT_EQ(next(), (received{word, OKA_MAILBOX_NONE, root}));
        send(1, root, root);
        EXPECT_EQ(next().number, 1u);
        EXPECT_EQ(next().number, word);
        read_byte();
    }
    EXPECT_EQ(next(), nothing);
    close(ends[1]);
    EXPECT_EQ(next().number, word) << "the other end was closed";
}

TEST_F(watch_test, nothing_is_delivered_after_unwatch_or_to_a_deleted_mailbox) {
    const uint32_t others[] = {1, 0};
    EXPECT_EQ(oka_receive(others, 0, OKA_ANY_SENDER), nullptr); // now its message is queued
    oka_unwatch(watch);
    oka_unwatch(watch);
    EXPECT_EQ(next(), nothing);
    oka_mailbox client = oka_clone_mailbox(root, "client");
    EXPECT_NE(oka_watch(ends[0], client, word), 0u);
    oka_delete_mailbox(client);
    EXPECT_EQ(next(), nothing);
    EXPECT_EQ(oka_watch(ends[0], client, word), 0u) << "no such mailbox";
    EXPECT_EQ(oka_watch(-1, root, word), 0u) << "no such descriptor";
    EXPECT_EQ(sim::live().watches, 0u);
}

} // namespace
