#include "platform/oxhal/sim_report.h"

#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <sys/socket.h>
#include <unistd.h>

namespace oxhal_sim {

namespace {

int watcher() {
    static const int socket = [] {
        const char* number = getenv("OXHAL_SIM_REPORT");
        return number && *number ? atoi(number) : -1;
    }();
    return socket;
}

[[noreturn]] void exit_without_watcher() {
    OXHAL_ERROR(
        "OXHAL_SIM_REPORT names no open socket: the process that watches the simulated SecY has ended");
    _exit(1);
}

call_report report_of(report_kind kind, const oxhal::call& what) {
    call_report report = {};
    report.kind = kind;
    report.an = what.an;
    report.number = what.number;
    snprintf(report.operation, sizeof report.operation, "%s", what.operation);
    snprintf(report.port, sizeof report.port, "%s", what.port_name ? what.port_name : "");
    snprintf(report.word, sizeof report.word, "%s", what.word ? what.word : "");
    if (what.sci)
        report.sci = *what.sci;
    return report;
}

void send_report(const call_report& report) {
    if (send(watcher(), &report, sizeof report, MSG_NOSIGNAL) != sizeof report)
        exit_without_watcher();
}

} // namespace

bool reports() {
    return watcher() >= 0;
}

report_answer ask(const oxhal::call& what) {
    send_report(report_of(report_kind::asks, what));
    report_answer answer;
    if (recv(watcher(), &answer, sizeof answer, 0) != sizeof answer)
        exit_without_watcher();
    return answer;
}

void report_end(const oxhal::call& what, int result, const uint8_t (&key)[OXHAL_KEY_SIZE_MAX]) {
    call_report report = report_of(report_kind::ended, what);
    report.result = result;
    memcpy(report.key, key, sizeof report.key);
    send_report(report);
    explicit_bzero(&report, sizeof report);
}

} // namespace oxhal_sim
