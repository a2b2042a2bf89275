// The managers at the other ends of the links: finds each through its hunt path, supervises its mailbox, and
// looks for it again whenever it went away. Carries what the two managers of a link say to each other, and
// drops what is not said by the one that was found; what it means is its caller's business.
//
// A hunt path that was looked for once is looked for ever after: a search cannot be called off, and there are
// no more of them than hunt paths that a links file ever named.
#pragma once

#include "protocols/topology_messages.h"

namespace topologyd {

using services::oka_hunt_path;

struct peers_callbacks {
    void (*handle_found)(const oka_hunt_path& path);
    void (*handle_lost)(const oka_hunt_path& path);
    // A well-formed indication of this version. What it says may still be nonsense. Returns why it is not
    // taken, or null.
    const char* (*handle_word)(const services::topology_peer_link_ind& word, oka_mailbox sender);
    // A well-formed word about the SecY of the other end of a link.
    void (*handle_secy)(const services::topology_peer_secy_ind& word, oka_mailbox sender);
    // A reject: by its reference, of one link; of a protocol version that the peer does not speak, of all.
    void (*handle_refusal)(const services::topology_rej& rej, oka_mailbox sender);
};

// With a mailbox of its own, cloned from `root`. False when its name is taken.
[[nodiscard]] bool peers_start(oka_mailbox root, const peers_callbacks* callbacks);
void peers_stop();

// Looks for the manager at the path from now on.
void peers_look_for(const oka_hunt_path& path);
// OKA_MAILBOX_NONE while it is not found.
oka_mailbox peers_find(const oka_hunt_path& path);
// The number and the version are filled in.
void peers_tell(const oka_hunt_path& path, const services::topology_peer_link_ind& word);
void peers_tell(const oka_hunt_path& path, const services::topology_peer_secy_ind& word);

// True when the message was for this module's mailbox: it is handled, or dropped.
bool peers_dispatch_message(const oka_message* message);

} // namespace topologyd
