// The messaging contract over TIPC, within one node and between two that are joined by a cable, and what is
// TIPC's own: names that share an address, the end of a cable, and the node key without which it does not
// start. scripts/guest/oka-test lays the cable: this network namespace is one node, "there" the other.
#include <cstdio>
#include <linux/tipc.h>
#include <poll.h>
#include <sys/socket.h>

#include "../oka_contract.h"
#include "support/process.h"

namespace oka_tests {

constexpr arrangement over_tipc[] = {
    {.name = "one_node", .transports = "tipc", .agent_unit = "over/there", .prefix = "over/there/"},
    {.name = "one_unit", .transports = "tipc", .agent_unit = "here", .prefix = ""},
    {.name = "two_nodes",
     .transports = "tipc",
     .agent_unit = "over/there",
     .prefix = "over/there/",
     .agent_network = "/run/netns/there"},
    {.name = "two_nodes_beside_unix",
     .transports = "unix tipc",
     .agent_unit = "over/there",
     .prefix = "over/there/",
     .agent_network = "/run/netns/there"},
};

std::string name_of(const testing::TestParamInfo<arrangement>& info) {
    return info.param.name;
}

INSTANTIATE_TEST_SUITE_P(over_tipc, oka_contract, testing::ValuesIn(over_tipc), name_of);
INSTANTIATE_TEST_SUITE_P(over_tipc, oka_process_contract, testing::ValuesIn(over_tipc), name_of);

void run(const char* command) {
    ASSERT_EQ(system(command), 0) << command;
}

using tipc_contract = oka_contract;
INSTANTIATE_TEST_SUITE_P(two_nodes, tipc_contract, testing::ValuesIn(over_tipc + 2, over_tipc + 3), name_of);

// FNV-1a of the two names.
sockaddr_tipc address_of(const char* unit, const char* name) {
    auto hash = [](const char* text) {
        uint32_t value = 2166136261u;
        for (; *text; ++text)
            value = (value ^ static_cast<unsigned char>(*text)) * 16777619u;
        return value;
    };
    sockaddr_tipc address = {};
    address.family = AF_TIPC;
    address.addrtype = TIPC_SERVICE_ADDR;
    address.scope = TIPC_CLUSTER_SCOPE;
    address.addr.name = {.name = {.type = hash(unit), .instance = hash(name)}, .domain = 0};
    return address;
}

// Anybody can connect to the address of a mailbox, and name another one or none.
TEST_P(tipc_contract, who_names_another_mailbox_at_the_same_address_is_refused) {
    create_and_locate("wanted");
    for (std::string first :
         {std::string("oka-tipcover/there\0wantee\0", 26), std::string("nonsense"), std::string(5000, 'x')}) {
        int fd = socket(AF_TIPC, SOCK_SEQPACKET, 0);
        const sockaddr_tipc address = address_of("over/there", "wanted");
        ASSERT_EQ(connect(fd, reinterpret_cast<const sockaddr*>(&address), sizeof address), 0);
        ASSERT_GT(send(fd, first.data(), first.size(), MSG_NOSIGNAL), 0);
        pollfd closed = {.fd = fd, .events = POLLIN, .revents = 0};
        EXPECT_EQ(poll(&closed, 1, patience_ms), 1);
        char byte;
        EXPECT_LE(recv(fd, &byte, 1, MSG_DONTWAIT), 0);
        close(fd);
    }
    // Other connections are not affected.
    expect_silence();
    create_and_locate("another");
}

using tipc_beside_unix_contract = oka_contract;
INSTANTIATE_TEST_SUITE_P(two_nodes, tipc_beside_unix_contract,
                         testing::ValuesIn(over_tipc + 3, over_tipc + 4), name_of);

// Anybody on the machine can listen at any address, and say nothing.
TEST_P(tipc_beside_unix_contract, who_listens_at_the_address_of_a_mailbox_keeps_nobody_from_it) {
    int squatters[2];
    const sockaddr_tipc addresses[] = {address_of("here", "mine"), address_of("over/there", "wanted")};
    for (int index = 0; index < 2; ++index) {
        squatters[index] = socket(AF_TIPC, SOCK_SEQPACKET, 0);
        const auto* at = reinterpret_cast<const sockaddr*>(&addresses[index]);
        ASSERT_EQ(listen(squatters[index], 8), 0);
        ASSERT_EQ(bind(squatters[index], at, sizeof addresses[index]), 0);
    }
    oka_mailbox mine = oka_clone_mailbox(mailbox, "mine");
    EXPECT_NE(mine, OKA_MAILBOX_NONE);
    create_and_locate("wanted");
    oka_delete_mailbox(mine);
    for (int each : squatters)
        close(each);
}

TEST_P(tipc_contract, the_end_of_the_cable_is_the_end_of_the_mailboxes_until_it_is_back) {
    monitor(agent_mailbox, 2);
    // The link's tolerance is 1500 ms. Nothing is told of the interfaces: frames are lost on the way.
    run("tc -n cable qdisc add dev to-here root netem loss 100%; tc -n cable qdisc add dev to-there root "
        "netem loss "
        "100%");
    arrival gone = receive();
    EXPECT_EQ(gone.number, 2u);
    EXPECT_EQ(gone.sender, agent_mailbox);
    locate(path_of("agent"), mailbox, 3);
    EXPECT_FALSE(receive(1000));
    run("tc -n cable qdisc del dev to-here root; tc -n cable qdisc del dev to-there root");
    arrival back = receive();
    EXPECT_EQ(back.number, 3u);
    EXPECT_NE(back.sender, agent_mailbox);
    agent_mailbox = back.sender;
    expect_silence();
}

TEST(tipc, does_not_start_without_a_node_key_unless_told_so_nor_without_a_secret) {
    scratch_directory directory;
    std::string mark = directory.path + "/mark";
    char space[64] = {};
    ASSERT_GT(readlink("/proc/self/ns/net", space, sizeof space - 1), 0);
    setenv("OKA_TRANSPORTS", "tipc", 1);
    setenv("OKA_TIPC_KEY_MARK", mark.c_str(), 1);
    const struct {
        const char* text;
        const char* clear;
        mode_t mode;
        bool starts;
    } rows[] = {
        {nullptr, nullptr, 0644, false}, {"net:[1]\n", nullptr, 0644, false}, {space, nullptr, 0644, true},
        {space, nullptr, 0666, false},   {nullptr, "yes", 0644, true},        {nullptr, "no", 0644, false},
    };
    for (const auto& row : rows) {
        remove(mark.c_str());
        if (row.text) {
            FILE* file = fopen(mark.c_str(), "we");
            fputs(row.text, file);
            fclose(file);
            chmod(mark.c_str(), row.mode);
        }
        row.clear ? setenv("OKA_TIPC_CLEAR", row.clear, 1) : unsetenv("OKA_TIPC_CLEAR");
        testing::internal::CaptureStderr();
        bool started = start_service();
        stop_service();
        std::string said = testing::internal::GetCapturedStderr();
        EXPECT_EQ(started, row.starts) << said;
        EXPECT_EQ(said.find("oka-tipc-up") == std::string::npos, row.starts) << said;
    }
    setenv("OKA_TIPC_CLEAR", "yes", 1);
    setenv("OKA_TIPC_SECRET", (directory.path + "/secret").c_str(), 1);
    EXPECT_FALSE(start_service());
    stop_service();
}

} // namespace oka_tests
