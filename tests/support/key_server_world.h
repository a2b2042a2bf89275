// The key server over the real MKA server, and KaYs that speak to it with raw messages.
#pragma once

#include <algorithm>
#include <cstdlib>
#include <cstring>
#include <map>
#include <string>
#include <tuple>
#include <utility>
#include <vector>

#include "protocols/mka_messages.h"
#include "support/world.h"
#include "tavu/key_server/key_server.h"
#include "tavu/mka/mka_server.h"

namespace test {

// A KaY as the key server sees it. What it hears is kept as words, so that a test compares a conversation
// with one text.
struct ca_member {
    oka_mailbox server;
    peer mailbox;
    tavu::sci identifier;
    tavu::mka_802_1ae_2006_capabilities capabilities = {{0, 40}, 1, 4, 1, 1, 0, 0, {}};
    bool obliging = false; // confirms every request
    bool is_alive = true;  // answers heartbeats
    uint32_t client_id = 0;
    std::string words;
    std::map<uint32_t, received> last; // of each number

    // `number` is the last octet of its SCI, 02:00:00:00:00:00:00:<number>.
    ca_member(oka_mailbox key_server, const char* name, uint8_t number)
        : server(key_server), mailbox(name), identifier{{2, 0, 0, 0, 0, 0, 0, number}} {}

    tavu::message_header header(uint32_t procedure) const { return {{}, procedure, client_id}; }
    void connect() {
        mailbox.send(server, tavu::MKA_CONNECTION_ESTABLISH_REQ,
                     tavu::mka_connection_establish_req{{{}, 101, 1}, 1, 1});
    }
    void join(const char* ca, uint32_t elements = 1) {
        struct {
            tavu::mka_join_ca_req request;
            tavu::mka_802_1ae_2006_capabilities capabilities;
        } message = {{header(3), {}, 10000, elements}, capabilities};
        message.request.ca.assign(ca);
        mailbox.send_bytes(server, tavu::MKA_JOIN_CA_REQ, &message, elements == 0 ? 92 : 124);
    }
    void announce(const char* ca) {
        tavu::mka_create_sc_req message{header(100), {}, identifier};
        message.ca.assign(ca);
        mailbox.send(server, tavu::MKA_CREATE_TX_SC_REQ, message);
    }
    void leave(const char* ca) {
        tavu::mka_leave_ca_req message{header(4), {}};
        message.ca.assign(ca);
        mailbox.send(server, tavu::MKA_LEAVE_CA_REQ, message);
    }
    void say(uint32_t number, uint32_t procedure = 0) { mailbox.send(server, number, header(procedure)); }
    void close() { say(tavu::MKA_CONNECTION_CLOSE_REQ); }
    void reject(uint32_t number, uint32_t procedure) {
        mailbox.send(server, number, tavu::mka_rej{header(procedure), 11});
    }
    void confirm(uint32_t request) {
        static const std::map<uint32_t, uint32_t> procedures = {{tavu::MKA_CREATE_RX_SC_RREQ, 102},
                                                                {tavu::MKA_CREATE_TX_SA_RREQ, 103},
                                                                {tavu::MKA_CREATE_RX_SA_RREQ, 104},
                                                                {tavu::MKA_UPDATE_PROTECT_FRAMES_RREQ, 105}};
        auto row = procedures.find(request);
        if (row != procedures.end())
            say(request + 1, row->second);
    }

    // Takes in what has arrived; false when nothing has.
    bool collect() {
        bool heard_something = !mailbox.is_silent();
        while (!mailbox.is_silent()) {
            auto number = static_cast<uint32_t>(strtoul(mailbox.waiting().c_str(), nullptr, 16));
            received message = mailbox.take(number);
            if (number == tavu::MKA_CONNECTION_ESTABLISH_CFM) {
                client_id = message.as<tavu::message_header>().connection_reference;
            } else if (number == tavu::MKA_HEARTBEAT_RREQ) {
                if (is_alive)
                    say(tavu::MKA_HEARTBEAT_RCFM, 1);
            } else {
                words += (words.empty() ? "" : " ") + word_for(message);
                if (obliging)
                    confirm(number);
                if (number == tavu::MKA_CONNECTION_CLOSE_CFM)
                    client_id = 0;
                last[number] = std::move(message);
            }
        }
        return heard_something;
    }
    // "rx_sc(2)" and "rx_sa(2,1)" name the peer's number and the AN, "tx_sa(1)" the AN.
    static std::string word_for(const received& message) {
        static const std::map<uint32_t, std::string> all = {
            {tavu::MKA_JOIN_CA_CFM, "joined"},         {tavu::MKA_JOIN_CA_REJ, "join_rej:"},
            {tavu::MKA_CREATE_TX_SC_CFM, "tx_sc_cfm"}, {tavu::MKA_CREATE_TX_SC_REJ, "tx_sc_rej:"},
            {tavu::MKA_CREATE_RX_SC_RREQ, "rx_sc"},    {tavu::MKA_CREATE_RX_SA_RREQ, "rx_sa"},
            {tavu::MKA_CREATE_TX_SA_RREQ, "tx_sa"},    {tavu::MKA_UPDATE_PROTECT_FRAMES_RREQ, "protect"},
            {tavu::MKA_LEAVE_CA_CFM, "leave_cfm"},     {tavu::MKA_LEAVE_CA_RREQ, "leave"},
            {tavu::MKA_CONNECTION_CLOSE_CFM, "closed"}};
        auto row = all.find(message.number());
        EXPECT_NE(row, all.end()) << "a member heard 0x" << std::hex << message.number();
        std::string word = row == all.end() ? "?" : row->second;
        if (word.ends_with(":"))
            return word + std::to_string(message.as<tavu::mka_rej>().reason);
        if (word == "rx_sc")
            return "rx_sc(" + std::to_string(message.as<tavu::mka_create_sc_req>().identifier.octets[7]) +
                   ")";
        if (word != "rx_sa" && word != "tx_sa")
            return word;
        const auto& request = message.as<tavu::mka_create_sa_rreq>();
        std::string peer = word == "rx_sa" ? std::to_string(request.identifier.octets[7]) + "," : "";
        return word + "(" + peer + std::to_string(request.an) + ")";
    }
    // The words since the last call.
    std::string heard() { return std::exchange(words, ""); }
};

class key_server_world : public world {
  protected:
    key_server_world() : server(start()) {}

    // Lets everyone talk until nobody has anything to say.
    void run() {
        for (bool talking = true; talking;) {
            settle();
            talking = false;
            for (ca_member* member : members)
                talking = member->collect() || talking;
        }
    }
    // The same while time passes.
    void pass(uint64_t milliseconds) {
        for (run(); milliseconds > 0; run()) {
            uint64_t step = std::min<uint64_t>(milliseconds, 1000);
            advance(step);
            milliseconds -= step;
        }
    }
    void add(ca_member& member) {
        if (std::find(members.begin(), members.end(), &member) == members.end())
            members.push_back(&member);
        member.connect();
        run();
    }

    // Each brings up what comes before it.
    void connect() {
        for (ca_member* member : {&a, &b}) {
            if (member->client_id == 0)
                add(*member);
        }
    }
    void join() {
        connect();
        a.join("ca1");
        b.join("ca1");
        run();
        EXPECT_EQ(heard(), "joined | joined");
    }
    void announce() {
        join();
        a.announce("ca1");
        run();
        EXPECT_EQ(heard(), "tx_sc_cfm | ");
        b.announce("ca1");
        run();
    }
    void secure() {
        a.obliging = b.obliging = true;
        announce();
    }
    std::string heard() { return a.heard() + " | " + b.heard(); }

    void stop_and_expect_nothing_left() {
        EXPECT_TRUE(tavu::key_server_stop());
        EXPECT_TRUE(tavu::mka_server_stop());
        settle();
        for (ca_member* member : members) {
            member->mailbox.disappear();
            member->last.clear();
        }
        expect_nothing_left();
    }

    // Key n consists of octets n.
    static bool generate_sak(uint32_t key_len, uint8_t* key) {
        if (!keys_fail)
            memset(key, ++keys_made, key_len);
        return !keys_fail;
    }
    static inline uint8_t keys_made = 0;
    static inline bool keys_fail = false;

    oka_mailbox server;
    ca_member a{server, "kay-1", 1};
    ca_member b{server, "kay-2", 2};
    std::vector<ca_member*> members{&a, &b};

  private:
    // The key server with a CA "ca1"; its mailbox.
    oka_mailbox start() {
        const tavu::key_server_callbacks callbacks = {generate_sak};
        EXPECT_TRUE(tavu::key_server_init(root(), &callbacks));
        EXPECT_TRUE(tavu::key_server_start());
        EXPECT_TRUE(tavu::key_server_add_ca("ca1"));
        route_to([](const oka_message* message) {
            if (!tavu::mka_server_dispatch_message(message))
                std::ignore = tavu::ks_dispatch_message(message);
        });
        peer finder("finder");
        oka_message* found = oka_alloc(12, tavu::MKA_SERVER_UP_IND);
        oka_locate_async("mka-key-server", &found, finder.mailbox());
        settle();
        return finder.take(tavu::MKA_SERVER_UP_IND).sender();
    }
};

} // namespace test
