// Whole nodes under load and among clients that mean no good: real processes over AF_UNIX, on the simulated
// SecY, with a secured link between units 3 and 7. The hostile ones are processes of their own, and speak
// bytes. Files and capabilities of the daemons are those of an ordinary user.
#include <algorithm>
#include <chrono>
#include <cstring>
#include <endian.h>
#include <fcntl.h>
#include <filesystem>
#include <grp.h>
#include <map>
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

#include "platform/oka/link_frames.h"
#include "support/process.h"
#include "tavu/mka_messages.h"
#include "tavu/oxmsi_messages.h"

#ifdef __has_feature
#if __has_feature(address_sanitizer)
#define UNDER_ADDRESS_SANITIZER 1
#endif
#endif

namespace {

using namespace tavu;
using namespace std::chrono_literals;
using test::process;
using test::wait_until;
using words = std::vector<std::string>;
using steady = std::chrono::steady_clock;

#ifdef UNDER_ADDRESS_SANITIZER
constexpr bool memory_is_its_own = false; // freed memory is kept for a while, and has a shadow
#else
constexpr bool memory_is_its_own = true;
#endif

// A connection to a mailbox, as another process has it that knows the frames.
class raw_connection {
  public:
    explicit raw_connection(const std::string& socket_path, int flags = 0)
        : fd_(socket(AF_UNIX, SOCK_SEQPACKET | SOCK_CLOEXEC | flags, 0)) {
        sockaddr_un address = {.sun_family = AF_UNIX, .sun_path = {}};
        snprintf(address.sun_path, sizeof address.sun_path, "%s", socket_path.c_str());
        timeval patience = {.tv_sec = 10, .tv_usec = 0};
        setsockopt(fd_, SOL_SOCKET, SO_RCVTIMEO, &patience, sizeof patience);
        open_ = ::connect(fd_, reinterpret_cast<sockaddr*>(&address), sizeof address) == 0;
    }
    ~raw_connection() { close(fd_); }
    raw_connection(raw_connection&& other) noexcept { *this = std::move(other); }
    raw_connection& operator=(raw_connection&& other) noexcept {
        std::swap(fd_, other.fd_);
        open_ = other.open_;
        mailbox_ = other.mailbox_;
        return *this;
    }

    bool is_open() const { return open_; }
    bool send_bytes(const void* bytes, size_t size) {
        return open_ = open_ && ::send(fd_, bytes, size, MSG_NOSIGNAL) == static_cast<ssize_t>(size);
    }
    // Introduces itself as a process of its own and attaches.
    bool greet() {
        oka::greeting_frame hello = {
            oka::make_header(oka::frame_kind::hello, UINT32_MAX, UINT32_MAX), htobe32(oka::link_version), {}};
        std::random_device source;
        for (unsigned char& byte : hello.process.bytes)
            byte = static_cast<unsigned char>(source());
        oka::greeting_frame welcome = {};
        oka::frame_header attach = oka::make_header(oka::frame_kind::attach, UINT32_MAX, UINT32_MAX);
        open_ = send_bytes(&hello, sizeof hello) && recv(fd_, &welcome, sizeof welcome, 0) == sizeof welcome;
        mailbox_ = welcome.header.sender_be;
        return send_bytes(&attach, sizeof attach);
    }
    bool send(uint32_t number, const void* fields, size_t size) {
        std::vector<unsigned char> frame(sizeof(oka::frame_header) + size);
        oka::frame_header header = oka::make_header(oka::frame_kind::message, 0, 1);
        header.receiver_be = mailbox_;
        uint32_t number_be = htobe32(number);
        memcpy(frame.data(), &header, sizeof header);
        memcpy(frame.data() + sizeof header, fields, size);
        memcpy(frame.data() + sizeof header, &number_be, sizeof number_be);
        return send_bytes(frame.data(), frame.size());
    }
    template<class T>
    bool send(uint32_t number, const T& fields) {
        return send(number, &fields, sizeof fields);
    }
    // The next message as a T, or nothing when the connection is closed, or silent for too long.
    template<class T>
    std::optional<T> receive(uint32_t& number, int flags = 0) {
        unsigned char frame[2048];
        for (;;) {
            ssize_t size = recv(fd_, frame, sizeof frame, flags);
            if (size <= 0)
                return {};
            uint32_t head[4];
            memcpy(head, frame, sizeof head);
            if (be32toh(head[0]) != static_cast<uint32_t>(oka::frame_kind::message))
                continue;
            number = be32toh(head[3]);
            T message = {};
            memcpy(&message, frame + sizeof(oka::frame_header),
                   std::min(sizeof message, static_cast<size_t>(size) - sizeof(oka::frame_header)));
            return message;
        }
    }

  private:
    int fd_ = -1;
    bool open_ = false;
    uint32_t mailbox_ = 0; // as it stands on the wire
};

// A client of "oxmsi" over such a connection.
class oxmsi_client {
  public:
    explicit oxmsi_client(const std::string& socket_path) : wire_(socket_path) {}

    bool establish(uint32_t version = 1) {
        return (wire_.is_open() && wire_.greet() && request_id(version) && take_id());
    }
    bool request_id(uint32_t version) {
        return wire_.send(OXMSI_CONNECTION_ESTABLISH_REQ,
                          oxmsi_connection_establish_req{{{}, 1, 900}, 1, version});
    }
    // False when the service refuses.
    bool take_id() {
        uint32_t number = 0;
        auto answer = wire_.receive<message_header>(number);
        id_ = answer ? uint32_t{answer->connection_reference} : 0;
        return number == OXMSI_CONNECTION_ESTABLISH_CFM;
    }
    template<class Request>
    bool ask(uint32_t number, Request request) {
        request.header.procedure_reference = number & 0xff;
        request.header.connection_reference = id_;
        return wire_.send(number, request);
    }
    bool subscribe(const char* port, uint32_t number = OXMSI_PORT_STATE_CHANGE_SUBSCRIBE_REQ) {
        oxmsi_subscription_req request = {};
        request.port.assign(port);
        return ask(number, request);
    }
    // Who subscribes is told the state at once, and then of every change.
    bool is_encrypted(const char* port) {
        subscribe(port, OXMSI_PORT_STATE_CHANGE_UNSUBSCRIBE_REQ);
        subscribe(port);
        (void)await(OXMSI_PORT_STATE_CHANGE_SUBSCRIBE_CFM);
        auto status = await(OXMSI_PORT_STATE_CHANGE_IND);
        return status && status->port == port &&
               status->encryption_state == OXMSI_PORT_ENCRYPTION_STATE_ENABLED;
    }
    bool add_link(const char* port, uint32_t remote_mpid, const char* remote_port,
                  uint32_t status = OXMSI_LTM_LINK_STATUS_DOWN) {
        oxmsi_link_added_req request = {};
        request.link = description(port, remote_mpid, remote_port, status);
        request.hunt_path.assign(("mp" + std::to_string(remote_mpid)).c_str());
        return ask(OXMSI_IDL_TOPOLOGY_PUBLISH_LINK_ADDED_REQ, request);
    }
    bool update_link(const char* port, uint32_t remote_mpid, const char* remote_port, uint32_t status) {
        return ask(OXMSI_IDL_TOPOLOGY_PUBLISH_LINK_UPDATED_REQ,
                   oxmsi_link_updated_req{{}, description(port, remote_mpid, remote_port, status)});
    }
    // The status in the next message of that number. Of what else comes the changes of a port are counted.
    std::optional<oxmsi_port_status> await(uint32_t wanted) {
        for (;;) {
            uint32_t number = 0;
            auto message = wire_.receive<oxmsi_port_status>(number);
            if (!message || number == wanted)
                return message;
            if (number == OXMSI_PORT_STATE_CHANGE_IND)
                indications_[message->port.c_str()]++;
        }
    }
    // How long the service takes to answer, or nothing when it does not.
    std::optional<steady::duration> response_time() {
        steady::time_point asked = steady::now();
        if (!ask(OXMSI_CAPABILITIES_GET_REQ, bare{}) || !await(OXMSI_CAPABILITIES_GET_CFM))
            return {};
        return steady::now() - asked;
    }
    // Of changes of the port's state, since the last call.
    unsigned take_indications(const char* port) { return std::exchange(indications_[port], 0); }
    raw_connection& wire() { return wire_; }

    struct bare {
        message_header header;
    };

  private:
    static oxmsi_link description(const char* port, uint32_t remote_mpid, const char* remote_port,
                                  uint32_t status) {
        oxmsi_link link = {};
        link.port.assign(port);
        link.remote_port.assign(remote_port);
        link.link_id = 1;
        link.remote_mpid = remote_mpid;
        link.du_type = OXMSI_DU_TYPE_3;
        link.link_status = status;
        return link;
    }

    raw_connection wire_;
    uint32_t id_ = 0;
    std::map<std::string, unsigned> indications_;
};

// Looks again and again, since what is waited for may write nothing.
bool eventually(const std::function<bool()>& condition) {
    steady::time_point limit = steady::now() + test::patience;
    while (!condition()) {
        if (steady::now() > limit)
            return false;
        wait_until([] { return false; }, 5ms);
    }
    return true;
}

// The two ends of a link, published by one client at each.
struct link {
    oxmsi_client& at_first;
    const char* first_port;
    uint32_t first_mpid;
    oxmsi_client& at_second;
    const char* second_port;
    uint32_t second_mpid;

    bool is_added() {
        return at_first.add_link(first_port, second_mpid, second_port) &&
               at_first.await(OXMSI_IDL_TOPOLOGY_PUBLISH_LINK_ADDED_CFM) &&
               at_second.add_link(second_port, first_mpid, first_port) &&
               at_second.await(OXMSI_IDL_TOPOLOGY_PUBLISH_LINK_ADDED_CFM);
    }
    void publish(uint32_t status) {
        at_first.update_link(first_port, second_mpid, second_port, status);
        at_second.update_link(second_port, first_mpid, first_port, status);
    }
    // That both ends are in that state now, as the last request asked for.
    bool is_confirmed(uint32_t encryption_state) {
        auto first = at_first.await(OXMSI_IDL_TOPOLOGY_PUBLISH_LINK_UPDATED_CFM);
        auto second = at_second.await(OXMSI_IDL_TOPOLOGY_PUBLISH_LINK_UPDATED_CFM);
        return first && second && first->encryption_state == encryption_state &&
               second->encryption_state == encryption_state;
    }
    bool is_encrypted() { return at_first.is_encrypted(first_port) && at_second.is_encrypted(second_port); }
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

class unit {
  public:
    unit(const std::string& folder, unsigned mpid) : folder_(folder), mpid_(std::to_string(mpid)) {}

    void start(const words& ports) {
        words port_control = {OXPCSI_SERVER};
        for (const std::string& port : ports) {
            port_control.emplace_back("--port");
            port_control.push_back(port);
        }
        port_control_.emplace(port_control, environment());
        // What root may overlook in a folder's mode, the daemon may not. Its traces of everything refused
        // are formatted, and then of no interest.
        daemon.emplace(words{"sh", "-c",
                             "exec setpriv --bounding-set -dac_override,-dac_read_search \"$0\" 2>/dev/null",
                             QEL_TAVU},
                       environment());
        ASSERT_TRUE(eventually([&] { return access(socket("oxmsi").c_str(), F_OK) == 0; }));
    }
    void manage_links(const std::string& links) {
        std::string file = folder_ + "/mp" + mpid_ + ".toml";
        FILE* out = fopen(file.c_str(), "we");
        ASSERT_TRUE(out);
        fputs(links.c_str(), out);
        fclose(out);
        topology_.emplace(words{IDL_TOPOLOGYD, "--links", file}, environment());
    }
    std::string socket(const char* name) const { return folder() + "/" + name; }
    std::string folder() const { return folder_ + "/oka/mp" + mpid_; }

    // In KiB, of the process alone.
    long memory() const { return number_in("smaps_rollup", "Private_Dirty:"); }
    long highest_memory() const { return number_in("status", "VmHWM:"); }

    std::optional<process> daemon;

  private:
    words environment() const {
        return {"OKA_DIR=" + folder_ + "/oka", "OKA_UNIT=mp" + mpid_, "MPID=" + mpid_, "OXHAL_DRIVER=sim",
                "ASAN_OPTIONS=quarantine_size_mb=1"};
    }
    long number_in(const char* file, const char* field) const {
        FILE* in = fopen(("/proc/" + std::to_string(daemon->pid()) + "/" + file).c_str(), "re");
        char line[256];
        long number = -1;
        while (in && fgets(line, sizeof line, in)) {
            if (!strncmp(line, field, strlen(field)))
                number = atol(line + strlen(field));
        }
        if (in)
            fclose(in);
        EXPECT_GT(number, 0) << file << " " << field;
        return number;
    }

    std::string folder_, mpid_;
    std::optional<process> port_control_, topology_;
};

class hostility : public testing::Test {
  protected:
    void SetUp() override {
        if (!test::enter_own_network())
            GTEST_SKIP() << "this host allows no network namespace: " << strerror(errno);
        for (const char* cable : {"port3 type veth peer name port7", "port3b type veth peer name port5"})
            ASSERT_EQ(system((std::string("ip link add ") + cable).c_str()), 0);
        for (const char* port : {"port3", "port3b", "port5", "port7"})
            ASSERT_EQ(system((std::string("ip link set up ") + port).c_str()), 0);
        mkdir(oka_dir.c_str(), 0700);
        // A full folder needs one that is small.
        bool own_mounts = unshare(CLONE_NEWNS) == 0 &&
                          mount(nullptr, "/", nullptr, MS_REC | MS_PRIVATE, nullptr) == 0 &&
                          mount("oka", oka_dir.c_str(), "tmpfs", 0, "nr_inodes=64,mode=0700") == 0;
        why_not_full = own_mounts ? "" : strerror(errno);
    }
    void TearDown() override { umount2(oka_dir.c_str(), MNT_DETACH); }

    test::temporary_folder folder;
    static constexpr unsigned most_files = 64;
    std::string oka_dir = folder.path() + "/oka";
    std::string why_not_full;
    unit three{folder.path(), 3}, five{folder.path(), 5}, seven{folder.path(), 7};
};

// --- What hostile processes do

// All of them at once in every step. Whoever closes takes the ports of the unit down, by the service's rules.
void connect_subscribe_publish_close(const std::string& service) {
    std::vector<oxmsi_client> clients;
    for (unsigned count = 0; count < 32; count++)
        clients.emplace_back(service).establish();
    for (oxmsi_client& client : clients) {
        client.subscribe("IDL_A1");
        client.add_link("IDL_A1", 3, "IDL_B1", OXMSI_LTM_LINK_STATUS_UP);
    }
    for (oxmsi_client& client : clients)
        client.ask(OXMSI_CONNECTION_CLOSE_REQ, oxmsi_client::bare{});
}

// Half a hundred of them ask for what has an answer, and take none.
void never_read(const std::string& service) {
    std::vector<oxmsi_client> clients;
    for (unsigned count = 0; count < 50; count++)
        clients.emplace_back(service).wire().greet();
    for (bool all = true; all;) {
        for (oxmsi_client& client : clients)
            all &= client.request_id(9);
    }
}

void send_random_bytes(const std::string& socket) {
    static std::mt19937 dice{20};
    raw_connection wire(socket);
    if (dice() % 2)
        wire.greet();
    unsigned char bytes[600];
    do
        std::generate(bytes, std::end(bytes), [] { return static_cast<unsigned char>(dice()); });
    while (wire.send_bytes(bytes, 1 + dice() % sizeof bytes));
}

// Keeps what it gets, and says who it is on half of them.
void hold_a_thousand_connections(const std::string& socket) {
    const rlimit many = {.rlim_cur = 4096, .rlim_max = 4096};
    (void)setrlimit(RLIMIT_NOFILE, &many);
    std::vector<raw_connection> held;
    for (unsigned count = 0; count < 1000; count++) {
        held.emplace_back(socket, SOCK_NONBLOCK);
        if (count % 2)
            held.back().greet();
    }
    usleep(100'000);
}

bool become_another_user() {
    constexpr uid_t nobody = 65534;
    return setgroups(0, nullptr) == 0 && setresgid(nobody, nobody, nobody) == 0 &&
           setresuid(nobody, nobody, nobody) == 0;
}

// The round ends when it is sent away.
void come_as_another_user(const std::string& socket) {
    (void)become_another_user();
    raw_connection wire(socket);
    if (!wire.is_open() || wire.greet())
        for (;;)
            pause();
}

constexpr auto span_of_a_row = 1s;

class under_load : public hostility {
  protected:
    // A secured link between 3 and 7 by the book.
    void secure() {
        ASSERT_NO_FATAL_FAILURE(three.start({"IDL_A1=port3", "IDL_B1=port3b"}));
        ASSERT_NO_FATAL_FAILURE(five.start({"IDL_A1=port5"}));
        ASSERT_NO_FATAL_FAILURE(seven.start({"IDL_A1=port7"}));
        for (auto [at, client] : {std::pair{&three, &at_three}, std::pair{&seven, &at_seven}}) {
            client->emplace(at->socket("oxmsi"));
            ASSERT_TRUE((*client)->establish());
        }
        three.manage_links(link_to("7"));
        seven.manage_links(link_to("3"));
        ASSERT_TRUE(eventually([&] { return is_secured(); }));
        ASSERT_TRUE(median_response(50ms));
        at_three->take_indications("IDL_A1");
        at_seven->take_indications("IDL_A1");
    }
    static std::string link_to(const std::string& mpid) {
        return "[[link]]\nport = \"IDL_A1\"\nid = 1\nremote-port = \"IDL_A1\"\nremote-mpid = " + mpid +
               "\nhunt-path = \"mp" + mpid + "\"\n";
    }

    bool is_secured() { return at_three->is_encrypted("IDL_A1") && at_seven->is_encrypted("IDL_A1"); }
    // Nor was it anything else in the meantime.
    bool is_still_secured() {
        return is_secured() &&
               at_three->take_indications("IDL_A1") + at_seven->take_indications("IDL_A1") == 0;
    }
    // Of both ends' daemons, asked for that long; in microseconds, 0 when one of them does not answer.
    long median_response(steady::duration span) {
        std::vector<steady::duration> times;
        for (steady::time_point end = steady::now() + span; steady::now() < end;) {
            for (oxmsi_client* client : {&*at_three, &*at_seven}) {
                auto time = client->response_time();
                if (!time)
                    return 0;
                times.push_back(*time);
            }
            usleep(500);
        }
        std::nth_element(times.begin(), times.begin() + static_cast<long>(times.size() / 2), times.end());
        return static_cast<long>(times[times.size() / 2] / 1us);
    }
    // While it lasts the daemons answer, and the link stays as it is.
    void expect_undisturbed(const char* what, long unloaded, steady::duration span = span_of_a_row) {
        long loaded = median_response(span);
        printf("%-60s answers within %ld us, unloaded %ld us; memory %ld KiB\n", what, loaded, unloaded,
               three.memory());
        EXPECT_GT(loaded, 0) << what << ": no answer";
        EXPECT_LT(loaded, std::max(10 * unloaded, noise_us)) << what;
        EXPECT_TRUE(is_still_secured()) << what;
    }
    bool newcomer_is_served(const unit& at) {
        oxmsi_client newcomer(at.socket("oxmsi"));
        return newcomer.wire().is_open() && newcomer.wire().greet() && newcomer.request_id(9) &&
               !newcomer.take_id();
    }

    void expect_memory_bounded(long before, long before_at_five) const {
        printf("memory of unit 3: %ld KiB before, %ld KiB after, %ld KiB resident at most; of unit 5: %ld, "
               "%ld\n",
               before, three.memory(), three.highest_memory(), before_at_five, five.memory());
        if (!memory_is_its_own)
            return;
        EXPECT_LT(three.memory(), before + 1024);
        EXPECT_LT(five.memory(), before_at_five + 1024);
        EXPECT_LT(three.highest_memory(), 16 * 1024);
    }

    // What other processes of the machine may cost.
    static constexpr long noise_us = 3000;
    std::optional<oxmsi_client> at_three, at_seven;
};

TEST_F(under_load, keeps_its_link_and_answers_whatever_clients_do) {
    ASSERT_NO_FATAL_FAILURE(secure());
    const std::string service = three.socket("oxmsi"), keys = three.socket("mka-key-server");
    // For those at unit 5.
    ASSERT_TRUE(at_three->add_link("IDL_B1", 5, "IDL_A1", OXMSI_LTM_LINK_STATUS_UP));
    // No place is left at unit 3.
    std::vector<oxmsi_client> crowd;
    for (unsigned count = 0; count < 30; count++) {
        ASSERT_TRUE(crowd.emplace_back(service).establish());
        crowd.back().subscribe("IDL_A1");
    }
    std::vector<std::pair<const char*, std::function<void()>>> rows = {
        {"32 clients connect, subscribe, publish and close at unit 5",
         [&] { connect_subscribe_publish_close(five.socket("oxmsi")); }},
        {"clients for whom there is no place", [&] { oxmsi_client(service).establish(); }},
        {"fifty clients that never read", [&] { never_read(service); }},
        {"random bytes at the service", [&] { send_random_bytes(service); }},
        {"random bytes at the key server", [&] { send_random_bytes(keys); }},
        {"a thousand connections at once", [&] { hold_a_thousand_connections(service); }},
    };
    pid_t trial = fork();
    if (trial == 0)
        _exit(become_another_user() ? 0 : 1);
    int result = 0;
    if (waitpid(trial, &result, 0) == trial && result == 0)
        rows.emplace_back("a process of another user", [&] { come_as_another_user(service); });
    else
        printf("[  SKIPPED ] a process of another user: this one may not become another\n");
    // Only the daemon itself is left to keep other users out.
    for (const std::string& path : {folder.path(), oka_dir, three.folder(), service})
        chmod(path.c_str(), 0777);
    long before = three.memory(), before_at_five = five.memory();
    long unloaded = median_response(300ms);
    for (const auto& [what, act] : rows) {
        hostile one(act);
        // Who is displaced by a flood tries again, as every search does.
        EXPECT_TRUE(eventually([&] { return newcomer_is_served(three); })) << what;
        expect_undisturbed(what, unloaded);
        EXPECT_TRUE(eventually([&] { return one.rounds() > 0; })) << what;
    }
    {
        std::vector<std::unique_ptr<hostile>> all;
        for (const auto& row : rows)
            all.push_back(std::make_unique<hostile>(row.second));
        // Longer than a heartbeat that is missed takes to end a link.
        long loaded = median_response(6s);
        printf("all of them: answers within %ld us\n", loaded);
        EXPECT_GT(loaded, 0);
    }
    EXPECT_TRUE(is_still_secured());
    EXPECT_TRUE(eventually([&] { return newcomer_is_served(three) && newcomer_is_served(five); }));
    expect_memory_bounded(before, before_at_five);
}

TEST_F(under_load, keeps_its_link_whatever_happens_to_the_messaging_directory) {
    ASSERT_NO_FATAL_FAILURE(secure());
    oxmsi_client at_five(five.socket("oxmsi"));
    ASSERT_TRUE(at_five.establish());
    link second{*at_three, "IDL_B1", 3, at_five, "IDL_A1", 5};
    ASSERT_TRUE(second.is_added());
    auto filler = [&](unsigned number) { return oka_dir + "/filler" + std::to_string(number); };
    auto fill = [&] {
        for (unsigned count = 0; count < most_files; count++)
            close(open(filler(count).c_str(), O_CREAT | O_CLOEXEC, 0600));
    };
    auto make_room = [&] {
        for (unsigned count = 0; count < most_files; count++)
            unlink(filler(count).c_str());
    };
    auto empty = [&] {
        for (const auto& each : std::filesystem::directory_iterator(oka_dir))
            std::filesystem::remove_all(each);
    };
    const struct {
        const char* what;
        std::function<void()> happens, ends;
    } rows[] = {
        {"the messaging directory is unreadable", [&] { chmod(oka_dir.c_str(), 0); },
         [&] { chmod(oka_dir.c_str(), 0700); }},
        {"the folder of a unit is unreadable", [&] { chmod(five.folder().c_str(), 0); },
         [&] { chmod(five.folder().c_str(), 0700); }},
        {"what is in the messaging directory is removed", empty, [] {}},
        {"the messaging directory is full", fill, make_room},
    };
    long before = three.memory(), before_at_five = five.memory();
    long unloaded = median_response(300ms);
    for (const auto& row : rows) {
        if (!why_not_full.empty() && std::string(row.what).ends_with("full")) {
            printf("[  SKIPPED ] %s: this host allows no mount (%s)\n", row.what, why_not_full.c_str());
            continue;
        }
        row.happens();
        // A second link needs the directory: it comes up when that is as it should be.
        second.publish(OXMSI_LTM_LINK_STATUS_UP);
        expect_undisturbed(row.what, unloaded);
        row.ends();
        EXPECT_TRUE(eventually([&] { return second.is_encrypted(); })) << row.what;
        EXPECT_TRUE(eventually([&] { return newcomer_is_served(three) && newcomer_is_served(five); }))
            << row.what;
        second.publish(OXMSI_LTM_LINK_STATUS_DOWN);
        EXPECT_TRUE(eventually([&] { return !second.is_encrypted(); }));
        EXPECT_TRUE(is_still_secured()) << row.what;
    }
    expect_memory_bounded(before, before_at_five);
}

// One a minute. The ends of it are published straight to the daemons.
TEST_F(hostility, a_day_of_link_flaps_leaves_memory_where_it_was) {
    ASSERT_NO_FATAL_FAILURE(three.start({"IDL_A1=port3"}));
    ASSERT_NO_FATAL_FAILURE(seven.start({"IDL_A1=port7"}));
    oxmsi_client at_three(three.socket("oxmsi")), at_seven(seven.socket("oxmsi"));
    ASSERT_TRUE(at_three.establish() && at_seven.establish());
    link flapping{at_three, "IDL_A1", 3, at_seven, "IDL_A1", 7};
    ASSERT_TRUE(flapping.is_added());
    constexpr unsigned flaps = 24 * 60;
    long before[2] = {};
    for (unsigned count = 0; count < flaps; count++) {
        flapping.publish(OXMSI_LTM_LINK_STATUS_UP);
        ASSERT_TRUE(flapping.is_confirmed(OXMSI_PORT_ENCRYPTION_STATE_ENABLED)) << count;
        flapping.publish(OXMSI_LTM_LINK_STATUS_DOWN);
        ASSERT_TRUE(flapping.is_confirmed(OXMSI_PORT_ENCRYPTION_STATE_DISABLED)) << count;
        if (count == flaps / 20)
            before[0] = three.memory(), before[1] = seven.memory();
    }
    printf("memory after %u flaps: %ld KiB at unit 3, %ld KiB at unit 7; after %u: %ld KiB, %ld KiB\n",
           flaps / 20, before[0], before[1], flaps, three.memory(), seven.memory());
    constexpr long growth = memory_is_its_own ? 48 : 4096;
    EXPECT_LE(three.memory(), before[0] + growth);
    EXPECT_LE(seven.memory(), before[1] + growth);
}

} // namespace
