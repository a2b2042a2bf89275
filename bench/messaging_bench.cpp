// What a message costs between two processes: the one-way time of 168 bytes through the messaging service,
// beside that through a bare socket pair, both ends on one core. The two take turns, so that whatever else
// the machine does meets both. Prints JSON.
#include <chrono>
#include <csignal>
#include <cstdio>
#include <cstdlib>
#include <sys/prctl.h>
#include <sys/wait.h>
#include <unistd.h>
#include <vector>

#include "platform/oka.h"
#include "platform/oka_timer.h"
#include "support/measure.h"
#include "support/process.h"

namespace {

using namespace bench;

constexpr size_t message_size = bare_socket_pair::message_size;
constexpr int round_trips = 20'000;
constexpr int turns = 15;
constexpr uint32_t ping = 0x100;

oka_mailbox start_messaging(const char* name) {
    if (!oka_timer_service_init() || oka_init(37, 0, 0, 0, 0) != 0)
        exit(2);
    return oka_create_mailbox(name, 0);
}

[[noreturn]] void echo_messages() {
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

double message_one_way_us(oka_mailbox own, oka_mailbox echo) {
    auto start = std::chrono::steady_clock::now();
    for (int count = 0; count < round_trips; count++)
        message_round_trip(own, echo);
    std::chrono::duration<double, std::micro> took = std::chrono::steady_clock::now() - start;
    return took.count() / (2.0 * round_trips);
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

} // namespace

int main() {
    test::temporary_folder folder(messaging_folders);
    setenv("OKA_DIR", folder.path().c_str(), 1);
    setenv("OKA_UNIT", "bench", 1);
    pin_to_one_core();

    bare_socket_pair pair;
    pid_t echo_process = fork();
    if (echo_process < 0)
        fail("fork");
    if (echo_process == 0)
        echo_messages();
    oka_mailbox own = start_messaging("bench");
    oka_mailbox echo = find_echo(own);

    std::vector<double> bare, messaging, ratio;
    for (int turn = 0; turn < turns; turn++) {
        bare.push_back(pair.one_way_us(round_trips));
        messaging.push_back(message_one_way_us(own, echo));
        ratio.push_back(messaging.back() / bare.back());
    }
    printf("{\"bare_one_way_us\": %.3f, \"message_one_way_us\": %.3f, \"ratio\": %.3f, \"turns\": %d}\n",
           median(bare), median(messaging), median(ratio), turns);

    oka_timer_service_stop();
    oka_exit();
    kill(echo_process, SIGKILL);
    waitpid(echo_process, nullptr, 0);
    return 0;
}
