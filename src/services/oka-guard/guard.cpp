#include "services/oka-guard/guard.h"

#include <algorithm>
#include <cerrno>
#include <chrono>
#include <csignal>
#include <cstddef>
#include <cstring>
#include <poll.h>
#include <sys/socket.h>
#include <sys/un.h>
#include <unistd.h>

namespace guard {

namespace {

struct trial {
    int fd;
    pid_t process; // that listens
    std::string path;
};

// A descriptor that waits for its end to be seen, or -1: nobody listens there.
int connect_and_end(const std::string& path) {
    sockaddr_un address = {.sun_family = AF_UNIX, .sun_path = {}};
    if (path.size() >= sizeof address.sun_path)
        return -1;
    memcpy(address.sun_path, path.c_str(), path.size() + 1);
    int fd = socket(AF_UNIX, SOCK_SEQPACKET | SOCK_NONBLOCK | SOCK_CLOEXEC, 0);
    if (fd >= 0 && connect(fd, reinterpret_cast<const sockaddr*>(&address), sizeof address) == 0 &&
        shutdown(fd, SHUT_WR) == 0)
        return fd;
    if (fd >= 0)
        close(fd);
    return -1;
}

std::vector<trial> begin_trials(const std::vector<std::string>& sockets) {
    std::vector<trial> trials;
    for (const std::string& path : sockets) {
        int fd = connect_and_end(path);
        if (fd < 0)
            continue;
        ucred peer = {};
        socklen_t size = sizeof peer;
        (void)getsockopt(fd, SOL_SOCKET, SO_PEERCRED, &peer, &size);
        trials.push_back({fd, peer.pid, path});
    }
    return trials;
}

void drop_those_that_answer(std::vector<trial>& trials, int patience_ms) {
    std::vector<pollfd> waited;
    waited.reserve(trials.size());
    for (const trial& each : trials)
        waited.push_back({.fd = each.fd, .events = POLLIN, .revents = 0});
    (void)poll(waited.data(), waited.size(), patience_ms);
    for (size_t index = trials.size(); index-- > 0;) {
        if (waited[index].revents) {
            close(trials[index].fd);
            trials.erase(trials.begin() + static_cast<std::ptrdiff_t>(index));
        }
    }
}

// However long this process itself stands still meanwhile, it is one second.
void wait_a_second(std::vector<trial>& trials) {
    using namespace std::chrono;
    const auto end = steady_clock::now() + seconds(1);
    while (!trials.empty() && steady_clock::now() < end) {
        const auto left = ceil<milliseconds>(end - steady_clock::now());
        drop_those_that_answer(trials, static_cast<int>(std::max<int64_t>(left.count(), 0)));
    }
}

std::string kill_process(const trial& of, unsigned patience_s) {
    std::string text = "process " + std::to_string(of.process) + " at " + of.path + " stood still for " +
                       std::to_string(patience_s) + " s";
    if (of.process <= 0 || kill(of.process, SIGKILL) < 0)
        return text + " and cannot be killed: " + strerror(of.process <= 0 ? ESRCH : errno);
    return text + " and was killed";
}

} // namespace

std::vector<std::string> look(const std::vector<std::string>& sockets, unsigned patience_s) {
    std::vector<trial> trials = begin_trials(sockets);
    for (unsigned second = 0; second < patience_s && !trials.empty(); second++)
        wait_a_second(trials);
    std::vector<std::string> done;
    for (const trial& each : trials) {
        done.push_back(kill_process(each, patience_s));
        close(each.fd);
    }
    return done;
}

} // namespace guard
