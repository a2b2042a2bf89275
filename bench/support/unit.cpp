#include "support/unit.h"

#include <chrono>
#include <csignal>
#include <cstdio>
#include <cstdlib>
#include <sys/prctl.h>
#include <sys/socket.h>
#include <sys/wait.h>
#include <unistd.h>

#include "platform/oka_timer.h"
#include "support/measure.h"

namespace bench {

namespace {

using clock = std::chrono::steady_clock;

constexpr int patience_ms = 20'000;

enum : char { CONNECT = 'c', PUBLISH_FIRST = 'f', PUBLISH_SECOND = 's', AWAIT = 'a' };

struct order_message {
    char what;
    unsigned count;
    uint32_t remote_mpid;
};
struct report_message {
    double took_us;
    unsigned encrypted;
    unsigned rejected;
};

// --- The process of the services

std::string unit_name(uint32_t mpid) {
    return "mp" + std::to_string(mpid);
}

template<class Condition>
void serve_until(unit_services& services, Condition condition) {
    while (!condition()) {
        oka_message* message = oka_receive(nullptr, patience_ms, OKA_ANY_SENDER);
        if (!message) {
            fprintf(stderr, "the daemon does not answer\n");
            _exit(2);
        }
        services.handle(message);
        oka_free(&message);
    }
}

// The daemon works through what it sends to itself while it answers requests. This many leave it with nothing
// but waiting for others.
void let_daemon_settle(unit_services& services) {
    constexpr int more_than_it_takes = 30;
    for (int count = 0; count < more_than_it_takes; count++) {
        unsigned before = services.unanswered();
        services.ask_capabilities();
        serve_until(services, [&] { return services.unanswered() <= before; });
    }
}

void carry_out(const order_message& order, unit_services& services) {
    auto answered = [&] { return services.unanswered() == 0; };
    switch (order.what) {
    case CONNECT:
        serve_until(services, [&] { return services.is_connected(); });
        break;
    case PUBLISH_FIRST:
        services.add_links(order.count, order.remote_mpid, unit_name(order.remote_mpid).c_str());
        let_daemon_settle(services);
        break;
    case PUBLISH_SECOND:
        services.add_links(order.count, order.remote_mpid, unit_name(order.remote_mpid).c_str());
        serve_until(services, answered);
        break;
    case AWAIT:
        serve_until(services, answered);
        break;
    }
}

[[noreturn]] void run_services(uint32_t mpid, int orders) {
    prctl(PR_SET_PDEATHSIG, SIGKILL);
    if (!oka_timer_service_init() || oka_init(37, 0, 0, 0, 0) != 0)
        _exit(2);
    oka_mailbox port_control = oka_create_mailbox("oxpcsi-server", 0);
    unit_services services(mpid, max_ports);
    services.start(port_control, oka_clone_mailbox(port_control, "bench-topology"));
    order_message order;
    while (recv(orders, &order, sizeof order, 0) == sizeof order) {
        clock::time_point start = clock::now();
        carry_out(order, services);
        std::chrono::duration<double, std::micro> took = clock::now() - start;
        report_message report = {took.count(), services.encrypted(), services.rejected()};
        if (send(orders, &report, sizeof report, MSG_NOSIGNAL) != sizeof report)
            break;
    }
    _exit(0);
}

} // namespace

unit::unit(uint32_t mpid, const std::string& daemon_program, const std::string& messaging_directory,
           const std::string& trace_groups) {
    setenv("OKA_DIR", messaging_directory.c_str(), 1);
    setenv("OKA_UNIT", unit_name(mpid).c_str(), 1);
    int ends[2];
    if (socketpair(AF_UNIX, SOCK_SEQPACKET | SOCK_CLOEXEC, 0, ends) < 0)
        fail("socketpair");
    orders_ = ends[0];
    services_ = fork();
    if (services_ < 0)
        fail("fork");
    if (services_ == 0)
        run_services(mpid, ends[1]);
    close(ends[1]);
    daemon_ = std::make_unique<test::process>(
        std::vector<std::string>{daemon_program},
        std::vector<std::string>{"MPID=" + std::to_string(mpid), "OXHAL_DRIVER=sim",
                                 "ZEB_TRACE=" + trace_groups, "ZEB_STAMP=yes"});
    (void)order(CONNECT, 0);
}

unit::~unit() {
    daemon_.reset();
    kill(services_, SIGKILL);
    waitpid(services_, nullptr, 0);
    close(orders_);
}

double unit::order(char what, unsigned count, uint32_t remote_mpid) {
    order_message order = {what, count, remote_mpid};
    report_message report;
    if (send(orders_, &order, sizeof order, MSG_NOSIGNAL) != sizeof order ||
        recv(orders_, &report, sizeof report, 0) != sizeof report) {
        fprintf(stderr, "the services of a unit are gone\n");
        exit(2);
    }
    bool complete = what == PUBLISH_SECOND || what == AWAIT;
    if (report.rejected != 0 || (complete && report.encrypted != count)) {
        fprintf(stderr, "%u of %u links are encrypted, %u requests were rejected\n", report.encrypted, count,
                report.rejected);
        exit(2);
    }
    return report.took_us;
}

void unit::publish_first(unsigned count, uint32_t remote_mpid) {
    (void)order(PUBLISH_FIRST, count, remote_mpid);
}
double unit::publish_second(unsigned count, uint32_t remote_mpid) {
    return order(PUBLISH_SECOND, count, remote_mpid);
}
void unit::await_confirmations(unsigned count) {
    (void)order(AWAIT, count);
}

unsigned unit::private_memory_kib() const {
    std::string path = "/proc/" + std::to_string(daemon_->pid()) + "/smaps_rollup";
    FILE* file = fopen(path.c_str(), "re");
    if (!file)
        fail(path.c_str());
    unsigned total = 0;
    unsigned lines = 0;
    char line[128];
    while (fgets(line, sizeof line, file)) {
        unsigned kib;
        if (sscanf(line, "Private_Clean: %u", &kib) == 1 || sscanf(line, "Private_Dirty: %u", &kib) == 1) {
            total += kib;
            lines++;
        }
    }
    fclose(file);
    if (lines != 2) {
        fprintf(stderr, "%s does not tell the private memory\n", path.c_str());
        exit(2);
    }
    return total;
}

} // namespace bench
