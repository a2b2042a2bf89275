// Mailboxes of this process and of others, the queue of received messages, and supervisions.
#pragma once

#include "platform/oka/core/core.h"

namespace oka {

struct monitor;

enum class place : uint8_t { local, remote, gone };

struct mailbox {
    uint32_t id;
    mailbox* next_in_table = nullptr;
    place where;
    oka_mailbox known_through = OKA_MAILBOX_NONE; // our mailbox that last received something from it
    char* path = nullptr;                         // local: its name, or "unit/name" of a simulated other unit
    void (*send)(void* handle, envelope* message) = nullptr; // remote
    void* handle = nullptr;
    monitor* monitors = nullptr;
    mailbox* next_gone = nullptr;
};

mailbox* find_mailbox(oka_mailbox id);
mailbox* find_local(oka_mailbox id);
mailbox* find_local_path(const char* path);
mailbox* any_local();

mailbox* add_local(const char* path);
// For one that could not be announced.
void forget_local(mailbox* fresh);
// Deleting has two steps: the mailbox stops being local and its name is free; then what is queued for it is
// dropped and its monitors fire.
void close_local(mailbox* ended);
void finish_local(mailbox* ended);

oka_mailbox root_mailbox();
void set_root_mailbox(oka_mailbox root);

void enqueue(envelope* message);
// The next that is selected, or null.
envelope* take_queued(const uint32_t* numbers, uint32_t sender_selector);
void note_known_through(oka_mailbox sender, oka_mailbox receiver);
// Everything queued, and the mailboxes that are gone.
void forget_everything();

} // namespace oka
