// The conductor: starts the programs of all units, owns their time and every delivery between them, and lets
// one of them run at a time, up to the point where it waits again. What happens next is drawn among all that
// is due; only what one mailbox sends to one process stays in order.
#pragma once

#include <algorithm>
#include <deque>
#include <map>
#include <memory>
#include <string>
#include <string_view>
#include <sys/types.h>
#include <vector>

#include "platform/oka/core/core.h"
#include "platform/oka/simulation/conductor_frames.h"
#include "platform/oxhal/sim_report.h"
#include "simulate/chance.h"

namespace simulate {

constexpr uint64_t ms = 1'000'000;
constexpr uint64_t second = 1'000 * ms;
constexpr uint32_t none = UINT32_MAX;

enum class role { DAEMON, TOPOLOGY_MANAGER, PORT_CONTROL };

using bytes = std::vector<unsigned char>;

// Process 0 is the conductor itself.
struct mailbox_ref {
    uint32_t process;
    uint32_t mailbox;
    auto operator<=>(const mailbox_ref&) const = default;
};

struct search {
    uint32_t locate;
    int unit; // -1: no such one
    std::string name;
};

struct delivery {
    oka::conduct what; // deliver, located or gone
    uint64_t ready_ns;
    uint32_t target; // mailbox or locate
    uint32_t alias;
    bytes message;
    search answered; // located
};

// One incarnation of a program.
struct process {
    uint32_t id;
    int unit;
    role what;
    std::string name;
    pid_t pid = -1;
    int socket = -1;
    int traces = -1;
    std::string unfinished_line{};
    uint64_t deadline_ns = oka::never_ns;
    uint64_t stalled_until_ns = 0;
    uint64_t slow_until_ns = 0, slowness_ns = 0; // the pause after each thing it does
    bool has_watches = false;
    bool look = false;
    uint32_t doomed_after = none; // so many more things it does, then it dies

    std::map<uint32_t, std::string> mailboxes{};
    std::map<uint32_t, mailbox_ref> aliases{}; // what it knows of others and may still send to
    std::map<mailbox_ref, uint32_t> alias_of{};
    uint32_t last_alias = 0;
    std::vector<search> searches{};
    std::map<mailbox_ref, std::deque<delivery>> inbox{};
};

struct program {
    std::vector<std::string> command;
    std::vector<std::string> environment;
};

// What the stage tells of what it sees.
class audience {
  public:
    virtual ~audience() = default;
    virtual oxhal_sim::report_answer secy_asks(process& by, const oxhal_sim::call_report& call) = 0;
    virtual void secy_called(process& by, const oxhal_sim::call_report& call) = 0;
    virtual void sent(mailbox_ref from, process& sender, mailbox_ref to, const bytes& message) = 0;
    virtual void mailbox_gone(mailbox_ref mailbox) = 0;
    virtual void traced(process& by, std::string_view line) = 0;
    // After killing too. `status` is that of waitpid.
    virtual void ended(process& which, bool killed, int status) = 0;
    virtual void stepped() = 0;
};

class stage {
  public:
    stage(uint64_t seed, uint64_t longest_latency_ns, audience& watched_by);
    ~stage();
    stage(const stage&) = delete;
    stage& operator=(const stage&) = delete;

    uint64_t now_ns() const { return now_ns_; }
    uint64_t events() const { return events_; }
    uint64_t digest() const { return digest_; }
    chance draw;

    process* start(int unit, role what, const program& started);
    process* find(int unit, role what);
    void kill(process& victim);
    // Between two units, both ways: what is under way is lost in part, and each end learns of it.
    void cut(int unit, int other);
    void mend(int unit, int other);
    void mend_all();
    bool is_cut(int unit, int other) const { return cuts_.count(std::minmax(unit, other)) > 0; }
    // A message from nowhere to a mailbox of the process.
    void post(process& receiver, const std::string& mailbox, bytes message);
    // A message from somebody who is of no unit of the node, to a mailbox of the process.
    void intrude(process& receiver, uint32_t mailbox, bytes message);
    // The mailboxes of that somebody are gone.
    void end_intrusion();
    // Clocks of that unit run faster by so many parts in a million.
    void set_drift(int unit, int ppm) { drift_ppm_[unit] = ppm; }
    oka::conduct_balance balance(process& of);
    // Messages may take this much longer, now and then.
    void set_lag(uint64_t longest_ns) { lag_ns_ = longest_ns; }

    // Runs until nothing is due before that time, which it is then, or until told to halt.
    void run_until(uint64_t time_ns);
    void halt() { halted_ = true; }

    void note(const std::string& text);
    // The last hundred events.
    std::string history() const;
    bool verbose = false;

  private:
    struct candidate {
        process* runs;
        std::deque<delivery>* from; // null: its timers, or a look
    };
    uint64_t local_time(int unit, uint64_t time_ns) const;
    uint64_t time_of_local(int unit, uint64_t local_ns) const;
    void collect(uint64_t& next_ns);
    void perform(candidate chosen);
    void grant(process& to, oka::conduct_record record, const void* payload = nullptr);
    void serve(process& running);
    bool take_packet(process& from, const unsigned char* packet, size_t size, bool& waits);
    void carry_out(process& by, const oka::conduct_record& record, const unsigned char* payload);
    void read_traces(process& of);
    void end(process& gone, bool killed);
    void deliver(process& to, mailbox_ref from, delivery what);
    void announce_gone(mailbox_ref gone, process& to, bool lose_some);
    void withdraw(process& from, uint32_t mailbox);
    void answer_searches();
    uint32_t alias(process& at, mailbox_ref of);
    process* by_id(uint32_t id);
    void hash(const void* data, size_t size);

    audience& audience_;
    uint64_t latency_ns_;
    uint64_t lag_ns_ = 0;
    uint64_t now_ns_ = second;
    uint64_t events_ = 0;
    uint64_t digest_ = 0xcbf29ce484222325u;
    bool halted_ = false;
    bool searching_ = false;
    uint32_t last_process_ = 0;
    std::map<uint32_t, std::unique_ptr<process>> processes_;
    std::map<std::pair<int, int>, bool> cuts_;
    std::map<int, int> drift_ppm_;
    std::vector<candidate> candidates_;
    std::deque<std::string> history_;
};

std::string unit_name(int unit);

} // namespace simulate
