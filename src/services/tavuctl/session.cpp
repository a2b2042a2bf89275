#include "services/tavuctl/session.h"

#include <algorithm>
#include <cstdlib>

#include "platform/oka_clock.h"
#include "platform/oka_names.h"
#include "protocols/message_numbers.h"
#include "services/common/one_shot.h"
#include "services/tavuctl/snapshot.h"

namespace tavuctl {

namespace {

using namespace tavu;
using namespace services;

// A manager that runs is found at once. The wait is for one that is being restarted.
constexpr uint32_t locate_timeout_ms = 2000;
constexpr uint32_t redraw_ms = 1000;

struct {
    session_state state = SESSION_STATE_DONE;
    session_callbacks callbacks = {};
    command_line command;
    exit_status status = EXIT_STATUS_FAILED;
    oka_mailbox mailbox = OKA_MAILBOX_NONE;
    oka_mailbox manager = OKA_MAILBOX_NONE;
    oka_monitor_ref monitor = 0;
    uint32_t procedure_reference = 0;
    std::optional<snapshot> shown; // by a watch
    uint64_t shown_at_ms = 0;
    one_shot timeout{TIMEOUT_IND};
    one_shot redraw{REDRAW_IND};
} self;

uint64_t now_ms() {
    return oka_now_ms();
}

void finish(exit_status status) {
    self.timeout.stop();
    self.redraw.stop();
    oka_unmonitor(self.monitor);
    self.monitor = 0;
    self.status = status;
    self.state = SESSION_STATE_DONE;
}

void fail(exit_status status, const std::string& why) {
    self.callbacks.handle_error("tavuctl: " + why + "\n");
    finish(status);
}

// Where the manager was looked for: the directory of the messaging service, and the unit.
std::string searched_place() {
    const char* directory = getenv("OKA_DIR");
    const char* unit = getenv("OKA_UNIT");
    return std::string(directory && *directory ? directory : OKA_DEFAULT_DIRECTORY) +
           (unit && *unit ? "/" : "") + (unit ? unit : "");
}

void locate() {
    self.state = SESSION_STATE_LOCATING;
    outgoing<host32> prepared(MANAGER_UP_IND);
    oka_locate_async(topology_mailbox_name, prepared.prepared(), self.mailbox);
}

uint32_t request_number() {
    switch (self.command.wanted) {
    case action::watch:
        return TOPOLOGY_WATCH_REQ;
    case action::link_set:
        return TOPOLOGY_LINK_SET_REQ;
    case action::status:
    case action::check:
    case action::answer:
        break;
    }
    return TOPOLOGY_STATUS_REQ;
}

void send_link_set_req() {
    outgoing<topology_link_set_req> request(TOPOLOGY_LINK_SET_REQ);
    request->header.procedure_reference = self.procedure_reference;
    request->version = topology_protocol_version;
    request->port = self.command.port;
    request->status = self.command.status;
    request.send(self.manager, self.mailbox);
}

void send_request() {
    self.procedure_reference++;
    self.state = SESSION_STATE_ASKING;
    self.timeout.arm(self.command.timeout_ms);
    if (self.command.wanted == action::link_set) {
        send_link_set_req();
        return;
    }
    outgoing<topology_req> request(request_number());
    request->header.procedure_reference = self.procedure_reference;
    request->version = topology_protocol_version;
    request.send(self.manager, self.mailbox);
}

void handle_manager_up_ind(const oka_message* message) {
    if (self.state != SESSION_STATE_LOCATING)
        return;
    self.manager = oka_sender(message);
    outgoing<host32> prepared(MANAGER_DOWN_IND);
    self.monitor = oka_monitor(self.manager, prepared.prepared());
    send_request();
}

void handle_manager_down_ind() {
    self.monitor = 0;
    self.manager = OKA_MAILBOX_NONE;
    if (self.state == SESSION_STATE_WATCHING) {
        self.callbacks.handle_error("tavuctl: idl-topologyd ended; waiting for it\n");
        self.redraw.stop();
        locate();
    } else {
        fail(EXIT_STATUS_UNREACHABLE,
             "idl-topologyd ended before it answered; see its traces, and try again");
    }
}

void handle_timeout() {
    if (self.state == SESSION_STATE_LOCATING)
        fail(EXIT_STATUS_UNREACHABLE, "no topology manager answers at " + searched_place() +
                                          "; is idl-topologyd running, and is OKA_DIR / OKA_UNIT the one it "
                                          "uses?");
    else if (self.command.wanted == action::link_set)
        fail(EXIT_STATUS_UNCONFIRMED, "qel-tavu has not confirmed within " +
                                          show_duration(self.command.timeout_ms) +
                                          "; the setting is kept, tavuctl status shows what it waits for");
    else
        fail(EXIT_STATUS_UNREACHABLE, "idl-topologyd at " + searched_place() + " did not answer within " +
                                          show_duration(self.command.timeout_ms));
}

void redraw() {
    constexpr const char* clear_screen = "\x1b[H\x1b[2J";
    self.callbacks.handle_output(clear_screen + show_table(*self.shown, now_ms() - self.shown_at_ms));
    self.redraw.arm(redraw_ms);
}

void show_watched(const snapshot& now) {
    std::optional<snapshot> before = self.shown;
    self.shown = now;
    self.shown_at_ms = now_ms();
    if (self.command.json)
        self.callbacks.handle_output(show_json(now) + "\n");
    else if (self.callbacks.has_screen)
        redraw();
    else if (!before)
        self.callbacks.handle_output(show_table(now));
    else if (std::string changes = show_changes(*before, now); !changes.empty())
        self.callbacks.handle_output(changes);
}

void handle_snapshot(const oka_message* message) {
    std::optional<snapshot> arrived = read_snapshot(message);
    if (!arrived) {
        fail(EXIT_STATUS_FAILED, "idl-topologyd sent an answer that cannot be read; is it of this version?");
        return;
    }
    self.timeout.stop();
    if (self.command.wanted == action::watch) {
        self.state = SESSION_STATE_WATCHING;
        show_watched(*arrived);
        return;
    }
    self.callbacks.handle_output(self.command.json ? show_json(*arrived) + "\n" : show_table(*arrived));
    finish(EXIT_STATUS_DONE);
}

void handle_link_set_cfm(const oka_message* message) {
    const auto* cfm = view<topology_link_set_cfm>(message);
    if (!cfm || !is_well_formed(cfm->link)) {
        fail(EXIT_STATUS_FAILED, "idl-topologyd sent an answer that cannot be read; is it of this version?");
        return;
    }
    self.callbacks.handle_output(show_link(cfm->link));
    finish(EXIT_STATUS_DONE);
}

void handle_rej(const oka_message* message) {
    const auto* rej = view<topology_rej>(message);
    fail(EXIT_STATUS_FAILED, rej ? rej->words.printable().octets : "idl-topologyd refused without a reason");
}

// Whether this is an answer to the latest request, from the manager that was asked.
bool is_awaited(const oka_message* message) {
    if (oka_sender(message) != self.manager || oka_size(message) < sizeof(message_header))
        return false;
    if (as<message_header>(message).procedure_reference != self.procedure_reference)
        return false;
    return self.state == SESSION_STATE_ASKING || self.state == SESSION_STATE_WATCHING;
}

void handle_answer(const oka_message* message) {
    if (!is_awaited(message))
        return;
    bool is_watch = self.command.wanted == action::watch;
    if (message->number == request_number() + 2)
        handle_rej(message);
    else if (message->number == TOPOLOGY_LINK_SET_CFM && self.command.wanted == action::link_set)
        handle_link_set_cfm(message);
    else if (message->number == (is_watch ? TOPOLOGY_WATCH_CFM : TOPOLOGY_STATUS_CFM) ||
             (is_watch && message->number == TOPOLOGY_WATCH_IND))
        handle_snapshot(message);
}

} // namespace

void session_start(oka_mailbox mailbox, const command_line& command, const session_callbacks* callbacks) {
    self.callbacks = *callbacks;
    self.command = command;
    self.mailbox = mailbox;
    self.shown.reset();
    locate();
    self.timeout.arm(std::min(locate_timeout_ms, command.timeout_ms));
}

void session_stop() {
    finish(self.status);
}

void session_dispatch_message(const oka_message* message) {
    if (self.state == SESSION_STATE_DONE)
        return;
    if (message->number == MANAGER_UP_IND)
        handle_manager_up_ind(message);
    else if (message->number == MANAGER_DOWN_IND && oka_sender(message) == self.manager)
        handle_manager_down_ind();
    else if (self.timeout.take(message))
        handle_timeout();
    else if (self.redraw.take(message))
        redraw();
    else
        handle_answer(message);
}

session_state session_get_state() {
    return self.state;
}

exit_status session_exit_status() {
    return self.status;
}

} // namespace tavuctl
