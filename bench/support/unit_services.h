// What a daemon needs around it, scripted: a port control server with the ports of the name map, all enabled,
// and a topology manager that publishes links on them. Both are mailboxes of the caller's process, which
// hands every message of theirs to handle().
#pragma once

#include <cstdint>
#include <iterator>

#include "base/wire.h"
#include "platform/oka.h"
#include "protocols/port_names.h"

namespace bench {

constexpr unsigned max_ports = std::size(tavu::usual_port_names);
inline constexpr auto& port_names = tavu::usual_port_names;

class unit_services {
  public:
    // The port control server has the first `ports` of the ports.
    unit_services(uint32_t own_mpid, unsigned ports) : own_mpid_(own_mpid), ports_(ports) {}

    // The mailboxes exist. Looks for the daemon's service and connects to it.
    void start(oka_mailbox port_control_server, oka_mailbox topology_manager);
    // Reads the message; the caller frees it.
    void handle(const oka_message* message);
    bool is_connected() const { return client_id_ != 0; }

    // One request for each of the first `count` ports; to the same port of the other unit.
    void add_links(unsigned count, uint32_t remote_mpid, const char* hunt_path);
    // A request that the daemon only answers.
    void ask_capabilities();

    // Requests that were not answered yet.
    unsigned unanswered() const { return unanswered_; }
    // Links that were confirmed as encrypted since add_links; rejects of any request.
    unsigned encrypted() const { return encrypted_; }
    unsigned rejected() const { return rejected_; }

  private:
    void answer_get_ports(const oka_message* message);
    void answer_subscribe(const oka_message* message);
    void handle_port_control(const oka_message* message);
    void handle_topology(const oka_message* message);

    uint32_t own_mpid_;
    unsigned ports_;
    oka_mailbox port_control_ = OKA_MAILBOX_NONE;
    oka_mailbox manager_ = OKA_MAILBOX_NONE;
    oka_mailbox daemon_ = OKA_MAILBOX_NONE;
    uint32_t client_id_ = 0;
    unsigned unanswered_ = 0;
    unsigned encrypted_ = 0;
    unsigned rejected_ = 0;
};

} // namespace bench
