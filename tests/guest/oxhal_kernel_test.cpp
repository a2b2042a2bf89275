// The kernel's SecY with real frames. Runs in the guest machine (scripts/guest/oxhal-test), as root, over
// one virtual cable: eth1 (02:00:00:00:00:01) and eth2 (02:00:00:00:00:02), with the ports A1 and B1 of
// OXHAL_PORTS on them, both in one process. Frames are written and read as raw packets, so that two ends
// in one network namespace do not take a short cut.
#include <gtest/gtest.h>

#include <algorithm>
#include <arpa/inet.h>
#include <cerrno>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <fstream>
#include <functional>
#include <linux/if_packet.h>
#include <net/if.h>
#include <netinet/ether.h>
#include <string>
#include <sys/mman.h>
#include <sys/socket.h>
#include <sys/wait.h>
#include <unistd.h>
#include <vector>

#include "platform/oxhal.h"

#ifndef __has_feature
#define __has_feature(feature) 0 // clang's; the sanitized build is clang's too
#endif

namespace {

constexpr oxhal_macsec_sci sci_a = {{0x02, 0, 0, 0, 0, 0x01, 0, 0}};
constexpr oxhal_macsec_sci sci_b = {{0x02, 0, 0, 0, 0, 0x02, 0, 0}};
constexpr uint16_t experimental = 0x88b5; // the EtherType for local experiments
constexpr uint16_t macsec = 0x88e5;
constexpr timeval silence = {.tv_sec = 0, .tv_usec = 100'000}; // after which no more is expected
constexpr char marker[] = "a frame of this test";

void run(const std::string& command) {
    ASSERT_EQ(system(command.c_str()), 0) << command;
}

using frame = std::vector<uint8_t>;

uint16_t type_of(const frame& each) {
    return static_cast<uint16_t>(each[12] << 8 | each[13]);
}
bool in_clear(const frame& each) {
    return memmem(each.data(), each.size(), marker, sizeof marker - 1);
}

// From A to B: an Ethernet header and what follows it.
frame made(uint16_t type, const void* payload, size_t size) {
    frame whole = {
        2, 0, 0, 0, 0, 2, 2, 0, 0, 0, 0, 1, static_cast<uint8_t>(type >> 8), static_cast<uint8_t>(type)};
    const auto* bytes = static_cast<const uint8_t*>(payload);
    whole.insert(whole.end(), bytes, bytes + size);
    return whole;
}

frame numbered(uint32_t number) {
    char text[64] = {};
    memcpy(text, marker, sizeof marker);
    memcpy(text + 32, &number, sizeof number);
    return made(experimental, text, sizeof text);
}

// What passes one interface inwards, and a way to send from it.
class wire {
  public:
    explicit wire(const char* name) : fd(socket(AF_PACKET, SOCK_RAW, htons(ETH_P_ALL))) {
        sockaddr_ll where = {};
        where.sll_family = AF_PACKET;
        where.sll_protocol = htons(ETH_P_ALL);
        where.sll_ifindex = static_cast<int>(if_nametoindex(name));
        int on = 1, room = 16 << 20;
        EXPECT_EQ(setsockopt(fd, SOL_SOCKET, SO_RCVBUFFORCE, &room, sizeof room), 0);
        EXPECT_EQ(setsockopt(fd, SOL_PACKET, PACKET_IGNORE_OUTGOING, &on, sizeof on), 0);
        EXPECT_EQ(setsockopt(fd, SOL_SOCKET, SO_RCVTIMEO, &silence, sizeof silence), 0);
        EXPECT_EQ(bind(fd, reinterpret_cast<sockaddr*>(&where), sizeof where), 0) << name;
    }
    ~wire() { close(fd); }
    wire(const wire&) = delete;
    wire& operator=(const wire&) = delete;

    void send(const frame& each) const {
        EXPECT_EQ(::send(fd, each.data(), each.size(), 0), ssize_t(each.size()));
    }
    // All that came, until nothing comes for a tenth of a second.
    [[nodiscard]] std::vector<frame> take() const {
        std::vector<frame> all;
        uint8_t buffer[2048];
        ssize_t size;
        while ((size = recv(fd, buffer, sizeof buffer, 0)) > 0)
            all.emplace_back(buffer, buffer + size);
        return all;
    }
    [[nodiscard]] long count(const std::function<bool(const frame&)>& wanted) const {
        std::vector<frame> all = take();
        return std::count_if(all.begin(), all.end(), wanted);
    }

  private:
    int fd;
};

struct end {
    uint32_t port = 0;
    oxhal_macsec_sci own, peer;
};

oxhal_macsec_key key_of(const oxhal_macsec_sci& sender, uint8_t an) {
    static uint8_t octets[16];
    memset(octets, sender.octets[5] << 4 | an, sizeof octets);
    return {octets, sizeof octets};
}

// As the key server has it done: receive associations first, then transmit ones.
void receive_with(const end& to, uint8_t an) {
    ASSERT_EQ(oxhal_macsec_receive_sa_create2(to.port, to.peer, an, 128, key_of(to.peer, an)), 0);
    ASSERT_EQ(oxhal_macsec_receive_sa_enable(to.port, to.peer, an, true), 0);
}

void transmit_with(const end& from, uint8_t an, bool confidentiality = true) {
    ASSERT_EQ(
        oxhal_macsec_transmit_sa_create(from.port, from.own, an, 128, confidentiality, key_of(from.own, an)),
        0);
    ASSERT_EQ(oxhal_macsec_transmit_sa_enable(from.port, from.own, an, true), 0);
}

class oxhal_kernel : public testing::Test {
  protected:
    void start() {
        ASSERT_EQ(oxhal_init(), 0);
        ASSERT_EQ(oxhal_macsec_init(), 0);
        oxhal_vport listed;
        for (uint32_t i : {0u, 1u}) {
            ASSERT_EQ(oxhal_vport_iterate(i, &listed), 0);
            (i ? b : a).port = listed.handle;
        }
        for (const end& each : {a, b})
            ASSERT_EQ(oxhal_macsec_enable_set(each.port, true), 0);
    }
    void start_and_bring_up() {
        start();
        run("ip link set sec-a1 up && ip link set sec-b1 up");
    }
    void secure(bool confidentiality = true) {
        for (const end& each : {a, b}) {
            ASSERT_EQ(oxhal_macsec_replay_protect_set2(each.port, true), 0);
            ASSERT_EQ(oxhal_macsec_replay_window_set(each.port, 0), 0);
            ASSERT_EQ(oxhal_macsec_validate_frames_set2(each.port, OXHAL_MACSEC_VALIDATE_FRAMES_STRICT), 0);
            ASSERT_EQ(oxhal_macsec_transmit_sc_create(each.port, each.own), 0);
            ASSERT_EQ(oxhal_macsec_receive_sc_create(each.port, each.peer), 0);
            receive_with(each, 0);
        }
        for (const end& each : {a, b}) {
            transmit_with(each, 0, confidentiality);
            ASSERT_EQ(oxhal_macsec_protect_frames_set2(each.port, true), 0);
        }
    }
    end a{0, sci_a, sci_b}, b{0, sci_b, sci_a};
};

// Ten frames from A's controlled port: what the cable carries and what B's controlled port gets.
void expect_ten(uint16_t type, bool readable) {
    wire from("sec-a1"), cable("eth2"), to("sec-b1");
    for (uint32_t i = 0; i < 10; ++i)
        from.send(numbered(i));
    std::vector<frame> carried = cable.take();
    EXPECT_EQ(
        std::count_if(carried.begin(), carried.end(), [&](auto& each) { return type_of(each) == type; }), 10);
    EXPECT_EQ(std::count_if(carried.begin(), carried.end(), in_clear), readable ? 10 : 0);
    EXPECT_EQ(to.count(in_clear), 10);
}

TEST_F(oxhal_kernel, carries_clear_frames_until_protected_and_only_encrypted_ones_then) {
    start_and_bring_up();
    expect_ten(experimental, true);
    secure();
    expect_ten(macsec, false);
    {
        wire outside("eth1"), to("sec-b1");
        outside.send(numbered(0));
        EXPECT_EQ(to.count(in_clear), 0) << "a strict port takes no clear frame";
    }
    for (const end& each : {a, b}) {
        ASSERT_EQ(oxhal_macsec_protect_frames_set2(each.port, false), 0);
        ASSERT_EQ(oxhal_macsec_validate_frames_set2(each.port, OXHAL_MACSEC_VALIDATE_FRAMES_DISABLED), 0);
    }
    expect_ten(experimental, true);
}

TEST_F(oxhal_kernel, without_an_association_nothing_leaves_and_without_confidentiality_readable_frames) {
    start_and_bring_up();
    ASSERT_EQ(oxhal_macsec_protect_frames_set2(a.port, true), 0);
    wire from("sec-a1"), cable("eth2");
    from.send(numbered(0));
    EXPECT_EQ(cable.count([](auto& each) { return in_clear(each) || type_of(each) == macsec; }), 0);
    secure(false);
    expect_ten(macsec, true);
}

// From 10.0.0.1, port 7001, to 10.0.0.2, port 7000.
frame udp_packet() {
    const uint8_t packet[] = {0x45, 0,    0,    49,   0, 0,  0,  0, 64, 17,
                              0x66, 0xba, 10,   0,    0, 1,  10, 0, 0,  2, // IPv4
                              0x1b, 0x59, 0x1b, 0x58, 0, 29, 0,  0};
    frame whole = made(ETH_P_IP, packet, sizeof packet);
    whole.insert(whole.end(), std::begin(marker), std::end(marker));
    return whole;
}

frame arp_request() {
    const uint8_t request[] = {0,  1, 8, 0, 6, 4, 0, 1, 2, 0, 0,  0, 0, 1,
                               10, 0, 0, 1, 0, 0, 0, 0, 0, 0, 10, 0, 0, 2};
    return made(ETH_P_ARP, request, sizeof request);
}

// A socket of the host to which udp_packet() goes. It is connected: such a socket is found before the kernel
// looks at the packet's way in.
int open_user() {
    int user = socket(AF_INET, SOCK_DGRAM, 0);
    const sockaddr_in own = {AF_INET, htons(7000), {inet_addr("10.0.0.2")}, {}};
    const sockaddr_in other = {AF_INET, htons(7001), {inet_addr("10.0.0.1")}, {}};
    EXPECT_EQ(setsockopt(user, SOL_SOCKET, SO_RCVTIMEO, &silence, sizeof silence), 0);
    EXPECT_EQ(bind(user, reinterpret_cast<const sockaddr*>(&own), sizeof own), 0);
    EXPECT_EQ(connect(user, reinterpret_cast<const sockaddr*>(&other), sizeof other), 0);
    return user;
}

int count_received(int user) {
    char text[64];
    int received = 0;
    while (recv(user, text, sizeof text, 0) > 0)
        ++received;
    return received;
}

TEST_F(oxhal_kernel, the_host_gets_a_clear_packet_once_or_when_strict_not_at_all) {
    start_and_bring_up();
    run("ip addr replace 10.0.0.2/24 dev sec-b1");
    int user = open_user();
    wire outside("eth1");
    for (auto [mode, times] : {std::pair{OXHAL_MACSEC_VALIDATE_FRAMES_DISABLED, 5},
                               {OXHAL_MACSEC_VALIDATE_FRAMES_STRICT, 0},
                               {OXHAL_MACSEC_VALIDATE_FRAMES_CHECK, 5}}) {
        ASSERT_EQ(oxhal_macsec_validate_frames_set2(b.port, mode), 0);
        for (int i = 0; i < 5; ++i) {
            outside.send(udp_packet());
            outside.send(arp_request());
        }
        EXPECT_EQ(count_received(user), times) << "mode " << mode;
        EXPECT_EQ(outside.count([](auto& answer) { return type_of(answer) == ETH_P_ARP && answer[21] == 2; }),
                  times)
            << "answers to ARP, mode " << mode;
    }
    ASSERT_EQ(oxhal_macsec_enable_set(b.port, false), 0);
    run("! tc filter show dev eth2 ingress | grep -q matchall");
}

TEST_F(oxhal_kernel, a_kernel_that_cannot_redirect_clear_frames_still_delivers_them) {
    start();
    for (const end& each : {a, b})
        ASSERT_EQ(oxhal_macsec_enable_set(each.port, false), 0);
    // The kernel lets go of the filters' actions a little later than of the filters.
    run("echo /nonexistent >/proc/sys/kernel/modprobe && until rmmod act_mirred 2>/dev/null; do sleep 0.1; "
        "done");
    for (const end& each : {a, b})
        EXPECT_EQ(oxhal_macsec_enable_set(each.port, true), 0);
    run("ip link set sec-b1 up && ip addr replace 10.0.0.2/24 dev sec-b1");
    int user = open_user();
    wire("eth1").send(udp_packet());
    EXPECT_GE(count_received(user), 1);
    ASSERT_EQ(oxhal_macsec_validate_frames_set2(b.port, OXHAL_MACSEC_VALIDATE_FRAMES_STRICT), 0);
    wire("eth1").send(udp_packet());
    EXPECT_EQ(count_received(user), 0) << "what it can do is to drop them";
    run("echo /sbin/modprobe >/proc/sys/kernel/modprobe && modprobe act_mirred");
}

TEST_F(oxhal_kernel, a_steady_stream_loses_no_frame_while_the_association_changes) {
    constexpr uint32_t frames = 2000;
    start_and_bring_up();
    secure();
    wire to("sec-b1");
    pid_t sender = fork();
    if (sender == 0) {
        wire from("sec-a1");
        for (uint32_t i = 0; i < frames; ++i) {
            from.send(numbered(i));
            usleep(1000);
        }
        _exit(testing::Test::HasFailure());
    }
    uint8_t before = 0;
    for (uint8_t an : std::initializer_list<uint8_t>{1, 2, 3, 0, 1}) {
        usleep(250000);
        receive_with(b, an);
        transmit_with(a, an);
        ASSERT_EQ(oxhal_macsec_transmit_sa_delete(a.port, a.own, before), 0);
        usleep(50000);
        ASSERT_EQ(oxhal_macsec_receive_sa_delete(b.port, b.peer, before), 0);
        before = an;
    }
    int status = 1;
    ASSERT_EQ(waitpid(sender, &status, 0), sender);
    EXPECT_EQ(status, 0);
    uint32_t expected = 0;
    for (const frame& each : to.take()) {
        uint32_t number;
        if (!in_clear(each))
            continue;
        memcpy(&number, each.data() + 14 + 32, sizeof number);
        EXPECT_EQ(number, expected);
        expected = number + 1;
    }
    EXPECT_EQ(expected, frames);
}

TEST_F(oxhal_kernel, what_an_earlier_process_left_is_emptied_or_replaced) {
    pid_t earlier = fork();
    if (earlier == 0) {
        start_and_bring_up();
        secure();
        run("ip addr replace 10.0.0.2/24 dev sec-b1");
        _exit(testing::Test::HasFailure());
    }
    int status = 1;
    ASSERT_EQ(waitpid(earlier, &status, 0), earlier);
    ASSERT_EQ(status, 0);
    // A1's interface is not what it should be: it has another port identifier.
    run("ip link del sec-a1 && ip link add link eth1 name sec-a1 type macsec port 5");
    unsigned stranger = if_nametoindex("sec-a1"), left = if_nametoindex("sec-b1");
    start();
    EXPECT_NE(if_nametoindex("sec-a1"), stranger);
    EXPECT_EQ(if_nametoindex("sec-b1"), left) << "its user's addresses are on it";
    run("ip addr show dev sec-b1 | grep -q 10.0.0.2/24");
    run("! ip macsec show | grep -qE 'PN|RXSC'");
    run("ip link set sec-a1 up");
    expect_ten(experimental, true);
    secure();
    expect_ten(macsec, false);
}

// Its interface came late or has another address by now.
TEST_F(oxhal_kernel, a_port_may_have_another_sci_than_its_interfaces_address) {
    start_and_bring_up();
    a.own = b.peer = {{0x02, 0, 0, 0, 0, 0x77, 0, 0}};
    ASSERT_EQ(oxhal_macsec_transmit_sc_create(a.port, a.own), 0);
    unsigned made = if_nametoindex("sec-a1");
    ASSERT_EQ(oxhal_macsec_transmit_sc_delete(a.port, a.own), 0);
    run("ip link set sec-a1 up");
    secure();
    EXPECT_EQ(if_nametoindex("sec-a1"), made);
    expect_ten(macsec, false);
}

TEST_F(oxhal_kernel, an_interface_of_another_kind_is_left_alone) {
    run("ip link del sec-a1 2>/dev/null; ip link add sec-a1 type veth peer name other");
    ASSERT_EQ(oxhal_init(), 0);
    ASSERT_EQ(oxhal_macsec_init(), 0);
    oxhal_vport listed;
    ASSERT_EQ(oxhal_vport_iterate(0, &listed), 0);
    EXPECT_EQ(oxhal_macsec_enable_set(listed.handle, true), EEXIST);
    run("ip link show other >/dev/null && ip link del sec-a1");
}

TEST_F(oxhal_kernel, follows_a_common_port_that_comes_goes_and_comes_back) {
    run("ip link del eth1");
    start(); // the ports are not there, and that keeps nobody from starting
    EXPECT_NE(oxhal_macsec_transmit_sc_create(a.port, a.own), 0);
    for (int round = 0; round < 2; ++round) {
        run("ip link add eth1 address 02:00:00:00:00:01 type veth peer name eth2 address 02:00:00:00:00:02");
        run("ip link set eth1 up && ip link set eth2 up");
        secure();
        run("ip link set sec-a1 up && ip link set sec-b1 up");
        expect_ten(macsec, false);
        if (round)
            return;
        run("ip link del eth1");
        bool in_use;
        EXPECT_NE(oxhal_macsec_transmit_sa_in_use_get(a.port, a.own, 0, &in_use), 0);
        EXPECT_NE(oxhal_macsec_receive_sc_create(a.port, a.peer), 0);
        for (const end& each : {a, b}) { // as the daemon clears a port
            EXPECT_EQ(oxhal_macsec_protect_frames_set2(each.port, false), 0);
            EXPECT_EQ(oxhal_macsec_validate_frames_set2(each.port, OXHAL_MACSEC_VALIDATE_FRAMES_DISABLED), 0);
            EXPECT_EQ(oxhal_macsec_transmit_sc_delete_all(each.port), 0);
            EXPECT_EQ(oxhal_macsec_receive_sc_delete_all(each.port), 0);
        }
    }
}

// Whether the private memory of this process holds the key; `key` itself is in memory that is not.
bool is_copied(const uint8_t* key) {
    std::ifstream maps("/proc/self/maps");
    std::string line;
    unsigned long from, to;
    char own;
    bool found = false;
    while (std::getline(maps, line)) {
        if (sscanf(line.c_str(), "%lx-%lx rw%*c%c", &from, &to, &own) == 3 && own == 'p')
            found |= memmem(reinterpret_cast<const void*>(from), to - from, key, 16) != nullptr;
    }
    return found;
}

TEST_F(oxhal_kernel, keeps_no_copy_of_a_key) {
#if __has_feature(address_sanitizer)
    GTEST_SKIP() << "the memory of a process under AddressSanitizer cannot be searched";
#endif
    start();
    ASSERT_EQ(oxhal_macsec_transmit_sc_create(a.port, a.own), 0);
    ASSERT_EQ(oxhal_macsec_receive_sc_create(a.port, a.peer), 0);
    auto* key =
        static_cast<uint8_t*>(mmap(nullptr, 4096, PROT_READ | PROT_WRITE, MAP_SHARED | MAP_ANONYMOUS, -1, 0));
    ASSERT_EQ(oxhal_macsec_generate_key(16, key), 0);
    static uint8_t copy[16];
    memcpy(copy, key, sizeof copy);
    EXPECT_TRUE(is_copied(key)) << "the search finds a copy that there is";
    explicit_bzero(copy, sizeof copy);
    ASSERT_EQ(oxhal_macsec_transmit_sa_create(a.port, a.own, 0, 128, true, {key, 16}), 0);
    ASSERT_EQ(oxhal_macsec_receive_sa_create2(a.port, a.peer, 0, 128, {key, 16}), 0);
    EXPECT_NE(oxhal_macsec_receive_sa_create2(a.port, a.peer, 0, 128, {key, 16}), 0);
    EXPECT_FALSE(is_copied(key));
}

} // namespace
