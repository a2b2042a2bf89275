// Who may be at the other end of a connection: the units that OKA_PEERS names, and between hosts only a
// process that knows the secret of the node's group. Both ends prove that they know it, and neither tells it:
// each answers the other's random number with a MAC over all that was said in the greeting. The addresses of
// the two sockets are in it, so that an answer is of no use on another connection, neither later nor by
// somebody in between.
#pragma once

#include <cstddef>
#include <cstdint>

#include "platform/oka/links/link_frames.h"

namespace oka {

// What one end has told of itself.
struct greeting_end {
    const process_id* process;
    const nonce* challenge;
    const char* unit;
    uint64_t socket; // its address, as the family has it
};

struct greeting_facts {
    greeting_end connector, acceptor;
    oka_mailbox mailbox; // that of the acceptor
};

// The end that proves something.
enum class prover : uint8_t { connector = 1, acceptor = 2 };

// Reads OKA_PEERS. Returns 0 or an error number that it has reported.
int read_group();
// The same for the secret, which is needed when a transport leads to other hosts.
int read_group_secret(const char* path);
void forget_group();
bool has_group_secret();

// Zero without a secret.
proof make_proof(prover by, const greeting_facts& facts);
bool is_proof(const proof& given, const proof& expected); // in constant time

// Whether processes of that unit may speak to this one, after an error trace if not.
bool is_allowed_unit(const char* unit);

} // namespace oka
