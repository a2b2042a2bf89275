// Message buffers. Messages carry keys, so a buffer is wiped before it goes back to the allocator.
#include <cstdio>
#include <cstdlib>
#include <cstring>

#include "platform/oka/core/core_internal.h"

namespace {

uint32_t live_messages = 0;

oka::envelope* envelope_of(const oka_message* message) {
    auto* bytes = reinterpret_cast<unsigned char*>(const_cast<oka_message*>(message));
    return reinterpret_cast<oka::envelope*>(bytes - offsetof(oka::envelope, message));
}

// No trace: the trace service looks into messages, and must not be needed by them.
[[noreturn]] void end_without_memory(size_t wanted) {
    fprintf(stderr, "OKA: Memory allocation of %zu bytes failed\n", wanted);
    abort();
}

} // namespace

namespace oka {

static_assert(offsetof(envelope, message) == offsetof(envelope, head_room) + sizeof(envelope::head_room));

envelope* new_envelope(uint32_t size) {
    size_t wanted = offsetof(envelope, message) + size;
    void* memory = calloc(1, wanted < sizeof(envelope) ? sizeof(envelope) : wanted);
    if (!memory)
        end_without_memory(wanted);
    auto* fresh = static_cast<envelope*>(memory);
    fresh->receiver = OKA_MAILBOX_NONE;
    fresh->sender = OKA_MAILBOX_NONE;
    fresh->size = size;
    ++live_messages;
    return fresh;
}

void free_envelope(envelope* message) {
    if (!message)
        return;
    explicit_bzero(message->head_room, sizeof message->head_room + message->size);
    free(message);
    --live_messages;
}

uint32_t count_messages() {
    return live_messages;
}

envelope* take_envelope(oka_message** message) {
    if (!message || !*message)
        return nullptr;
    envelope* taken = envelope_of(*message);
    *message = nullptr;
    return taken;
}

} // namespace oka

oka_message* oka_alloc(size_t size, uint32_t number) {
    if (size > UINT32_MAX / 2)
        end_without_memory(size);
    if (size < sizeof(oka_message))
        size = sizeof(oka_message);
    oka::envelope* fresh = oka::new_envelope(static_cast<uint32_t>(size));
    fresh->message.number = number;
    return &fresh->message;
}

void oka_free(oka_message** message) {
    oka::free_envelope(oka::take_envelope(message));
}

oka_mailbox oka_sender(const oka_message* message) {
    return envelope_of(message)->sender;
}

bool oka_is_prepared(const oka_message* message) {
    return envelope_of(message)->from != oka::origin::mailbox;
}

oka_mailbox oka_receiver(const oka_message* message) {
    return envelope_of(message)->receiver;
}

uint32_t oka_size(const oka_message* message) {
    return envelope_of(message)->size;
}
