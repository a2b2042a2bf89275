#include "services/idl-topologyd/topologyd.h"

#include "base/trace.h"
#include "services/idl-topologyd/control_server.h"
#include "services/idl-topologyd/links_follower.h"
#include "services/idl-topologyd/topology.h"

namespace topologyd {

namespace {

constexpr topology_callbacks links_callbacks = {
    .handle_changed = control_server_note_change,
};

constexpr links_follower_callbacks file_callbacks = {
    .handle_links = topology_follow,
    .handle_read = control_server_note_change,
};

} // namespace

bool topologyd_start(oka_mailbox mailbox, const char* links_path) {
    control_server_start(mailbox);
    if (!topology_start(mailbox, &links_callbacks))
        return false;
    links_follower_start(mailbox, links_path, &file_callbacks);
    return true;
}

void topologyd_stop() {
    links_follower_stop();
    topology_stop();
    control_server_stop();
}

void topologyd_dispatch_message(const oka_message* message) {
    bool is_handled = topology_dispatch_message(message) || control_server_dispatch_message(message) ||
                      links_follower_dispatch_message(message);
    if (!is_handled)
        TRACE_ERROR("TOPOLOGYD: Message 0x%x of %u bytes belongs to no protocol of ours, dropped",
                    message->number, oka_size(message));
    control_server_settle();
}

} // namespace topologyd
