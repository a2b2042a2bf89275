// What one heartbeat round costs the daemon: its modules in this process, on virtual time, with 1 to 4
// secured ports whose key server it holds; the members at the other end are mailboxes of this program.
// Nothing is traced. Under callgrind with --toggle-collect for heartbeat_rounds, ask_for_heartbeats and
// act_as_other_unit only the daemon's own instructions are collected.
//
//   dispatch_bench PORTS     prints the number of rounds in which they were
#include <algorithm>
#include <cstdio>
#include <cstdlib>
#include <memory>
#include <string>
#include <vector>

#include "platform/oka/simulation/simulation.h"
#include "platform/oxhal/sim.h"
#include "platform/zeb.h"
#include "protocols/mka_messages.h"
#include "support/unit_services.h"
#include "tavu/tavu_main.h"

using namespace bench;
using namespace tavu;

namespace {

constexpr int counted_rounds = 16;
constexpr uint64_t heartbeat_period_ms = 2500;
constexpr uint32_t server_up_ind = 0x100;

// A member of a connectivity association at the other end of a link: joins, confirms all that the key server
// asks for, and asks for a heartbeat in every round.
class member {
  public:
    explicit member(unsigned port)
        : port_(port), mailbox_(oka::simulation::create_mailbox(("mp7/" + std::to_string(port)).c_str())) {
        oka_message* found = oka_alloc(sizeof(oka_message), server_up_ind);
        oka_locate_async("mka-key-server", &found, mailbox_);
    }

    oka_mailbox mailbox() const { return mailbox_; }
    void handle(const oka_message* message);
    void ask_for_heartbeat() { send_header(MKA_HEARTBEAT_REQ, mka_client_proc_ref_heartbeat); }

  private:
    void send_header(uint32_t number, uint32_t procedure_reference) {
        outgoing<message_header> message(number);
        message->procedure_reference = procedure_reference;
        message->connection_reference = connection_;
        message.send(server_, mailbox_);
    }
    void connect();
    void join();
    void announce();
    std::string association() const {
        return std::string("CA_mp3_") + port_names[port_] + "_mp7_" + port_names[port_];
    }

    unsigned port_;
    oka_mailbox mailbox_;
    oka_mailbox server_ = OKA_MAILBOX_NONE;
    uint32_t connection_ = 0;
};

void member::connect() {
    outgoing<mka_connection_establish_req> request(MKA_CONNECTION_ESTABLISH_REQ);
    request->header.procedure_reference = mka_client_proc_ref_connection_base;
    request->header.connection_reference = 1;
    request->num_of_pvs = 1;
    request->first_protocol_version = mka_protocol_version;
    request.send(server_, mailbox_);
}

void member::join() {
    outgoing<mka_join_ca_req> request(MKA_JOIN_CA_REQ, sizeof(mka_802_1ae_2006_capabilities));
    request->header.procedure_reference = mka_client_proc_ref_join;
    request->header.connection_reference = connection_;
    request->ca.assign(association().c_str());
    request->num_of_information_elements = 1;
    auto* element = reinterpret_cast<mka_802_1ae_2006_capabilities*>(request.extra());
    element->head.type = MKA_STANDARD_IEEE_802_1AE_2006;
    element->head.length = sizeof *element;
    element->num_of_rx_scs = 4;
    element->num_of_rx_sas = 4;
    element->replay_protection_supported = 1;
    element->confidentiality_supported = 1;
    request.send(server_, mailbox_);
}

void member::announce() {
    outgoing<mka_create_sc_req> request(MKA_CREATE_TX_SC_REQ);
    request->header.procedure_reference = 100;
    request->header.connection_reference = connection_;
    request->ca.assign(association().c_str());
    request->identifier = {{2, 0, 0, 0, 7, static_cast<uint8_t>(port_), 0, 0}};
    request.send(server_, mailbox_);
}

void member::handle(const oka_message* message) {
    switch (message->number) {
    case server_up_ind:
        server_ = oka_sender(message);
        connect();
        return;
    case MKA_CONNECTION_ESTABLISH_CFM:
        connection_ = as<message_header>(message).connection_reference;
        send_header(MKA_CAPABILITIES_GET_REQ, mka_client_proc_ref_capabilities);
        return;
    case MKA_CAPABILITIES_GET_CFM:
        join();
        return;
    case MKA_JOIN_CA_CFM:
        announce();
        return;
    case MKA_CREATE_RX_SC_RREQ:
    case MKA_CREATE_RX_SA_RREQ:
    case MKA_CREATE_TX_SA_RREQ:
    case MKA_UPDATE_PROTECT_FRAMES_RREQ:
    case MKA_HEARTBEAT_RREQ: // each one's confirmation has the next number
        send_header(message->number + 1, as<message_header>(message).procedure_reference);
        return;
    default:
        return;
    }
}

struct {
    std::unique_ptr<unit_services> services;
    oka_mailbox port_control;
    oka_mailbox manager;
    std::vector<std::unique_ptr<member>> members;
} other;

[[noreturn]] void fail(const char* what) {
    fprintf(stderr, "dispatch_bench: %s\n", what);
    exit(2);
}

// Messages for the other unit; false for the daemon's own.
bool take_message(oka_message* message) {
    oka_mailbox receiver = oka_receiver(message);
    bool is_for_services = receiver == other.port_control || receiver == other.manager;
    if (is_for_services)
        other.services->handle(message);
    auto addressed = std::find_if(other.members.begin(), other.members.end(),
                                  [&](const auto& each) { return each->mailbox() == receiver; });
    if (addressed != other.members.end())
        (*addressed)->handle(message);
    if (!is_for_services && addressed == other.members.end())
        return false;
    oka_free(&message);
    return true;
}

void settle(bool (*take)(oka_message*)) {
    while (oka_message* message = oka_receive(nullptr, 0, OKA_ANY_SENDER)) {
        if (!take(message))
            route_message(message);
    }
}

} // namespace

// Callgrind knows these by their names: it counts in heartbeat_rounds, but not in what the other unit does
// there. Nothing may be a tail call, which would leave the function before its work is done.
#define NO_TAIL_CALL() asm volatile("")

extern "C" __attribute__((noinline)) bool act_as_other_unit(oka_message* message) {
    bool taken = take_message(message);
    NO_TAIL_CALL();
    return taken;
}

extern "C" __attribute__((noinline)) void ask_for_heartbeats() {
    for (const std::unique_ptr<member>& each : other.members)
        each->ask_for_heartbeat();
    NO_TAIL_CALL();
}

extern "C" __attribute__((noinline)) void heartbeat_rounds(int count) {
    for (int round = 0; round < count; round++) {
        oka::simulation::advance_ms(heartbeat_period_ms);
        ask_for_heartbeats();
        settle(act_as_other_unit);
    }
    NO_TAIL_CALL();
}

namespace {

void secure(unsigned ports) {
    oka::simulation::plug();
    oxhal_sim::install();
    setenv("MPID", "3", 1);
    setenv("ZEB_TRACE", "none", 1);
    (void)zeb_init();
    if (!tavu_main_init())
        fail("the daemon does not start");
    other.port_control = oka::simulation::create_mailbox("oxpcsi-server");
    other.manager = oka::simulation::create_mailbox("topology");
    other.services = std::make_unique<unit_services>(3, ports);
    other.services->start(other.port_control, other.manager);
    if (!tavu_main_start())
        fail("the daemon does not start");
    settle(take_message);
    other.services->add_links(ports, 7, "mp7");
    settle(take_message);
    for (unsigned port = 0; port < ports; port++)
        other.members.push_back(std::make_unique<member>(port));
    settle(take_message);
    if (other.services->encrypted() != ports)
        fail("the ports are not secured");
}

// Each port sends with one key and receives with one.
void expect_secured(unsigned ports) {
    for (unsigned port = 0; port < ports; port++) {
        if (oxhal_sim::association_count(tavu::hardware_name_of(port_names[port])) != 2)
            fail("a port is no longer secured");
    }
}

} // namespace

int main(int argc, char** argv) {
    unsigned long ports = argc == 2 ? strtoul(argv[1], nullptr, 10) : 0;
    if (ports == 0 || ports > max_ports) {
        fprintf(stderr, "usage: %s PORTS\n", argv[0]);
        return 2;
    }
    secure(static_cast<unsigned>(ports));
    // The timers of the first keys, which are no heartbeat, expire before the rounds that count.
    for (int round = 0; round < 4; round++) {
        oka::simulation::advance_ms(heartbeat_period_ms);
        settle(take_message);
    }
    heartbeat_rounds(counted_rounds);
    expect_secured(static_cast<unsigned>(ports));
    printf("%d\n", counted_rounds);
    return 0;
}
