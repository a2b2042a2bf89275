// The numbers of all messages, in one space. The lists are the one place where a message's number and name
// stand; the constants and the texts of traces are both made from them.
//
//   0x1b0701 - 0x1b0724   MKA, between clients and key servers
//   0x1b1041 - 0x1b1068   port control
//   0x1b1142 - 0x1b115a   the MACsec service, "oxmsi"
//   0x1b1220 - 0x1b1228   of the daemon to itself
//   0x1b1240 - 0x1b1242   of oxpcsi-server to itself
//   0x1b1301 - 0x1b130d   the topology manager's, in topology_messages.h
//   0x1b1341 - 0x1b134b   of idl-topologyd to itself
//   0x1b1361 - 0x1b1364   of tavuctl to itself
#pragma once

#include <cstdint>

namespace tavu {

// The protocol between MKA clients and key servers.
#define MKA_MESSAGES(X)                                                                                      \
    X(MKA_CONNECTION_ESTABLISH_REQ, 0x1b0701)                                                                \
    X(MKA_CONNECTION_ESTABLISH_CFM, 0x1b0702)                                                                \
    X(MKA_CONNECTION_ESTABLISH_REJ, 0x1b0703)                                                                \
    X(MKA_CONNECTION_CLOSE_REQ, 0x1b0704)                                                                    \
    X(MKA_CONNECTION_CLOSE_CFM, 0x1b0705)                                                                    \
    X(MKA_CAPABILITIES_GET_REQ, 0x1b0706)                                                                    \
    X(MKA_CAPABILITIES_GET_CFM, 0x1b0707)                                                                    \
    X(MKA_CAPABILITIES_GET_REJ, 0x1b0708)                                                                    \
    X(MKA_JOIN_CA_REQ, 0x1b0709)                                                                             \
    X(MKA_JOIN_CA_CFM, 0x1b070a)                                                                             \
    X(MKA_JOIN_CA_REJ, 0x1b070b)                                                                             \
    X(MKA_LEAVE_CA_REQ, 0x1b070c)                                                                            \
    X(MKA_LEAVE_CA_CFM, 0x1b070d)                                                                            \
    X(MKA_LEAVE_CA_RREQ, 0x1b070e)                                                                           \
    X(MKA_LEAVE_CA_RCFM, 0x1b070f)                                                                           \
    X(MKA_CREATE_TX_SC_REQ, 0x1b0710)                                                                        \
    X(MKA_CREATE_TX_SC_CFM, 0x1b0711)                                                                        \
    X(MKA_CREATE_TX_SC_REJ, 0x1b0712)                                                                        \
    X(MKA_CREATE_RX_SC_RREQ, 0x1b0713)                                                                       \
    X(MKA_CREATE_RX_SC_RCFM, 0x1b0714)                                                                       \
    X(MKA_CREATE_RX_SC_RREJ, 0x1b0715)                                                                       \
    X(MKA_CREATE_TX_SA_RREQ, 0x1b0716)                                                                       \
    X(MKA_CREATE_TX_SA_RCFM, 0x1b0717)                                                                       \
    X(MKA_CREATE_TX_SA_RREJ, 0x1b0718)                                                                       \
    X(MKA_CREATE_RX_SA_RREQ, 0x1b0719)                                                                       \
    X(MKA_CREATE_RX_SA_RCFM, 0x1b071a)                                                                       \
    X(MKA_CREATE_RX_SA_RREJ, 0x1b071b)                                                                       \
    X(MKA_UPDATE_PROTECT_FRAMES_RREQ, 0x1b071c)                                                              \
    X(MKA_UPDATE_PROTECT_FRAMES_RCFM, 0x1b071d)                                                              \
    X(MKA_UPDATE_PROTECT_FRAMES_RREJ, 0x1b071e)                                                              \
    X(MKA_HEARTBEAT_REQ, 0x1b071f)                                                                           \
    X(MKA_HEARTBEAT_CFM, 0x1b0720)                                                                           \
    X(MKA_HEARTBEAT_RREQ, 0x1b0721)                                                                          \
    X(MKA_HEARTBEAT_RCFM, 0x1b0722)                                                                          \
    X(MKA_SERVER_UP_IND, 0x1b0723)                                                                           \
    X(MKA_PEER_DOWN_IND, 0x1b0724)

// The port control protocol, of which the daemon is a client.
#define OXPCSI_MESSAGES(X)                                                                                   \
    X(OXPCSI_SERVER_UP_IND, 0x1b1041)                                                                        \
    X(OXPCSI_SERVER_DOWN_IND, 0x1b1042)                                                                      \
    X(OXPCSI_INIT_SERVICE_REQ, 0x1b1043)                                                                     \
    X(OXPCSI_INIT_SERVICE_CFM, 0x1b1044)                                                                     \
    X(OXPCSI_INIT_SERVICE_REJ, 0x1b1045)                                                                     \
    X(OXPCSI_TERM_SERVICE_REQ, 0x1b1046)                                                                     \
    X(OXPCSI_TERM_SERVICE_CFM, 0x1b1047)                                                                     \
    X(OXPCSI_GET_ETH_PORT_SUPPORT_REQ, 0x1b1048)                                                             \
    X(OXPCSI_GET_ETH_PORT_SUPPORT_CFM, 0x1b1049)                                                             \
    X(OXPCSI_GET_ETH_PORT_SUPPORT_REJ, 0x1b104a)                                                             \
    X(OXPCSI_RESERVE_ETH_PORT_REQ, 0x1b104b)                                                                 \
    X(OXPCSI_RESERVE_ETH_PORT_CFM, 0x1b104c)                                                                 \
    X(OXPCSI_RESERVE_ETH_PORT_REJ, 0x1b104d)                                                                 \
    X(OXPCSI_UNRESERVE_ETH_PORT_REQ, 0x1b104e)                                                               \
    X(OXPCSI_UNRESERVE_ETH_PORT_CFM, 0x1b104f)                                                               \
    X(OXPCSI_SUBSCRIBE_ETH_PORT_STATUS_REQ, 0x1b1050)                                                        \
    X(OXPCSI_SUBSCRIBE_ETH_PORT_STATUS_CFM, 0x1b1051)                                                        \
    X(OXPCSI_SUBSCRIBE_ETH_PORT_STATUS_REJ, 0x1b1052)                                                        \
    X(OXPCSI_UNSUBSCRIBE_ETH_PORT_STATUS_REQ, 0x1b1053)                                                      \
    X(OXPCSI_UNSUBSCRIBE_ETH_PORT_STATUS_CFM, 0x1b1054)                                                      \
    X(OXPCSI_SET_ETH_PORT_STATE_REQ, 0x1b1056)                                                               \
    X(OXPCSI_SET_ETH_PORT_STATE_CFM, 0x1b1057)                                                               \
    X(OXPCSI_SET_ETH_PORT_STATE_REJ, 0x1b1058)                                                               \
    X(OXPCSI_GET_ETH_COUNTERS_REQ, 0x1b1059)                                                                 \
    X(OXPCSI_GET_ETH_COUNTERS_CFM, 0x1b105a)                                                                 \
    X(OXPCSI_GET_ETH_COUNTERS_REJ, 0x1b105b)                                                                 \
    X(OXPCSI_ETH_PORT_STATUS2_IND, 0x1b105c)

// Numbers of the port control protocol that have no name here reach up to this one.
constexpr uint32_t OXPCSI_LAST_NUMBER = 0x1b1068;

// The MACsec service protocol, of which the daemon is the server.
#define OXMSI_MESSAGES(X)                                                                                    \
    X(OXMSI_SERVER_UP_IND, 0x1b1142)                                                                         \
    X(OXMSI_SERVER_DOWN_IND, 0x1b1143)                                                                       \
    X(OXMSI_CONNECTION_ESTABLISH_REQ, 0x1b1144)                                                              \
    X(OXMSI_CONNECTION_ESTABLISH_CFM, 0x1b1145)                                                              \
    X(OXMSI_CONNECTION_ESTABLISH_REJ, 0x1b1146)                                                              \
    X(OXMSI_CONNECTION_CLOSE_REQ, 0x1b1147)                                                                  \
    X(OXMSI_CONNECTION_CLOSE_CFM, 0x1b1148)                                                                  \
    X(OXMSI_CAPABILITIES_GET_REQ, 0x1b1149)                                                                  \
    X(OXMSI_CAPABILITIES_GET_CFM, 0x1b114a)                                                                  \
    X(OXMSI_CAPABILITIES_GET_REJ, 0x1b114b)                                                                  \
    X(OXMSI_IDL_TOPOLOGY_PUBLISH_LINK_ADDED_REQ, 0x1b114c)                                                   \
    X(OXMSI_IDL_TOPOLOGY_PUBLISH_LINK_ADDED_CFM, 0x1b114d)                                                   \
    X(OXMSI_IDL_TOPOLOGY_PUBLISH_LINK_ADDED_REJ, 0x1b114e)                                                   \
    X(OXMSI_IDL_TOPOLOGY_PUBLISH_LINK_DELETED_REQ, 0x1b114f)                                                 \
    X(OXMSI_IDL_TOPOLOGY_PUBLISH_LINK_DELETED_CFM, 0x1b1150)                                                 \
    X(OXMSI_IDL_TOPOLOGY_PUBLISH_LINK_DELETED_REJ, 0x1b1151)                                                 \
    X(OXMSI_IDL_TOPOLOGY_PUBLISH_LINK_UPDATED_REQ, 0x1b1152)                                                 \
    X(OXMSI_IDL_TOPOLOGY_PUBLISH_LINK_UPDATED_CFM, 0x1b1153)                                                 \
    X(OXMSI_IDL_TOPOLOGY_PUBLISH_LINK_UPDATED_REJ, 0x1b1154)                                                 \
    X(OXMSI_PORT_STATE_CHANGE_SUBSCRIBE_REQ, 0x1b1155)                                                       \
    X(OXMSI_PORT_STATE_CHANGE_SUBSCRIBE_CFM, 0x1b1156)                                                       \
    X(OXMSI_PORT_STATE_CHANGE_SUBSCRIBE_REJ, 0x1b1157)                                                       \
    X(OXMSI_PORT_STATE_CHANGE_UNSUBSCRIBE_REQ, 0x1b1158)                                                     \
    X(OXMSI_PORT_STATE_CHANGE_UNSUBSCRIBE_CFM, 0x1b1159)                                                     \
    X(OXMSI_PORT_STATE_CHANGE_IND, 0x1b115a)

// What the daemon sends to itself, through timers and mailbox monitors.
#define INTERNAL_MESSAGES(X)                                                                                 \
    X(TAVU_PM_RETRY_TIMEOUT_IND, 0x1b1220)                                                                   \
    X(OXMSI_CLIENT_DOWN_IND, 0x1b1221)                                                                       \
    X(MKA_CLIENT_HEARTBEAT_TIMEOUT_IND, 0x1b1222)                                                            \
    X(MKA_SERVER_HEARTBEAT_TIMEOUT_IND, 0x1b1223)                                                            \
    X(KAY_SA_DISPOSAL_TIMEOUT_IND, 0x1b1224)                                                                 \
    X(KEYSRV_KEY_REFRESH_TIMER_IND, 0x1b1225)                                                                \
    X(KEYSRV_MSG_TIMEOUT_IND, 0x1b1226)                                                                      \
    X(MKA_CLIENT_DOWN_IND, 0x1b1227)                                                                         \
    X(MKA_SERVER_DOWN_IND, 0x1b1228)

#define MESSAGE_NUMBER_CONSTANT(name, number) constexpr uint32_t name = number;
MKA_MESSAGES(MESSAGE_NUMBER_CONSTANT)
OXPCSI_MESSAGES(MESSAGE_NUMBER_CONSTANT)
OXMSI_MESSAGES(MESSAGE_NUMBER_CONSTANT)
INTERNAL_MESSAGES(MESSAGE_NUMBER_CONSTANT)
#undef MESSAGE_NUMBER_CONSTANT

// Row of a name table for enum_to_str.
#define MESSAGE_NUMBER_TEXT(name, number) {number, #name},

} // namespace tavu

// What the programs beside the daemon send to themselves, through timers, supervisions, lookups and watched
// descriptors.
namespace oxpcsi {

constexpr uint32_t NETLINK_READABLE_IND = 0x1b1240;
constexpr uint32_t READ_AGAIN_TIMEOUT_IND = 0x1b1241;
constexpr uint32_t CLIENT_DOWN_IND = 0x1b1242;

} // namespace oxpcsi

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
constexpr uint32_t DAEMON_PROBE_IND = 0x1b134a;
constexpr uint32_t SECY_LOOK_IND = 0x1b134b;

} // namespace topologyd

namespace tavuctl {

constexpr uint32_t MANAGER_UP_IND = 0x1b1361;
constexpr uint32_t MANAGER_DOWN_IND = 0x1b1362;
constexpr uint32_t TIMEOUT_IND = 0x1b1363;
constexpr uint32_t REDRAW_IND = 0x1b1364;

} // namespace tavuctl
