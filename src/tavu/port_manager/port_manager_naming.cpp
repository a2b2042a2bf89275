#include "tavu/port_manager/port_manager_naming.h"

#include <cstdio>
#include <cstdlib>

#include "base/ignore_result.h"
#include "base/trace.h"
#include "tavu/key_server/key_server.h"

namespace tavu::port_manager {

namespace {

// The end with the smaller MP id hosts the key server. With equal ones neither does: each looks for it at
// the other end.
bool is_local_key_server(const tavu_pm_data& port) {
    TAVU_FUNCTION();
    bool local = port.remote_mpid > static_cast<uint32_t>(self.own_mpid);
    if (local)
        TRACE("TAVU: Key server is on local DU for CA='%s' on port '%s': local MPID=%d, remote MPID=%d,",
              port.ca.c_str(), port.port.c_str(), self.own_mpid, static_cast<int>(port.remote_mpid));
    else
        TRACE("TAVU: Key server is on remote DU for CA='%s' on port '%s': local MPID=%d, remote MPID=%d,",
              port.ca.c_str(), port.port.c_str(), self.own_mpid, static_cast<int>(port.remote_mpid));
    return local;
}

} // namespace

bool set_own_mp_id() {
    TAVU_FUNCTION();
    const char* value = getenv("MPID");
    if (!value) {
        TRACE_ERROR("TAVU: Read variable 'MPID' failed");
        return false;
    }
    self.own_mpid = static_cast<int32_t>(strtol(value, nullptr, 10)); // 0 for what is not a number
    TRACE("TAVU: Set own mp id '%d'", self.own_mpid);
    return true;
}

// The key server's end comes first, so that both ends make the same name.
void generate_ca_name(tavu_pm_data& port) {
    TAVU_FUNCTION();
    struct end {
        int mpid;
        const char* port;
    };
    const end own = {self.own_mpid, port.port.c_str()};
    const end remote = {static_cast<int>(port.remote_mpid), port.remote_port.c_str()};
    bool local = is_local_key_server(port);
    const end& server = local ? own : remote;
    const end& other = local ? remote : own;
    snprintf(port.ca.octets, sizeof port.ca.octets, "CA_mp%d_%s_mp%d_%s", server.mpid, server.port,
             other.mpid, other.port);
    TRACE("TAVU: Generated CA name = '%s' for local MPID=%u, local port='%s'remote MPID=%u, remote port='%s'",
          port.ca.c_str(), static_cast<unsigned>(self.own_mpid), own.port, port.remote_mpid, remote.port);
}

void set_key_server_name(tavu_pm_data& port) {
    TAVU_FUNCTION();
    if (is_local_key_server(port))
        port.key_server.assign(key_server_mailbox_name);
    else
        snprintf(port.key_server.octets, sizeof port.key_server.octets, "%s/%s", port.hunt_path.c_str(),
                 key_server_mailbox_name);
    TRACE("TAVU: Key server name for port '%s': '%s'", port.port.c_str(), port.key_server.c_str());
}

void configure_ca(const tavu_pm_data& port, ca_change change) {
    TAVU_FUNCTION();
    if (!is_local_key_server(port))
        return;
    // A retry adds a CA that is there already, and most ports that become unauthenticated never had one.
    if (change == ca_change::add)
        ignore_result(key_server_add_ca(port.ca.c_str()));
    else
        ignore_result(key_server_remove_ca(port.ca.c_str()));
}

} // namespace tavu::port_manager
