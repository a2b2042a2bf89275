#include "platform/oka_watch.h"

#include <cerrno>
#include <cstring>
#include <sys/epoll.h>

#include "platform/oka/core/core_internal.h"
#include "platform/oka/core/descriptors.h"
#include "platform/oka/core/id_table.h"
#include "platform/oka/core/oka_trace.h"

namespace {

struct watch_record {
    uint32_t id = 0;
    watch_record* next_in_table = nullptr;
    oka::descriptor watched;
    oka_mailbox mailbox = OKA_MAILBOX_NONE;
    uint32_t number = 0;
    bool received = false; // and to be armed again
};

struct {
    oka::id_table<watch_record, 8> table;
    uint32_t last_id = 0;
    uint32_t received = 0;
} watches;

// The kernel reports one event and then stays silent until the watch is armed again.
constexpr uint32_t one_event = EPOLLIN | EPOLLONESHOT;

void ready(void* context, uint32_t) {
    auto* record = static_cast<watch_record*>(context);
    oka::envelope* message = oka::new_envelope(sizeof(oka_message));
    message->message.number = record->number;
    message->from = oka::origin::watch;
    message->reference = record->id;
    message->receiver = record->mailbox;
    oka::deliver(message);
}

void end_watch(watch_record* record) {
    oka::unwatch(record->watched);
    watches.table.remove(record);
    watches.received -= record->received;
    delete record;
}

} // namespace

namespace oka {

void watch_received(uint32_t watch) {
    if (watch_record* record = watches.table.find(watch)) {
        record->received = true;
        ++watches.received;
    }
}

void rearm_watches() {
    while (watches.received > 0) {
        watch_record* record = watches.table.find_if([](const watch_record& each) { return each.received; });
        record->received = false;
        --watches.received;
        if (!change_watch(record->watched, one_event))
            OKA_ERROR("OKA: Descriptor %d cannot be watched: %s", record->watched.fd, strerror(errno));
    }
}

void drop_watches_of(oka_mailbox mailbox) {
    auto owned = [mailbox](const watch_record& each) { return each.mailbox == mailbox; };
    while (watch_record* record = watches.table.find_if(owned))
        end_watch(record);
}

uint32_t count_watches() {
    return static_cast<uint32_t>(watches.table.size());
}

} // namespace oka

oka_watch_ref oka_watch(int fd, oka_mailbox mailbox, uint32_t number) {
    if (!oka::is_local(mailbox)) {
        OKA_ERROR("OKA: Descriptor %d cannot be watched for mailbox %u: there is none", fd, mailbox);
        return 0;
    }
    auto* record = new watch_record;
    record->watched = {.fd = fd, .ready = ready, .context = record};
    record->mailbox = mailbox;
    record->number = number;
    if (!oka::watch(record->watched, one_event)) {
        OKA_ERROR("OKA: Descriptor %d cannot be watched: %s", fd, strerror(errno));
        delete record;
        return 0;
    }
    record->id = oka::next_free_id(watches.last_id, watches.table);
    watches.table.insert(record);
    return record->id;
}

void oka_unwatch(oka_watch_ref watch) {
    watch_record* record = watches.table.find(watch);
    if (!record)
        return;
    end_watch(record);
    oka::drop_queued(oka::origin::watch, watch);
}
