// The topology manager of a plain Linux node: brings the links of the links file to the daemon and keeps
// them there. This module starts the others and hands every message to the one it belongs to.
#pragma once

#include "platform/oka.h"

namespace topologyd {

constexpr const char* default_links_path = "/etc/qel-tavu/links.toml";

// `mailbox` is the one under which the manager is found, "idl-topologyd".
[[nodiscard]] bool topologyd_start(oka_mailbox mailbox, const char* links_path);
void topologyd_stop();

// Reads the message; the caller frees it.
void topologyd_dispatch_message(const oka_message* message);

} // namespace topologyd
