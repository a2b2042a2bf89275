// Messages that idl-topologyd sends to itself, through timers, mailbox monitors and watched descriptors.
#pragma once

#include <cstdint>

namespace topologyd {

constexpr uint32_t CONNECT_RETRY_IND = 0x1b1341;
constexpr uint32_t LINK_RETRY_IND = 0x1b1342;
constexpr uint32_t REFRESH_TIMEOUT_IND = 0x1b1343;
constexpr uint32_t WATCH_REFRESH_IND = 0x1b1344;
constexpr uint32_t CLIENT_DOWN_IND = 0x1b1345;
constexpr uint32_t LINKS_FILE_CHANGED_IND = 0x1b1346;
constexpr uint32_t FOLLOW_RETRY_IND = 0x1b1347;
constexpr uint32_t PEER_UP_IND = 0x1b1348;
constexpr uint32_t PEER_DOWN_IND = 0x1b1349;

} // namespace topologyd
