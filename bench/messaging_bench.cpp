// What a message costs between two processes: the one-way time of 168 bytes through the messaging service,
// beside that through a bare socket pair, both ends on one core. The two take turns, so that whatever else
// the machine does meets both.
//
//   messaging_bench [--json FILE]
#include <algorithm>
#include <array>
#include <chrono>
#include <csignal>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <sched.h>
#include <string>
#include <sys/prctl.h>
#include <sys/socket.h>
#include <sys/wait.h>
#include <unistd.h>

#include "platform/oka.h"
#include "platform/oka_timer.h"

namespace {

constexpr size_t message_size = 168;
constexpr int round_trips = 20'000;
constexpr size_t turns = 15;
constexpr uint32_t ping = 0x100;
constexpr double allowed_ratio = 2.0;

[[noreturn]] void fail(const char* what) {
    perror(what);
    exit(2);
}

// Microseconds one way.
template<class RoundTrip>
double measure(RoundTrip round_trip) {
    auto start = std::chrono::steady_clock::now();
    for (int count = 0; count < round_trips; ++count)
        round_trip();
    std::chrono::duration<double, std::micro> took = std::chrono::steady_clock::now() - start;
    return took.count() / (2.0 * round_trips);
}

void echo_bare(int socket) {
    prctl(PR_SET_PDEATHSIG, SIGKILL);
    char buffer[message_size];
    while (recv(socket, buffer, sizeof buffer, 0) == sizeof buffer) {
        if (send(socket, buffer, sizeof buffer, MSG_NOSIGNAL) != sizeof buffer)
            break;
    }
    _exit(0);
}

oka_mailbox start_messaging(const char* name) {
    if (!oka_timer_service_init() || oka_init(37, 0, 0, 0, 0) != 0)
        exit(2);
    return oka_create_mailbox(name, 0);
}

void echo_messages() {
    prctl(PR_SET_PDEATHSIG, SIGKILL);
    oka_mailbox own = start_messaging("echo");
    while (oka_message* message = oka_receive(nullptr, OKA_WAIT_FOREVER, OKA_ANY_SENDER)) {
        oka_mailbox sender = oka_sender(message);
        oka_free(&message);
        oka_message* answer = oka_alloc(message_size, ping);
        oka_send(&answer, sender, own);
    }
    _exit(1);
}

// As the daemon sends and receives: a buffer allocated for each message and freed by its receiver.
void message_round_trip(oka_mailbox own, oka_mailbox echo) {
    oka_message* message = oka_alloc(message_size, ping);
    oka_send(&message, echo, own);
    message = oka_receive(nullptr, OKA_WAIT_FOREVER, OKA_ANY_SENDER);
    if (!message || oka_size(message) != message_size) {
        fprintf(stderr, "the message did not come back\n");
        exit(2);
    }
    oka_free(&message);
}

oka_mailbox find_echo(oka_mailbox own) {
    oka_message* prepared = oka_alloc(sizeof(oka_message), 1);
    oka_locate_async("echo", &prepared, own);
    oka_message* found = oka_receive(nullptr, 10'000, OKA_ANY_SENDER);
    if (!found) {
        fprintf(stderr, "the other process does not come up\n");
        exit(2);
    }
    oka_mailbox echo = oka_sender(found);
    oka_free(&found);
    return echo;
}

void pin_to_one_core() {
    cpu_set_t allowed;
    if (sched_getaffinity(0, sizeof allowed, &allowed) < 0)
        fail("sched_getaffinity");
    for (size_t core = 0; core < CPU_SETSIZE; ++core) {
        if (!CPU_ISSET(core, &allowed))
            continue;
        cpu_set_t one;
        CPU_ZERO(&one);
        CPU_SET(core, &one);
        if (sched_setaffinity(0, sizeof one, &one) < 0)
            fail("sched_setaffinity");
        return;
    }
}

double median(std::array<double, turns> values) {
    std::nth_element(values.begin(), values.begin() + turns / 2, values.end());
    return values[turns / 2];
}

void write_json(const char* path, double messaging, double bare, double ratio) {
    FILE* file = fopen(path, "we");
    if (!file)
        fail(path);
    fprintf(file,
            "{\"messaging_one_way_us\": %.3f, \"socket_pair_one_way_us\": %.3f, \"ratio\": %.3f, "
            "\"allowed_ratio\": %.1f}\n",
            messaging, bare, ratio, allowed_ratio);
    fclose(file);
}

} // namespace

int main(int argc, char** argv) {
    const char* json = argc == 3 && !strcmp(argv[1], "--json") ? argv[2] : nullptr;
    if (argc != 1 && !json) {
        fprintf(stderr, "usage: %s [--json FILE]\n", argv[0]);
        return 2;
    }
    char directory[] = "/tmp/messaging-bench-XXXXXX";
    if (!mkdtemp(directory))
        fail("mkdtemp");
    setenv("OKA_DIR", directory, 1);
    setenv("OKA_UNIT", "bench", 1);
    pin_to_one_core();

    int ends[2];
    if (socketpair(AF_UNIX, SOCK_SEQPACKET | SOCK_CLOEXEC, 0, ends) < 0)
        fail("socketpair");
    pid_t bare_process = fork();
    if (bare_process == 0)
        echo_bare(ends[1]);
    pid_t echo_process = fork();
    if (echo_process == 0)
        echo_messages();
    if (bare_process < 0 || echo_process < 0)
        fail("fork");
    oka_mailbox own = start_messaging("bench");
    oka_mailbox echo = find_echo(own);

    char buffer[message_size] = {};
    auto bare_round_trip = [&] {
        if (send(ends[0], buffer, sizeof buffer, 0) != sizeof buffer ||
            recv(ends[0], buffer, sizeof buffer, 0) != sizeof buffer)
            fail("socket pair");
    };
    std::array<double, turns> bare;
    std::array<double, turns> messaging;
    std::array<double, turns> ratio;
    for (size_t turn = 0; turn < turns; ++turn) {
        bare[turn] = measure(bare_round_trip);
        messaging[turn] = measure([&] { message_round_trip(own, echo); });
        ratio[turn] = messaging[turn] / bare[turn];
    }
    printf("one-way time of a message of %zu bytes between two processes on one core (median of %zu turns)\n",
           message_size, turns);
    printf("  %-20s %8.3f us\n", "messaging service", median(messaging));
    printf("  %-20s %8.3f us\n", "bare socket pair", median(bare));
    printf("  %-20s %8.3f    (at most %.1f)\n", "ratio", median(ratio), allowed_ratio);
    if (json)
        write_json(json, median(messaging), median(bare), median(ratio));

    oka_timer_service_stop();
    oka_exit();
    kill(echo_process, SIGKILL);
    kill(bare_process, SIGKILL);
    while (wait(nullptr) > 0) {
    }
    for (const char* left : {"/bench/echo", "/bench", ""})
        (void)remove((std::string(directory) + left).c_str());
    return median(ratio) <= allowed_ratio ? 0 : 1;
}
