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

using tavu::be32;
using tavu::message_header;
using tavu::oka_hunt_path;
using tavu::port_name;
using tavu::text;

constexpr const char* topology_mailbox_name = "idl-topologyd";
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
    X(TOPOLOGY_PEER_LINK_REJ, 0x1b130c)

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
enum topology_trouble_code : uint32_t {
    TOPOLOGY_TROUBLE_NONE = 0,
    TOPOLOGY_TROUBLE_NO_DAEMON = 1,
    TOPOLOGY_TROUBLE_REFUSED = 2, // by the daemon
    TOPOLOGY_TROUBLE_PORT_DOWN = 3,
    TOPOLOGY_TROUBLE_FAILED = 4,  // the daemon could not secure the port
    TOPOLOGY_TROUBLE_BROKEN = 5,  // it was secured, and is not any more
    TOPOLOGY_TROUBLE_NO_KEYS = 6, // none came in time
    TOPOLOGY_TROUBLE_NO_PEER = 7,
    TOPOLOGY_TROUBLE_PEER_REFUSES = 8, // to talk about the link
    TOPOLOGY_TROUBLE_SILENT_PEER = 9,
    TOPOLOGY_TROUBLE_MPIDS = 10,
    TOPOLOGY_TROUBLE_OFF = 11, // secured is wanted at one end only
    TOPOLOGY_TROUBLE_RESTLESS = 12,
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
    be32 seconds;
    be32 milliseconds; // below 1000

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
    message_header header; //  0
    be32 version;          // 12
};
TAVU_WIRE_LAYOUT(topology_req, 16);

struct topology_link_set_req {
    message_header header; //  0
    be32 version;          // 12
    port_name port;        // 16
    be32 status;           // 32  oxmsi_ltm_link_status or topology_status_of_file
};
TAVU_WIRE_LAYOUT(topology_link_set_req, 36);

// Every reject. The words say what is wrong and what to do.
struct topology_rej {
    message_header header; //  0
    be32 reason;           // 12  topology_reject_reason
    text<240> words;       // 16
};
TAVU_WIRE_LAYOUT(topology_rej, 256);

// What is wrong and what to do, for people.
using trouble_words = text<200>;

// What a manager tells the one at the other end of a link.
struct topology_peer_link_ind {
    message_header header;      //  0  procedure reference: the link's at the sender, echoed by a reject
    be32 version;               // 12  topology_peer_version
    port_name port;             // 16  the sender's
    port_name remote_port;      // 32  the receiver's
    be32 remote_mpid;           // 48  the receiver's, as the sender's links file has it
    be32 life;                  // 52  never 0; another one whenever the sender starts over
    be32 seen_life;             // 56  the receiver's that the sender heard of last, 0 for none
    be32 phase;                 // 60  topology_phase
    be32 trouble;               // 64  topology_trouble_code of the sender's own end
    topology_age trouble_since; // 68
    trouble_words words;        // 76
};
TAVU_WIRE_LAYOUT(topology_peer_link_ind, 276);

// One link with the facts of its life.
struct topology_link {
    port_name port;             //   0
    port_name remote_port;      //  16
    oka_hunt_path hunt_path;    //  32
    be32 link_id;               //  96
    be32 remote_mpid;           // 100
    be32 du_type;               // 104  oxmsi_du_type
    be32 status_of_file;        // 108  oxmsi_ltm_link_status
    be32 status;                // 112  the one that is wanted: of the file, or set over it
    be32 is_status_set;         // 116  1 when set over the file's
    be32 publication;           // 120  topology_publication
    topology_age published;     // 124  since the present attributes were first sent to this daemon
    be32 oper_state;            // 132  oxmsi_port_oper_state of the controlled port
    be32 encryption_state;      // 136  oxmsi_port_encryption_state
    topology_age state_since;   // 140
    topology_age state_told;    // 148  when the daemon said so last
    be32 last_request;          // 156  message number, 0 for none
    topology_age requested;     // 160
    be32 last_answer;           // 168  message number, 0 for none
    be32 last_reason;           // 172  oxmsi_reject_reason, 0 for a confirm
    topology_age answered;      // 176
    be32 milliseconds_to_next;  // 184  until the daemon is asked again; 0 when nothing is planned
    be32 phase;                 // 188  topology_phase
    be32 trouble;               // 192  topology_trouble_code
    be32 trouble_end;           // 196  topology_end
    topology_age trouble_since; // 200
    trouble_words words;        // 208
};
TAVU_WIRE_LAYOUT(topology_link, 408);

// The whole picture: status and watch confirms, and watch indications. `link_count` links follow.
struct topology_snapshot {
    message_header header;     //  0
    be32 version;              // 12
    be32 daemon_state;         // 16  topology_daemon_state
    topology_age daemon_since; // 20
    be32 daemon_reason;        // 28  oxmsi_reject_reason of the last refused connection, 0 for none
    text<256> links_file;      // 32
    text<512> file_error;      // 288  why the file is not in force, "" when it is
    be32 link_count;           // 800
};
TAVU_WIRE_LAYOUT(topology_snapshot, 804);

// The link as it stands once the daemon confirmed the setting.
struct topology_link_set_cfm {
    message_header header; //  0
    topology_link link;    // 12
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
const char* trouble_to_word(uint32_t trouble);

// What an answer of the daemon means, for people: "link added", "no such port on this unit".
const char* request_in_words(uint32_t number);
const char* reject_reason_in_words(uint32_t reason);

} // namespace services
