// Whole nodes under load and among hostile clients: real processes over AF_UNIX, on the simulated
// SecY, with a secured link between units 3 and 7. The hostile ones are processes of their own, and speak
// bytes. Files and capabilities of the daemons are those of an ordinary user.
#include <algorithm>
#include <bit>
#include <chrono>
#include <cstring>
#include <fcntl.h>
#include <fstream>
#include <grp.h>
#include <list>
#include <optional>
#include <random>
#include <sys/mman.h>
#include <sys/mount.h>
#include <sys/prctl.h>
#include <sys/resource.h>
#include <sys/socket.h>
#include <sys/stat.h>
#include <sys/un.h>
#include <sys/wait.h>

#include <gtest/gtest.h>

#include "platform/oka/links/link_frames.h"
#include "protocols/oxmsi_messages.h"
#include "support/process.h"

#ifndef __has_feature
#define __has_feature(feature) 0 // clang's; the sanitized build is clang's too
#endif

namespace {

using namespace tavu;
using namespace std::chrono_literals;
using words = std::vector<std::string>;
using steady = std::chrono::steady_clock;

// Under AddressSanitizer freed memory is kept for a while, and has a shadow.
constexpr bool memory_is_its_own = !__has_feature(address_sanitizer);
const bool is_root = getuid() == 0; // outside of the namespaces, too

// A client of the MACsec service, as another process has it that knows the frames.
class client {
  public:
    explicit client(const std::string& mailbox, int flags = 0)
        : fd_(socket(AF_UNIX, SOCK_SEQPACKET | SOCK_CLOEXEC | flags, 0)) {
        sockaddr_un address = {.sun_family = AF_UNIX, .sun_path = {}};
        snprintf(address.sun_path, sizeof address.sun_path, "%s", mailbox.c_str());
        timeval patience = {.tv_sec = 10, .tv_usec = 0};
        setsockopt(fd_, SOL_SOCKET, SO_RCVTIMEO, &patience, sizeof patience);
        open_ = ::connect(fd_, reinterpret_cast<sockaddr*>(&address), sizeof address) == 0;
    }
    ~client() { close(fd_); }
    client(const client&) = delete;
    client& operator=(const client&) = delete;

    bool is_open() const { return open_; }
    bool send_bytes(const void* bytes, size_t size) {
        return open_ = open_ && ::send(fd_, bytes, size, MSG_NOSIGNAL) == static_cast<ssize_t>(size);
    }
    // Introduces itself as a process of its own and attaches.
    bool greet() {
        oka::greeting_frame welcome = {}, hello = {};
        hello.header = oka::make_header(oka::frame_kind::hello, UINT32_MAX, UINT32_MAX);
        hello.version_be = htobe32(oka::link_version);
        std::generate(std::begin(hello.process.bytes), std::end(hello.process.bytes), std::random_device());
        oka::attach_frame attach = {oka::make_header(oka::frame_kind::attach, UINT32_MAX, UINT32_MAX), {}};
        open_ = send_bytes(&hello, sizeof hello) && recv(fd_, &welcome, sizeof welcome, 0) == sizeof welcome;
        mailbox_be_ = welcome.header.sender_be;
        return send_bytes(&attach, sizeof attach);
    }
    // A request with these fields behind its header.
    bool ask(uint32_t number, const void* fields = nullptr, size_t size = 0) {
        struct {
            oka::frame_header header = oka::make_header(oka::frame_kind::message, 0, 1);
            message_header head;
            unsigned char fields[sizeof(oxmsi_link_added_req)];
        } frame = {.head = {std::bit_cast<host32>(htobe32(number)), number & 0xff, id_}, .fields = {}};
        frame.header.receiver_be = mailbox_be_;
        if (size > 0)
            memcpy(frame.fields, fields, size);
        return send_bytes(&frame, offsetof(decltype(frame), fields) + size);
    }
    // The number of the next message, 0 when the connection is closed, or silent for too long.
    uint32_t next() {
        struct {
            oka::frame_header header;
            oxmsi_port_status status;
        } frame = {};
        do {
            if (recv(fd_, &frame, sizeof frame, 0) <= 0)
                return 0;
        } while (frame.header.kind_be != htobe32(static_cast<uint32_t>(oka::frame_kind::message)));
        uint32_t number = be32toh(frame.status.header.number);
        if (number == OXMSI_CONNECTION_ESTABLISH_CFM)
            id_ = frame.status.header.connection_reference;
        if (number == OXMSI_PORT_STATE_CHANGE_IND || number == OXMSI_IDL_TOPOLOGY_PUBLISH_LINK_ADDED_CFM ||
            number == OXMSI_IDL_TOPOLOGY_PUBLISH_LINK_UPDATED_CFM) {
            is_encrypted = frame.status.encryption_state == OXMSI_PORT_ENCRYPTION_STATE_ENABLED;
            changes++;
        }
        return number;
    }
    bool ask_to_connect(uint32_t version = 1) {
        const be32 versions[] = {1, version};
        return ask(OXMSI_CONNECTION_ESTABLISH_REQ, versions, sizeof versions);
    }
    // False when the service refuses.
    bool connect() { return greet() && ask_to_connect() && next() == OXMSI_CONNECTION_ESTABLISH_CFM; }
    void subscribe(const char* name) {
        port_name port;
        port.assign(name);
        ask(OXMSI_PORT_STATE_CHANGE_SUBSCRIBE_REQ, &port, sizeof port);
    }
    bool is_answered() {
        ask(OXMSI_CAPABILITIES_GET_REQ);
        uint32_t number = 0;
        do
            number = open_ ? next() : 0;
        while (number != 0 && number != OXMSI_CAPABILITIES_GET_CFM);
        return number != 0;
    }

    // As the service last told of the port, and how often.
    bool is_encrypted = false;
    unsigned changes = 0;

  private:
    int fd_;
    bool open_ = false;
    uint32_t mailbox_be_ = 0, id_ = 900;
};

// Who publishes one end of a link, and follows its port.
class link_end : public client {
  public:
    link_end(const std::string& service, const char* port, uint32_t remote_mpid, const char* remote_port)
        : client(service) {
        added_.link.port.assign(port);
        added_.link.remote_port.assign(remote_port);
        added_.link.link_id = 1;
        added_.link.remote_mpid = remote_mpid;
        added_.link.du_type = OXMSI_DU_TYPE_3;
        added_.hunt_path.assign(("mp" + std::to_string(remote_mpid)).c_str());
        connect();
        subscribe(port);
    }
    void publish(uint32_t status) {
        added_.link.link_status = status;
        if (std::exchange(is_added_, true))
            ask(OXMSI_IDL_TOPOLOGY_PUBLISH_LINK_UPDATED_REQ, &added_.link, sizeof added_.link);
        else
            ask(OXMSI_IDL_TOPOLOGY_PUBLISH_LINK_ADDED_REQ, &added_, sizeof added_);
    }

  private:
    struct {
        oxmsi_link link = {};
        oka_hunt_path hunt_path = {};
    } added_;
    bool is_added_ = false;
};

// Looks again and again, since what is waited for may write nothing.
bool eventually(const std::function<bool()>& condition) {
    steady::time_point limit = steady::now() + test::patience;
    while (!condition()) {
        if (steady::now() > limit)
            return false;
        test::wait_until([] { return false; }, 1ms);
    }
    return true;
}

struct link {
    link_end first, second;

    void publish(uint32_t status) {
        first.publish(status);
        second.publish(status);
    }
    bool is(bool encrypted) {
        return first.is_answered() && second.is_answered() && first.is_encrypted == encrypted &&
               second.is_encrypted == encrypted;
    }
    bool becomes(bool encrypted) {
        publish(encrypted ? OXMSI_LTM_LINK_STATUS_UP : OXMSI_LTM_LINK_STATUS_DOWN);
        return eventually([&] { return is(encrypted); });
    }
    // How long both ends take to answer, the median of that span; in microseconds, 0 when one is silent.
    long answers_within_us(steady::duration span) {
        std::vector<long> times;
        for (steady::time_point limit = steady::now() + span; steady::now() < limit; usleep(500)) {
            steady::time_point asked = steady::now();
            if (!first.is_answered() || !second.is_answered())
                return 0;
            times.push_back(static_cast<long>((steady::now() - asked) / 1us));
        }
        std::sort(times.begin(), times.end());
        return times[times.size() / 2];
    }
};

// A process that does one thing over and over until the object ends.
class hostile {
  public:
    explicit hostile(const std::function<void()>& act)
        : rounds_(static_cast<unsigned*>(
              mmap(nullptr, sizeof(unsigned), PROT_READ | PROT_WRITE, MAP_SHARED | MAP_ANONYMOUS, -1, 0))),
          pid_(fork()) {
        if (pid_ != 0)
            return;
        prctl(PR_SET_PDEATHSIG, SIGKILL);
        for (;; ++*rounds_)
            act();
    }
    ~hostile() {
        kill(pid_, SIGKILL);
        waitpid(pid_, nullptr, 0);
        munmap(rounds_, sizeof *rounds_);
    }
    hostile(const hostile&) = delete;
    hostile& operator=(const hostile&) = delete;
    unsigned rounds() const { return *rounds_; }

  private:
    unsigned* rounds_;
    pid_t pid_;
};

struct unit {
    std::string oka_dir, mpid;
    words ports; // NAME=INTERFACE
    std::string folder = oka_dir + "/mp" + mpid, service = folder + "/oxmsi";
    std::optional<test::process> port_control = {}, daemon = {};
    long memory_before = 0;

    void start() {
        const words environment = {"OKA_DIR=" + oka_dir, "OKA_UNIT=mp" + mpid, "MPID=" + mpid,
                                   "OXHAL_DRIVER=sim", "ASAN_OPTIONS=quarantine_size_mb=1"};
        words command = {OXPCSI_SERVER};
        for (const std::string& port : ports)
            command.insert(command.end(), {"--port", port});
        port_control.emplace(command, environment);
        // What root may overlook in a folder's mode, the daemon may not. Its traces of everything refused
        // are formatted, and then of no interest.
        const char* as_user = "exec setpriv --bounding-set -dac_override,-dac_read_search \"$0\" 2>/dev/null";
        daemon.emplace(words{"sh", "-c", as_user, QEL_TAVU}, environment);
        ASSERT_TRUE(eventually([&] { return access(service.c_str(), F_OK) == 0; }));
    }
    // In KiB, of the process alone.
    long memory() const {
        std::ifstream in("/proc/" + std::to_string(daemon->pid()) + "/smaps_rollup");
        std::string word;
        long number = 0;
        while (in >> word && word != "Private_Dirty:")
            continue;
        in >> number;
        EXPECT_GT(number, 0);
        return number;
    }
    // Asks for a version that there is not: that is refused, but it is answered.
    bool serves_newcomers() const {
        client newcomer(service);
        return newcomer.greet() && newcomer.ask_to_connect(9) &&
               newcomer.next() == OXMSI_CONNECTION_ESTABLISH_REJ;
    }
};

class hostility : public testing::Test {
  protected:
    void SetUp() override {
        mkdir(oka_dir.c_str(), 0700);
        // A full folder needs one that is small.
        if (!test::enter_own_network() || unshare(CLONE_NEWNS) != 0 ||
            mount(nullptr, "/", nullptr, MS_REC | MS_PRIVATE, nullptr) != 0 ||
            mount("oka", oka_dir.c_str(), "tmpfs", 0, "nr_inodes=64,mode=0700") != 0)
            GTEST_SKIP() << "this host allows no network and mounts of one's own: " << strerror(errno);
        ASSERT_EQ(system("ip link add port3 up type veth peer name port7 && ip link set port7 up &&"
                         "ip link add port3b up type veth peer name port5 && ip link set port5 up"),
                  0);
        for (unit* each : {&three, &five, &seven})
            ASSERT_NO_FATAL_FAILURE(each->start());
        secured.reset(
            new link{{three.service, "IDL_A1", 7, "IDL_A1"}, {seven.service, "IDL_A1", 3, "IDL_A1"}});
        ASSERT_TRUE(secured->becomes(true));
        unloaded_us = secured->answers_within_us(300ms);
        secured->first.changes = secured->second.changes = 0;
        mark_memory();
    }
    void TearDown() override { umount2(oka_dir.c_str(), MNT_DETACH); }

    // While it lasts the daemons answer, and the link is what it was all the time.
    void expect_undisturbed(const char* what, steady::duration span = 1s, long limit_us = noise_us) {
        long loaded_us = secured->answers_within_us(span);
        printf("%-60s answers within %ld us, unloaded %ld us; memory %ld KiB\n", what, loaded_us, unloaded_us,
               three.memory());
        EXPECT_GT(loaded_us, 0) << what << ": no answer";
        EXPECT_LT(loaded_us, std::max(10 * unloaded_us, limit_us)) << what;
        EXPECT_TRUE(secured->is(true)) << what;
        EXPECT_EQ(secured->first.changes + secured->second.changes, 0u) << what;
        EXPECT_TRUE(!memory_is_its_own || three.memory() < 16 * 1024) << what;
    }
    void mark_memory() {
        three.memory_before = three.memory();
        five.memory_before = five.memory();
    }
    void expect_newcomers_served(const char* when) {
        // Who is displaced by a flood tries again, as every search does.
        EXPECT_TRUE(eventually([&] { return three.serves_newcomers() && five.serves_newcomers(); })) << when;
    }
    void expect_memory_back(long growth = 1024) {
        for (unit* each : {&three, &five}) {
            printf("memory of unit %s: %ld KiB before, %ld KiB after\n", each->mpid.c_str(),
                   each->memory_before, each->memory());
            EXPECT_TRUE(!memory_is_its_own || each->memory() <= each->memory_before + growth);
        }
    }

    // What other processes of the machine may cost.
    static constexpr long noise_us = 3000;
    test::temporary_folder folder;
    std::string oka_dir = folder.path() + "/oka";
    unit three{oka_dir, "3", {"IDL_A1=port3", "IDL_B1=port3b"}};
    unit five{oka_dir, "5", {"IDL_A1=port5"}}, seven{oka_dir, "7", {"IDL_A1=port7"}};
    std::unique_ptr<link> secured;
    long unloaded_us = 0;
};

// --- What hostile processes do

// All of them at once in every step. A client that closes takes the ports of the unit down, by the service's
// rules.
void connect_subscribe_publish_close(const std::string& service) {
    std::list<link_end> clients;
    while (clients.size() < 32)
        clients.emplace_back(service, "IDL_A1", 3, "IDL_B1");
    for (link_end& each : clients)
        each.publish(OXMSI_LTM_LINK_STATUS_UP);
    for (link_end& each : clients)
        each.ask(OXMSI_CONNECTION_CLOSE_REQ);
}

// Half a hundred of them ask for what has an answer, and take none.
void never_read(const std::string& service) {
    std::list<client> clients;
    while (clients.size() < 50)
        clients.emplace_back(service).greet();
    while (std::all_of(clients.begin(), clients.end(), [](client& each) { return each.ask_to_connect(9); }))
        continue;
}

void send_random_bytes(const std::string& mailbox) {
    static std::mt19937 dice{20};
    client wire(mailbox);
    if (dice() % 2)
        wire.greet();
    unsigned char bytes[600];
    do
        std::generate(bytes, std::end(bytes), [] { return static_cast<unsigned char>(dice()); });
    while (wire.send_bytes(bytes, 1 + dice() % sizeof bytes));
}

// Keeps what it gets, and says who it is on half of them.
void hold_a_thousand_connections(const std::string& service) {
    const rlimit many = {.rlim_cur = 4096, .rlim_max = 4096};
    (void)setrlimit(RLIMIT_NOFILE, &many);
    std::list<client> held;
    while (held.size() < 1000) {
        client& latest = held.emplace_back(service, SOCK_NONBLOCK);
        if (held.size() % 2)
            latest.greet();
    }
    usleep(100'000);
}

// The round ends when it is sent away.
void come_as_another_user(const std::string& service) {
    constexpr uid_t nobody = 65534;
    bool is_another =
        getuid() == nobody || (setgroups(0, nullptr) == 0 && setgid(nobody) == 0 && setuid(nobody) == 0);
    client wire(service);
    if (!is_another || !wire.is_open() || wire.greet())
        for (;;)
            pause();
}

TEST_F(hostility, link_and_service_withstand_whatever_clients_do) {
    // For those at unit 5.
    link_end to_five(three.service, "IDL_B1", 5, "IDL_A1");
    to_five.publish(OXMSI_LTM_LINK_STATUS_UP);
    // No place is left at unit 3.
    std::list<client> crowd;
    while (crowd.size() < 30) {
        ASSERT_TRUE(crowd.emplace_back(three.service).connect());
        crowd.back().subscribe("IDL_A1");
    }
    std::vector<std::pair<const char*, std::function<void()>>> rows = {
        {"32 clients connect, subscribe, publish and close at unit 5",
         [&] { connect_subscribe_publish_close(five.service); }},
        {"clients for whom there is no place", [&] { client(three.service).connect(); }},
        {"fifty clients that never read", [&] { never_read(three.service); }},
        {"random bytes at the service", [&] { send_random_bytes(three.service); }},
        {"random bytes at the key server", [&] { send_random_bytes(three.folder + "/mka-key-server"); }},
        {"a thousand connections at once", [&] { hold_a_thousand_connections(three.service); }},
    };
    if (is_root)
        rows.emplace_back("a process of another user", [&] { come_as_another_user(three.service); });
    else
        printf("[  SKIPPED ] a process of another user: it takes root to become one\n");
    // Only the daemon itself is left to keep other users out.
    for (const std::string& path : {folder.path(), oka_dir, three.folder, three.service})
        chmod(path.c_str(), 0777);
    std::list<hostile> all;
    for (const auto& [what, act] : rows) {
        hostile one(act);
        expect_newcomers_served(what);
        expect_undisturbed(what);
        EXPECT_TRUE(eventually([&] { return one.rounds() > 0; })) << what;
    }
    for (const auto& row : rows)
        all.emplace_back(row.second);
    // Longer than a heartbeat that is missed takes to end a link.
    expect_undisturbed("all of them", 6s, 1'000'000);
    all.clear();
    expect_newcomers_served("after all");
    expect_memory_back();
}

TEST_F(hostility, link_and_service_withstand_whatever_happens_to_the_messaging_directory) {
    const struct {
        const char* what;
        std::string happens, ends; // in that directory
    } rows[] = {
        {"the messaging directory is unreadable", "chmod 0 .", "chmod 0700 ."},
        {"the folder of a unit is unreadable", "chmod 0 mp5", "chmod 0700 mp5"},
        {"what is in the messaging directory is removed", "rm -r *", ""},
        {"the messaging directory is full", "! touch filler{1..64} 2>/dev/null", "rm filler*"},
    };
    auto run = [&](const std::string& command) {
        EXPECT_EQ(system(("cd " + oka_dir + " && bash -c '" + command + "'").c_str()), 0);
    };
    link other{{three.service, "IDL_B1", 5, "IDL_A1"}, {five.service, "IDL_A1", 3, "IDL_B1"}};
    for (const auto& row : rows) {
        run(row.happens);
        // A second link needs the directory: it comes up when that is as it should be.
        other.publish(OXMSI_LTM_LINK_STATUS_UP);
        expect_undisturbed(row.what);
        run(row.ends);
        EXPECT_TRUE(eventually([&] { return other.is(true); })) << row.what;
        expect_newcomers_served(row.what);
        EXPECT_TRUE(other.becomes(false)) << row.what;
    }
    expect_memory_back();
}

// One a minute.
TEST_F(hostility, a_day_of_link_flaps_leaves_memory_where_it_was) {
    link flapping{{three.service, "IDL_B1", 5, "IDL_A1"}, {five.service, "IDL_A1", 3, "IDL_B1"}};
    for (unsigned flaps = 0; flaps < 24 * 60; flaps++) {
        ASSERT_TRUE(flapping.becomes(true) && flapping.becomes(false) && secured->is(true)) << flaps;
        if (flaps == 100)
            mark_memory();
    }
    expect_undisturbed("a day of flaps");
    expect_memory_back(48);
}

} // namespace
