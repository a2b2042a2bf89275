// Connections between hosts: each end proves that it knows the secret of the node's group, and reaches only
// what is offered to it. The other end is the test's, and speaks bytes.
#include <cstdio>
#include <cstdlib>
#include <fcntl.h>
#include <functional>
#include <sys/socket.h>
#include <sys/stat.h>
#include <unistd.h>

#include <gtest/gtest.h>

#include "platform/oka.h"
#include "platform/oka/core/descriptors.h"
#include "platform/oka/core/names.h"
#include "platform/oka/links/family.h"
#include "platform/oka/links/group.h"
#include "platform/oka/links/link.h"
#include "platform/oka/simulation/simulation.h"
#include "platform/oka_timer.h"
#include "platform/zeb.h"
#include "platform/zeb/zeb_sink.h"
#include "support/process.h"

namespace {

using namespace oka;

std::string errors;
oka_mailbox offered = OKA_MAILBOX_NONE;

constexpr uint64_t own_socket = 17, other_socket = 18;

constexpr family sockets = {
    .name = "test",
    .between_hosts = true,
    .start = nullptr,
    .socket_address = [](int, bool other) { return other ? other_socket : own_socket; },
    .find_offered = [](oka_mailbox mailbox, mailbox_address&) { return mailbox == offered; },
    .publish = nullptr,
    .may_connect = nullptr,
    .look = nullptr,
    .stop_looking = nullptr,
    .connect = nullptr,
};

// The other end of one connection.
struct stranger {
    int fd = -1;
    process_id process = {{1, 2, 3}};
    nonce challenge = {{9}};
    char unit[OKA_UNIT_PATH_SIZE] = "there";
    greeting_frame heard = {};

    template<class Frame>
    void send(const Frame& frame) const {
        EXPECT_EQ(::send(fd, &frame, sizeof frame, MSG_NOSIGNAL), ssize_t{sizeof frame});
    }
    void greet(frame_kind kind, const proof& proven = {}, oka_mailbox mailbox = OKA_MAILBOX_NONE) const {
        greeting_frame said = {};
        said.header = make_header(kind, OKA_MAILBOX_NONE, mailbox);
        said.version_be = htobe32(link_version);
        said.process = process;
        said.challenge = challenge;
        said.proven = proven;
        memcpy(said.unit, unit, sizeof unit);
        send(said);
    }
    bool hear() {
        errno = 0;
        return recv(fd, &heard, sizeof heard, MSG_DONTWAIT) == ssize_t{sizeof heard};
    }
    greeting_end own() const { return {&process, &challenge, unit, other_socket}; }
    greeting_end other() const { return {&heard.process, &heard.challenge, heard.unit, own_socket}; }
    // Of who connected to our mailbox.
    greeting_facts facts() const { return {own(), other(), be32toh(heard.header.sender_be)}; }
    void attach(const proof& proven) const {
        send(attach_frame{make_header(frame_kind::attach, OKA_MAILBOX_NONE, OKA_MAILBOX_NONE), proven});
    }
    void say(oka_mailbox to, oka_mailbox from = 5) const {
        struct {
            frame_header header;
            uint32_t number_be;
        } said = {make_header(frame_kind::message, to, from), htobe32(77)};
        send(said);
    }
    bool is_closed() const {
        char rest[1024];
        ssize_t size = 0;
        do
            size = recv(fd, rest, sizeof rest, MSG_DONTWAIT);
        while (size > 0);
        return size == 0 || errno == ECONNRESET;
    }
};

std::string hex_of(const proof& given) {
    std::string text;
    for (unsigned char each : given.bytes)
        text += "0123456789abcdef"[each >> 4], text += "0123456789abcdef"[each & 15];
    return text;
}

class oka_group : public testing::Test {
  protected:
    void SetUp() override {
        zeb::set_sink([](const zeb::record& record) {
            if (record.group == ZEB_GROUP_ERROR)
                errors += record.text;
        });
        path_ = folder_.path() + "/secret";
        write_secret("0123456789abcdef0123456789abcdef", 0640);
        setenv("OKA_UNIT", "here", 1);
        simulation::plug();
        ASSERT_TRUE(oka_timer_service_init());
        ASSERT_EQ(oka_init(0, 0, 0, 0, 0), 0);
        ASSERT_EQ(read_group(), 0) << errors;
        ASSERT_EQ(read_group_secret(path_.c_str()), 0) << errors;
        ASSERT_TRUE(start_links([] {}));
        offered = oka_create_mailbox("mka-key-server", 0);
        hidden_ = oka_clone_mailbox(offered, "oxmsi");
    }
    void TearDown() override {
        stop_links();
        forget_group();
        oka_timer_service_stop();
        oka_exit();
        zeb::set_sink(nullptr);
    }
    void write_secret(const std::string& secret, mode_t mode) const {
        unlink(path_.c_str());
        int file = open(path_.c_str(), O_WRONLY | O_CREAT | O_CLOEXEC, 0600);
        EXPECT_EQ(write(file, secret.data(), secret.size()), static_cast<ssize_t>(secret.size()));
        fchmod(file, mode);
        close(file);
    }
    // The number of the next message for this process, 0 for none.
    uint32_t receive() {
        wait_for_descriptors(0);
        oka_message* message = oka_receive(nullptr, 0, OKA_ANY_SENDER);
        uint32_t number = message ? message->number : 0;
        sender_ = message ? oka_sender(message) : OKA_MAILBOX_NONE;
        if (message)
            oka_free(&message);
        return number;
    }
    void settle() {
        for (int count = 0; count < 4; count++)
            EXPECT_EQ(receive(), 0u);
    }
    int connection(stranger& by) const {
        int pair[2];
        EXPECT_EQ(socketpair(AF_UNIX, SOCK_SEQPACKET | SOCK_CLOEXEC | SOCK_NONBLOCK, 0, pair), 0);
        by.fd = pair[1];
        return pair[0];
    }
    // It has connected, and said hello.
    stranger visitor(uint8_t process = 1) {
        stranger one;
        one.process.bytes[0] = process;
        one.challenge.bytes[1] = process;
        accept_link(sockets, connection(one), 4711, offered);
        one.greet(frame_kind::hello);
        settle();
        EXPECT_TRUE(one.hear());
        return one;
    }

    test::temporary_folder folder_;
    std::string path_;
    oka_mailbox hidden_ = OKA_MAILBOX_NONE, sender_ = OKA_MAILBOX_NONE;
};

// A MAC over all that both ends have said.
TEST_F(oka_group, a_proof_is_the_same_on_every_machine) {
    process_id processes[2];
    nonce challenges[2];
    memset(&processes[0], 1, sizeof(process_id));
    memset(&challenges[0], 2, sizeof(nonce));
    memset(&processes[1], 3, sizeof(process_id));
    memset(&challenges[1], 4, sizeof(nonce));
    const greeting_facts facts = {{&processes[0], &challenges[0], "mp3", 0x0102030405060708},
                                  {&processes[1], &challenges[1], "mp7/a", 9},
                                  42};
    EXPECT_EQ(hex_of(make_proof(prover::connector, facts)),
              "f994e64fa902af51098c19a60bed4c4824d2c10b9ba4e36e1802c35216e09fe1");
    EXPECT_EQ(hex_of(make_proof(prover::acceptor, facts)),
              "10f83d1ad818dccbea4bbc3b5a597217b0e07076c9224b076721d25b12c7c704");
}

TEST_F(oka_group, an_end_that_connects_has_to_prove_that_it_knows_the_secret) {
    stranger member = visitor(1);
    EXPECT_TRUE(is_proof(member.heard.proven, make_proof(prover::acceptor, member.facts())));
    EXPECT_STREQ(member.heard.unit, "here");
    const proof good = make_proof(prover::connector, member.facts());
    member.attach(good);
    member.say(offered);
    EXPECT_EQ(receive(), 77u);
    EXPECT_EQ(errors, "");

    const std::function<proof(const stranger&)> wrong[] = {
        [](auto&) { return proof{}; }, [=](auto&) { return good; }, // said again
        [](auto& liar) { return liar.heard.proven; },               // sent back
        [](auto& liar) {                                            // handed on by somebody in between
            greeting_facts facts = liar.facts();
            facts.connector.socket++;
            return make_proof(prover::connector, facts);
        }};
    for (const auto& give : wrong) {
        stranger liar = visitor(1);
        errors.clear();
        liar.attach(give(liar));
        liar.say(offered);
        settle();
        EXPECT_TRUE(liar.is_closed());
        EXPECT_NE(errors.find("does not prove"), std::string::npos) << errors;
    }
    // One that waits for ever costs others nothing.
    for (int count = 0; count < 40; count++) {
        stranger idle;
        accept_link(sockets, connection(idle), 9, offered);
    }
    stranger last = visitor(3);
    last.attach(make_proof(prover::connector, last.facts()));
    last.say(offered);
    EXPECT_EQ(receive(), 77u);
}

TEST_F(oka_group, an_end_that_is_connected_to_has_to_prove_it_too) {
    static int found, failed;
    found = failed = 0;
    for (bool is_member : {false, true}) {
        link_search search;
        search.found = [](link_search&, oka_mailbox) { found++; };
        search.failed = [](link_search&) { failed++; };
        stranger there;
        begin_link(sockets, search, connection(there), 4711, true);
        ASSERT_TRUE(there.hear());
        const greeting_facts facts = {there.other(), there.own(), 42};
        there.greet(frame_kind::welcome, make_proof(is_member ? prover::acceptor : prover::connector, facts),
                    42);
        settle();
        EXPECT_EQ(failed, 1);
        EXPECT_EQ(there.is_closed(), !is_member);
        if (is_member) {
            there.send(make_header(frame_kind::found, OKA_MAILBOX_NONE, 42));
            settle();
            EXPECT_EQ(found, 1);
        }
    }
}

TEST_F(oka_group, a_greeting_that_does_not_end_is_ended) {
    static int failed;
    failed = 0;
    stranger member = visitor(1), half = visitor(2), mute, listening;
    member.attach(make_proof(prover::connector, member.facts()));
    settle();
    accept_link(sockets, connection(mute), 4711, offered);
    link_search search;
    search.failed = [](link_search&) { failed++; };
    begin_link(sockets, search, connection(listening), 4711, true);
    simulation::advance_ms(4'900);
    settle();
    EXPECT_FALSE(half.is_closed() || mute.is_closed() || listening.is_closed());
    EXPECT_EQ(errors, "");
    simulation::advance_ms(200);
    settle();
    EXPECT_TRUE(half.is_closed() && mute.is_closed() && listening.is_closed());
    EXPECT_EQ(failed, 1);
    EXPECT_NE(errors.find("does not end its greeting"), std::string::npos) << errors;
    member.say(offered);
    EXPECT_EQ(receive(), 77u);
}

TEST_F(oka_group, another_unit_reaches_what_is_offered_and_gets_answers) {
    stranger member = visitor();
    member.attach(make_proof(prover::connector, member.facts()));
    member.say(hidden_);
    settle();
    EXPECT_NE(errors.find("not offered"), std::string::npos) << errors;
    member.say(offered);
    EXPECT_EQ(receive(), 77u);
    // A mailbox that has said something gets what is answered.
    oka_message* question = oka_alloc(4, 78);
    oka_send(&question, sender_, hidden_);
    member.say(hidden_);
    EXPECT_EQ(receive(), 77u);
    oka_delete_mailbox(hidden_);
    tell_gone(hidden_);
    hidden_ = oka_clone_mailbox(offered, "oxmsi");
    member.say(hidden_);
    settle();
    // Nobody is no sender.
    errors.clear();
    member.say(offered, OKA_MAILBOX_NONE);
    settle();
    EXPECT_TRUE(member.is_closed());
}

TEST_F(oka_group, units_that_are_not_named_are_refused) {
    setenv("OKA_PEERS", "mp7 mp9/a", 1);
    ASSERT_EQ(read_group(), 0);
    ASSERT_EQ(read_group_secret(path_.c_str()), 0);
    const struct {
        const char* unit;
        bool is_allowed;
    } rows[] = {{"mp7", true}, {"mp9/a", true}, {"here", true}, {"mp9", false}, {"mp", false}, {"", false}};
    for (const auto& row : rows) {
        stranger one;
        snprintf(one.unit, sizeof one.unit, "%s", row.unit);
        accept_link(sockets, connection(one), 4711, offered);
        one.greet(frame_kind::hello);
        settle();
        EXPECT_EQ(one.hear(), row.is_allowed) << row.unit;
    }
    EXPECT_NE(errors.find("'mp9' is refused"), std::string::npos) << errors;
    link_search search;
    static int failed;
    failed = 0;
    search.failed = [](link_search&) { failed++; };
    stranger there;
    begin_link(sockets, search, connection(there), 4711, true);
    ASSERT_TRUE(there.hear());
    const greeting_facts facts = {there.other(), there.own(), 42};
    there.greet(frame_kind::welcome, make_proof(prover::acceptor, facts), 42);
    settle();
    EXPECT_EQ(failed, 1);
    setenv("OKA_PEERS", "mp7 ../x", 1);
    EXPECT_NE(read_group(), 0);
    unsetenv("OKA_PEERS");
}

TEST_F(oka_group, a_secret_that_is_none_is_refused_with_the_reason) {
    const struct {
        const char* what;
        const char* secret;
        mode_t mode;
        const char* error;
    } rows[] = {{"short", "0123456789abcdef0123456789abcde", 0600, "less than 32"},
                {"readable by all", "0123456789abcdef0123456789abcdef", 0644, "others than its owner"}};
    for (const auto& row : rows) {
        write_secret(row.secret, row.mode);
        errors.clear();
        EXPECT_NE(read_group_secret(path_.c_str()), 0) << row.what;
        EXPECT_NE(errors.find(row.error), std::string::npos) << errors;
        EXPECT_FALSE(has_group_secret());
    }
    unlink(path_.c_str());
    ASSERT_EQ(mkfifo(path_.c_str(), 0600), 0);
    errors.clear();
    EXPECT_NE(read_group_secret(path_.c_str()), 0);
    EXPECT_NE(errors.find("no regular file"), std::string::npos) << errors;
    unlink(path_.c_str());
    errors.clear();
    EXPECT_NE(read_group_secret(path_.c_str()), 0);
    EXPECT_NE(errors.find("No such file"), std::string::npos) << errors;
}

TEST_F(oka_group, what_a_person_asks_stays_within_the_host) {
    for (const char* name : {"mka-key-server", "idl-topologyd-peer"})
        EXPECT_TRUE(is_offered(name)) << name;
    for (const char* name : {"oxmsi", "idl-topologyd", "mka-client-1", "mka-key", ""})
        EXPECT_FALSE(is_offered(name)) << name;
}

} // namespace
