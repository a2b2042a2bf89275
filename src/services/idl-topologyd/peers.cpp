#include "services/idl-topologyd/peers.h"

#include <algorithm>
#include <string>
#include <vector>

#include "base/dispatch.h"
#include "base/trace.h"
#include "protocols/message_numbers.h"
#include "services/common/options.h"

namespace topologyd {

namespace {

using namespace tavu;
using namespace services;

struct peer {
    oka_hunt_path path;
    oka_mailbox mailbox = OKA_MAILBOX_NONE;
    oka_monitor_ref monitor = 0;
    uint64_t rejected = 0; // reference and reason; once is enough until it says something that is right
};

// What a search and a supervision deliver.
struct peer_notice {
    TAVU_FIELD(0, number, host32);
    TAVU_FIELD(4, index, be32);
};
TAVU_WIRE_LAYOUT(peer_notice, 8);

struct {
    peers_callbacks callbacks = {};
    oka_mailbox mailbox = OKA_MAILBOX_NONE;
    std::vector<peer> peers; // none ever leaves, so an index stays good
} self;

template<class Predicate>
peer* find_peer(Predicate accepts) {
    auto found = std::find_if(self.peers.begin(), self.peers.end(), accepts);
    return found == self.peers.end() ? nullptr : &*found;
}

peer* peer_at(const oka_hunt_path& path) {
    return find_peer([&path](const peer& candidate) { return candidate.path == path; });
}

void locate(const peer& wanted) {
    outgoing<peer_notice> prepared(PEER_UP_IND);
    prepared->index = static_cast<uint32_t>(&wanted - self.peers.data());
    std::string name = std::string(wanted.path.c_str()) + "/" + topology_peer_mailbox_name;
    oka_locate_async(name.c_str(), prepared.prepared(), self.mailbox);
}

peer* noticed(const oka_message* message) {
    if (oka_size(message) != sizeof(peer_notice) || oka_sender(message) == OKA_MAILBOX_NONE)
        return nullptr;
    uint32_t index = as<peer_notice>(message).index;
    return index < self.peers.size() ? &self.peers[index] : nullptr;
}

void handle_peer_up_ind(const oka_message* message) {
    peer* found = noticed(message);
    if (!found || found->mailbox != OKA_MAILBOX_NONE)
        return;
    found->mailbox = oka_sender(message);
    found->rejected = 0;
    outgoing<peer_notice> prepared(PEER_DOWN_IND);
    prepared->index = uint32_t{as<peer_notice>(message).index};
    found->monitor = oka_monitor(found->mailbox, prepared.prepared());
    TRACE_INFO("TOPOLOGYD: The manager at '%s' is found", found->path.c_str());
    self.callbacks.handle_found(found->path);
}

void handle_peer_down_ind(const oka_message* message) {
    peer* lost = noticed(message);
    if (!lost || lost->mailbox != oka_sender(message))
        return;
    TRACE_INFO("TOPOLOGYD: The manager at '%s' is gone; its links are taken down", lost->path.c_str());
    oka_unmonitor(lost->monitor);
    lost->monitor = 0;
    lost->mailbox = OKA_MAILBOX_NONE;
    oka_hunt_path path = lost->path;
    locate(*lost);
    self.callbacks.handle_lost(path);
}

void send_rej(const oka_message* message, topology_reject_reason reason, const std::string& words) {
    peer* to = find_peer([message](const peer& each) { return each.mailbox == oka_sender(message); });
    uint32_t reference = as<message_header>(message).procedure_reference;
    uint64_t rejected = uint64_t{reference} << 32 | reason;
    if (to && to->rejected == rejected)
        return;
    if (to)
        to->rejected = rejected;
    outgoing<topology_rej> rej(TOPOLOGY_PEER_LINK_REJ);
    rej->header.procedure_reference = reference;
    rej->reason = reason;
    rej->words.assign(words.c_str());
    TRACE_SEND(rej, oka_sender(message), "TOPOLOGYD: %s: %s", topology_msg_no_to_str(rej.number()),
               words.c_str());
    rej.send(oka_sender(message), self.mailbox);
}

// The version comes first, since it decides what the rest means.
bool verify_word(const oka_message* message) {
    if (oka_size(message) < sizeof(topology_req)) {
        TRACE_ERROR("TOPOLOGYD: %s of %u bytes, dropped", topology_msg_no_to_str(message->number),
                    oka_size(message));
        return false;
    }
    uint32_t version = as<topology_req>(message).version;
    if (version != topology_peer_version) {
        send_rej(message, TOPOLOGY_REJ_UNSUPPORTED_PROTOCOL_VERSION,
                 "it is " QEL_TAVU_VERSION " and speaks version " + std::to_string(topology_peer_version) +
                     " of the protocol between units, not " + std::to_string(version) +
                     "; install the same version at both ends");
        return false;
    }
    if (oka_size(message) != sizeof(topology_peer_link_ind)) {
        send_rej(message, TOPOLOGY_REJ_MALFORMED,
                 "the indication has " + std::to_string(oka_size(message)) + " bytes instead of " +
                     std::to_string(sizeof(topology_peer_link_ind)));
        return false;
    }
    const auto& word = as<topology_peer_link_ind>(message);
    if (word.port.is_terminated() && word.remote_port.is_terminated() && word.words.is_terminated() &&
        word.incarnation != 0 && word.phase <= TOPOLOGY_PHASE_ENCRYPTED)
        return true;
    send_rej(message, TOPOLOGY_REJ_MALFORMED, "the indication makes no sense");
    return false;
}

void handle_peer_link_ind(const oka_message* message) {
    if (!verify_word(message))
        return;
    const auto& word = as<topology_peer_link_ind>(message);
    TRACE_RECEIVE(message, "TOPOLOGYD: %s for port '%s': incarnation=%u, seen incarnation=%u, phase=%s",
                  topology_msg_no_to_str(message->number), word.remote_port.c_str(),
                  uint32_t{word.incarnation}, uint32_t{word.seen_incarnation}, phase_to_word(word.phase));
    if (const char* objection = self.callbacks.handle_word(word, oka_sender(message)))
        send_rej(message, TOPOLOGY_REJ_UNKNOWN_PORT, objection);
    else if (peer* from =
                 find_peer([message](const peer& each) { return each.mailbox == oka_sender(message); }))
        from->rejected = 0;
}

// A malformed report is dropped without an answer: the next one comes within seconds.
void handle_peer_secy_ind(const oka_message* message) {
    const auto* word = view<topology_peer_secy_ind>(message);
    if (!word || word->version != topology_peer_version || !word->port.is_terminated() ||
        !word->remote_port.is_terminated())
        return;
    TRACE_RECEIVE(message, "TOPOLOGYD: %s for port '%s'", topology_msg_no_to_str(message->number),
                  word->remote_port.c_str());
    self.callbacks.handle_secy(*word, oka_sender(message));
}

void handle_peer_link_rej(const oka_message* message) {
    const auto* rej = view<topology_rej>(message);
    if (!rej)
        return;
    TRACE_RECEIVE(message, "TOPOLOGYD: %s: %s", topology_msg_no_to_str(message->number),
                  rej->words.printable().octets);
    self.callbacks.handle_refusal(*rej, oka_sender(message));
}

template<class Word>
void fill(outgoing<Word>& indication, const Word& word) {
    message_header header = word.header;
    header.number = indication->header.number;
    *indication.operator->() = word;
    indication->header = header;
    indication->version = topology_peer_version;
}

constexpr tavu::dispatch_row dispatch_table[] = {
    {PEER_UP_IND, handle_peer_up_ind, tavu::origin::prepared},
    {PEER_DOWN_IND, handle_peer_down_ind, tavu::origin::prepared},
    {TOPOLOGY_PEER_LINK_IND, handle_peer_link_ind},
    {TOPOLOGY_PEER_LINK_REJ, handle_peer_link_rej},
    {TOPOLOGY_PEER_SECY_IND, handle_peer_secy_ind},
};

} // namespace

bool peers_start(oka_mailbox root, const peers_callbacks* callbacks) {
    self.callbacks = *callbacks;
    self.mailbox = oka_clone_mailbox(root, topology_peer_mailbox_name);
    if (self.mailbox != OKA_MAILBOX_NONE)
        return true;
    TRACE_ERROR("TOPOLOGYD: The mailbox '%s' cannot be had; does another manager run in this unit?",
                topology_peer_mailbox_name);
    return false;
}

void peers_stop() {
    for (const peer& each : self.peers)
        oka_unmonitor(each.monitor);
    self.peers.clear();
    if (self.mailbox != OKA_MAILBOX_NONE)
        oka_delete_mailbox(self.mailbox);
    self.mailbox = OKA_MAILBOX_NONE;
}

void peers_look_for(const oka_hunt_path& path) {
    if (peer_at(path))
        return;
    self.peers.push_back({.path = path});
    locate(self.peers.back());
}

oka_mailbox peers_find(const oka_hunt_path& path) {
    const peer* found = peer_at(path);
    return found ? found->mailbox : OKA_MAILBOX_NONE;
}

void peers_tell(const oka_hunt_path& path, const topology_peer_link_ind& word) {
    outgoing<topology_peer_link_ind> indication(TOPOLOGY_PEER_LINK_IND);
    fill(indication, word);
    oka_mailbox peer = peers_find(path);
    TRACE_SEND(indication, peer, "TOPOLOGYD: %s of port '%s': incarnation=%u, seen incarnation=%u, phase=%s",
               topology_msg_no_to_str(indication.number()), word.port.c_str(), uint32_t{word.incarnation},
               uint32_t{word.seen_incarnation}, phase_to_word(word.phase));
    indication.send(peer, self.mailbox);
}

void peers_tell(const oka_hunt_path& path, const topology_peer_secy_ind& word) {
    outgoing<topology_peer_secy_ind> indication(TOPOLOGY_PEER_SECY_IND);
    fill(indication, word);
    oka_mailbox peer = peers_find(path);
    TRACE_SEND(indication, peer, "TOPOLOGYD: %s of port '%s'", topology_msg_no_to_str(indication.number()),
               word.port.c_str());
    indication.send(peer, self.mailbox);
}

bool peers_dispatch_message(const oka_message* message) {
    if (oka_receiver(message) != self.mailbox)
        return false;
    if (!tavu::dispatch_by(dispatch_table, message))
        TRACE_ERROR("TOPOLOGYD: Message 0x%x of %u bytes is none that managers send each other, dropped",
                    message->number, oka_size(message));
    return true;
}

} // namespace topologyd
