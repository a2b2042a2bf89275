#include "simulate/run.h"

#include <algorithm>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <deque>
#include <filesystem>
#include <functional>
#include <sys/wait.h>
#include <utility>

#include "protocols/message_numbers.h"
#include "protocols/oxmsi_messages.h"
#include "protocols/topology_messages.h"
#include "simulate/checks.h"
#include "simulate/ports.h"
#include "simulate/stage.h"
#include "support/process.h"

namespace simulate {

namespace {

constexpr uint64_t settling_ns = 8 * second;
constexpr uint64_t quiet_ns = 60 * second;
constexpr uint64_t recovery_ns = 2 * second;
// No message reports that a refresh failed after 180 s. The topology managers notice it when keys are older
// than 200 s at two looks, which are 5 s apart.
constexpr uint64_t failed_refresh_ns = 36 * second;
constexpr uint64_t stall_recovery_ns = 10 * second;
constexpr size_t overheard_max = 256;
constexpr int most_drift_ppm = 10'000;
constexpr uint64_t heap_slack = 64 * 1024; // names of mailboxes that are gone, room for timers
constexpr role roles[] = {role::DAEMON, role::TOPOLOGY_MANAGER, role::PORT_CONTROL};

enum class edit { NONE, ABSENT, DOWN, OTHER_ID };

struct port_state {
    bool is_up = true;
    edit edited = edit::NONE;
};

class node : audience {
  public:
    explicit node(const settings& wanted);
    outcome play();

  private:
    // audience
    oxhal_sim::report_answer secy_asks(process& by, const oxhal_sim::call_report& call) override;
    void secy_called(process& by, const oxhal_sim::call_report& call) override;
    void sent(mailbox_ref from, process& sender, mailbox_ref to, const bytes& message) override;
    void mailbox_gone(mailbox_ref mailbox) override { checks_.mailbox_gone(mailbox); }
    void traced(process& by, std::string_view line) override;
    void ended(process& which, bool killed, int status) override;
    void stepped() override;

    void fail(const std::string& what);
    void at(uint64_t delay_ns, std::function<void()> act);
    void pass(uint64_t duration_ns);

    void start(int unit, role what);
    void write_links(int unit);
    void tell_port(process& ports, int unit, int port);
    void set_port(const link_end& end, bool is_up);
    void set_edit(const link_end& end, edit edited);
    void set_all_edits(edit edited);

    void inject();
    void inject(fault kind);
    void crash(int unit, role what, uint64_t down_ns);
    void note_fault(fault kind, uint64_t lasts_ns);
    void disturbed_until(uint64_t time_ns) { cause_gone_ns_ = std::max(cause_gone_ns_, time_ns); }
    void overhear(uint32_t number, const bytes& message);
    void intrude();
    void stall(process* stalled, uint64_t lasts_ns);
    uint64_t longest_recovery_ns() const;
    fault draw_fault();
    void single_fault();
    void expect_nothing_open();
    void withdraw_pending_faults();
    void calm();
    void be_quiet();
    void round();
    std::map<std::pair<int, role>, oka::conduct_balance> balances();
    void show_links();
    void expect_balance();

    int any_unit() { return units_[stage_.draw.below(units_.size())]; }
    link_end any_end() { return links_[stage_.draw.below(links_.size())].ends[stage_.draw.below(2)]; }

    settings wanted_;
    chance plan_;
    test::temporary_folder folder_{"/dev/shm"};
    std::vector<int> units_;
    std::vector<link> links_;
    checks checks_;
    stage stage_;
    std::multimap<uint64_t, std::function<void()>> script_;
    std::map<link_end, port_state> ports_;
    std::map<std::pair<int, role>, oka::conduct_balance> baseline_;
    std::map<int, unsigned> failing_call_; // of the unit's SecY, counted from now; 0 for none
    std::map<std::pair<int, role>, uint64_t> down_ns_;
    std::map<int, std::map<std::string, uint64_t>> stuck_;
    std::deque<bytes> overheard_; // messages between units, which an intruder says again
    unsigned enabled_ = 0;        // faults of this run
    unsigned occurred_ = 0;
    uint64_t longest_pause_ns_ = 0;
    bool calm_ = true;
    bool is_settled_ = false;
    bool was_good_ = false;
    bool keeps_association_ = false;
    uint64_t good_since_ns_ = 0;
    fault last_fault_ = FAULT_KINDS;
    uint64_t cause_gone_ns_ = 0;
    std::string violation_;
    outcome outcome_ = {};
};

// --- The node

std::vector<int> draw_units(chance& plan, int count) {
    static constexpr int mpids[] = {3, 7, 11, 12};
    std::vector<int> units(mpids, mpids + (count ? count : 2 + static_cast<int>(plan.below(3))));
    return units;
}

std::vector<link> draw_links(chance& plan, const std::vector<int>& units, int count) {
    std::map<int, int> used; // ports of a unit
    std::vector<link> links;
    size_t wanted = count ? static_cast<size_t>(count) : 1 + plan.below(2 * units.size());
    for (int attempts = 0; links.size() < wanted && attempts < 100; attempts++) {
        int one = units[plan.below(units.size())], other = units[plan.below(units.size())];
        if (one == other || used[one] == ports_per_unit || used[other] == ports_per_unit)
            continue;
        links.push_back({{{one, used[one]}, {other, used[other]}}});
        used[one]++;
        used[other]++;
    }
    return links;
}

node::node(const settings& wanted)
    : wanted_(wanted), plan_(wanted.seed * 2 + 1), units_(draw_units(plan_, wanted.units)),
      links_(draw_links(plan_, units_, wanted.links)), checks_(links_),
      stage_(wanted.seed, plan_.spread(1'000, 20 * ms), *this) {
    stage_.verbose = wanted.verbose;
    if (plan_.one_in(2)) {
        for (int unit : units_)
            stage_.set_drift(unit, static_cast<int>(plan_.below(2 * most_drift_ppm + 1)) - most_drift_ppm);
    }
    while (enabled_ == 0 && wanted.faults != 0)
        enabled_ = static_cast<unsigned>(plan_.next()) & wanted.faults & ((1u << FAULT_KINDS) - 1);
    longest_pause_ns_ = plan_.spread(second, 100 * second);
}

void node::start(int unit, role what) {
    std::string number = std::to_string(unit);
    program started = {{},
                       {"OKA_UNIT=" + unit_name(unit), "MPID=" + number, "OXHAL_DRIVER=sim",
                        "OXHAL_SIM_VIEW=" + folder_.path() + "/" + number + ".secys", "ZEB_TRACE=error"}};
    switch (what) {
    case role::DAEMON:
        started.command = {QEL_TAVU};
        break;
    case role::TOPOLOGY_MANAGER:
        started.command = {IDL_TOPOLOGYD, "--links", folder_.path() + "/" + number + ".toml"};
        break;
    case role::PORT_CONTROL:
        started.command = {PORTS};
        break;
    }
    process* running = stage_.start(unit, what, started);
    if (!running || what != role::PORT_CONTROL)
        return;
    for (int port = 0; port < ports_per_unit; port++)
        tell_port(*running, unit, port);
    port_is serve = {SERVE, 0, 0};
    stage_.post(
        *running, ports_mailbox_name,
        bytes(reinterpret_cast<unsigned char*>(&serve), reinterpret_cast<unsigned char*>(&serve) + 4));
}

void node::tell_port(process& ports, int unit, int port) {
    port_is told = {PORT_IS, static_cast<uint32_t>(port), ports_[{unit, port}].is_up};
    auto* octets = reinterpret_cast<unsigned char*>(&told);
    stage_.post(ports, ports_mailbox_name, bytes(octets, octets + sizeof told));
}

void node::set_port(const link_end& end, bool is_up) {
    if (ports_[end].is_up == is_up)
        return;
    ports_[end].is_up = is_up;
    stage_.note("port " + to_text(end) + (is_up ? " is up" : " is down"));
    if (process* ports = stage_.find(end.unit, role::PORT_CONTROL))
        tell_port(*ports, end.unit, end.port);
}

// In one move, as an editor does.
void node::write_links(int unit) {
    std::string text;
    int id = 0;
    for (const link& each : links_) {
        id++;
        for (int end : {0, 1}) {
            const link_end &own = each.ends[end], &other = each.ends[1 - end];
            edit edited = ports_[own].edited;
            if (own.unit != unit || edited == edit::ABSENT)
                continue;
            text += "[[link]]\nport = \"" + std::string(port_names[static_cast<size_t>(own.port)]) +
                    "\"\nid = " + std::to_string(edited == edit::OTHER_ID ? id + 100 : id) +
                    "\nremote-port = \"" + port_names[static_cast<size_t>(other.port)] +
                    "\"\nremote-mpid = " + std::to_string(other.unit) + "\nhunt-path = \"" +
                    unit_name(other.unit) + "\"\n" + (edited == edit::DOWN ? "status = \"down\"\n" : "");
        }
    }
    std::string path = folder_.path() + "/" + std::to_string(unit) + ".toml", fresh = path + ".new";
    FILE* file = fopen(fresh.c_str(), "we");
    if (!file || fputs(text.empty() ? "link = []\n" : text.c_str(), file) < 0 || fclose(file) != 0 ||
        rename(fresh.c_str(), path.c_str()) != 0) {
        perror(path.c_str());
        exit(2);
    }
    if (process* manager = stage_.find(unit, role::TOPOLOGY_MANAGER))
        manager->look = manager->has_watches;
}

void node::set_edit(const link_end& end, edit edited) {
    if (ports_[end].edited == edited)
        return;
    static constexpr const char* words[] = {" as it should be", " absent", " down", " with another id"};
    stage_.note("links file: " + to_text(end) + words[static_cast<int>(edited)]);
    ports_[end].edited = edited;
    write_links(end.unit);
}

void node::set_all_edits(edit edited) {
    for (const link& each : links_) {
        for (const link_end& end : each.ends)
            set_edit(end, edited);
    }
}

// --- What is seen

oxhal_sim::report_answer node::secy_asks(process& by, const oxhal_sim::call_report& call) {
    oxhal_sim::report_answer answer = {};
    unsigned& left = failing_call_[by.unit];
    if (left > 0 && --left == 0) {
        answer.error = 5;
        stage_.note(by.name + ": the SecY refuses " + call.operation + " " + call.port);
        disturbed_until(stage_.now_ns());
        keeps_association_ |= !strcmp(call.operation, "receive_sa_delete");
    }
    if (!strcmp(call.operation, "generate_key")) {
        for (uint8_t& octet : answer.key)
            octet = static_cast<uint8_t>(stage_.draw.next());
        key made = {};
        memcpy(made.data(), answer.key, std::min<size_t>(made.size(), call.number));
        checks_.key_made(by.unit, made);
    }
    return answer;
}

void node::secy_called(process& by, const oxhal_sim::call_report& call) {
    char text[128];
    snprintf(text, sizeof text, "%s: %s %s an=%d %u %s = %d", by.name.c_str(), call.operation, call.port,
             call.an, call.number, call.word, call.result);
    stage_.note(text);
    checks_.secy_called(by.unit, call, stage_.now_ns());
}

void node::sent(mailbox_ref from, process& sender, mailbox_ref to, const bytes& message) {
    using namespace tavu;
    if (message.size() < sizeof(message_header))
        return;
    const auto& header = *reinterpret_cast<const message_header*>(message.data());
    uint32_t number;
    memcpy(&number, message.data(), sizeof number);
    overhear(number, message);
    if (number < OXMSI_CONNECTION_ESTABLISH_REQ || number > OXMSI_PORT_STATE_CHANGE_IND)
        return;
    if (sender.what == role::TOPOLOGY_MANAGER)
        return checks_.request_sent(to, from, header.procedure_reference, number);
    bool is_status = number == OXMSI_PORT_STATE_CHANGE_IND;
    if (!is_status)
        checks_.answer_sent(from, to, header.procedure_reference, number);
    is_status |= number == OXMSI_IDL_TOPOLOGY_PUBLISH_LINK_ADDED_CFM ||
                 number == OXMSI_IDL_TOPOLOGY_PUBLISH_LINK_UPDATED_CFM ||
                 number == OXMSI_IDL_TOPOLOGY_PUBLISH_LINK_DELETED_CFM;
    if (!is_status || message.size() != sizeof(oxmsi_port_status))
        return;
    const auto& status = *reinterpret_cast<const oxmsi_port_status*>(message.data());
    for (int port = 0; port < ports_per_unit; port++) {
        if (!(status.port == port_names[static_cast<size_t>(port)]))
            continue;
        link_end end = {sender.unit, port};
        stage_.note(to_text(end) + ": " + oxmsi_msg_no_to_str(number) + ", " +
                    port_macsec_oper_state_to_str(status.oper_state) + ", " +
                    port_macsec_encryption_state_to_str(status.encryption_state));
        checks_.daemon_said(end, status.oper_state == OXMSI_PORT_OPER_STATE_ENABLED &&
                                     status.encryption_state == OXMSI_PORT_ENCRYPTION_STATE_ENABLED);
    }
}

void node::traced(process& by, std::string_view line) {
    // A KaY that failed while it gave up its channels stays failed when its port is to be unauthenticated,
    // and the port manager tries again every second, until the port is to be secured: this is known.
    if (line.find("Could not set MACsec role 'MACSEC_ROLE_UNAUTHENTICATED'") != line.npos)
        stuck_[by.unit][std::string(line.substr(line.rfind(' ')))] = stage_.now_ns();
    if (!is_explained(line, occurred_))
        fail(by.name + " traces what no fault explains: " + std::string(line));
}

// Programs that end are started again, as the system does.
void node::ended(process& which, bool killed, int status) {
    if (which.what == role::DAEMON)
        checks_.daemon_ended(which.unit);
    if (!killed && (!WIFEXITED(status) || WEXITSTATUS(status) != 1 || !(occurred_ & 1u << SECY_FAILS)))
        fail(which.name + " ended by itself, status " + std::to_string(status));
    int unit = which.unit;
    role what = which.what;
    uint64_t down_ns = std::exchange(down_ns_[{unit, what}], second);
    disturbed_until(stage_.now_ns() + down_ns);
    at(down_ns, [this, unit, what] { start(unit, what); });
}

void node::stepped() {
    constexpr unsigned stalls = 1u << STALL | 1u << UNIT_STALL | 1u << SLOW;
    checks_.look_at_links(stage_.now_ns(), occurred_ & stalls, cause_gone_ns_ + stall_recovery_ns);
    if (stage_.now_ns() > cause_gone_ns_ + quiet_ns)
        checks_.look_at_ages(stage_.now_ns());
    bool is_good = checks_.all_good();
    if (is_good && !was_good_)
        good_since_ns_ = stage_.now_ns();
    // An association that could not be deleted is in the way when its number comes round again, three
    // refreshes later: so the fault explains it.
    if (!is_good && was_good_ && is_settled_ && !keeps_association_)
        fail("a working link is touched without a cause: " + checks_.open_matters());
    was_good_ = is_good;
    if (!checks_.violation().empty())
        fail(checks_.violation());
}

void node::fail(const std::string& what) {
    if (!violation_.empty())
        return;
    violation_ = what;
    stage_.halt();
    printf("VIOLATION at %.6f s of seed %llu: %s\nThe last events:\n%s\n",
           static_cast<double>(stage_.now_ns()) / 1e9, static_cast<unsigned long long>(wanted_.seed),
           what.c_str(), stage_.history().c_str());
}

// --- Time

void node::at(uint64_t delay_ns, std::function<void()> act) {
    script_.emplace(stage_.now_ns() + delay_ns, std::move(act));
    stage_.halt(); // it may be the next
}

void node::pass(uint64_t duration_ns) {
    uint64_t until_ns = stage_.now_ns() + duration_ns;
    while (violation_.empty() && stage_.now_ns() < until_ns) {
        uint64_t next_ns = script_.empty() ? until_ns : std::min(until_ns, script_.begin()->first);
        stage_.run_until(next_ns);
        while (violation_.empty() && !script_.empty() && script_.begin()->first <= stage_.now_ns())
            script_.extract(script_.begin()).mapped()();
    }
}

// --- Faults

void node::note_fault(fault kind, uint64_t lasts_ns) {
    occurred_ |= 1u << kind;
    outcome_.by_kind[kind].injected++;
    last_fault_ = kind;
    disturbed_until(stage_.now_ns() + lasts_ns);
}

// One fault and nothing else: how long the links take once its cause is gone.
void node::single_fault() {
    const fault kind = draw_fault();
    is_settled_ = kind == INTRUDER; // which is no excuse
    last_fault_ = FAULT_KINDS;
    inject(kind);
    if (last_fault_ == FAULT_KINDS)
        return;
    stage_.note(std::string("a single fault: ") + fault_names[last_fault_]);
    pass(settling_ns + quiet_ns);
    be_quiet();
    expect_nothing_open();
    uint64_t took_ns = good_since_ns_ > cause_gone_ns_ ? good_since_ns_ - cause_gone_ns_ : 0;
    recoveries& of = outcome_.by_kind[last_fault_];
    of.recovered++;
    of.worst_ns = std::max(of.worst_ns, took_ns);
    if (took_ns > longest_recovery_ns() && violation_.empty())
        fail("recovered " + std::to_string(took_ns / ms) + " ms after the cause was gone");
    is_settled_ = true;
}

uint64_t node::longest_recovery_ns() const {
    switch (last_fault_) {
    case SECY_FAILS:
        return failed_refresh_ns;
    case STALL:
    case UNIT_STALL:
    case SLOW:
        return stall_recovery_ns;
    default:
        return recovery_ns;
    }
}

void node::expect_nothing_open() {
    std::string open = violation_.empty() ? checks_.open_matters() : "";
    if (!open.empty())
        fail("after sixty quiet seconds " + open);
}

// Now, or in the middle of what it does next.
void node::crash(int unit, role what, uint64_t down_ns) {
    process* victim = stage_.find(unit, what);
    if (!victim)
        return;
    down_ns_[{unit, what}] = down_ns;
    if (stage_.draw.one_in(2))
        stage_.kill(*victim);
    else
        victim->doomed_after = static_cast<uint32_t>(stage_.draw.below(12));
}

void node::stall(process* stalled, uint64_t lasts_ns) {
    if (!stalled)
        return;
    stage_.note(stalled->name + " stalls");
    stalled->stalled_until_ns = std::max(stalled->stalled_until_ns, stage_.now_ns() + lasts_ns);
}

// What passes between units can be heard by others, who cannot join an association without a part in it.
void node::overhear(uint32_t number, const bytes& message) {
    const bool is_mka = number >= tavu::MKA_CONNECTION_ESTABLISH_REQ && number <= tavu::MKA_HEARTBEAT_RCFM;
    const bool is_of_managers =
        number == services::TOPOLOGY_PEER_LINK_IND || number == services::TOPOLOGY_PEER_SECY_IND;
    if ((!is_mka && !is_of_managers) || number == tavu::MKA_JOIN_CA_REQ)
        return;
    overheard_.push_back(message);
    if (overheard_.size() > overheard_max)
        overheard_.pop_front();
}

// Says again what it has heard, as it was, with other numbers and other values, to mailboxes that other units
// can reach or know of. This must cost no link anything.
void node::intrude() {
    static constexpr uint32_t internal_numbers[] = {
        tavu::KEYSRV_MSG_TIMEOUT_IND,      tavu::KEYSRV_KEY_REFRESH_TIMER_IND,
        tavu::MKA_SERVER_UP_IND,           tavu::MKA_SERVER_DOWN_IND,
        tavu::MKA_CLIENT_DOWN_IND,         tavu::MKA_CLIENT_HEARTBEAT_TIMEOUT_IND,
        tavu::OXPCSI_SERVER_DOWN_IND,      tavu::OXPCSI_SERVER_UP_IND,
        tavu::OXMSI_CLIENT_DOWN_IND,       tavu::TAVU_PM_RETRY_TIMEOUT_IND,
        tavu::KAY_SA_DISPOSAL_TIMEOUT_IND, tavu::MKA_SERVER_HEARTBEAT_TIMEOUT_IND};
    chance& draw = stage_.draw;
    stage_.note("an intruder speaks");
    for (uint64_t left = overheard_.empty() ? 0 : draw.spread(1, 200); left > 0; left--) {
        process* to = stage_.find(any_unit(), draw.one_in(2) ? role::DAEMON : role::TOPOLOGY_MANAGER);
        if (!to)
            continue;
        std::vector<uint32_t> reachable;
        for (auto& [mailbox, name] : to->mailboxes) {
            if (name == "mka-key-server" || name.starts_with("mka-client-") || name.ends_with("-peer"))
                reachable.push_back(mailbox);
        }
        if (reachable.empty())
            continue;
        bytes said = overheard_[draw.below(overheard_.size())];
        if (draw.one_in(3)) {
            const uint32_t number = internal_numbers[draw.below(std::size(internal_numbers))];
            memcpy(said.data(), &number, sizeof number);
        } else if (draw.one_in(2)) {
            said[4 + draw.below(said.size() - 4)] = static_cast<unsigned char>(draw.next());
        }
        stage_.intrude(*to, reachable[draw.below(reachable.size())], std::move(said));
    }
}

void node::inject(fault kind) {
    chance& draw = stage_.draw;
    int unit = any_unit();
    uint64_t lasts_ns = draw.spread(ms, 10 * second);
    switch (kind) {
    case KILL_DAEMON:
    case KILL_TOPOLOGY_MANAGER:
    case KILL_PORT_CONTROL:
        crash(unit, roles[kind - KILL_DAEMON], lasts_ns);
        break;
    case KILL_UNIT:
        for (role each : roles) {
            if (process* victim = stage_.find(unit, each)) {
                down_ns_[{unit, each}] = lasts_ns + draw.below(second);
                stage_.kill(*victim);
            }
        }
        checks_.secys_lost(unit);
        lasts_ns += second;
        break;
    case CUT: {
        const link& between = links_[draw.below(links_.size())];
        int one = between.ends[0].unit, other = between.ends[1].unit;
        if (stage_.is_cut(one, other))
            return;
        stage_.cut(one, other);
        at(lasts_ns, [=, this] { stage_.mend(one, other); });
        break;
    }
    case DELAY: {
        uint64_t longest_ns = draw.spread(10 * ms, 4 * second);
        stage_.set_lag(longest_ns);
        at(lasts_ns, [this] { stage_.set_lag(0); });
        lasts_ns += longest_ns; // until the last late delivery arrives
        break;
    }
    case STALL:
        lasts_ns = draw.spread(100 * ms, 60 * second);
        stall(stage_.find(unit, roles[draw.below(std::size(roles))]), lasts_ns);
        if (draw.one_in(3))
            stall(stage_.find(any_unit(), roles[draw.below(std::size(roles))]), lasts_ns);
        break;
    case UNIT_STALL:
        lasts_ns = draw.spread(100 * ms, 60 * second);
        for (role each : roles)
            stall(stage_.find(unit, each), lasts_ns);
        break;
    case SLOW:
        if (process* slow = stage_.find(unit, roles[draw.below(std::size(roles))])) {
            slow->slow_until_ns = stage_.now_ns() + lasts_ns;
            slow->slowness_ns = draw.spread(ms, 300 * ms);
            stage_.note(slow->name + " is slow");
        }
        break;
    case INTRUDER:
        intrude();
        outcome_.by_kind[kind].injected++;
        occurred_ |= 1u << kind;
        last_fault_ = kind;
        return;
    case SECY_FAILS:
        failing_call_[unit] = 1 + static_cast<unsigned>(draw.below(8));
        lasts_ns = 0;
        break;
    case PORT_FLAPS: {
        link_end end = any_end();
        set_port(end, false);
        at(lasts_ns, [=, this] { set_port(end, true); });
        break;
    }
    case LINK_EDITED: {
        link_end end = any_end();
        set_edit(end, static_cast<edit>(1 + draw.below(3)));
        at(lasts_ns, [=, this] { set_edit(end, edit::NONE); });
        break;
    }
    case FAULT_KINDS:
        return;
    }
    note_fault(kind, lasts_ns);
}

fault node::draw_fault() {
    fault kind;
    do
        kind = static_cast<fault>(stage_.draw.below(FAULT_KINDS));
    while ((enabled_ & 1u << kind) == 0);
    return kind;
}

void node::inject() {
    if (calm_)
        return;
    inject(draw_fault());
    // Now and then another follows at once, in the middle of what the first one causes.
    uint64_t shortest_ns = stage_.draw.one_in(3) ? 100'000 : longest_pause_ns_ / 100;
    at(stage_.draw.spread(shortest_ns, longest_pause_ns_), [this] { inject(); });
}

// Faults that wait for a call or message which did not come.
void node::withdraw_pending_faults() {
    failing_call_.clear();
    for (int unit : units_) {
        for (role each : roles) {
            if (process* running = stage_.find(unit, each))
                running->doomed_after = none;
        }
    }
}

// Ends every disturbance. Processes that are down come back at their time.
void node::calm() {
    calm_ = true;
    stage_.note("calm");
    stage_.mend_all();
    stage_.end_intrusion();
    stage_.set_lag(0);
    for (int unit : units_) {
        for (role each : roles) {
            if (process* running = stage_.find(unit, each))
                running->stalled_until_ns = running->slow_until_ns = 0;
        }
        for (int port = 0; port < ports_per_unit; port++)
            set_port({unit, port}, true);
    }
    set_all_edits(edit::NONE);
    disturbed_until(stage_.now_ns());
}

// A fault that strikes late counts from then on; one that has found no occasion by now never will.
void node::be_quiet() {
    withdraw_pending_faults();
    while (violation_.empty() && stage_.now_ns() < cause_gone_ns_ + quiet_ns)
        pass(cause_gone_ns_ + quiet_ns - stage_.now_ns());
}

void node::round() {
    calm_ = false;
    is_settled_ = false;
    stage_.note("disturbance");
    if (enabled_ != 0)
        at(stage_.draw.spread(ms, second), [this] { inject(); });
    pass(stage_.draw.spread(10 * second, 300 * second));
    calm();
    be_quiet();
    expect_nothing_open();
    is_settled_ = true;
    pass(stage_.draw.one_in(3) ? 400 * second : stage_.draw.below(10 * second));
    if (enabled_ != 0)
        single_fault();
}

std::map<std::pair<int, role>, oka::conduct_balance> node::balances() {
    std::map<std::pair<int, role>, oka::conduct_balance> all;
    for (int unit : units_) {
        for (role each : roles) {
            process* running = violation_.empty() ? stage_.find(unit, each) : nullptr;
            if (running)
                all[{unit, each}] = stage_.balance(*running);
        }
    }
    return all;
}

void node::expect_balance() {
    is_settled_ = false;
    set_all_edits(edit::ABSENT);
    pass(quiet_ns);
    for (auto& [which, now] : balances()) {
        const oka::conduct_balance& before = baseline_[which];
        oka::conduct_balance counts = now;
        counts.heap = before.heap;
        for (auto& [port, last_ns] : stuck_[which.first]) {
            bool is_stuck = which.second == role::DAEMON && last_ns + 1100 * ms > stage_.now_ns();
            counts.messages -= is_stuck;
            counts.timers -= is_stuck;
        }
        process* of = stage_.find(which.first, which.second);
        char text[256];
        snprintf(text, sizeof text,
                 "%s has grown: messages %u -> %u, mailboxes %u -> %u, monitors %u -> %u, locates %u -> %u, "
                 "timers "
                 "%u -> %u, heap %llu -> %llu",
                 of->name.c_str(), before.messages, now.messages, before.mailboxes, now.mailboxes,
                 before.monitors, now.monitors, before.locates, now.locates, before.timers, now.timers,
                 static_cast<unsigned long long>(before.heap), static_cast<unsigned long long>(now.heap));
        if (memcmp(&counts, &before, sizeof counts) != 0 || now.heap > before.heap + heap_slack)
            fail(text);
    }
}

void node::show_links() {
    set_all_edits(edit::NONE);
    pass(quiet_ns);
    if (violation_.empty() && !checks_.all_good())
        fail("undisturbed, " + checks_.open_matters());
}

outcome node::play() {
    set_all_edits(edit::ABSENT);
    for (int unit : units_) {
        write_links(unit);
        for (role each : roles)
            at(stage_.draw.below(second), [=, this] { start(unit, each); });
    }
    // Links that come and go many times must leave no more behind than those that do once.
    pass(settling_ns);
    show_links();
    set_all_edits(edit::ABSENT);
    pass(quiet_ns);
    baseline_ = balances();
    show_links();
    for (unsigned count = 0; count < wanted_.rounds && violation_.empty(); count++)
        round();
    if (violation_.empty())
        expect_balance();
    outcome_.seed = wanted_.seed;
    outcome_.violated = !violation_.empty();
    outcome_.virtual_ns = stage_.now_ns();
    outcome_.events = stage_.events();
    outcome_.digest = stage_.digest();
    return outcome_;
}

} // namespace

outcome run(const settings& wanted) {
    return node(wanted).play();
}

} // namespace simulate
