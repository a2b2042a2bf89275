#include "simulate/faults.h"

namespace simulate {

namespace {

template<class... Kinds>
constexpr unsigned any_of(Kinds... kinds) {
    return ((1u << kinds) | ...);
}

constexpr unsigned any_fault = (1u << FAULT_KINDS) - 1;

// Part of an error trace, and the faults of which any explains it.
constexpr struct {
    std::string_view text;
    unsigned faults;
} expected[] = {
    // A member is gone, or a CA, and what it had sent arrives.
    {"TAVU: KaY on port", any_fault},
    {"not found for client id", any_fault},
    {"not found (id=", any_fault},
    {"element not found (client_id=", any_fault},
    {"TAVU: Could not set MACsec role 'MACSEC_ROLE_UNAUTHENTICATED'", any_fault},
    // Hours of disturbances repeat what they do.
    {"ZEB: repeat", any_fault},
    {"TAVU: Could not set MACsec role 'MACSEC_ROLE_SECURED'", any_of(SECY_FAILS)},
    // It joins again before its former incarnation is noticed to be gone.
    {"requested an SCI value that is already used", any_fault},
    {"creation rejected", any_fault},
    {"Heartbeat supervision is in", any_of(DELAY, STALL, UNIT_STALL, SLOW, INTRUDER)},
    {"Heartbeat timeout", any_of(DELAY, STALL, UNIT_STALL, SLOW, INTRUDER)},
    {"handle_ks_heartbeat_timeout_ind", any_of(DELAY, STALL, UNIT_STALL, SLOW, INTRUDER)},
    {"on unexpected state (state=KEY_REFRESH_STOPPED)", any_of(DELAY, STALL, UNIT_STALL, SLOW)},
    {"KEYSRV: handle_msg_timeout", any_of(DELAY, STALL, UNIT_STALL, SLOW)},
    {"not found, CA=", any_of(DELAY, STALL, UNIT_STALL, SLOW)},
    {"TOPOLOGYD: 'oxmsi' does not answer", any_of(DELAY, STALL, UNIT_STALL, SLOW)},
    {"_cfm called in wrong state: current: 'OXMSI_SERVER_STATE_INITIAL'",
     any_of(KILL_PORT_CONTROL, KILL_UNIT)},

    // A topology manager that starts finds what the one before it published, until the daemon notices its
    // end.
    {"TAVU: Maximum number of link on port", any_of(KILL_TOPOLOGY_MANAGER, KILL_UNIT)},
    {"TAVU: No link with link_id", any_of(KILL_TOPOLOGY_MANAGER, KILL_UNIT)},
    {"TAVU: No link exists on port", any_of(KILL_TOPOLOGY_MANAGER, KILL_UNIT)},
    {"refused: the port has another link", any_of(KILL_TOPOLOGY_MANAGER, KILL_UNIT)},
    {"refused: the port has no such link", any_of(KILL_TOPOLOGY_MANAGER, KILL_UNIT)},

    // What an intruder says is dropped, and told; so is the end of the connections that it gets and leaves
    // alone.
    {"TAVU: Unhandled message", any_of(INTRUDER)},
    {"Invalid proc_ref value", any_of(INTRUDER)},
    {"TAVU: Could not find client", any_of(INTRUDER)},
    {"already exists with client id", any_of(INTRUDER)},
    {"has wrong size", any_of(INTRUDER)},
    {"msg_len=", any_of(INTRUDER)},
    {"Protocol version negotiation", any_of(INTRUDER)},
    {"Maximum number of clients reached", any_of(INTRUDER)},
    {"but only this process prepares it", any_of(INTRUDER)},
    {"is received from wrong mailbox", any_of(INTRUDER)},
    {"is none that managers send each other", any_of(INTRUDER)},

    {"SecY error code", any_of(SECY_FAILS)},
    {"OXHAL: ", any_of(SECY_FAILS)},
    {"KEYSRV: Could not generate new SAK", any_of(SECY_FAILS)},
    {"KEYSRV: update_keys_in_ca fails", any_of(SECY_FAILS)},
    {"TAVU: Could not create port", any_of(SECY_FAILS)},
    // A daemon whose SecY fails while it starts ends, and stops on its way what has not begun.
    {"TAVU: Fatal error occured", any_of(SECY_FAILS)},
    {"nitialization failed", any_of(SECY_FAILS)},
    {"failed, exiting", any_of(SECY_FAILS)},
    {"failed, continuing", any_of(SECY_FAILS)},
    {"TAVU: Could not initialize KaY", any_of(SECY_FAILS)},
    {"TAVU: Could not stop OKA timer service", any_of(SECY_FAILS)},
    {"_stop called in wrong state", any_of(SECY_FAILS)},
};

} // namespace

bool is_explained(std::string_view line, unsigned faults) {
    for (const auto& row : expected) {
        if (line.find(row.text) != std::string_view::npos && row.faults & faults)
            return true;
    }
    return false;
}

} // namespace simulate
