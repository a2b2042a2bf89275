// What must hold at every moment, told from the calls to the SecYs, from what the daemons report on the wire,
// and from their answers to requests.
#pragma once

#include <array>
#include <map>
#include <optional>
#include <set>
#include <string>
#include <vector>

#include "protocols/port_names.h"
#include "simulate/stage.h"

namespace simulate {

constexpr auto port_names = std::to_array(tavu::usual_port_names);
constexpr int ports_per_unit = port_names.size();

struct link_end {
    int unit;
    int port;
    auto operator<=>(const link_end&) const = default;
};
struct link {
    link_end ends[2];
};

using key = std::array<uint8_t, OXHAL_KEY_SIZE_MAX>;
using sci = std::array<uint8_t, 8>;

class checks {
  public:
    explicit checks(std::vector<link> links) : links_(std::move(links)) {}

    void secy_called(int unit, const oxhal_sim::call_report& call, uint64_t now_ns);
    void key_made(int unit, const key& made) { made_[made] = unit; }
    void daemon_said(const link_end& port, bool is_encrypted);
    void daemon_ended(int unit);
    // Hardware that lost its power.
    void secys_lost(int unit);
    void request_sent(mailbox_ref server, mailbox_ref client, uint32_t reference, uint32_t number);
    void answer_sent(mailbox_ref server, mailbox_ref client, uint32_t reference, uint32_t number);
    void mailbox_gone(mailbox_ref mailbox);

    // After every step. After a stall the ends may claim what is not so until they have looked at their
    // SecYs: what is wrong then must not last for more than 20 s, nor beyond `excused_until_ns`.
    void look_at_links(uint64_t now_ns, bool after_stall, uint64_t excused_until_ns);
    // Once nothing disturbs the links any more: keys that are in use are changed.
    void look_at_ages(uint64_t now_ns);
    // Both ends report it, and frames arrive in both directions.
    bool is_good(const link& which) const;
    bool all_good() const;
    // What is wrong with the links and requests once nothing disturbs them any more.
    std::string open_matters() const;

    const std::string& violation() const { return violation_; }

  private:
    struct association {
        bool installed = false;
        bool in_use = false;
        bool started = false;
        uint32_t packet_number = 0;
        uint64_t installed_ns = 0;
        key with{};
    };
    using associations = std::array<association, oxhal::associations_per_channel>;
    struct secy {
        bool protects = false;
        bool was_protecting = false; // since its transmit channel is there
        std::map<sci, associations> transmit, receive;
    };
    // What the daemon says of a port. It gives up a port's channels without always saying so: from then on,
    // until it speaks again, its last word is taken as old news and not as a claim.
    struct claim {
        bool encrypted = false;
        bool is_old = false;
    };
    struct request {
        mailbox_ref server, client;
        uint32_t reference;
        auto operator<=>(const request&) const = default;
    };

    void key_installed(const link_end& at, const sci& channel, uint8_t an, const key& installed);
    void key_starts(association& sa);
    int host_of(const link_end& end) const;
    bool claims_encryption(const link_end& end, bool even_old) const;
    bool is_yet_to_protect(const link_end& end) const;
    std::string why_dark(const link_end& from, const link_end& to) const;
    void fail(const std::string& what);

    std::vector<link> links_;
    std::map<link_end, secy> secys_;
    std::map<link_end, claim> claims_;
    std::map<key, std::pair<sci, uint8_t>> key_uses_;
    std::set<std::pair<key, uint32_t>> started_;
    std::map<link_end, uint64_t> dark_since_; // what it sends is lost, though both ends claim encryption
    std::map<key, int> made_;                 // by the key server of that unit
    std::map<request, uint32_t> requests_;
    std::string violation_;
};

std::string to_text(const link_end& end);

} // namespace simulate
