// Messaging over AF_UNIX sockets where the other side is not well-behaved: it sends nonsense, does not read,
// belongs to somebody else, floods, or takes the messaging directory away. Its bytes are written by hand.
#include <algorithm>
#include <cerrno>
#include <chrono>
#include <ctime>
#include <fcntl.h>
#include <grp.h>
#include <list>
#include <poll.h>
#include <sys/resource.h>
#include <sys/socket.h>
#include <sys/stat.h>
#include <sys/un.h>

#include "oka_agent.h"
#include "platform/zeb.h"
#include "platform/zeb/zeb_sink.h"
#include "support/process.h"

namespace oka_tests {

namespace {

std::string errors;

void note_error(const zeb::record& record) {
    if (record.group == ZEB_GROUP_ERROR)
        errors += std::string(record.text) + "\n";
}

std::string hex_of(uint32_t value) {
    char text[9];
    snprintf(text, sizeof text, "%08x", value);
    return text;
}

std::string hex(const std::string& bytes) {
    std::string text;
    for (char byte : bytes)
        text += hex_of(static_cast<unsigned char>(byte)).substr(6);
    return text;
}

std::string from_hex(const std::string& text) {
    std::string bytes;
    for (size_t at = 0; at + 1 < text.size(); at += 2)
        bytes += static_cast<char>(strtoul(text.substr(at, 2).c_str(), nullptr, 16));
    return bytes;
}

const std::string own_number = "000102030405060708090a0b0c0d0e0f";
// Behind the process: the number to answer, the proof, and the unit, here "" and at the end of a text.
const std::string rest_of_greeting(2 * (16 + 32 + 256), '0');
const std::string hello = "00000001ffffffffffffffff00000002" + own_number + rest_of_greeting;
const std::string attach = "00000003ffffffffffffffff" + std::string(2 * 32, '0');

// A connection to a mailbox that speaks bytes.
class raw_client {
  public:
    explicit raw_client(const std::string& path) : fd_(socket(AF_UNIX, SOCK_SEQPACKET | SOCK_NONBLOCK, 0)) {
        sockaddr_un address = {.sun_family = AF_UNIX, .sun_path = {}};
        snprintf(address.sun_path, sizeof address.sun_path, "%s", path.c_str());
        connected = connect(fd_, reinterpret_cast<sockaddr*>(&address), sizeof address) == 0;
    }
    ~raw_client() { close(fd_); }
    raw_client(raw_client&& other) noexcept : connected(other.connected), fd_(other.fd_) { other.fd_ = -1; }
    raw_client(const raw_client&) = delete;
    raw_client& operator=(const raw_client&) = delete;

    void send_hex(const std::string& text) const { send_bytes(from_hex(text)); }
    void send_bytes(const std::string& bytes) const {
        EXPECT_EQ(send(fd_, bytes.data(), bytes.size(), MSG_NOSIGNAL), static_cast<ssize_t>(bytes.size()));
    }
    // One packet in hexadecimal, "" when there is none, "closed".
    std::string receive() const {
        char buffer[512];
        ssize_t size = recv(fd_, buffer, sizeof buffer, 0);
        if (size < 0)
            return errno == EAGAIN ? "" : "closed";
        return size == 0 ? "closed" : hex(std::string(buffer, static_cast<size_t>(size)));
    }
    void wait_readable() const {
        pollfd each = {.fd = fd_, .events = POLLIN, .revents = 0};
        poll(&each, 1, patience_ms);
    }

    bool connected;

  private:
    int fd_;
};

class unix_test : public testing::Test {
  protected:
    void SetUp() override {
        zeb::set_sink(note_error);
        setenv("OKA_UNIT", "here", 1);
        setenv("OKA_TRANSPORTS", "unix", 1);
    }

    void TearDown() override {
        stop_service();
        EXPECT_EQ(oka::simulation::live(), oka::simulation::balance{});
    }

    void start() {
        ASSERT_TRUE(start_service());
        root = oka_create_mailbox("root", 0);
        ASSERT_NE(root, OKA_MAILBOX_NONE);
    }

    static arrival receive(int32_t timeout_ms = patience_ms) {
        return take(oka_receive(nullptr, timeout_ms, OKA_ANY_SENDER));
    }
    // Lets the service do everything that is there to be done; nothing must arrive for a mailbox.
    static void settle() {
        for (int count = 0; count < 5; ++count)
            EXPECT_FALSE(receive(0));
    }

    oka_mailbox find(const std::string& path) const {
        locate(path, root, 1);
        arrival found = receive();
        EXPECT_EQ(found.number, 1u) << path;
        return found.sender;
    }

    void expect_echo(oka_mailbox agent_mailbox) const {
        send_message(agent_mailbox, root, chatter, "there?");
        EXPECT_EQ(receive().bytes, "there?");
    }

    std::string socket_path(const char* name) const { return directory.path + "/here/" + name; }

    bool is_socket(const char* name) const {
        struct stat status;
        return lstat(socket_path(name).c_str(), &status) == 0 && S_ISSOCK(status.st_mode);
    }

    // A raw client that the service takes for a peer.
    raw_client attached_client() const {
        raw_client client(socket_path("root"));
        EXPECT_TRUE(client.connected);
        client.send_hex(hello);
        settle();
        EXPECT_EQ(client.receive().substr(0, 32), "00000002ffffffff" + hex_of(root) + "00000002");
        client.send_hex(attach);
        settle();
        return client;
    }

    scratch_directory directory;
    oka_mailbox root = OKA_MAILBOX_NONE;
};

TEST_F(unix_test, every_byte_of_a_conversation) {
    start();
    raw_client client = attached_client();
    client.send_hex("00000004" + hex_of(root) + "ffffffff");
    client.send_hex("00000004" + hex_of(root + 77) + "ffffffff");
    settle();
    EXPECT_EQ(client.receive(), "00000005ffffffff" + hex_of(root));
    EXPECT_EQ(client.receive(), "00000006ffffffff" + hex_of(root + 77));

    client.send_hex("00000007" + hex_of(root) + "00001234" + "001b0701" + "00000001");
    arrival message = receive();
    EXPECT_EQ(message.number, 0x1b0701u);
    EXPECT_EQ(hex(message.bytes), "00000001");
    send_message(message.sender, root, 0x1b0702, "xyz");
    EXPECT_EQ(client.receive(), "0000000700001234" + hex_of(root) + "001b0702" + hex("xyz"));

    // Shorter than its number: delivered, as what it is.
    client.send_hex("00000007" + hex_of(root) + "00001234" + "001b07");
    oka_message* cut = oka_receive(nullptr, patience_ms, OKA_ANY_SENDER);
    ASSERT_TRUE(cut);
    EXPECT_EQ(oka_size(cut), 3u);
    EXPECT_EQ(cut->number, 0u);
    oka_free(&cut);

    monitor(message.sender, 2);
    client.send_hex("00000006ffffffff00001234");
    arrival gone = receive();
    EXPECT_EQ(gone.number, 2u);
    EXPECT_EQ(gone.sender, message.sender);
    oka_delete_mailbox(root);
    EXPECT_EQ(client.receive(), "00000006ffffffff" + hex_of(root));
    EXPECT_EQ(errors, "");
}

TEST_F(unix_test, what_is_no_frame_closes_its_connection_and_no_other) {
    start();
    const std::string header_of_message = from_hex("00000007" + hex_of(root) + "00001234");
    const struct {
        const char* what;
        bool attached;
        std::string bytes;
    } rows[] = {
        {"a hello that is too short", false, from_hex(hello.substr(0, hello.size() - 2))},
        {"a hello that is too long", false, from_hex(hello + "00")},
        {"a hello of another version", false,
         from_hex("00000001ffffffffffffffff00000001" + own_number + rest_of_greeting)},
        {"a unit without an end", false,
         from_hex("00000001ffffffffffffffff00000002" + own_number + std::string(2 * 304, '1'))},
        {"a message of no mailbox", true, from_hex("00000007" + hex_of(root) + "ffffffff" + "00000011")},
        {"a welcome for a hello", false,
         from_hex("00000002ffffffffffffffff00000002" + own_number + rest_of_greeting)},
        {"attaching without a hello", false, from_hex(attach)},
        {"a message without a hello", false, header_of_message + "1234"},
        {"one byte", false, "x"},
        {"a second hello", true, from_hex(hello)},
        {"a second attach", true, from_hex(attach)},
        {"half a header", true, from_hex("0000000400000001")},
        {"an unknown kind", true, from_hex("00000008ffffffffffffffff")},
        {"a lookup with more behind it", true, from_hex("00000004ffffffffffffffff00")},
        {"a message larger than any", true, header_of_message + std::string(OKA_MESSAGE_SIZE_MAX + 1, 'x')},
    };
    for (const auto& row : rows) {
        errors.clear();
        raw_client client = row.attached ? attached_client() : raw_client(socket_path("root"));
        client.send_bytes(row.bytes);
        settle();
        EXPECT_EQ(client.receive(), "closed") << row.what;
        EXPECT_NE(errors.find("OKA: Process " + std::to_string(getpid())), std::string::npos) << row.what;
    }
    raw_client client = attached_client();
    for (uint32_t sender = 1; sender <= 257; ++sender) {
        client.send_hex("00000007" + hex_of(root) + hex_of(sender) + "00000011");
        EXPECT_EQ(receive(0).number, sender <= 256 ? 0x11u : 0u) << sender;
    }
    EXPECT_EQ(client.receive(), "closed");
}

TEST_F(unix_test, only_the_end_of_an_attached_connection_is_a_death) {
    start();
    raw_client client = attached_client();
    client.send_hex("00000007" + hex_of(root) + "00001234" + "00000011");
    monitor(receive().sender, 2);
    { raw_client silent(socket_path("root")); }
    {
        raw_client visitor(socket_path("root"));
        visitor.send_hex(hello);
        settle();
    }
    settle();
    // Another process with this one's number would be taken for it.
    pid_t thief = fork();
    if (thief == 0) {
        raw_client stolen(socket_path("root"));
        stolen.send_hex(hello);
        stolen.wait_readable();
        stolen.receive();
        stolen.send_hex(attach);
        stolen.wait_readable();
        _exit(stolen.receive() == "closed" ? 0 : 1);
    }
    int status = -1;
    while (waitpid(thief, &status, WNOHANG) == 0)
        settle();
    EXPECT_EQ(status, 0);
    EXPECT_NE(errors.find("OKA: Process " + std::to_string(thief)), std::string::npos);
    { raw_client dying = std::move(client); }
    EXPECT_EQ(receive().number, 2u);
}

TEST_F(unix_test, a_peer_that_does_not_read_is_dead_when_its_backlog_is_full) {
    for (size_t size : {size_t{164}, size_t{65532}}) {
        agent_process process("here");
        start();
        process.start();
        oka_mailbox agent_mailbox = find("agent");
        monitor(agent_mailbox, 2);
        process.stop();
        size_t sent = 0;
        size_t most_alive = 0;
        while (sent < 16u << 20 && errors.empty()) {
            send_message(agent_mailbox, root, chatter, std::string(size, 'x'));
            sent += size;
            most_alive = std::max<size_t>(most_alive, oka::simulation::live().messages);
        }
        EXPECT_LT(most_alive * size, 1u << 20);
        EXPECT_EQ(receive(0).number, 2u);
        EXPECT_EQ(errors, "OKA: Process " + std::to_string(process.pid) +
                              " does not read its messages, its connection is closed\n");
        // Once it reads again the two find each other anew.
        kill(process.pid, SIGCONT);
        oka_mailbox again = find("agent");
        EXPECT_NE(again, agent_mailbox);
        expect_echo(again);
        errors.clear();
        stop_service();
    }
}

TEST_F(unix_test, a_name_is_free_when_its_process_is_dead_and_not_when_it_is_a_file) {
    agent_process dead("here");
    agent_process living("here");
    start();
    dead.start();
    find("agent");
    dead.end(SIGKILL);
    struct stat status;
    EXPECT_EQ(stat(socket_path("agent").c_str(), &status), 0);
    // A stale socket is no mailbox, but the one that takes its place is.
    locate("agent", root, 3);
    EXPECT_FALSE(receive(50));
    living.start();
    arrival found = receive();
    EXPECT_EQ(found.number, 3u);
    expect_echo(found.sender);
    EXPECT_EQ(oka_clone_mailbox(root, "agent"), OKA_MAILBOX_NONE);
    EXPECT_NE(errors.find("the name is taken"), std::string::npos);

    int file = open(socket_path("file").c_str(), O_CREAT | O_WRONLY | O_CLOEXEC, 0600);
    close(file);
    EXPECT_EQ(oka_clone_mailbox(root, "file"), OKA_MAILBOX_NONE);
    EXPECT_EQ(stat(socket_path("file").c_str(), &status), 0);
    EXPECT_TRUE(S_ISREG(status.st_mode));
    EXPECT_EQ(stat(socket_path("root").c_str(), &status), 0);
    EXPECT_EQ(status.st_mode & 07777, 0600u);
    oka_delete_mailbox(oka_clone_mailbox(root, "short-lived"));
    EXPECT_NE(stat(socket_path("short-lived").c_str(), &status), 0);
}

TEST_F(unix_test, only_the_same_user_root_and_an_open_folders_group_are_answered) {
    if (getuid() != 0)
        GTEST_SKIP() << "needs root, to become another user";
    constexpr uid_t another = 54321;
    constexpr gid_t group = 54322;
    const struct {
        const char* what;
        mode_t folder_mode;
        gid_t primary;
        gid_t supplementary;
        bool answered;
        uid_t owner = 0;
    } rows[] = {
        {"another user", 0771, another, another, false},
        {"a member of the group", 0771, group, another, true},
        {"a member by a supplementary group", 0771, another, group, true},
        {"a member, and the folder is closed to its group", 0701, group, group, false},
        {"the folder's owner", 0701, another, another, true, another},
    };
    start();
    // The file system would keep most of them out already; it is made to let everyone through.
    chmod(directory.path.c_str(), 0711);
    const std::string folder = directory.path + "/here";
    ASSERT_EQ(chown(folder.c_str(), 0, group), 0);
    chmod(socket_path("root").c_str(), 0666);
    for (const auto& row : rows) {
        chmod(folder.c_str(), 0771);
        ASSERT_TRUE(!setgroups(1, &row.supplementary) && !setegid(row.primary) && !seteuid(another));
        raw_client client(socket_path("root"));
        ASSERT_TRUE(!seteuid(0) && !setegid(0) && !setgroups(0, nullptr));
        ASSERT_TRUE(client.connected) << row.what;
        ASSERT_EQ(chown(folder.c_str(), row.owner, group), 0);
        chmod(folder.c_str(), row.folder_mode);
        client.send_hex(hello);
        settle();
        // User-mode emulation does not tell of supplementary groups; who has no other is refused then.
        bool answered = row.answered && (row.primary == group || row.owner != 0 || !test::is_emulated());
        EXPECT_EQ(client.receive().starts_with("00000002"), answered) << row.what;
    }
    // A mailbox of an open folder is open to the group, and to nobody else.
    chmod(folder.c_str(), 0770);
    oka_clone_mailbox(root, "open");
    struct stat status;
    ASSERT_EQ(stat(socket_path("open").c_str(), &status), 0);
    EXPECT_EQ(status.st_mode & 07777, 0660u);
    EXPECT_EQ(status.st_gid, group);
}

TEST_F(unix_test, a_group_that_has_the_directory_has_the_folders_of_its_units) {
    ASSERT_EQ(chmod(directory.path.c_str(), 02770), 0);
    umask(077);
    start();
    struct stat status;
    ASSERT_EQ(stat((directory.path + "/here").c_str(), &status), 0);
    EXPECT_EQ(status.st_mode & 07777, 03770u);
}

TEST_F(unix_test, a_folder_in_that_of_the_unit_holds_the_mailboxes_of_its_name) {
    agent_process process("here");
    start();
    ASSERT_EQ(mkdir(socket_path("oxmsi").c_str(), 0700), 0);
    ASSERT_EQ(mkdir(socket_path("mka-client").c_str(), 0700), 0);
    const struct {
        const char* name;
        const char* place;
    } rows[] = {
        {"oxmsi", "oxmsi/oxmsi"},       {"mka-client-12", "mka-client/mka-client-12"},
        {"mka-client-", "mka-client-"}, {"mka-client12", "mka-client12"},
        {"oxmsi-", "oxmsi-"},
    };
    for (const auto& row : rows) {
        oka_mailbox made = oka_clone_mailbox(root, row.name);
        EXPECT_TRUE(is_socket(row.place)) << row.name;
        EXPECT_TRUE(raw_client(socket_path(row.place)).connected) << row.name;
        EXPECT_EQ(oka_clone_mailbox(root, row.name), OKA_MAILBOX_NONE) << row.name;
        oka_delete_mailbox(made);
        EXPECT_FALSE(is_socket(row.place)) << row.name;
    }
    // It is found there, and put back there when it was removed.
    ASSERT_EQ(mkdir(socket_path("agent").c_str(), 0700), 0);
    locate("agent", root, 1);
    settle();
    process.start();
    EXPECT_EQ(receive().number, 1u);
    EXPECT_TRUE(is_socket("agent/agent"));
    oka_clone_mailbox(root, "oxmsi");
    ASSERT_EQ(unlink(socket_path("oxmsi/oxmsi").c_str()), 0);
    EXPECT_FALSE(receive(1'100));
    EXPECT_TRUE(is_socket("oxmsi/oxmsi"));
}

TEST_F(unix_test, long_paths_are_reached) {
    const std::string part(100, 'd');
    setenv("OKA_DIR", (directory.path + "/" + part + "/" + part + "/" + part).c_str(), 1);
    const std::string unit = std::string(31, 'u') + "/" + std::string(31, 'v');
    agent_process process(unit);
    start();
    process.start();
    expect_echo(find(unit + "/agent"));
}

TEST_F(unix_test, half_open_connections_and_failing_accepts_keep_no_other_process_out) {
    agent_process process("here");
    start();
    std::list<raw_client> flood;
    while (flood.size() < 200) {
        flood.emplace_back(socket_path("root"));
        settle();
    }
    EXPECT_EQ(std::count_if(flood.begin(), flood.end(), [](auto& each) { return each.receive() == ""; }), 16);
    // Without a free descriptor it waits, and does not spin.
    flood.emplace_back(socket_path("root"));
    int lowest_free = dup(0);
    const rlimit none = {.rlim_cur = static_cast<rlim_t>(lowest_free), .rlim_max = 1000};
    const rlimit enough = {.rlim_cur = 1000, .rlim_max = 1000};
    ASSERT_EQ(setrlimit(RLIMIT_NOFILE, &none), 0);
    clock_t start_time = clock();
    EXPECT_FALSE(receive(400));
    EXPECT_LT(clock() - start_time, CLOCKS_PER_SEC / 5);
    setrlimit(RLIMIT_NOFILE, &enough);
    close(lowest_free);
    process.start();
    expect_echo(find("agent"));
}

TEST_F(unix_test, an_environment_that_makes_no_sense_is_reported) {
    const struct {
        const char* variable;
        std::string value;
    } rows[] = {
        {"OKA_TRANSPORTS", "unix pigeon"},
        {"OKA_TRANSPORTS", "none"},
        {"OKA_TRANSPORTS", ","},
        {"OKA_TRANSPORTS", "unix,unix"},
        {"OKA_UNIT", "here/../there"},
        {"OKA_UNIT", "/here"},
        {"OKA_DIR", "run/oka"},
        {"OKA_DIR", "/proc/self/status"},
    };
    for (const auto& row : rows) {
        errors.clear();
        std::string usual = getenv(row.variable);
        setenv(row.variable, row.value.c_str(), 1);
        EXPECT_NE(oka_init(37, 0, 0, 0, 0), 0) << row.variable << "=" << row.value;
        EXPECT_TRUE(errors.starts_with("OKA: ")) << row.variable << "=" << row.value;
        setenv(row.variable, usual.c_str(), 1);
    }
}

TEST_F(unix_test, who_waits_sleeps_and_a_timer_never_wakes_it_early) {
    start();
    locate("never", root, 1);
    rusage before, after;
    getrusage(RUSAGE_SELF, &before);
    auto start_time = std::chrono::steady_clock::now();
    oka_message* prepared = make_message(5);
    oka_timer_request_sig(200, &prepared);
    EXPECT_EQ(receive().number, 5u);
    EXPECT_GE(std::chrono::steady_clock::now() - start_time, std::chrono::milliseconds(200));
    getrusage(RUSAGE_SELF, &after);
    EXPECT_LE(after.ru_nvcsw - before.ru_nvcsw, 2);
}

} // namespace

} // namespace oka_tests
