#include "simulate/stage.h"

#include <algorithm>
#include <cerrno>
#include <csignal>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <fcntl.h>
#include <sys/prctl.h>
#include <sys/socket.h>
#include <sys/wait.h>
#include <unistd.h>

#include "protocols/message_numbers.h"
#include "protocols/topology_messages.h"

namespace simulate {

namespace {

using oka::conduct;
using oka::conduct_record;

constexpr size_t history_length = 100;
constexpr mailbox_ref intruder = {0, 1};
unsigned char packet_room[oka::conduct_packet_max];

[[noreturn]] void give_up(const char* what) {
    perror(what);
    exit(2);
}

const char* name_of(uint32_t number) {
    switch (number) {
#define NAME_OF_MESSAGE(name, value)                                                                         \
    case value:                                                                                              \
        return #name;
        MKA_MESSAGES(NAME_OF_MESSAGE)
        OXPCSI_MESSAGES(NAME_OF_MESSAGE)
        OXMSI_MESSAGES(NAME_OF_MESSAGE)
        TOPOLOGY_MESSAGES(NAME_OF_MESSAGE)
    }
    return "";
}

[[noreturn]] void become(const program& started, int socket, int traces) {
    prctl(PR_SET_PDEATHSIG, SIGKILL);
    dup2(traces, STDOUT_FILENO);
    dup2(traces, STDERR_FILENO);
    (void)fcntl(socket, F_SETFD, 0);
    std::vector<std::string> environment = started.environment;
    std::string number = std::to_string(socket);
    for (const char* name : {"OKA_CONDUCTOR=", "OXHAL_SIM_REPORT="})
        environment.push_back(name + number);
    std::vector<char*> words, variables;
    for (const std::string& word : started.command)
        words.push_back(const_cast<char*>(word.c_str()));
    for (const std::string& variable : environment)
        variables.push_back(const_cast<char*>(variable.c_str()));
    words.push_back(nullptr);
    variables.push_back(nullptr);
    execve(words[0], words.data(), variables.data());
    perror(words[0]);
    _exit(127);
}

} // namespace

std::string unit_name(int unit) {
    return "mp" + std::to_string(unit);
}

stage::stage(uint64_t seed, uint64_t longest_latency_ns, audience& watched_by)
    : draw(seed), audience_(watched_by), latency_ns_(longest_latency_ns) {}

stage::~stage() {
    for (auto& [id, each] : processes_) {
        ::kill(each->pid, SIGKILL);
        waitpid(each->pid, nullptr, 0);
        close(each->socket);
        close(each->traces);
    }
}

// --- What happened

void stage::hash(const void* data, size_t size) {
    const auto* octets = static_cast<const unsigned char*>(data);
    for (size_t at = 0; at < size; at++)
        digest_ = (digest_ ^ octets[at]) * 0x100000001b3u;
}

void stage::note(const std::string& text) {
    char stamp[32];
    snprintf(stamp, sizeof stamp, "%12.6f  ", static_cast<double>(now_ns_) / 1e9);
    std::string line = stamp + text;
    hash(line.data(), line.size());
    if (verbose)
        fprintf(stderr, "%s\n", line.c_str());
    history_.push_back(std::move(line));
    if (history_.size() > history_length)
        history_.pop_front();
}

std::string stage::history() const {
    std::string all;
    for (const std::string& line : history_)
        all += line + '\n';
    return all;
}

// --- Processes

process* stage::by_id(uint32_t id) {
    auto found = processes_.find(id);
    return found == processes_.end() ? nullptr : found->second.get();
}

process* stage::find(int unit, role what) {
    for (auto& [id, each] : processes_) {
        if (each->unit == unit && each->what == what)
            return each.get();
    }
    return nullptr;
}

process* stage::start(int unit, role what, const program& started) {
    int sockets[2], pipes[2];
    if (socketpair(AF_UNIX, SOCK_SEQPACKET | SOCK_CLOEXEC, 0, sockets) != 0 || pipe2(pipes, O_CLOEXEC) != 0)
        give_up("the sockets of a process");
    (void)fcntl(pipes[0], F_SETFL, O_NONBLOCK);
    const char* program_name = strrchr(started.command[0].c_str(), '/') + 1;
    auto fresh = std::make_unique<process>(process{.id = ++last_process_,
                                                   .unit = unit,
                                                   .what = what,
                                                   .name = unit_name(unit) + " " + program_name,
                                                   .socket = sockets[0],
                                                   .traces = pipes[0]});
    note(fresh->name + " starts");
    fresh->pid = fork();
    if (fresh->pid < 0)
        give_up("fork");
    if (fresh->pid == 0)
        become(started, sockets[1], pipes[1]);
    close(sockets[1]);
    close(pipes[1]);
    uint32_t id = fresh->id;
    process& running = *(processes_[id] = std::move(fresh));
    serve(running);
    answer_searches();
    return by_id(id);
}

void stage::kill(process& victim) {
    note(victim.name + " is killed");
    ::kill(victim.pid, SIGKILL);
    end(victim, true);
}

void stage::end(process& gone, bool killed) {
    int status = 0;
    while (waitpid(gone.pid, &status, 0) < 0 && errno == EINTR) {
    }
    read_traces(gone);
    if (!killed)
        note(gone.name + " ends by itself");
    while (!gone.mailboxes.empty())
        withdraw(gone, gone.mailboxes.begin()->first);
    close(gone.socket);
    close(gone.traces);
    std::unique_ptr<process> last = std::move(processes_[gone.id]);
    processes_.erase(last->id);
    audience_.ended(*last, killed, status);
}

void stage::read_traces(process& of) {
    char text[4096];
    ssize_t size;
    while ((size = read(of.traces, text, sizeof text)) > 0) {
        of.unfinished_line.append(text, static_cast<size_t>(size));
        size_t end;
        while ((end = of.unfinished_line.find('\n')) != std::string::npos) {
            std::string line = of.unfinished_line.substr(0, end);
            of.unfinished_line.erase(0, end + 1);
            note(of.name + ": " + line);
            audience_.traced(of, line);
        }
    }
}

// --- A step

void stage::grant(process& to, conduct_record record, const void* payload) {
    record.c = local_time(to.unit, now_ns_);
    memcpy(packet_room, &record, sizeof record);
    if (record.length > 0)
        memcpy(packet_room + sizeof record, payload, record.length);
    // A process that is gone is noticed when it does not answer.
    (void)!send(to.socket, packet_room, sizeof record + record.length, MSG_NOSIGNAL);
}

// Until the process waits, or is no more.
void stage::serve(process& running) {
    bool waits = false;
    while (!waits) {
        ssize_t size = recv(running.socket, packet_room, sizeof packet_room, 0);
        if (size < 0 && errno == EINTR)
            continue;
        if (size <= 0)
            return end(running, false);
        if (!take_packet(running, packet_room, static_cast<size_t>(size), waits))
            return kill(running);
    }
    read_traces(running);
    audience_.stepped();
}

// False when it was killed.
bool stage::take_packet(process& from, const unsigned char* packet, size_t size, bool& waits) {
    auto lives = [&from] { return from.doomed_after == none || from.doomed_after-- > 0; };
    auto kind = *reinterpret_cast<const oxhal_sim::report_kind*>(packet);
    if (kind == oxhal_sim::report_kind::asks || kind == oxhal_sim::report_kind::ended) {
        const auto& call = *reinterpret_cast<const oxhal_sim::call_report*>(packet);
        if (kind == oxhal_sim::report_kind::ended) {
            audience_.secy_called(from, call);
            return true;
        }
        if (!lives())
            return false;
        oxhal_sim::report_answer answer = audience_.secy_asks(from, call);
        (void)!send(from.socket, &answer, sizeof answer, MSG_NOSIGNAL);
        return true;
    }
    const bytes held(packet, packet + size); // answers are made in the room of what is asked
    for (size_t at = 0; at + sizeof(conduct_record) <= size;) {
        conduct_record record; // names make the next one stand anywhere
        memcpy(&record, held.data() + at, sizeof record);
        if (record.kind == conduct::wait)
            waits = true;
        else if (!lives())
            return false;
        carry_out(from, record, held.data() + at + sizeof record);
        at += sizeof record + record.length;
    }
    return true;
}

void stage::carry_out(process& by, const conduct_record& record, const unsigned char* payload) {
    std::string_view text(reinterpret_cast<const char*>(payload), record.length);
    switch (record.kind) {
    case conduct::hello:
        return grant(by, {conduct::welcome, 0, 0, 0, 0});
    case conduct::announce: {
        bool is_free = true;
        for (auto& [id, each] : processes_) {
            for (auto& [mailbox, name] : each->mailboxes)
                is_free &= each->unit != by.unit || name != text;
        }
        if (is_free)
            by.mailboxes[record.a] = text;
        searching_ = true;
        return grant(by, {conduct::announced, 0, is_free, 0, 0});
    }
    case conduct::send: {
        auto to = by.aliases.find(record.a);
        process* receiver = to == by.aliases.end() ? nullptr : by_id(to->second.process);
        if (!receiver)
            return;
        bytes message(payload, payload + record.length);
        mailbox_ref from = {by.id, record.b};
        audience_.sent(from, by, to->second, message);
        uint32_t sender = record.b == none ? none : alias(*receiver, from);
        return deliver(*receiver, from,
                       {conduct::deliver, 0, to->second.mailbox, sender, std::move(message), {}});
    }
    case conduct::withdraw:
        return withdraw(by, record.a);
    case conduct::locate: {
        std::string unit(text.substr(0, text.find('\0')));
        std::string name(text.substr(unit.size() + 1));
        int number = unit.empty() ? by.unit : unit.starts_with("mp") ? atoi(unit.c_str() + 2) : -1;
        by.searches.push_back({record.a, number, std::move(name)});
        searching_ = true;
        return;
    }
    case conduct::cancel_locate:
        std::erase_if(by.searches, [&](const search& each) { return each.locate == record.a; });
        return;
    case conduct::wait:
        by.deadline_ns = time_of_local(by.unit, record.c);
        by.has_watches = record.a & oka::CONDUCT_WATCHES;
        by.look |= (record.a & oka::CONDUCT_SAW) != 0;
        return;
    default:
        give_up("a process says what only the conductor says");
    }
}

// --- Mailboxes

uint32_t stage::alias(process& at, mailbox_ref of) {
    auto known = at.alias_of.find(of);
    if (known != at.alias_of.end())
        return known->second;
    at.aliases[++at.last_alias] = of;
    return at.alias_of[of] = at.last_alias;
}

void stage::deliver(process& to, mailbox_ref from, delivery what) {
    std::deque<delivery>& queue = to.inbox[from];
    uint64_t latency = latency_ns_ ? draw.below(latency_ns_) : 0;
    if (lag_ns_ && draw.one_in(8))
        latency += draw.spread(ms, lag_ns_);
    what.ready_ns = std::max(now_ns_ + latency, queue.empty() ? 0 : queue.back().ready_ns);
    queue.push_back(std::move(what));
}

// The end of what one process knows of a mailbox comes after all that is under way from it, of which a broken
// connection loses the last.
void stage::announce_gone(mailbox_ref gone, process& to, bool lose_some) {
    auto known = to.alias_of.find(gone);
    if (known == to.alias_of.end())
        return;
    uint32_t alias = known->second;
    to.aliases.erase(alias);
    to.alias_of.erase(known);
    std::deque<delivery>& queue = to.inbox[gone];
    for (size_t lost = lose_some ? draw.below(queue.size() + 1) : 0; lost > 0; lost--) {
        if (queue.back().what == conduct::gone)
            break;
        if (queue.back().what == conduct::located)
            to.searches.push_back(queue.back().answered);
        queue.pop_back();
    }
    deliver(to, gone, {conduct::gone, 0, 0, alias, {}, {}});
}

void stage::withdraw(process& from, uint32_t mailbox) {
    mailbox_ref gone = {from.id, mailbox};
    from.mailboxes.erase(mailbox);
    for (auto& [id, each] : processes_) {
        if (each.get() != &from)
            announce_gone(gone, *each, false);
    }
    audience_.mailbox_gone(gone);
}

void stage::answer_searches() {
    searching_ = false;
    for (auto& [id, asker] : processes_) {
        for (size_t at = 0; at < asker->searches.size();) {
            const search wanted = asker->searches[at];
            mailbox_ref found = {};
            for (auto& [other, each] : processes_) {
                if (each->unit != wanted.unit || is_cut(each->unit, asker->unit))
                    continue;
                for (auto& [mailbox, name] : each->mailboxes) {
                    if (name == wanted.name)
                        found = {other, mailbox};
                }
            }
            if (found.process == 0) {
                at++;
                continue;
            }
            asker->searches.erase(asker->searches.begin() + static_cast<ptrdiff_t>(at));
            deliver(*asker, found, {conduct::located, 0, wanted.locate, alias(*asker, found), {}, wanted});
        }
    }
}

void stage::cut(int unit, int other) {
    note("messaging is cut between " + unit_name(unit) + " and " + unit_name(other));
    cuts_[std::minmax(unit, other)] = true;
    for (auto& [id, each] : processes_) {
        if (each->unit != unit && each->unit != other)
            continue;
        std::vector<mailbox_ref> lost;
        for (auto& [of, alias] : each->alias_of) {
            process* owner = by_id(of.process);
            if (owner && owner->unit != each->unit && is_cut(owner->unit, each->unit))
                lost.push_back(of);
        }
        for (mailbox_ref of : lost)
            announce_gone(of, *each, true);
    }
    searching_ = true;
}

void stage::mend(int unit, int other) {
    if (cuts_.erase(std::minmax(unit, other)) == 0)
        return;
    note("messaging is restored between " + unit_name(unit) + " and " + unit_name(other));
    searching_ = true;
}

void stage::mend_all() {
    while (!cuts_.empty())
        mend(cuts_.begin()->first.first, cuts_.begin()->first.second);
}

void stage::post(process& receiver, const std::string& mailbox, bytes message) {
    for (auto& [id, name] : receiver.mailboxes) {
        if (name == mailbox)
            return deliver(receiver, {0, 0}, {conduct::deliver, 0, id, none, std::move(message), {}});
    }
}

void stage::intrude(process& receiver, uint32_t mailbox, bytes message) {
    deliver(receiver, intruder,
            {conduct::deliver, 0, mailbox, alias(receiver, intruder), std::move(message), {}});
}

void stage::end_intrusion() {
    for (auto& [id, each] : processes_)
        announce_gone(intruder, *each, false);
}

oka::conduct_balance stage::balance(process& of) {
    oka::conduct_balance result = {};
    grant(of, {conduct::tell_balance, 0, 0, 0, 0});
    ssize_t size = recv(of.socket, packet_room, sizeof packet_room, 0);
    if (size == static_cast<ssize_t>(sizeof(conduct_record) + sizeof result))
        memcpy(&result, packet_room + sizeof(conduct_record), sizeof result);
    return result;
}

// --- Time

uint64_t stage::local_time(int unit, uint64_t time_ns) const {
    auto drift = drift_ppm_.find(unit);
    const int64_t ppm = drift == drift_ppm_.end() ? 0 : drift->second;
    const auto millions = static_cast<int64_t>(time_ns / 1'000'000),
               rest = static_cast<int64_t>(time_ns % 1'000'000);
    return time_ns + static_cast<uint64_t>(millions * ppm + rest * ppm / 1'000'000);
}

// The earliest at which the unit's clock shows it.
uint64_t stage::time_of_local(int unit, uint64_t local_ns) const {
    auto drift = drift_ppm_.find(unit);
    if (local_ns == oka::never_ns || drift == drift_ppm_.end())
        return local_ns;
    const auto rate = static_cast<uint64_t>(1'000'000 + drift->second);
    uint64_t time_ns = local_ns / rate * 1'000'000 + local_ns % rate * 1'000'000 / rate;
    while (local_time(unit, time_ns) < local_ns)
        time_ns++;
    return time_ns;
}

// All that is due, and when the next of the rest is.
void stage::collect(uint64_t& next_ns) {
    candidates_.clear();
    for (auto& [id, owned] : processes_) {
        process* each = owned.get();
        if (each->stalled_until_ns > now_ns_) {
            next_ns = std::min(next_ns, each->stalled_until_ns);
            continue;
        }
        auto consider = [&](uint64_t ready_ns, std::deque<delivery>* from) {
            if (ready_ns <= now_ns_)
                candidates_.push_back({each, from});
            else
                next_ns = std::min(next_ns, ready_ns);
        };
        consider(each->look ? now_ns_ : each->deadline_ns, nullptr);
        for (auto& [from, queue] : each->inbox) {
            if (!queue.empty())
                consider(queue.front().ready_ns, &queue);
        }
    }
}

void stage::perform(candidate chosen) {
    process& runs = *chosen.runs;
    uint32_t id = runs.id;
    if (!chosen.from) {
        note(runs.name + (runs.look ? " looks" : " has a timer due"));
        grant(runs, {runs.look ? conduct::look : conduct::time, 0, 0, 0, 0});
        runs.look = false;
    } else {
        delivery what = std::move(chosen.from->front());
        chosen.from->pop_front();
        conduct_record record = {what.what, static_cast<uint32_t>(what.message.size()), what.target,
                                 what.alias, 0};
        std::string text = runs.name;
        if (what.what == conduct::deliver) {
            uint32_t number = 0;
            memcpy(&number, what.message.data(), std::min(sizeof number, what.message.size()));
            char words[96];
            snprintf(words, sizeof words, " gets 0x%x %s", number, name_of(number));
            text += words;
            auto sender = runs.aliases.find(what.alias);
            process* from = sender == runs.aliases.end() ? nullptr : by_id(sender->second.process);
            text += from ? " from " + from->name : "";
            hash(what.message.data(), what.message.size());
        } else {
            text += what.what == conduct::located
                        ? " finds " + unit_name(what.answered.unit) + "/" + what.answered.name
                        : " loses mailbox " + std::to_string(what.alias);
        }
        note(text);
        grant(runs, record, what.message.data());
    }
    serve(runs);
    process* ran = by_id(id);
    if (ran && ran->slow_until_ns > now_ns_)
        ran->stalled_until_ns = std::max(ran->stalled_until_ns, now_ns_ + ran->slowness_ns);
    // Empty queues from processes that are gone are removed, so that their number does not grow.
    if (process* still = chosen.from ? by_id(id) : nullptr)
        std::erase_if(still->inbox, [this](const auto& entry) {
            return entry.second.empty() && !by_id(entry.first.process);
        });
}

void stage::run_until(uint64_t time_ns) {
    for (halted_ = false; !halted_;) {
        if (searching_)
            answer_searches();
        uint64_t next_ns = oka::never_ns;
        collect(next_ns);
        if (!candidates_.empty()) {
            events_++;
            perform(candidates_[draw.below(candidates_.size())]);
        } else if (next_ns <= time_ns) {
            now_ns_ = next_ns;
        } else {
            now_ns_ = std::max(now_ns_, time_ns);
            return;
        }
    }
}

} // namespace simulate
