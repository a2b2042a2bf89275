// Whether an encrypted link is encrypted: looks at what this end's SecY has installed, beside what the other
// end tells of its own, and says what does not hold. What does not hold at two looks in a row is a fault;
// between two looks keys may change. Reads the SecY, knows no time but the one it is told.
#pragma once

#include <cstdint>

#include "protocols/topology_messages.h"

namespace topologyd {

constexpr uint32_t look_interval_ms = 5000;
// The key server replaces keys every 180 s.
constexpr uint64_t oldest_key_ms = 200'000;
// Frames that were sent between two looks, of which one at least arrives. Fewer may all be for groups to
// which the other end does not listen.
constexpr uint64_t telling_frames = 10;

// What a SecY has installed and counted.
struct secy_look {
    bool encrypts = false;
    services::key_fingerprint transmit_key{};
    services::key_fingerprint receive_keys[services::peer_secy_receive_keys]{};
    uint64_t sent = 0, accepted = 0;                 // frames
    uint64_t late = 0, invalid = 0, without_key = 0; // frames that were dropped on arrival
};

// False when this process cannot see the port's SecY; then nothing is watched.
bool look_at_secy(const tavu::port_name& port, secy_look& look);

// The same doubt at one look and the next.
struct repeated_doubt {
    services::topology_fault_code code = services::TOPOLOGY_FAULT_NONE;
    uint32_t looks = 0;
};

struct secy_watch {
    services::key_fingerprint transmit_key{};
    uint64_t transmit_key_since_ms = 0;
    secy_look last{};
    bool has_last = false;
    repeated_doubt of_own{}, of_both{};

    // Of the last two words of the other end.
    uint64_t sent_at[2]{};     // by us
    uint64_t accepted_at[2]{}; // by it
    uint32_t words = 0;
    uint64_t word_ms = 0;            // when the last was taken
    uint32_t futile_start_overs = 0; // since a frame of ours arrived

    // The fault that was found last, until a look shows that it is gone.
    services::topology_fault_code found = services::TOPOLOGY_FAULT_NONE;
};

// The link is not encrypted any more, or anew. What was found stays until a look shows otherwise.
void begin_watch(secy_watch& watch);
// This end's look, every look_interval_ms. Returns the fault that makes both ends start over, or NONE.
services::topology_fault_code take_own_look(secy_watch& watch, const secy_look& own, const char* port,
                                            uint64_t now_ms);
// Words that come faster than looks are made are no looks of their own: they waited somewhere, or are made
// up.
bool is_look_of_peer_due(const secy_watch& watch, uint64_t now_ms);
// The other end's, with ours of the same moment.
services::topology_fault_code take_look_of_peer(secy_watch& watch, const secy_look& own,
                                                const services::topology_peer_secy_ind& peer,
                                                uint64_t now_ms);
void fill_look(services::topology_peer_secy_ind& told, const secy_look& own);

} // namespace topologyd
