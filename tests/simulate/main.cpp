// Simulates whole nodes of units that run the programs which ship, and tries to break their links.
#include <algorithm>
#include <csignal>
#include <cstdio>
#include <cstdlib>
#include <ctime>
#include <fcntl.h>
#include <poll.h>
#include <sched.h>
#include <string>
#include <sys/prctl.h>
#include <sys/wait.h>
#include <unistd.h>
#include <vector>

#include "services/common/options.h"
#include "simulate/run.h"

namespace {

using namespace simulate;

double now_s() {
    timespec now;
    clock_gettime(CLOCK_MONOTONIC, &now);
    return static_cast<double>(now.tv_sec) + static_cast<double>(now.tv_nsec) / 1e9;
}

double in_s(uint64_t ns) {
    return static_cast<double>(ns) / 1e9;
}

// Processes that hand over to each other run fastest on one processor.
void stay_on_processor(size_t which) {
    cpu_set_t here;
    if (sched_getaffinity(0, sizeof here, &here) != 0)
        return;
    size_t skip = which % static_cast<size_t>(CPU_COUNT(&here));
    for (int processor = 0; processor < CPU_SETSIZE; processor++) {
        if (CPU_ISSET(processor, &here) && skip-- != 0)
            CPU_CLR(processor, &here);
    }
    sched_setaffinity(0, sizeof here, &here);
}

// Runs seed after seed, every `jobs`th of them, and hands the outcomes over.
[[noreturn]] void work(settings wanted, size_t worker, size_t jobs, int to) {
    prctl(PR_SET_PDEATHSIG, SIGKILL);
    stay_on_processor(worker);
    for (wanted.seed += worker;; wanted.seed += jobs) {
        outcome result = run(wanted);
        fflush(stdout);
        if (write(to, &result, sizeof result) != sizeof result)
            _exit(0);
    }
}

struct totals {
    std::vector<outcome> outcomes;
    double virtual_s = 0;
    bool violated = false;
};

// Until enough time or enough seeds are simulated, or one was violated.
totals run_all(const settings& wanted, size_t jobs, double hours, size_t seeds) {
    totals all;
    int ends[2];
    if (pipe2(ends, O_CLOEXEC) != 0)
        return all;
    std::vector<pid_t> workers;
    for (size_t worker = 0; worker < jobs; worker++) {
        pid_t pid = fork();
        if (pid == 0)
            work(wanted, worker, jobs, ends[1]);
        workers.push_back(pid);
    }
    close(ends[1]);
    outcome one;
    while (!all.violated && (seeds ? all.outcomes.size() < seeds : all.virtual_s < hours * 3600) &&
           read(ends[0], &one, sizeof one) == sizeof one) {
        all.outcomes.push_back(one);
        all.virtual_s += in_s(one.virtual_ns);
        all.violated |= one.violated;
    }
    close(ends[0]);
    for (pid_t worker : workers) {
        if (waitpid(worker, nullptr, WNOHANG) != 0) {
            printf("The simulator itself ended in the middle of a run\n");
            all.violated = true;
            continue;
        }
        kill(worker, SIGKILL);
        waitpid(worker, nullptr, 0);
    }
    return all;
}

void print_summary(const totals& all, double took_s) {
    uint64_t events = 0;
    std::array<recoveries, FAULT_KINDS> kinds = {};
    for (const outcome& one : all.outcomes) {
        events += one.events;
        for (size_t kind = 0; kind < FAULT_KINDS; kind++) {
            kinds[kind].injected += one.by_kind[kind].injected;
            kinds[kind].recovered += one.by_kind[kind].recovered;
            kinds[kind].worst_ns = std::max(kinds[kind].worst_ns, one.by_kind[kind].worst_ns);
        }
    }
    printf("%zu seeds, %.2f virtual hours in %.1f s, %.0f times faster than real time; %llu events\n",
           all.outcomes.size(), all.virtual_s / 3600, took_s, all.virtual_s / took_s,
           static_cast<unsigned long long>(events));
    printf("%-26s %9s %18s %14s\n", "fault", "injected", "recovered alone", "worst, in s");
    for (size_t kind = 0; kind < FAULT_KINDS; kind++)
        printf("%-26s %9llu %18llu %14.3f\n", fault_names[kind],
               static_cast<unsigned long long>(kinds[kind].injected),
               static_cast<unsigned long long>(kinds[kind].recovered), in_s(kinds[kind].worst_ns));
}

} // namespace

int main(int argc, char** argv) {
    services::command command = {
        "simulate",
        "[OPTION]...",
        "Runs whole nodes on virtual time, with faults drawn from seeds.",
        "",
        {
            {"seed", "N", "the first seed; that of the day unless given. Alone: this one only"},
            {"seeds", "N", "how many seeds"},
            {"hours", "H", "virtual hours, instead of a number of seeds"},
            {"units", "K", "2 to 4 units in every run, instead of a number drawn"},
            {"links", "L", "1 to 4 links in every run"},
            {"rounds", "R", "rounds of disturbance and quiet in a run, 6 unless given; 0 disturbs nothing"},
            {"faults", "MASK", "a bit for each kind of fault that may be drawn, in the order of the summary"},
            {"jobs", "J", "runs at a time; one for each processor unless given"},
            {"verbose", nullptr, "every event on standard error"},
        }};
    if (auto answer = command.read(services::arguments_of(argc, argv)))
        return services::write_answer(*answer);
    auto number = [&command](const char* name, unsigned long long otherwise) {
        const services::option& option = command.get(name);
        return option.given() ? strtoull(option.values[0].c_str(), nullptr, 0) : otherwise;
    };
    const services::option& hours = command.get("hours");
    settings wanted = {.seed = number("seed", static_cast<unsigned long long>(time(nullptr) / 86400 * 10000)),
                       .units = static_cast<int>(number("units", 0)),
                       .links = static_cast<int>(number("links", 0)),
                       .faults = static_cast<unsigned>(number("faults", ~0u)),
                       .rounds = static_cast<unsigned>(number("rounds", 6)),
                       .verbose = command.get("verbose").given()};
    if (wanted.units < 0 || wanted.units > 4 || wanted.units == 1 || wanted.links < 0 || wanted.links > 4) {
        fprintf(stderr, "simulate: 2 to 4 units and 1 to 4 links are possible\n");
        return 2;
    }
    double virtual_hours = hours.given() ? strtod(hours.values[0].c_str(), nullptr) : 0;
    size_t count = number("seeds", hours.given() ? 0 : 1);
    size_t processors = static_cast<size_t>(std::max(1l, sysconf(_SC_NPROCESSORS_ONLN)));
    size_t at_once = number("jobs", count == 1 ? 1 : processors);
    double began_s = now_s();
    totals all = run_all(wanted, std::max<size_t>(at_once, 1), virtual_hours, count);
    print_summary(all, now_s() - began_s);
    printf("from seed %llu, %s; digest of the first %016llx\n", static_cast<unsigned long long>(wanted.seed),
           all.violated ? "VIOLATED" : "nothing violated",
           all.outcomes.empty() ? 0ull : static_cast<unsigned long long>(all.outcomes[0].digest));
    return all.violated || all.outcomes.empty();
}
