// The whole daemon among peers, driven by a sequence of events that the input spells: messages of every
// protocol, deaths, timers on time, late or just as they are cancelled, failures of the SecY and of memory.
// Whatever happened, the daemon then serves a well-behaved client and leaves nothing, or it has ended by its
// own rules.
#include <algorithm>
#include <cerrno>
#include <csignal>
#include <cstring>
#include <new>
#include <random>
#include <sys/mman.h>
#include <sys/prctl.h>
#include <sys/wait.h>
#include <unistd.h>

#include "fuzz/peers.h"
#include "fuzz/target.h"
#include "platform/oka/simulation/simulation.h"
#include "platform/oka_timer.h"
#include "platform/oxhal/sim.h"
#include "platform/zeb.h"
#include "platform/zeb/zeb_sink.h"
#include "protocols/mka_messages.h"
#include "protocols/oxmsi_messages.h"
#include "protocols/oxpcsi_messages.h"
#include "tavu/key_server/key_server.h"
#include "tavu/mka/mka_server.h"
#include "tavu/oxmsi/oxmsi_server.h"
#include "tavu/oxpcsi/oxpcsi_helper.h"
#include "tavu/port_manager/port_manager.h"
#include "tavu/tavu_main.h"

// Where the fuzzer and the coverage report count; nowhere when cases are only replayed.
extern "C" {
extern uint8_t __start___sancov_cntrs[] __attribute__((weak, visibility("hidden")));
extern uint8_t __stop___sancov_cntrs[] __attribute__((weak, visibility("hidden")));
__attribute__((weak)) char* __llvm_profile_begin_counters();
__attribute__((weak)) char* __llvm_profile_end_counters();
size_t LLVMFuzzerCustomMutator(uint8_t* data, size_t size, size_t max_size, unsigned seed);
}

namespace {

void* records[4096]; // of the daemon: all that is allocated in this way
unsigned record_count;
unsigned allocations_until_failure;

} // namespace

void* operator new(size_t size, const std::nothrow_t&) noexcept {
    if (allocations_until_failure > 0 && --allocations_until_failure == 0)
        return nullptr;
    fuzz::expect(record_count < std::size(records), "the number of records is bounded");
    return records[record_count++] = malloc(size);
}
void operator delete(void* memory) noexcept {
    void** found = std::find(records, records + record_count, memory);
    if (found != records + record_count)
        *found = records[--record_count];
    free(memory);
}
void operator delete(void* memory, size_t) noexcept {
    operator delete(memory);
}
void* operator new(size_t size) {
    return malloc(size);
}

namespace fuzz {
namespace {

using namespace tavu;

enum class event_kind : uint8_t {
    say,         // the peer sends a message
    slip,        // one of the peer's next answers is not as it should be
    exist,       // the peer dies, or appears
    oblige,      // the peer stops answering, or answers again
    locate,      // the peer looks for whom it talks to
    pass,        // time passes, every timer is on time
    leap,        // time passes at once, every timer is late
    expire,      // the next timer's message is queued behind what is held: the timer may be cancelled before
    fail_call,   // a call of the SecY will fail
    fail_record, // an allocation will fail
    trace,       // every trace is written, or errors alone
    forge,       // what the peer would say comes from another's mailbox
    KINDS,
};

struct event {
    uint8_t kind; // with `held`: what is sent waits for an event that is not held
    uint8_t peer;
    uint8_t value; // message row; index of a span; after how many others
    uint8_t to;    // receiver, or who forges, with `second_link`
    edit edits[edits_max];
};
static_assert(sizeof(event) == 16);
constexpr uint8_t held = 0x80, second_link = 0x80;
constexpr size_t events_max = 64;

constexpr unsigned spans_ms[] = {1, 500, 1000, 2500, 5000, 8000, 30000, 180000};
// Each input runs in a process of its own, since the daemon may end the process. What has to outlive it is in
// shared memory.
struct {
    bool is_over;
    bool saw_reason_to_end, saw_end;
    unsigned keys_installed; // for transmitting
    char counters[1 << 20];
} * shared;
unsigned calls_planned;
bool shows_traces;

void hear_trace(const zeb::record& record) {
    if (shows_traces)
        fprintf(stderr, "%s\n", record.text);
    for (const char* reason : {"Received oxpcsi_start_failed", "Could not create port managers",
                               "Could not publish", "TAVU: Could not start"})
        shared->saw_reason_to_end |= strstr(record.text, reason) != nullptr;
    shared->saw_end |= !strcmp(record.text, "TAVU: Fatal error occured. Exiting with error code: 1");
}

void settle() {
    constexpr int more_than_any_life_needs = 20000;
    for (int count = 0; oka_message* message = oka_receive(nullptr, 0, OKA_ANY_SENDER); count++) {
        expect(count < more_than_any_life_needs, "messages come to an end");
        heard(message) ? oka_free(&message) : route_message(message);
    }
}

void pass(uint64_t milliseconds) {
    namespace simulation = oka::simulation;
    const uint64_t target = simulation::now_ms() + milliseconds;
    for (settle(); simulation::now_ms() < target; settle()) {
        uint64_t now = simulation::now_ms();
        simulation::advance_ms(std::min(std::max(simulation::next_timer_ms(), now), target) - now);
    }
}

void happen(const event& what) {
    constexpr unsigned calls_planned_max = 8;
    const unsigned peer = what.peer % PEERS, span = spans_ms[what.value % std::size(spans_ms)];
    const uint64_t now = oka::simulation::now_ms(), next = oka::simulation::next_timer_ms();
    switch (static_cast<event_kind>((what.kind & ~held) % static_cast<unsigned>(event_kind::KINDS))) {
    case event_kind::say:
        return say(peer, what.value, what.to & ~second_link, what.to & second_link ? 1 : 0, what.edits,
                   edits_max);
    case event_kind::forge:
        return forge(peer, what.value, (what.to & ~second_link) % PEERS, what.to & second_link ? 1 : 0,
                     what.edits, edits_max);
    case event_kind::slip:
        return slip(peer, what.value % 16u, what.edits);
    case event_kind::exist:
        return exists(peer) ? disappear(peer) : appear(peer);
    case event_kind::oblige:
        return oblige(peer);
    case event_kind::locate:
        return locate(peer);
    case event_kind::pass:
        return pass(span);
    case event_kind::leap:
        return oka::simulation::advance_ms(span);
    case event_kind::expire:
        oka::simulation::advance_ms(next == oka::simulation::never_ms ? 0 : std::max(next, now) - now);
        return oka::simulation::queue_due_timers();
    case event_kind::fail_call:
        return calls_planned++ < calls_planned_max ? oxhal_sim::fail(nullptr, 1 + what.value % 64u) : void();
    case event_kind::fail_record:
        allocations_until_failure = 1 + what.value % 32u;
        return;
    case event_kind::trace:
        procInfo.trace_group_mask ^= ~(1u << ZEB_GROUP_ERROR);
        return;
    case event_kind::KINDS:
        return;
    }
}

// --- What holds after every sequence

void connect(unsigned manager) {
    appear(manager);
    locate(manager);
    settle();
    say(manager, row_of(OXMSI_CONNECTION_ESTABLISH_REQ), 0, 0, nullptr, 0);
    settle();
    expect(times_heard(manager, OXMSI_CONNECTION_ESTABLISH_CFM) == 1, "a client is connected");
}

constexpr edit with_status(uint8_t status) {
    return {9, static_cast<uint8_t>(change::value), 0, status};
}

void expect_service() {
    constexpr uint32_t added = OXMSI_IDL_TOPOLOGY_PUBLISH_LINK_ADDED_REQ;
    oxhal_sim::fail_never();
    allocations_until_failure = 0;
    disappear(MANAGER_2);
    settle();
    if (get_tavu_main_state() == TAVU_MAIN_STATE_READY) {
        const edit down = with_status(OXMSI_LTM_LINK_STATUS_DOWN);
        connect(MANAGER_2);
        say(MANAGER_2, row_of(added), 0, 0, &down, 1);
        pass(30000);
        expect(times_heard(MANAGER_2, added + 1) + times_heard(MANAGER_2, added + 2) == 1,
               "a published link is answered");
    }
    // And all of a link's life works as in a daemon that has just started.
    for (unsigned peer = 0; peer < PEERS; peer++)
        disappear(peer);
    settle();
    appear(PORTS);
    settle();
    expect(get_tavu_main_state() == TAVU_MAIN_STATE_READY, "the daemon is ready once there are ports");
    connect(MANAGER_1);
    say(MANAGER_1, row_of(added), 0, 0, nullptr, 0);
    appear(KAY_1);
    locate(KAY_1);
    settle();
    say(KAY_1, row_of(MKA_CONNECTION_ESTABLISH_REQ), 0, 0, nullptr, 0);
    pass(30000);
    expect(times_heard(MANAGER_1, added + 1) == 1 && oxhal_sim::secy("DiPort_A1").wanted.protect_frames,
           "a published link is secured");
}

void live(const uint8_t* data, size_t size) {
    shows_traces = getenv("QEL_TAVU_FUZZ_TRACE") != nullptr;
    zeb::set_sink(hear_trace);
    procInfo.trace_group_mask = shows_traces ? UINT32_MAX : 1u << ZEB_GROUP_ERROR;
    setenv("MPID", "3", 1);
    setenv("OKA_UNIT", "unit-3", 1);
    oka::simulation::plug();
    oxhal_sim::install();
    expect(tavu_main_init(), "the daemon initialises");
    const unsigned records_of_ports = record_count; // those of the hardware are there for good
    expect(tavu_main_start(), "the daemon starts");
    for (unsigned peer = 0; peer < PEERS; peer++)
        appear(peer);
    settle();
    for (size_t at = 0; at + sizeof(event) <= size && at < events_max * sizeof(event); at += sizeof(event)) {
        event next;
        memcpy(&next, data + at, sizeof next);
        happen(next);
        if (!(next.kind & held))
            settle();
    }
    settle();
    shared->keys_installed = oxhal_sim::call_count("transmit_sa_create");
    expect_service();
    for (bool (*stop)() :
         {oxmsi_server_stop, tavu_pm_stop, oxpcsi_helper_stop, key_server_stop, mka_server_stop}) {
        expect(stop(), "every module stops");
    }
    expect(record_count == records_of_ports, "no record is left");
    for (unsigned peer = 0; peer < PEERS; peer++)
        disappear(peer);
    expect(oka_timer_service_stop(), "timers stop");
    oka_exit();
    expect(oka::simulation::live() == oka::simulation::balance{},
           "no message, mailbox, monitor, locate or timer is left");
}

// Copies what counts coverage to `saved`, or back.
void copy_counters(char* saved, bool back) {
    char* profile = __llvm_profile_begin_counters ? __llvm_profile_begin_counters() : nullptr;
    char* profile_end = profile ? __llvm_profile_end_counters() : nullptr;
    for (auto [from, to] : {std::pair{reinterpret_cast<char*>(__start___sancov_cntrs),
                                      reinterpret_cast<char*>(__stop___sancov_cntrs)},
                            std::pair{profile, profile_end}}) {
        back ? std::copy_n(saved, to - from, from) : std::copy(from, to, saved);
        saved += to - from;
    }
}
void end_life(int status) {
    copy_counters(shared->counters, false);
    shared->is_over = true;
    _exit(status);
}

// --- Undisturbed runs, from which the fuzzer makes its inputs

using events = std::vector<event>;

event said(uint8_t peer, uint32_t number, uint8_t to = 0, edit changed = {}) {
    return {0, peer, row_of(number), to, {changed, {}, {}}};
}
event forged(uint8_t peer, uint32_t number, uint8_t link = 0, edit changed = {}) {
    event one = said(peer, number, STRANGER | link, changed);
    one.kind = static_cast<uint8_t>(event_kind::forge);
    return one;
}
event slipped(uint8_t peer, uint8_t after, edit changed) {
    return {static_cast<uint8_t>(event_kind::slip), peer, after, 0, {changed, {}, {}}};
}
event of(event_kind kind, uint8_t peer, uint8_t value = 0, uint8_t waits = 0) {
    return {static_cast<uint8_t>(static_cast<uint8_t>(kind) | waits), peer, value, 0, {}};
}
events times(unsigned count, const events& repeated) {
    events all;
    for (; count > 0; count--)
        all.insert(all.end(), repeated.begin(), repeated.end());
    return all;
}
events operator+(events first, const events& second) {
    first.insert(first.end(), second.begin(), second.end());
    return first;
}

constexpr unsigned it_ended = 100;
constexpr uint8_t eight_seconds = 5, half_a_minute = 6, three_minutes = 7;

struct life {
    const char* name;
    events all;
    unsigned comes_to;
};
const std::vector<life>& lives() {
    using enum event_kind;
    static const events manager = {of(locate, MANAGER_1), said(MANAGER_1, OXMSI_CONNECTION_ESTABLISH_REQ)};
    static const events kay = {of(locate, KAY_1), said(KAY_1, MKA_CONNECTION_ESTABLISH_REQ)};
    static const events link =
        manager + events{said(MANAGER_1, OXMSI_IDL_TOPOLOGY_PUBLISH_LINK_ADDED_REQ)} + kay;
    static const events other_link =
        manager + events{said(MANAGER_1, OXMSI_PORT_STATE_CHANGE_SUBSCRIBE_REQ, second_link),
                         said(MANAGER_1, OXMSI_IDL_TOPOLOGY_PUBLISH_LINK_ADDED_REQ, second_link),
                         of(pass, 0, eight_seconds)};
    static const std::vector<life> all = {
        {"the key server is here: secured, refreshed twice, deleted",
         link + events{said(MANAGER_1, OXMSI_PORT_STATE_CHANGE_SUBSCRIBE_REQ), of(pass, 0, three_minutes),
                       of(pass, 0, eight_seconds), of(pass, 0, three_minutes),
                       said(MANAGER_1, OXMSI_IDL_TOPOLOGY_PUBLISH_LINK_DELETED_REQ)},
         3},
        {"the key server is at the other end: secured, refreshed, told to leave",
         other_link + events{said(KEY_SERVER, MKA_CREATE_TX_SA_RREQ, second_link,
                                  {6, static_cast<uint8_t>(change::value), 0, 2}),
                             of(pass, 0, eight_seconds), said(KEY_SERVER, MKA_LEAVE_CA_RREQ, second_link),
                             of(pass, 0, eight_seconds)},
         2},
        {"the ports go and come back, the other end too, the link goes down and up",
         link + events{of(exist, PORTS), of(exist, PORTS), of(exist, KAY_1), of(exist, KAY_1)} + link +
             events{said(MANAGER_1, OXMSI_IDL_TOPOLOGY_PUBLISH_LINK_UPDATED_REQ, 0,
                         with_status(OXMSI_LTM_LINK_STATUS_DOWN)),
                    of(exist, KAY_1), of(exist, KAY_1),
                    said(MANAGER_1, OXMSI_IDL_TOPOLOGY_PUBLISH_LINK_UPDATED_REQ)} +
             kay + events{of(pass, 0, eight_seconds), said(MANAGER_1, OXMSI_CONNECTION_CLOSE_REQ)},
         3},
        {"the key server at the other end announces nine capabilities and sends one",
         events{slipped(KEY_SERVER, 1, {2, static_cast<uint8_t>(change::value), 0, 9})} + other_link, 0},
        {"it sends half of a key",
         events{slipped(KEY_SERVER, 6, {10, static_cast<uint8_t>(change::cut), 0, 8})} + other_link, 0},
        {"nobody confirms",
         events{of(oblige, KAY_1)} + link +
             events{said(KAY_1, MKA_JOIN_CA_REQ), said(KAY_1, MKA_CREATE_TX_SC_REQ),
                    of(pass, 0, eight_seconds), of(leap, 0, three_minutes)},
         0},
        {"a member repeats a confirmation again and again: the keys are replaced all the same",
         link + times(8, {of(pass, 0, half_a_minute), said(KAY_1, MKA_CREATE_TX_SA_RCFM)}), 2},
        {"a member confirms again and again that it receives, which nobody waits for",
         link + times(20, {said(KAY_1, MKA_CREATE_RX_SC_RCFM)}) +
             events{of(pass, 0, three_minutes), of(pass, 0, eight_seconds)},
         2},
        {"a stranger says what a member has to confirm",
         events{of(oblige, KAY_1)} + link +
             events{said(KAY_1, MKA_JOIN_CA_REQ), said(KAY_1, MKA_CREATE_TX_SC_REQ),
                    forged(KAY_1, MKA_CREATE_RX_SC_RCFM), forged(KAY_1, MKA_CREATE_RX_SA_RCFM),
                    forged(KAY_1, MKA_CREATE_TX_SA_RCFM)},
         0},
        {"a stranger speaks as the key server at the other end",
         other_link + events{forged(KEY_SERVER, MKA_CREATE_TX_SA_RREQ, second_link,
                                    {6, static_cast<uint8_t>(change::value), 0, 2})},
         1},
        {"a stranger says that timers have run out",
         link + times(8, {forged(KAY_1, KEYSRV_KEY_REFRESH_TIMER_IND), of(pass, 0, eight_seconds)}) +
             events{forged(KAY_1, KEYSRV_MSG_TIMEOUT_IND), forged(KAY_1, MKA_CLIENT_DOWN_IND),
                    of(pass, 0, three_minutes)},
         2},
        {"the start is rejected",
         {of(exist, PORTS), of(exist, PORTS, 0, held), of(oblige, PORTS),
          said(PORTS, OXPCSI_INIT_SERVICE_REJ)},
         it_ended},
    };
    return all;
}

// --- Mutation, event by event

std::minstd_rand chance;

unsigned below(size_t limit) {
    return static_cast<unsigned>(chance() % limit);
}
uint8_t octet(size_t limit = 256) {
    return static_cast<uint8_t>(below(limit));
}
// Mostly a message that its sender sends to whom it talks to; seldom of the rare kinds.
event random_event() {
    event one = {octet(4), octet(PEERS), octet(), {}, {}};
    if (one.kind == 2)
        one.kind = static_cast<uint8_t>(event_kind::forge);
    else if (one.kind == 3)
        one.kind = octet(static_cast<size_t>(event_kind::KINDS));
    const bool is_forged = one.kind == static_cast<uint8_t>(event_kind::forge);
    for (int tries = 0; tries < 100 && (one.kind == 0 || is_forged) && !is_sent_by(one.value, one.peer);
         tries++)
        one.value = octet();
    if (below(4) == 0)
        one.kind |= held;
    one.to = below(8) && !is_forged ? second_link * octet(2) : octet();
    for (edit& each : one.edits) {
        if (below(2) == 0)
            each = {octet(16), octet(static_cast<size_t>(change::KINDS)), octet(2) ? octet() : octet(1),
                    octet(2) ? octet() : octet(4)};
    }
    return one;
}
void mutate(events& all) {
    const auto at = all.begin() + below(all.size() + 1),
               end = at + below(std::min<size_t>(static_cast<size_t>(all.end() - at), 6) + 1);
    const events part(at, end), &life = lives()[below(lives().size())].all;
    const event fresh = random_event();
    const unsigned choice = all.empty() ? 0 : below(8);
    if (choice == 0)
        all.insert(at, life.begin() + (below(2) ? 0 : below(life.size())), life.end());
    else if (choice == 1)
        all.erase(at, end);
    else if (choice == 2)
        all.insert(all.begin() + below(all.size() + 1), part.begin(), part.end());
    else if (choice == 3)
        reinterpret_cast<uint8_t*>(&all[below(all.size())])[below(sizeof fresh)] = octet();
    else if (choice == 4)
        all[below(all.size())].edits[below(edits_max)] = fresh.edits[0];
    else
        all.insert(at, fresh);
}

} // namespace

std::vector<scenario> scenarios() {
    std::vector<scenario> all;
    for (const life& each : lives())
        all.push_back({each.name,
                       {reinterpret_cast<const char*>(each.all.data()), each.all.size() * sizeof(event)},
                       each.comes_to});
    return all;
}
unsigned reached() {
    return shared->saw_end ? it_ended : shared->keys_installed;
}

} // namespace fuzz

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
    using namespace fuzz;
    static void* const memory =
        mmap(nullptr, sizeof *shared, PROT_READ | PROT_WRITE, MAP_SHARED | MAP_ANONYMOUS, -1, 0);
    shared = static_cast<decltype(shared)>(memory);
    shared->is_over = shared->saw_reason_to_end = shared->saw_end = false;
    const pid_t process = fork();
    if (process == 0) {
        prctl(PR_SET_PDEATHSIG, SIGKILL);
        on_exit([](int status, void*) { end_life(status); }, nullptr);
        live(data, size);
        end_life(0);
    }
    int status = 0;
    pid_t ended;
    do
        ended = waitpid(process, &status, 0);
    while (ended < 0 && errno == EINTR); // the fuzzer's clock
    expect(process > 0 && ended == process && WIFEXITED(status) && shared->is_over,
           "a process lives to its end");
    expect(WEXITSTATUS(status) == 0 ||
               (WEXITSTATUS(status) == 1 && shared->saw_reason_to_end && shared->saw_end),
           "the daemon ends for a reason, with status 1 and a trace");
    copy_counters(shared->counters, true);
    return 0;
}

extern "C" size_t LLVMFuzzerCustomMutator(uint8_t* data, size_t size, size_t max_size, unsigned seed) {
    using namespace fuzz;
    chance.seed(seed);
    events all(size / sizeof(event));
    std::copy_n(data, all.size() * sizeof(event), reinterpret_cast<uint8_t*>(all.data()));
    for (unsigned count = 1 + below(3); count > 0; count--)
        mutate(all);
    all.resize(std::min({all.size(), events_max, max_size / sizeof(event)}));
    std::copy_n(reinterpret_cast<const uint8_t*>(all.data()), all.size() * sizeof(event), data);
    return all.size() * sizeof(event);
}
