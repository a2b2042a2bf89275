#include "platform/oka/simulation/conductor.h"

#include <cerrno>
#include <cstdlib>
#include <cstring>
#include <malloc.h>
#include <sys/socket.h>
#include <unistd.h>
#include <utility>

#include "platform/oka/core/core_internal.h"
#include "platform/oka/core/descriptors.h"
#include "platform/oka/core/id_table.h"
#include "platform/oka/core/names.h"
#include "platform/oka/core/oka_trace.h"
#include "platform/oka/simulation/conductor_frames.h"

namespace {

using oka::conduct;
using oka::conduct_record;
using oka::envelope;

// A mailbox of another process, by the conductor's name for it.
struct remote {
    uint32_t id;
    remote* next_in_table;
    oka_mailbox mailbox;
};

struct packet {
    uint32_t size;
    alignas(conduct_record) unsigned char bytes[oka::conduct_packet_max];
};

constinit struct {
    int socket = -1;
    uint64_t now_ns = 0;
    bool saw = false;
    oka::id_table<remote, 64> remotes;
    packet* out = nullptr; // only a conducted process has room for them
    packet* in = nullptr;
} self;

[[noreturn]] void end_with(const char* what) {
    OKA_ERROR("OKA: %s; a conducted process does not go on without its conductor", what);
    _exit(1);
}

void flush() {
    ssize_t sent;
    do
        sent = send(self.socket, self.out->bytes, self.out->size, MSG_NOSIGNAL);
    while (sent < 0 && errno == EINTR);
    explicit_bzero(self.out->bytes, self.out->size); // messages carry keys
    self.out->size = 0;
    if (sent < 0)
        end_with("The conductor is gone");
}

void put(const conduct_record& record, const void* first, size_t first_length, const void* second = nullptr,
         size_t second_length = 0) {
    conduct_record written = record;
    written.length = static_cast<uint32_t>(first_length + second_length);
    if (sizeof self.out->bytes - self.out->size < sizeof written + written.length)
        flush();
    for (const auto& [data, length] : {std::pair<const void*, size_t>{&written, sizeof written},
                                       {first, first_length},
                                       {second, second_length}}) {
        if (length > 0)
            memcpy(self.out->bytes + self.out->size, data, length);
        self.out->size += static_cast<uint32_t>(length);
    }
}

void put(const conduct_record& record) {
    put(record, nullptr, 0);
}

// The record that the conductor grants; its payload stands behind it.
const conduct_record& take_grant() {
    ssize_t size;
    do
        size = recv(self.socket, self.in->bytes, sizeof self.in->bytes, 0);
    while (size < 0 && errno == EINTR);
    const auto& record = *reinterpret_cast<const conduct_record*>(self.in->bytes);
    if (size < 0 || static_cast<size_t>(size) < sizeof record)
        end_with("The conductor is gone");
    self.in->size = static_cast<uint32_t>(size);
    if (self.in->size - sizeof record != record.length)
        end_with("The conductor speaks another language");
    self.now_ns = record.c;
    return record;
}

const unsigned char* payload() {
    return self.in->bytes + sizeof(conduct_record);
}

void send_to(void* handle, envelope* message) {
    const auto* to = static_cast<const remote*>(handle);
    put({.kind = conduct::send, .length = 0, .a = to->id, .b = message->sender, .c = 0},
        oka::bytes_of(message), message->size);
    oka::free_envelope(message);
}

oka_mailbox known(uint32_t alias) {
    if (alias == OKA_MAILBOX_NONE)
        return OKA_MAILBOX_NONE;
    remote* found = self.remotes.find(alias);
    if (!found) {
        found = new remote{.id = alias, .next_in_table = nullptr, .mailbox = OKA_MAILBOX_NONE};
        found->mailbox = oka::add_remote(send_to, found);
        self.remotes.insert(found);
    }
    return found->mailbox;
}

void forget(uint32_t alias) {
    remote* gone = self.remotes.find(alias);
    if (!gone)
        return;
    self.remotes.remove(gone);
    oka::remove_remote(gone->mailbox);
    delete gone;
}

void take_message(const conduct_record& record) {
    envelope* message = oka::new_envelope(record.length);
    memcpy(oka::bytes_of(message), payload(), record.length);
    message->from = oka::origin::mailbox;
    message->receiver = record.a;
    message->sender = known(record.b);
    oka::deliver(message);
    explicit_bzero(self.in->bytes, self.in->size);
}

void tell_balance() {
    oka::conduct_balance balance = {.messages = oka::count_messages(),
                                    .mailboxes = oka::count_mailboxes(),
                                    .monitors = oka::count_monitors(),
                                    .locates = oka::count_locates(),
                                    .timers = oka::count_timers(),
                                    .watches = oka::count_watches(),
                                    .heap = mallinfo2().uordblks};
    put({.kind = conduct::balance, .length = 0, .a = 0, .b = 0, .c = 0}, &balance, sizeof balance);
    flush();
}

void carry_out(const conduct_record& granted) {
    switch (granted.kind) {
    case conduct::deliver:
        return take_message(granted);
    case conduct::located:
        return oka::answer_locate(granted.a, known(granted.b));
    case conduct::gone:
        return forget(granted.b);
    case conduct::time:
        return;
    case conduct::look:
        self.saw = oka::wait_for_descriptors(0);
        return;
    case conduct::send:
    case conduct::withdraw:
    case conduct::locate:
    case conduct::cancel_locate:
    case conduct::announce:
    case conduct::wait:
    case conduct::balance:
    case conduct::hello:
    case conduct::welcome:
    case conduct::announced:
    case conduct::tell_balance:
        end_with("The conductor grants what was not asked for");
    }
}

// --- The clock

uint64_t now() {
    return self.now_ns;
}

bool wait(uint64_t deadline_ns) {
    // Nothing happens but what the conductor grants.
    if (deadline_ns <= self.now_ns)
        return true;
    uint32_t flags =
        (oka::watched_descriptors() > 0 ? oka::CONDUCT_WATCHES : 0u) | (self.saw ? oka::CONDUCT_SAW : 0u);
    self.saw = false;
    put({.kind = conduct::wait, .length = 0, .a = flags, .b = 0, .c = deadline_ns});
    flush();
    const conduct_record* granted = &take_grant();
    while (granted->kind == conduct::tell_balance) {
        tell_balance();
        granted = &take_grant();
    }
    carry_out(*granted);
    return true;
}

// --- The transport

int start(const char*) {
    return self.socket < 0 ? ENOTCONN : 0;
}

void stop() {
    flush();
    while (remote* left = self.remotes.take_any()) {
        oka::remove_remote(left->mailbox);
        delete left;
    }
}

bool announce(oka_mailbox mailbox, const char* name) {
    put({.kind = conduct::announce, .length = 0, .a = mailbox, .b = 0, .c = 0}, name, strlen(name));
    flush();
    const conduct_record& answer = take_grant();
    if (answer.kind != conduct::announced)
        end_with("The conductor does not answer");
    if (answer.a == 0)
        OKA_ERROR("OKA: The name '%s' is taken in this unit", name);
    return answer.a != 0;
}

void withdraw(oka_mailbox mailbox) {
    put({.kind = conduct::withdraw, .length = 0, .a = mailbox, .b = 0, .c = 0});
}

// What a unit does not offer to others is never found there.
void locate(uint32_t locate, const char* unit, const char* name) {
    if (*unit && !oka::is_offered(name))
        return;
    put({.kind = conduct::locate, .length = 0, .a = locate, .b = 0, .c = 0}, unit, strlen(unit) + 1, name,
        strlen(name));
}

void cancel_locate(uint32_t locate) {
    put({.kind = conduct::cancel_locate, .length = 0, .a = locate, .b = 0, .c = 0});
}

void meet_conductor() {
    const char* number = getenv("OKA_CONDUCTOR");
    char* end = nullptr;
    long socket = number && *number ? strtol(number, &end, 10) : -1;
    if (socket < 0 || *end)
        end_with("OKA_CONDUCTOR is not the number of a descriptor");
    self.socket = static_cast<int>(socket);
    self.out = new packet;
    self.in = new packet;
    self.out->size = 0;
    put({.kind = conduct::hello, .length = 0, .a = 0, .b = 0, .c = 0});
    flush();
    if (take_grant().kind != conduct::welcome)
        end_with("The conductor does not say welcome");
}

constexpr oka::clock conductor_clock = {.now_ns = now, .wait = wait};

constexpr oka::transport conductor_transport = {.name = "conductor",
                                                .between_hosts = false,
                                                .start = start,
                                                .stop = stop,
                                                .announce = announce,
                                                .withdraw = withdraw,
                                                .locate = locate,
                                                .cancel_locate = cancel_locate};

} // namespace

namespace oka::simulation {

void plug_conductor() {
    meet_conductor();
    plug_clock(&conductor_clock);
    plug_transport(&conductor_transport);
}

} // namespace oka::simulation
