// The protocol of the topology manager, through which people and programs see and steer the links of a node.
// idl-topologyd is the server, on the mailbox "idl-topologyd"; tavuctl is a client.
//
// A request carries the protocol version right after its header, in every version of the protocol, so that
// each side can tell the other what it does not speak. Answers echo both references of their request;
// watch indications echo those of the watch request. Times are ages, so that nobody needs the other's clock.
//
// The managers at the two ends of a link speak with each other too, by a protocol with a version of its own:
// one indication, in which each tells the other the whole of what it has to say of the link, whenever that
// changed. So nothing is lost that the next one would not bring, and none has to be answered.
#pragma once

#include <cstdint>

#include "base/wire.h"
#include "protocols/oxmsi_messages.h"

namespace services {

using tavu::array_of;
using tavu::be32;
using tavu::message_header;
using tavu::oka_hunt_path;
using tavu::port_name;
using tavu::text;

constexpr const char* topology_mailbox_name = "idl-topologyd";
// For the managers of other units alone, so that nothing else can be asked from there.
constexpr const char* topology_peer_mailbox_name = "idl-topologyd-peer";
constexpr uint32_t topology_protocol_version = 1;
constexpr uint32_t topology_peer_version = 1;

#define TOPOLOGY_MESSAGES(X)                                                                                 \
    X(TOPOLOGY_STATUS_REQ, 0x1b1301)                                                                         \
    X(TOPOLOGY_STATUS_CFM, 0x1b1302)                                                                         \
    X(TOPOLOGY_STATUS_REJ, 0x1b1303)                                                                         \
    X(TOPOLOGY_WATCH_REQ, 0x1b1304)                                                                          \
    X(TOPOLOGY_WATCH_CFM, 0x1b1305)                                                                          \
    X(TOPOLOGY_WATCH_REJ, 0x1b1306)                                                                          \
    X(TOPOLOGY_WATCH_IND, 0x1b1307)                                                                          \
    X(TOPOLOGY_LINK_SET_REQ, 0x1b1308)                                                                       \
    X(TOPOLOGY_LINK_SET_CFM, 0x1b1309)                                                                       \
    X(TOPOLOGY_LINK_SET_REJ, 0x1b130a)                                                                       \
    X(TOPOLOGY_PEER_LINK_IND, 0x1b130b)                                                                      \
    X(TOPOLOGY_PEER_LINK_REJ, 0x1b130c)                                                                      \
    X(TOPOLOGY_PEER_SECY_IND, 0x1b130d)

#define TOPOLOGY_NUMBER_CONSTANT(name, number) constexpr uint32_t name = number;
TOPOLOGY_MESSAGES(TOPOLOGY_NUMBER_CONSTANT)
#undef TOPOLOGY_NUMBER_CONSTANT

enum topology_reject_reason : uint32_t {
    TOPOLOGY_REJ_UNSUPPORTED_PROTOCOL_VERSION = 1,
    TOPOLOGY_REJ_MALFORMED = 2,
    TOPOLOGY_REJ_BUSY = 3,
    TOPOLOGY_REJ_UNKNOWN_PORT = 4,
    TOPOLOGY_REJ_INVALID_LINK_STATUS = 5,
    TOPOLOGY_REJ_NOT_CONNECTED = 6, // nothing was changed
    TOPOLOGY_REJ_REFUSED = 7,       // by the daemon; the setting is kept and asked for again
    TOPOLOGY_REJ_OVERTAKEN = 8,     // a newer setting or file took its place before it was confirmed
};

// How far the manager has come with the daemon.
enum topology_daemon_state : uint32_t {
    TOPOLOGY_DAEMON_LOCATING = 0,
    TOPOLOGY_DAEMON_CONNECTING = 1,
    TOPOLOGY_DAEMON_REFUSED = 2, // it will be asked again
    TOPOLOGY_DAEMON_CONNECTED = 3,
};

// How far the publication of a link has come.
enum topology_publication : uint32_t {
    TOPOLOGY_LINK_WAITING = 0,   // not asked for: no daemon, or it refused and will be asked again
    TOPOLOGY_LINK_REQUESTED = 1, // the daemon has not answered yet
    TOPOLOGY_LINK_PUBLISHED = 2,
    TOPOLOGY_LINK_REMOVING = 3, // no longer in the file
};

// How far a link has come at one end towards being secured.
enum topology_phase : uint32_t {
    TOPOLOGY_PHASE_OFF = 0, // the file or an operator wants it otherwise
    TOPOLOGY_PHASE_NO_DAEMON = 1,
    TOPOLOGY_PHASE_STOPPING = 2, // the daemon has not confirmed that the link is down
    TOPOLOGY_PHASE_PAUSED = 3,   // down, and not to be tried for a while
    TOPOLOGY_PHASE_DOWN = 4,     // ready to begin
    TOPOLOGY_PHASE_STARTING = 5, // published up; the daemon has not been heard of it
    TOPOLOGY_PHASE_PORT_DOWN = 6,
    TOPOLOGY_PHASE_JOINING = 7,
    TOPOLOGY_PHASE_ENCRYPTED = 8,
};

// What keeps a link from being secured.
enum topology_fault_code : uint32_t {
    TOPOLOGY_FAULT_NONE = 0,
    TOPOLOGY_FAULT_NO_DAEMON = 1,
    TOPOLOGY_FAULT_REFUSED = 2, // by the daemon
    TOPOLOGY_FAULT_PORT_DOWN = 3,
    TOPOLOGY_FAULT_FAILED = 4,  // the daemon could not secure the port
    TOPOLOGY_FAULT_BROKEN = 5,  // it was secured, and is not any more
    TOPOLOGY_FAULT_NO_KEYS = 6, // none came in time
    TOPOLOGY_FAULT_NO_PEER = 7,
    TOPOLOGY_FAULT_PEER_REFUSES = 8, // to talk about the link
    TOPOLOGY_FAULT_SILENT_PEER = 9,
    TOPOLOGY_FAULT_MPIDS = 10,
    TOPOLOGY_FAULT_OFF = 11, // secured is wanted at one end only
    TOPOLOGY_FAULT_FLAPPING = 12,
    TOPOLOGY_FAULT_STALLED = 13, // the daemon stands still
    // Reported encrypted, but by what the SecYs show:
    TOPOLOGY_FAULT_UNPROTECTED = 14,    // this end's does not encrypt
    TOPOLOGY_FAULT_KEYS_DIFFER = 15,    // the one end cannot receive what the other sends
    TOPOLOGY_FAULT_KEYS_TOO_OLD = 16,   // they are not changed any more
    TOPOLOGY_FAULT_FRAMES_DROPPED = 17, // none of this end's arrives at the other
};

// At which end.
enum topology_end : uint32_t {
    TOPOLOGY_END_NONE = 0,
    TOPOLOGY_END_HERE = 1,
    TOPOLOGY_END_THERE = 2,
};

// In place of a link status: what the links file says.
constexpr uint32_t topology_status_of_file = 0xffffffff;

// How long ago; all bits set for "never".
struct topology_age {
    TAVU_FIELD(0, seconds, be32);
    TAVU_FIELD(4, milliseconds, be32); // below 1000

    static topology_age of_ms(uint64_t ms) {
        return {static_cast<uint32_t>(ms / 1000), static_cast<uint32_t>(ms % 1000)};
    }
    static topology_age never() { return {0xffffffff, 0xffffffff}; }
    bool is_never() const { return seconds == 0xffffffff; }
    uint64_t in_ms() const { return uint64_t{seconds} * 1000 + milliseconds; }
};
TAVU_WIRE_LAYOUT(topology_age, 8);

// Status and watch requests.
struct topology_req {
    TAVU_FIELD(0, header, message_header);
    TAVU_FIELD(12, version, be32);
};
TAVU_WIRE_LAYOUT(topology_req, 16);

struct topology_link_set_req {
    TAVU_FIELD(0, header, message_header);
    TAVU_FIELD(12, version, be32);
    TAVU_FIELD(16, port, port_name);
    TAVU_FIELD(32, status, be32); // oxmsi_ltm_link_status or topology_status_of_file
};
TAVU_WIRE_LAYOUT(topology_link_set_req, 36);

// Every reject. The words say what is wrong and what to do.
struct topology_rej {
    TAVU_FIELD(0, header, message_header);
    TAVU_FIELD(12, reason, be32); // topology_reject_reason
    TAVU_FIELD(16, words, text<240>);
};
TAVU_WIRE_LAYOUT(topology_rej, 256);

// What is wrong and what to do, for people.
using fault_words = text<200>;

// What a manager tells the one at the other end of a link.
struct topology_peer_link_ind {
    TAVU_FIELD(0, header,
               message_header);      // procedure reference: the link's at the sender, echoed by a reject
    TAVU_FIELD(12, version, be32);   // topology_peer_version
    TAVU_FIELD(16, port, port_name); // the sender's
    TAVU_FIELD(32, remote_port, port_name); // the receiver's
    TAVU_FIELD(48, remote_mpid, be32);      // the receiver's, as the sender's links file has it
    TAVU_FIELD(52, incarnation, be32);      // never 0; another one whenever the sender starts over
    TAVU_FIELD(56, seen_incarnation, be32); // the receiver's that the sender heard of last, 0 for none
    TAVU_FIELD(60, phase, be32);            // topology_phase
    TAVU_FIELD(64, fault, be32);            // topology_fault_code of the sender's own end
    TAVU_FIELD(68, fault_since, topology_age);
    TAVU_FIELD(76, words, fault_words);
};
TAVU_WIRE_LAYOUT(topology_peer_link_ind, 276);

// Names a key without telling anything of it; all zero for none.
struct key_fingerprint {
    uint8_t octets[16];

    bool operator==(const key_fingerprint& other) const {
        return memcmp(octets, other.octets, sizeof octets) == 0;
    }
};
TAVU_WIRE_LAYOUT(key_fingerprint, 16);

constexpr size_t peer_secy_receive_keys = 8;

// What the SecY of a link's end has installed and counted, told while the link is encrypted.
struct topology_peer_secy_ind {
    TAVU_FIELD(0, header, message_header);
    TAVU_FIELD(12, version, be32);          // topology_peer_version
    TAVU_FIELD(16, port, port_name);        // the sender's
    TAVU_FIELD(32, remote_port, port_name); // the receiver's
    TAVU_FIELD(48, incarnation, be32);      // the sender's, and the receiver's that it is up with
    TAVU_FIELD(52, seen_incarnation, be32);
    TAVU_FIELD(56, transmit_key, key_fingerprint); // the one that encrypts
    TAVU_FIELD(72, receive_keys, array_of<key_fingerprint, peer_secy_receive_keys>);
    TAVU_FIELD(200, accepted_high, be32); // frames, since the SecY was made
    TAVU_FIELD(204, accepted_low, be32);
};
TAVU_WIRE_LAYOUT(topology_peer_secy_ind, 208);

// One link with its facts.
struct topology_link {
    TAVU_FIELD(0, port, port_name);
    TAVU_FIELD(16, remote_port, port_name);
    TAVU_FIELD(32, hunt_path, oka_hunt_path);
    TAVU_FIELD(96, link_id, be32);
    TAVU_FIELD(100, remote_mpid, be32);
    TAVU_FIELD(104, du_type, be32);           // oxmsi_du_type
    TAVU_FIELD(108, status_of_file, be32);    // oxmsi_ltm_link_status
    TAVU_FIELD(112, status, be32);            // the one that is wanted: of the file, or set over it
    TAVU_FIELD(116, is_status_set, be32);     // 1 when set over the file's
    TAVU_FIELD(120, publication, be32);       // topology_publication
    TAVU_FIELD(124, published, topology_age); // since the present attributes were first sent to this daemon
    TAVU_FIELD(132, oper_state, be32);        // oxmsi_port_oper_state of the controlled port
    TAVU_FIELD(136, encryption_state, be32);  // oxmsi_port_encryption_state
    TAVU_FIELD(140, state_since, topology_age);
    TAVU_FIELD(148, state_told, topology_age); // when the daemon said so last
    TAVU_FIELD(156, last_request, be32);       // message number, 0 for none
    TAVU_FIELD(160, requested, topology_age);
    TAVU_FIELD(168, last_answer, be32); // message number, 0 for none
    TAVU_FIELD(172, last_reason, be32); // oxmsi_reject_reason, 0 for a confirm
    TAVU_FIELD(176, answered, topology_age);
    TAVU_FIELD(184, milliseconds_to_next, be32); // until the daemon is asked again; 0 when nothing is planned
    TAVU_FIELD(188, phase, be32);                // topology_phase
    TAVU_FIELD(192, fault, be32);                // topology_fault_code
    TAVU_FIELD(196, fault_end, be32);            // topology_end
    TAVU_FIELD(200, fault_since, topology_age);
    TAVU_FIELD(208, words, fault_words);
};
TAVU_WIRE_LAYOUT(topology_link, 408);

// The state of all links: status and watch confirms, and watch indications. `link_count` links follow.
struct topology_snapshot {
    TAVU_FIELD(0, header, message_header);
    TAVU_FIELD(12, version, be32);
    TAVU_FIELD(16, daemon_state, be32); // topology_daemon_state
    TAVU_FIELD(20, daemon_since, topology_age);
    TAVU_FIELD(28, daemon_reason, be32); // oxmsi_reject_reason of the last refused connection, 0 for none
    TAVU_FIELD(32, links_file, text<256>);
    TAVU_FIELD(288, file_error, text<512>); // why the file is not in force, "" when it is
    TAVU_FIELD(800, link_count, be32);
};
TAVU_WIRE_LAYOUT(topology_snapshot, 804);

// The link as it stands once the daemon confirmed the setting.
struct topology_link_set_cfm {
    TAVU_FIELD(0, header, message_header);
    TAVU_FIELD(12, link, topology_link);
};
TAVU_WIRE_LAYOUT(topology_link_set_cfm, 420);

const char* topology_msg_no_to_str(uint32_t number);

// Link status and kind of remote unit as people write them: "up", "macsec-pending", "type-3".
const char* link_status_to_word(uint32_t status);
bool link_status_from_word(const char* word, uint32_t& status);
const char* du_type_to_word(uint32_t du_type);
bool du_type_from_word(const char* word, uint32_t& du_type);
// The words of all link status values, "a, b or c".
const char* link_status_words();

// "encrypted", "no-daemon"; for programs as well as for people.
const char* phase_to_word(uint32_t phase);
const char* fault_to_word(uint32_t fault);

// What an answer of the daemon means, for people: "link added", "no such port on this unit".
const char* request_in_words(uint32_t number);
const char* reject_reason_in_words(uint32_t reason);

} // namespace services
