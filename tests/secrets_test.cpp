// Keys stay secret: no trace tells one, and after a key's last use there is no copy of it in the process.
// Each key is known to the test from where it is drawn, and is kept masked, so that the test's own copy is
// not found.
#include "support/daemon_world.h"

#include <array>
#include <csignal>
#include <fcntl.h>
#include <linux/capability.h>
#include <sys/prctl.h>
#include <sys/ptrace.h>
#include <sys/random.h>
#include <sys/resource.h>
#include <sys/syscall.h>
#include <sys/wait.h>

#include "support/process.h"

using namespace tavu;

namespace {

constexpr size_t key_size = 16;
constexpr size_t told = 8; // so many successive octets are too much
constexpr uint8_t mask = 0x5a;

struct {
    uint8_t keys[64][key_size];
    unsigned count;
    bool look_at_exit;
} ledger;

// What was never touched holds no key; a sanitizer's shadow and reserves are mostly that.
bool is_touched(int page_map, uint64_t begin, size_t size) {
    constexpr uint64_t in_memory_or_swapped = uint64_t{3} << 62;
    uint64_t pages[256] = {};
    auto page_size = static_cast<uint64_t>(sysconf(_SC_PAGESIZE));
    size_t wanted = std::min(sizeof pages, static_cast<size_t>(size / page_size + 1) * sizeof *pages);
    (void)!pread(page_map, pages, wanted, static_cast<off_t>(begin / page_size * sizeof *pages));
    return std::any_of(std::begin(pages), std::end(pages),
                       [](uint64_t page) { return (page & in_memory_or_swapped) != 0; });
}

// Whether there are `told` successive octets of one of the keys from `first` on.
bool tells_key(const void* bytes, size_t size, unsigned first = 0, unsigned end = ~0u) {
    bool found = false;
    uint8_t part[told];
    for (unsigned key = first; key < std::min(end, ledger.count); key++) {
        for (size_t at = 0; at + told <= key_size; at++) {
            std::transform(&ledger.keys[key][at], &ledger.keys[key][at + told], part,
                           [](uint8_t octet) { return octet ^ mask; });
            found |= memmem(bytes, size, part, told) != nullptr;
        }
    }
    explicit_bzero(part, sizeof part);
    return found;
}

// The same in everything that the process may write to and nobody else shares, as it is now: a copy of it
// holds still.
bool is_in_memory(unsigned first = 0, unsigned end = ~0u) {
    pid_t copy = fork();
    if (copy == 0) {
        for (;;)
            pause();
    }
    std::string proc = "/proc/" + std::to_string(copy);
    FILE* maps = fopen((proc + "/maps").c_str(), "re");
    int memory = open((proc + "/mem").c_str(), O_RDONLY | O_CLOEXEC);
    int page_map = open((proc + "/pagemap").c_str(), O_RDONLY | O_CLOEXEC);
    EXPECT_TRUE(maps && memory >= 0 && page_map >= 0) << strerror(errno);
    constexpr size_t piece = 1 << 20;
    static uint8_t buffer[piece + told];
    bool found = false;
    char line[512];
    while (maps && fgets(line, sizeof line, maps)) {
        unsigned long long begin = 0, limit = 0;
        char rights[5] = "";
        if (sscanf(line, "%llx-%llx %4s", &begin, &limit, rights) != 3 || rights[1] != 'w' ||
            limit - begin > 1ull << 34)
            continue;
        for (unsigned long long at = begin; at < limit; at += piece) {
            if (!is_touched(page_map, at, piece))
                continue;
            // With the end of the piece before: to read of the next one would touch that.
            unsigned long long from = at - (at > begin ? told : 0);
            auto wanted = static_cast<size_t>(std::min<unsigned long long>(sizeof buffer, limit - from));
            ssize_t size = pread(memory, buffer, wanted, static_cast<off_t>(from));
            found |= size > 0 && tells_key(buffer, static_cast<size_t>(size), first, end);
        }
    }
    explicit_bzero(buffer, sizeof buffer);
    if (maps)
        fclose(maps);
    close(memory);
    close(page_map);
    kill(copy, SIGKILL);
    waitpid(copy, nullptr, 0);
    return found;
}

// Also as digits, in either case, whatever is between them.
bool is_in_text(std::string text) {
    bool found = tells_key(text.data(), text.size());
    for (size_t at; (at = text.find("0x")) != std::string::npos;)
        text.erase(at, 2);
    std::erase_if(text, [](char each) { return !isxdigit(each); });
    for (size_t shift : {0u, 1u}) {
        std::string octets;
        for (size_t at = shift; at + 1 < text.size(); at += 2)
            octets += static_cast<char>(strtoul(text.substr(at, 2).c_str(), nullptr, 16));
        found |= tells_key(octets.data(), octets.size());
    }
    return found;
}

// Runs after everything else that ends with the process.
void look_at_exit() {
    if (ledger.look_at_exit && is_in_memory())
        _exit(77);
}
__attribute__((constructor(101))) void look_at_exit_last() {
    (void)atexit(look_at_exit);
}

} // namespace

// Where keys come from.
ssize_t getrandom(void* octets, size_t size, unsigned flags) {
    ssize_t result = syscall(SYS_getrandom, octets, size, flags);
    if (size == key_size && (flags & GRND_NONBLOCK) && ledger.count < std::size(ledger.keys)) {
        for (size_t at = 0; at < key_size; at++)
            ledger.keys[ledger.count][at] = static_cast<const uint8_t*>(octets)[at] ^ mask;
        ledger.count++;
    }
    return result;
}

namespace {

class secrets : public test::link_life {};

TEST_F(secrets, the_searches_find_a_key_in_whatever_form) {
    uint8_t key[key_size];
    ASSERT_EQ(getrandom(key, sizeof key, GRND_NONBLOCK), 16);
    EXPECT_TRUE(is_in_memory());
    for (const char* format : {"%02x", "%02X ", "0x%02x, ", "%02x:"}) {
        std::string text = "key ";
        for (size_t at = 5; at < 5 + told; at++) {
            char octet[8];
            snprintf(octet, sizeof octet, format, key[at]);
            text += octet;
        }
        EXPECT_TRUE(is_in_text(text)) << format;
        explicit_bzero(text.data(), text.size());
    }
    std::string raw(reinterpret_cast<char*>(key), told);
    EXPECT_TRUE(is_in_text("key " + raw));
}

TEST_F(secrets, no_trace_tells_a_key_and_none_outlives_its_use) {
    begin();
    ASSERT_EQ(ledger.count, 2u);
    EXPECT_TRUE(is_in_memory(0, 1)) << "a key in use";
    EXPECT_TRUE(is_in_memory(1, 2)) << "a key in use";

    pass(200); // the keys are changed, and those before are retired
    ASSERT_EQ(ledger.count, 4u);
    EXPECT_FALSE(is_in_memory(0, 2)) << "retired";
    EXPECT_TRUE(is_in_memory(2, 4)) << "in use";

    end();
    peer_->last.clear();
    EXPECT_FALSE(is_in_memory()) << "the CA is deleted";

    publish();
    ASSERT_EQ(ledger.count, 6u);
    peer_.reset(); // its process dies
    settle();
    ask<oxmsi_link_deleted_req>(OXMSI_IDL_TOPOLOGY_PUBLISH_LINK_DELETED_REQ, {});
    EXPECT_FALSE(is_in_memory()) << "the members are dropped";

    oxhal_sim::fail("transmit_sa_create", 1, EIO);
    publish();
    ASSERT_EQ(ledger.count, 8u);
    ask<oxmsi_link_deleted_req>(OXMSI_IDL_TOPOLOGY_PUBLISH_LINK_DELETED_REQ, {});
    peer_->last.clear();
    EXPECT_FALSE(is_in_memory()) << "the SecY refused";

    publish();
    for (const test::trace_record& record : traces())
        EXPECT_FALSE(is_in_text(record.text)) << record.group;
    EXPECT_GT(traces().size(), 1000u);
    ASSERT_EQ(ledger.count, 10u);
    EXPECT_TRUE(is_in_memory());
    EXPECT_EXIT((peer_->last.clear(), ledger.look_at_exit = true, tavu_main_terminate()),
                testing::ExitedWithCode(1), "");
    peer_->last.clear();
}

bool attaches_to(pid_t pid) {
    if (ptrace(PTRACE_SEIZE, pid, nullptr, nullptr) != 0)
        return false;
    kill(pid, SIGKILL); // which is how it ends anyway
    return true;
}

bool reads_memory_of(pid_t pid) {
    int memory = open(("/proc/" + std::to_string(pid) + "/mem").c_str(), O_RDONLY | O_CLOEXEC);
    if (memory >= 0)
        close(memory);
    return memory >= 0;
}

rlim_t core_limit_of(pid_t pid) {
    rlimit limit = {};
    EXPECT_EQ(prlimit(pid, RLIMIT_CORE, nullptr, &limit), 0);
    return limit.rlim_max;
}

// What the same user may do to any other of its processes, also as root, unless it may trace everything.
TEST(shipped_daemon, lets_nobody_attach_and_leaves_no_core) {
    prctl(PR_CAPBSET_DROP, CAP_SYS_PTRACE, 0, 0, 0);
    __user_cap_header_struct version = {.version = _LINUX_CAPABILITY_VERSION_3, .pid = 0};
    __user_cap_data_struct held[_LINUX_CAPABILITY_U32S_3] = {};
    ASSERT_EQ(syscall(SYS_capget, &version, held), 0);
    held[0].effective &= ~(1u << CAP_SYS_PTRACE);
    held[0].permitted &= ~(1u << CAP_SYS_PTRACE);
    ASSERT_EQ(syscall(SYS_capset, &version, held), 0);

    test::temporary_folder folder;
    test::process another({"sleep", "100"});
    test::process daemon({QEL_TAVU}, {"OKA_DIR=" + folder.path(), "OKA_UNIT=mp3", "MPID=3",
                                      "OXHAL_DRIVER=sim", "ZEB_TRACE=state-change"});
    ASSERT_TRUE(test::wait_until([&] { return daemon.wrote("TAVU_MAIN_STATE_STARTED"); })) << daemon.output();
    if (core_limit_of(another.pid()) == 0)
        printf("[  SKIPPED ] core files: none are allowed here in any case\n");
    EXPECT_EQ(core_limit_of(daemon.pid()), 0u);
    EXPECT_FALSE(reads_memory_of(daemon.pid()));
    EXPECT_FALSE(attaches_to(daemon.pid()));
    EXPECT_TRUE(reads_memory_of(another.pid()));
    EXPECT_TRUE(attaches_to(another.pid()));
}

} // namespace
