#include "support/measure.h"

#include <algorithm>
#include <chrono>
#include <csignal>
#include <cstdlib>
#include <sched.h>
#include <sys/prctl.h>
#include <sys/socket.h>
#include <sys/wait.h>
#include <unistd.h>

namespace bench {

namespace {

[[noreturn]] void echo(int socket) {
    prctl(PR_SET_PDEATHSIG, SIGKILL);
    char buffer[bare_socket_pair::message_size];
    while (recv(socket, buffer, sizeof buffer, 0) == sizeof buffer) {
        if (send(socket, buffer, sizeof buffer, MSG_NOSIGNAL) != sizeof buffer)
            break;
    }
    _exit(0);
}

} // namespace

void fail(const char* what) {
    perror(what);
    exit(2);
}

double median(std::vector<double> values) {
    auto middle = values.begin() + static_cast<std::ptrdiff_t>(values.size() / 2);
    std::nth_element(values.begin(), middle, values.end());
    return *middle;
}

void pin_to_one_core() {
    cpu_set_t allowed;
    if (sched_getaffinity(0, sizeof allowed, &allowed) < 0)
        fail("sched_getaffinity");
    size_t core = 0;
    while (core + 1 < CPU_SETSIZE && !CPU_ISSET(core, &allowed))
        core++;
    cpu_set_t one;
    CPU_ZERO(&one);
    CPU_SET(core, &one);
    if (sched_setaffinity(0, sizeof one, &one) < 0)
        fail("sched_setaffinity");
}

bare_socket_pair::bare_socket_pair() {
    int ends[2];
    if (socketpair(AF_UNIX, SOCK_SEQPACKET | SOCK_CLOEXEC, 0, ends) < 0)
        fail("socketpair");
    socket_ = ends[0];
    echo_ = fork();
    if (echo_ < 0)
        fail("fork");
    if (echo_ == 0)
        echo(ends[1]);
    close(ends[1]);
}

bare_socket_pair::~bare_socket_pair() {
    kill(echo_, SIGKILL);
    waitpid(echo_, nullptr, 0);
    close(socket_);
}

double bare_socket_pair::one_way_us(int round_trips) const {
    char buffer[message_size] = {};
    auto start = std::chrono::steady_clock::now();
    for (int count = 0; count < round_trips; count++) {
        if (send(socket_, buffer, sizeof buffer, 0) != sizeof buffer ||
            recv(socket_, buffer, sizeof buffer, 0) != sizeof buffer)
            fail("socket pair");
    }
    std::chrono::duration<double, std::micro> took = std::chrono::steady_clock::now() - start;
    return took.count() / (2.0 * round_trips);
}

} // namespace bench
