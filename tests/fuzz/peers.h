// Those whom the daemon talks to. Each is a mailbox that answers as it should, so that links get secured by
// themselves, and that sends any message of the protocols with some of its fields changed.
#pragma once

#include <cstdint>

#include "platform/oka.h"

namespace fuzz {

enum peer_index : uint8_t { PORTS, MANAGER_1, MANAGER_2, KAY_1, KAY_2, KEY_SERVER, STRANGER, PEERS };

// What a field of a message is given instead of its good value.
enum class change : uint8_t {
    none,
    value,
    reference, // a connection or procedure reference of some peer
    name,      // one of the texts in use
    filled,    // without an end
    cut,       // the message ends within the field
    extended,  // the message goes on behind its end
    KINDS,
};
struct edit {
    uint8_t field; // counted from 0, and around
    uint8_t how;   // change
    uint8_t high, low;
};

constexpr unsigned edits_max = 3; // of one message

// A message's row in the table, and whether the peer is one that sends it.
uint8_t row_of(uint32_t number);
bool is_sent_by(unsigned row, unsigned peer);

bool exists(unsigned peer);
void appear(unsigned peer);
void disappear(unsigned peer);
void oblige(unsigned peer); // to answer, or not any more
// Of what the peer says by itself, the one after `answers` others is edited.
void slip(unsigned peer, unsigned answers, const edit* edits);
// Begins to look for the mailbox that the peer talks to.
void locate(unsigned peer);
// Of the links, 0 is with unit 7, whose key server is this unit's, and 1 with unit 1, which has it. `to`
// selects among the daemon's known mailboxes; 0 is the one that the peer talks to.
void say(unsigned peer, unsigned row, unsigned to, unsigned link, const edit* edits, unsigned edit_count);
// What the peer would say to whom it talks to comes from another peer's mailbox.
void forge(unsigned peer, unsigned row, unsigned by, unsigned link, const edit* edits, unsigned edit_count);

// Takes a message that was received; false when it is not a peer's.
bool heard(const oka_message* message);
unsigned times_heard(unsigned peer, uint32_t number);

} // namespace fuzz
