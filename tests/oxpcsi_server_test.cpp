#include "services/oxpcsi-server/oxpcsi_server.h"

#include <cerrno>
#include <cstring>
#include <fcntl.h>
#include <linux/if_link.h>
#include <linux/rtnetlink.h>
#include <net/if.h>
#include <sched.h>
#include <sys/ioctl.h>
#include <sys/mount.h>
#include <sys/socket.h>
#include <unistd.h>

#include "services/oxpcsi-server/link_messages.h"
#include "support/process.h"
#include "support/world.h"

using namespace tavu;
using namespace oxpcsi;

namespace {

const port_setting two_ports[] = {{"IDL_A1", "eth1"}, {"IDL_B1", "eth2"}};

constexpr port_facts down = {true, false, false, 0, 7, {2, 0, 0, 0, 0, 0xa1}};
constexpr port_facts up = {true, true, true, 10000, 7, {2, 0, 0, 0, 0, 0xa1}};

// --- The protocol, with facts of the test's own.

class oxpcsi_server : public test::world {
  protected:
    oxpcsi_server() {
        route_to([](const oka_message* message) { port_control_server_dispatch_message(message); });
        port_control_server_init(two_ports, 2, "blue");
        EXPECT_TRUE(port_control_server_start(root()));
        port_control_server_update(0, down);
        client.emplace("tavu-main-oxpcsi-client");
        server = locate(*client);
    }
    ~oxpcsi_server() override {
        port_control_server_stop();
        client.reset();
        expect_nothing_left();
    }

    oka_mailbox locate(test::peer& by) {
        oka_message* found = oka_alloc(12, OXPCSI_SERVER_UP_IND);
        oka_locate_async("oxpcsi-server", &found, by.mailbox());
        settle();
        return by.is_silent() ? OKA_MAILBOX_NONE : by.take(OXPCSI_SERVER_UP_IND).sender();
    }

    // Words that follow the number, as in the protocol: references first.
    void send(test::peer& from, uint32_t number, std::initializer_list<uint32_t> words,
              const char* port = nullptr) {
        be32 bytes[16] = {};
        size_t size = 4;
        for (uint32_t word : words) {
            bytes[size / 4] = word;
            size += 4;
        }
        if (port) {
            strncpy(reinterpret_cast<char*>(bytes) + size, port, 16);
            size += 16;
        }
        from.send_bytes(server, number, bytes, size);
        settle();
    }
    uint32_t initiate(test::peer& from, uint32_t own_reference = 1) {
        send(from, OXPCSI_INIT_SERVICE_REQ, {1, own_reference, 2, 2, 2});
        return from.take(OXPCSI_INIT_SERVICE_CFM).as<oxpcsi_init_service_cfm>().header.connection_reference;
    }
    oxpcsi_eth_port_status2_ind take_status(test::peer& from) {
        return from.take(OXPCSI_ETH_PORT_STATUS2_IND).as<oxpcsi_eth_port_status2_ind>();
    }
    uint32_t subscribe_all(test::peer& from) {
        uint32_t reference = initiate(from);
        send(from, OXPCSI_SUBSCRIBE_ETH_PORT_STATUS_REQ, {3, reference, 1}, "");
        from.forget_all();
        return reference;
    }

    std::optional<test::peer> client;
    oka_mailbox server = OKA_MAILBOX_NONE;
};

TEST_F(oxpcsi_server, gives_a_client_the_ports_and_their_states_byte_for_byte) {
    test::peer other("other"); // so that the reference that is given differs from the client's own
    initiate(other);
    send(*client, OXPCSI_INIT_SERVICE_REQ, {1, 1, 9, 2, 9});
    EXPECT_EQ(client->take(OXPCSI_INIT_SERVICE_CFM).hex(), "00 00 00 01 00 00 00 02 00 00 00 02");

    port_control_server_update(1, {false, false, false, 0, 0, {2, 0, 0, 0, 0, 0xb1}}); // it was there once
    send(*client, OXPCSI_GET_ETH_PORT_SUPPORT_REQ, {2, 2});
    EXPECT_EQ(client->take(OXPCSI_GET_ETH_PORT_SUPPORT_CFM).hex(),
              "00 00 00 02 00 00 00 01 00 00 00 02 "
              "00 00 00 01 00 00 00 07 02 00 00 00 00 a1 "
              "49 44 4c 5f 41 31 00 00 00 00 00 00 00 00 00 00 "
              "65 74 68 31 00 00 00 00 00 00 00 00 00 00 00 00 00 00 "
              "00 00 00 01 00 00 00 00 02 00 00 00 00 b1 "
              "49 44 4c 5f 42 31 00 00 00 00 00 00 00 00 00 00 "
              "65 74 68 32 00 00 00 00 00 00 00 00 00 00 00 00 00 00");

    port_control_server_update(0, up);
    send(*client, OXPCSI_SUBSCRIBE_ETH_PORT_STATUS_REQ, {3, 2, 1}, "");
    EXPECT_EQ(client->take(OXPCSI_SUBSCRIBE_ETH_PORT_STATUS_CFM).hex(),
              "00 00 00 03 00 00 00 01 00 00 00 01");
    std::string first = client->take(OXPCSI_ETH_PORT_STATUS2_IND).hex();
    EXPECT_EQ(first.substr(0, 3 * 56),
              "00 00 00 03 00 00 00 01 00 00 00 01 00 00 00 01 00 00 00 01 00 00 27 10 "
              "49 44 4c 5f 41 31 00 00 00 00 00 00 00 00 00 00 "
              "62 6c 75 65 00 00 00 00 00 00 00 00 00 00 00 00 ");
    EXPECT_EQ(first.size(), 3 * 296u - 1);
    const auto second = take_status(*client);
    EXPECT_TRUE(second.port == "IDL_B1");
    EXPECT_EQ(second.port_mod_present, 0u);
    EXPECT_EQ(take_errors(), "");
}

TEST_F(oxpcsi_server, indicates_each_change_once_to_those_who_subscribed_to_it) {
    test::peer other("other");
    uint32_t reference = initiate(other, 50);
    send(other, OXPCSI_SUBSCRIBE_ETH_PORT_STATUS_REQ, {33, reference, 7}, "IDL_B1");
    other.forget_all();
    subscribe_all(*client);
    for (size_t port : {0u, 0u, 1u})
        port_control_server_update(port, up);
    settle();
    EXPECT_TRUE(take_status(*client).port == "IDL_A1");
    EXPECT_TRUE(take_status(*client).port == "IDL_B1");
    const auto own = take_status(other);
    EXPECT_EQ(own.header.procedure_reference, 33u);
    EXPECT_EQ(own.header.connection_reference, 50u);

    send(other, OXPCSI_UNSUBSCRIBE_ETH_PORT_STATUS_REQ, {34, reference, 1});
    EXPECT_EQ(other.take(OXPCSI_UNSUBSCRIBE_ETH_PORT_STATUS_CFM).hex(), "00 00 00 22 00 00 00 32");
    port_control_server_update(1, down);
    settle();
    EXPECT_TRUE(other.is_silent()) << other.waiting();
    EXPECT_EQ(take_status(*client).port_oper_state, OXPCSI_PORT_OPER_STATE_DISABLED);
    EXPECT_TRUE(client->is_silent()) << client->waiting();
    other.disappear();
}

TEST_F(oxpcsi_server, rejects_what_it_cannot_do_and_drops_what_is_malformed_or_not_the_senders) {
    initiate(*client);
    test::peer stranger("stranger");
    constexpr uint32_t init = OXPCSI_INIT_SERVICE_REQ;
    constexpr uint32_t subscribe = OXPCSI_SUBSCRIBE_ETH_PORT_STATUS_REQ;
    const struct {
        const char* rule;
        uint32_t request;
        std::initializer_list<uint32_t> words;
        const char* port;
        uint32_t reason; // 0 when it is dropped
        test::peer* from = nullptr;
    } cases[] = {
        {"served already", init, {1, 1, 2, 2, 2}, nullptr, OXPCSI_REJ_SERVICE_ALREADY_INITIATED},
        {"no version of ours", init, {1, 1, 1, 3, 0}, nullptr, OXPCSI_REJ_SERVICE_INVALID_PV},
        {"no role", subscribe, {3, 1, 0}, "", OXPCSI_REJ_INVALID_PORTROLE},
        {"a role that nobody knows", subscribe, {3, 1, 9}, "", OXPCSI_REJ_INVALID_PORTROLE},
        {"a port of another role", subscribe, {3, 1, 4}, "IDL_A1", OXPCSI_REJ_INVALID_PORTROLE},
        {"no such port", subscribe, {3, 1, 1}, "IDL_A", OXPCSI_REJ_INVALID_PORTNAME},
        {"an endless name", subscribe, {3, 1, 1}, "IDL_A1IDL_A1IDL_", OXPCSI_REJ_INVALID_PORTNAME},
        {"too short to initiate", init, {1, 5, 2, 2}, nullptr, 0},
        {"no header", OXPCSI_GET_ETH_PORT_SUPPORT_REQ, {}, nullptr, 0},
        {"a subscription without its name", subscribe, {3, 1, 1}, nullptr, 0},
        {"a reference that was not given", OXPCSI_GET_ETH_PORT_SUPPORT_REQ, {2, 2}, nullptr, 0},
        {"another client's reference", OXPCSI_TERM_SERVICE_REQ, {4, 1}, nullptr, 0, &stranger},
        {"a request that has no layout", OXPCSI_RESERVE_ETH_PORT_REQ, {4, 1}, nullptr, 0},
        {"an answer", OXPCSI_INIT_SERVICE_CFM, {1, 1, 2}, nullptr, 0},
    };
    for (const auto& row : cases) {
        SCOPED_TRACE(row.rule);
        test::peer& from = row.from ? *row.from : *client;
        send(from, row.request, row.words, row.port);
        if (row.reason != 0) {
            const test::received answer = from.take(row.request + 2);
            EXPECT_EQ(answer.size(), sizeof(oxpcsi_rej));
            EXPECT_EQ(answer.as<oxpcsi_rej>().reason, row.reason);
            EXPECT_EQ(answer.as<message_header>().procedure_reference, *row.words.begin());
            EXPECT_EQ(answer.as<message_header>().connection_reference, 1u);
        }
        EXPECT_TRUE(from.is_silent()) << from.waiting();
        EXPECT_EQ(take_errors().empty(), row.reason != 0);
    }
    // Another's supervision message ends nobody's service, and the client is served as before.
    send(stranger, 0x1b1242, {0, 1});
    send(*client, OXPCSI_GET_ETH_PORT_SUPPORT_REQ, {2, 1});
    client->take(OXPCSI_GET_ETH_PORT_SUPPORT_CFM);
    stranger.disappear();
}

TEST_F(oxpcsi_server, forgets_clients_that_terminate_or_vanish_and_serves_no_more_than_it_can) {
    std::vector<std::unique_ptr<test::peer>> crowd;
    for (unsigned i = 0; i < clients_max; i++) {
        crowd.push_back(std::make_unique<test::peer>(("client-" + std::to_string(i)).c_str()));
        EXPECT_EQ(subscribe_all(*crowd.back()), i + 1);
    }
    send(*client, OXPCSI_INIT_SERVICE_REQ, {1, 1, 2, 2, 2});
    EXPECT_EQ(client->take(OXPCSI_INIT_SERVICE_REJ).as<oxpcsi_rej>().reason, OXPCSI_REJ_INTERNAL_REASON);
    test::fail_allocation(1);
    send(*crowd[0], OXPCSI_SUBSCRIBE_ETH_PORT_STATUS_REQ, {3, 1, 4}, "");
    crowd[0]->take(OXPCSI_SUBSCRIBE_ETH_PORT_STATUS_REJ);
    // Each has as many subscriptions as it may, of which one is there already.
    for (unsigned i = 1; i <= subscriptions_per_client_max; i++) {
        send(*crowd[0], OXPCSI_SUBSCRIBE_ETH_PORT_STATUS_REQ, {3, 1, 4}, "");
        crowd[0]->take(i < subscriptions_per_client_max ? OXPCSI_SUBSCRIBE_ETH_PORT_STATUS_CFM
                                                        : OXPCSI_SUBSCRIBE_ETH_PORT_STATUS_REJ);
    }
    send(*crowd[4], OXPCSI_TERM_SERVICE_REQ, {9, 5});
    EXPECT_EQ(crowd[4]->take(OXPCSI_TERM_SERVICE_CFM).hex(), "00 00 00 09 00 00 00 01");
    EXPECT_EQ(oka::simulation::live().monitors, clients_max - 1);
    crowd[8]->disappear();
    settle();
    // References are given anew, subscriptions are not: who came last has none.
    EXPECT_EQ(initiate(*client), 5u);
    EXPECT_EQ(initiate(*client, 2), 9u);
    port_control_server_update(0, up);
    settle();
    EXPECT_TRUE(client->is_silent()) << client->waiting();
    EXPECT_TRUE(crowd[4]->is_silent()) << crowd[4]->waiting();
    crowd[5]->take(OXPCSI_ETH_PORT_STATUS2_IND);
    crowd.clear();
}

// The client's SCI is made of it. Another one would cost the unit every secured link.
TEST_F(oxpcsi_server, tells_an_address_that_is_the_ports_own_and_stays) {
    auto told = [&] {
        std::string all;
        const uint32_t reference = initiate(*client);
        send(*client, OXPCSI_GET_ETH_PORT_SUPPORT_REQ, {2, reference});
        test::received answer = client->take(OXPCSI_GET_ETH_PORT_SUPPORT_CFM);
        const auto& cfm = answer.as<oxpcsi_get_eth_port_support_cfm>();
        for (uint32_t i = 0; i < cfm.no_ports; i++) {
            for (uint8_t octet : (&cfm.first_entry)[i].mac_address)
                all += "0123456789abcdef"[octet >> 4], all += "0123456789abcdef"[octet & 15];
            all += " ";
        }
        send(*client, OXPCSI_TERM_SERVICE_REQ, {4, reference});
        client->forget_all();
        return all;
    };
    const std::string first = told();
    EXPECT_EQ(first.substr(0, 13), "0200000000a1 ");
    EXPECT_NE(first.substr(13), "000000000000 "); // there is no interface yet
    port_facts moved = down;
    moved.mac_address[0] = 6;
    port_control_server_update(0, moved);
    port_control_server_update(1, down); // comes late, with an address that another port has
    EXPECT_EQ(told(), first);
    EXPECT_EQ(locate(*client), server);
    // The process is started again.
    port_control_server_stop();
    port_control_server_init(two_ports, 2, "blue");
    EXPECT_TRUE(port_control_server_start(root()));
    port_control_server_update(0, down);
    port_control_server_update(1, down);
    server = locate(*client);
    EXPECT_EQ(told(), first);
}

// --- What the kernel never says when a test wants it to. Its messages are in the order of its machine.

struct link_message {
    nlmsghdr header;
    ifinfomsg link; // its first bytes are the status, where the message has one
    rtattr name_head;
    char name[8];
    rtattr address_head;
    uint8_t address[8];
};
static_assert(sizeof(link_message) == 56);

std::string told;

void tell(const link_event& event) {
    constexpr const char* names[] = {"present", "gone", "all told", "interrupted", "refused", "overrun"};
    told += std::string(names[static_cast<int>(event.type)]) + " " + event.name + "; ";
}

// From memory of just their size, so that the sanitizer sees a read beyond them.
bool parse(const link_message& message, size_t size) {
    told.clear();
    std::vector<uint32_t> aligned((size + 3) / 4);
    memcpy(aligned.data(), &message, size);
    return parse_link_messages(aligned.data(), size, tell);
}

TEST(link_messages, are_told_for_what_they_are) {
    using message = link_message;
    constexpr message interface = {{56, RTM_NEWLINK, 0, 1, 9}, {0, 0, 1, 7, 0x43, 0},
                                   {9, IFLA_IFNAME},           {"eth1"},
                                   {10, IFLA_ADDRESS},         {2, 0, 0, 0, 0, 0xa1}};
    static constexpr auto become_status = [](message& m, uint16_t type, int status) {
        m.header.nlmsg_type = type;
        m.header.nlmsg_len = 20;
        memcpy(&m.link, &status, sizeof status);
    };
    const struct {
        void (*change)(message& m);
        size_t size;
        bool well_formed;
        const char* events;
    } cases[] = {
        {[](message& m) { m.header.nlmsg_type = RTM_DELLINK; }, 56, true, "gone eth1; "},
        {[](message& m) { m.link.ifi_family = AF_BRIDGE; }, 56, true, ""}, // it left a bridge
        {[](message& m) { m.header.nlmsg_flags = NLM_F_DUMP_INTR; }, 56, true,
         "interrupted ; present eth1; "},
        {[](message& m) { memset(m.name, 'x', 5); }, 56, true, ""}, // a name without its end
        {[](message& m) { m.address_head.rta_len = 13; }, 56, true, "present eth1; "},
        {[](message& m) { m.header.nlmsg_len = 60; }, 56, false, ""},
        {[](message& m) { m.header.nlmsg_len = 28; }, 28, false, ""},
        {[](message& m) { become_status(m, NLMSG_DONE, 0); }, 20, true, "all told ; "},
        {[](message& m) { become_status(m, NLMSG_ERROR, -EBUSY); }, 20, true, "refused ; "},
        {[](message& m) { become_status(m, NLMSG_ERROR, -5000); }, 20, false, ""},
        {[](message& m) { become_status(m, NLMSG_OVERRUN, 0); }, 20, true, "overrun ; "},
    };
    for (const auto& row : cases) {
        message changed = interface;
        row.change(changed);
        EXPECT_EQ(parse(changed, row.size), row.well_formed) << &row - cases;
        EXPECT_EQ(told, row.events) << &row - cases;
    }
    for (size_t size = 1; size < sizeof interface; size++)
        EXPECT_FALSE(parse(interface, size)) << size;
}

// --- The kernel's own word, in a network namespace of the test's own.

port_facts latest[ports_max];
bool all_known;

class kernel_port_facts : public test::world {
  protected:
    void SetUp() override {
        if (!test::enter_own_network())
            GTEST_SKIP() << "this host allows no network namespace: " << strerror(errno);
        route_to([](const oka_message* message) { port_facts_dispatch_message(message); });
    }
    void follow(
        std::initializer_list<const char*> names, std::function<void()> meanwhile = [] {}) {
        const port_facts_callbacks callbacks = {
            [](size_t port, const port_facts& facts) { latest[port] = facts; }, [] { all_known = true; }};
        ASSERT_TRUE(port_facts_start(names.begin(), names.size(), root(), callbacks));
        meanwhile();
        settle();
        ASSERT_TRUE(all_known);
    }
    void ip(const std::string& arguments, bool then_read = true) {
        ASSERT_EQ(system(("ip " + arguments).c_str()), 0) << "ip " << arguments;
        if (then_read)
            settle();
    }
    // The rate is left out when it is that of a veth, which user-mode emulation does not ask the kernel for.
    static std::string now(size_t port) {
        const port_facts& facts = latest[port];
        bool is_known = facts.present && !test::is_emulated();
        return std::string(facts.present ? "present " : "absent ") +
               (facts.unlocked ? "unlocked " : "locked ") + (facts.enabled ? "enabled" : "disabled") +
               (facts.line_rate == (is_known ? 10000u : 0u) ? "" : " " + std::to_string(facts.line_rate));
    }
    // The port is that, now or soon: the kernel tells of a carrier when it gets round to it.
    void comes_to(size_t port, const char* expected) {
        for (int tries = 0; tries < 1000 && now(port) != expected; tries++) {
            usleep(5000);
            settle();
        }
        EXPECT_EQ(now(port), expected);
    }
};

TEST_F(kernel_port_facts, follow_a_cable_through_everything_that_happens_to_it) {
    ip("link add name eth2 type veth peer name far2");
    follow({"eth1", "eth2"});
    comes_to(0, "absent locked disabled");
    comes_to(1, "present locked disabled");
    const struct {
        const char* command;
        const char* state; // of the first port
    } rows[] = {
        {"link add name eth1 address 02:00:00:00:00:a1 type veth peer name far1", "present locked disabled"},
        {"link set eth1 up", "present unlocked disabled"},
        {"link set far1 up", "present unlocked enabled"},
        {"link set eth1 down", "present locked disabled"},
        {"link set eth1 up", "present unlocked enabled"},
        {"link delete eth1", "absent locked disabled"},
        {"link add name fresh address 02:00:00:00:00:a2 type veth peer name far1", "absent locked disabled"},
        {"link set fresh name eth1", "present locked disabled"},
    };
    for (const auto& row : rows) {
        ip(row.command);
        comes_to(0, row.state);
        EXPECT_EQ(latest[0].index, if_nametoindex("eth1")) << row.command;
    }
    EXPECT_EQ(latest[0].mac_address[5], 0xa2);
    comes_to(1, "present locked disabled");
    EXPECT_EQ(take_errors(), "");
    port_facts_stop();
    expect_nothing_left();
}

// More than the socket holds, while nobody reads.
void flood() {
    int fd = socket(AF_INET, SOCK_DGRAM | SOCK_CLOEXEC, 0);
    for (unsigned i = 0; i < 2000; i++) {
        ifreq request = {};
        strcpy(request.ifr_name, "far1");
        request.ifr_flags = i % 2 == 0 ? IFF_UP : 0;
        ASSERT_EQ(ioctl(fd, SIOCSIFFLAGS, &request), 0);
    }
    close(fd);
}

TEST_F(kernel_port_facts, are_read_afresh_when_the_kernel_said_more_than_was_kept) {
    ip("link add name eth1 type veth peer name far1");
    ip("link add name eth2 type veth peer name far2");
    ip("link add name eth3 type veth peer name far3");
    follow({"eth1", "eth2", "eth3", "eth4"}, [this] {
        // The answer that is under way tells what the interface was before.
        flood();
        ip("link set far1 up && ip link set eth1 up", false);
    });
    comes_to(0, "present unlocked enabled");

    forget_traces();
    flood();
    ip("link set eth1 down && ip link delete eth2 && ip link set eth3 name eth4");
    EXPECT_TRUE(traced("OXPCSI: The kernel said more than could be kept; reading every interface afresh"));
    comes_to(0, "present locked disabled");
    comes_to(1, "absent locked disabled");
    comes_to(2, "absent locked disabled");
    comes_to(3, "present locked disabled");
    port_facts_stop();
    expect_nothing_left();
}

TEST_F(kernel_port_facts, name_the_namespace_they_are_in_by_what_the_node_calls_it) {
    EXPECT_STREQ(own_network_namespace(), "");
    // What is mounted here must not be seen outside.
    if (unshare(CLONE_NEWNS) != 0 || mount(nullptr, "/", nullptr, MS_REC | MS_PRIVATE, nullptr) != 0)
        GTEST_SKIP() << "this host allows no mounts of one's own: " << strerror(errno);
    ASSERT_EQ(system("mount -t tmpfs none /run && mkdir /run/netns && ip netns add red &&"
                     "ip netns attach blue $PPID"),
              0);
    EXPECT_STREQ(own_network_namespace(), "blue");
}

// --- The command line.

TEST(oxpcsi_server_command_line, is_taken_or_refused_with_what_to_do) {
    const struct {
        std::vector<const char*> arguments;
        int exit_status; // -1: the service is to run
        const char* output;
        const char* hardware_ports = "";
    } cases[] = {
        {{"--port", "IDL_A1=eth1", "--port=IDL_B1=eth2"}, -1, "", "not looked at"},
        {{}, -1, "", "DiPort_A1=eth1:sec-a1  P=a:b DiPort_B1=eth2:sec-b1"},
        {{}, 2, "OXHAL_PORTS: 'IDL_A1=eth1' is no port; write it as", "IDL_A1=eth1"},
        {{"--help"}, 0, "Usage: oxpcsi-server [--port NAME=INTERFACE]"},
        {{}, 2, "no port is given; name each with an option such as --port"},
        {{"--port", "IDL_A1"}, 2, "'IDL_A1' has no interface"},
        {{"--port", "IDL_C1=eth1"}, 2, "'IDL_C1' is no port; there are IDL_A1 IDL_B1"},
        {{}, 2, "OXHAL_PORTS: none of the ports is one that carries a link", "P=a:b"},
        {{"--port", "IDL_A1=../eth1"}, 2, "'../eth1' is not an interface name"},
        {{"--port", "IDL_A1=x", "--port", "IDLA1=y"}, 2, "port 'IDLA1' is given twice; 'IDL_A1' is the same"},
        {{"--port", "IDL_A1=x", "--port", "IDL_B1=x"}, 2, "'x' is given to two ports"},
        {{"--port", "IDL_A1=x", "eth1"}, 2, "unexpected argument 'eth1'"},
    };
    for (const auto& row : cases) {
        setenv("OXHAL_PORTS", row.hardware_ports, 1);
        settings parsed;
        auto answer = read_command_line(row.arguments, parsed);
        EXPECT_EQ(answer ? answer->exit_status : -1, row.exit_status) << row.output;
        EXPECT_NE((answer ? answer->text : "").find(row.output), std::string::npos) << answer->text;
        if (row.exit_status == -1) {
            ASSERT_EQ(parsed.port_count, 2u);
            EXPECT_STREQ(parsed.ports[1].name, "IDL_B1");
            EXPECT_STREQ(parsed.ports[1].interface, "eth2");
        }
    }
}

} // namespace
