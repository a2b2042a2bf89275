#include "simulate/checks.h"

#include <algorithm>
#include <cstring>

#include "protocols/oxmsi_messages.h"

namespace simulate {

namespace {

// Keys are replaced after 180 s. A failure of that is noticed when they are 200 s old at two looks, 5 s
// apart; and clocks drift.
constexpr uint64_t oldest_key_ns = 220 * second;
constexpr uint64_t longest_untruth_ns = 20 * second;

int port_of(const char* hardware_name) {
    for (size_t port = 0; port < port_names.size(); port++) {
        if (!strcmp(hardware_name, tavu::hardware_name_of(port_names[port])))
            return static_cast<int>(port);
    }
    return -1;
}

std::string to_text(const sci& channel) {
    char text[24];
    snprintf(text, sizeof text, "%02x:%02x", channel[4], channel[5]);
    return text;
}

} // namespace

std::string to_text(const link_end& end) {
    return unit_name(end.unit) + " " + port_names[static_cast<size_t>(end.port)];
}

void checks::fail(const std::string& what) {
    if (violation_.empty())
        violation_ = what;
}

void checks::secy_called(int unit, const oxhal_sim::call_report& call, uint64_t now_ns) {
    int port = port_of(call.port);
    if (port < 0 || call.result != 0)
        return;
    link_end at = {unit, port};
    secy& on = secys_[at];
    std::string operation = call.operation;
    bool is_on = !strcmp(call.word, "true");
    sci identifier;
    memcpy(identifier.data(), call.sci.octets, identifier.size());
    auto& channels = operation.starts_with("transmit") ? on.transmit : on.receive;
    operation.erase(0, operation.starts_with("transmit_") ? 9 : operation.starts_with("receive_") ? 8 : 0);

    if (&channels == &on.transmit && (operation == "sc_delete" || operation == "sc_delete_all"))
        claims_[at].is_old = true;
    if (operation == "enable_set")
        on = {};
    else if (operation == "protect_frames_set2")
        on.protects = is_on, on.was_protecting |= is_on;
    else if (operation == "sc_create")
        channels[identifier] = {}, on.was_protecting &= &channels != &on.transmit;
    else if (operation == "sc_delete")
        channels.erase(identifier);
    else if (operation == "sc_delete_all")
        channels.clear();
    if (call.an < 0)
        return;
    association& sa = channels[identifier][static_cast<size_t>(call.an)];
    if (operation == "sa_create" || operation == "sa_create2") {
        sa = {.installed = true, .packet_number = call.number, .installed_ns = now_ns};
        memcpy(sa.with.data(), call.key, sa.with.size());
        key_installed(at, identifier, static_cast<uint8_t>(call.an), sa.with);
    } else if (operation == "sa_delete") {
        sa = {};
    } else if (operation == "sa_enable") {
        bool transmits = &channels == &on.transmit;
        if (is_on && transmits) {
            for (association& other : channels[identifier])
                other.in_use = false;
            key_starts(sa);
        }
        sa.in_use = is_on;
    }
}

void checks::key_installed(const link_end& at, const sci& channel, uint8_t an, const key& installed) {
    auto [use, is_new] = key_uses_.try_emplace(installed, channel, an);
    if (use->second != std::pair(channel, an))
        fail("a key of channel " + to_text(use->second.first) + ", AN " + std::to_string(use->second.second) +
             ", is installed at " + to_text(at) + " for channel " + to_text(channel) + ", AN " +
             std::to_string(an));
    auto maker = made_.find(installed);
    if (maker == made_.end() || maker->second != host_of(at))
        fail(to_text(at) + " gets a key that the key server of its link did not make");
    for (auto& [end, other] : secys_) {
        for (auto* channels : {&other.transmit, &other.receive}) {
            auto held = channels->find(channel);
            if (end == at || held == channels->end())
                continue;
            const association& sa = held->second[an];
            if (sa.in_use && sa.with != installed)
                fail("channel " + to_text(channel) + ", AN " + std::to_string(an) + " gets a new key at " +
                     to_text(at) + " while " + to_text(end) + " has an older one in use");
        }
    }
}

// Frames are protected with a key and a packet number, never twice with the same two (IEEE
// 802.1AE-2018, 14.5).
void checks::key_starts(association& sa) {
    if (!sa.started && !started_.insert({sa.with, sa.packet_number}).second)
        fail("packet number " + std::to_string(sa.packet_number) + " starts a second time under one key");
    sa.started = true;
}

void checks::daemon_said(const link_end& port, bool is_encrypted) {
    claims_[port] = {.encrypted = is_encrypted, .is_old = false};
}

void checks::daemon_ended(int unit) {
    std::erase_if(claims_, [unit](const auto& entry) { return entry.first.unit == unit; });
}

void checks::secys_lost(int unit) {
    std::erase_if(secys_, [unit](const auto& entry) { return entry.first.unit == unit; });
}

void checks::request_sent(mailbox_ref server, mailbox_ref client, uint32_t reference, uint32_t number) {
    requests_[{server, client, reference}] = number;
}

void checks::answer_sent(mailbox_ref server, mailbox_ref client, uint32_t reference, uint32_t number) {
    auto asked = requests_.find({server, client, reference});
    if (asked == requests_.end())
        fail(std::string(tavu::oxmsi_msg_no_to_str(number)) +
             " answers no request, or one that was answered");
    else if (number != asked->second + 1 && number != asked->second + 2)
        fail(std::string(tavu::oxmsi_msg_no_to_str(number)) + " answers " +
             tavu::oxmsi_msg_no_to_str(asked->second));
    else
        requests_.erase(asked);
}

void checks::mailbox_gone(mailbox_ref mailbox) {
    std::erase_if(requests_, [&](const auto& entry) {
        return entry.first.server == mailbox || entry.first.client == mailbox;
    });
}

// The one known exception: a KaY that leaves and joins again remembers that its frames were to be protected.
// With its first keys it reports encryption, some messages before the key server has it protect. Until then
// it sends clear frames, which a strict receiver drops.
bool checks::is_yet_to_protect(const link_end& end) const {
    auto at = secys_.find(end);
    return at != secys_.end() && !at->second.protects && !at->second.was_protecting;
}

// Why a frame that one end sends does not reach the controlled port of the other; "" when it does.
std::string checks::why_dark(const link_end& from, const link_end& to) const {
    auto sender = secys_.find(from), receiver = secys_.find(to);
    if (sender == secys_.end() || receiver == secys_.end() || !sender->second.protects)
        return to_text(from) + " does not protect its frames";
    for (auto& [channel, held] : sender->second.transmit) {
        auto other = receiver->second.receive.find(channel);
        for (size_t an = 0; an < held.size(); an++) {
            if (!held[an].in_use)
                continue;
            if (other != receiver->second.receive.end() && other->second[an].in_use &&
                other->second[an].with == held[an].with)
                return "";
            return to_text(from) + " sends with AN " + std::to_string(an) + " and a key that " + to_text(to) +
                   " does not have for receiving";
        }
    }
    return to_text(from) + " has no key for sending";
}

// The unit whose key server hosts the link of that end; -1 for no link.
int checks::host_of(const link_end& end) const {
    for (const link& each : links_) {
        if (each.ends[0] == end || each.ends[1] == end)
            return std::min(each.ends[0].unit, each.ends[1].unit);
    }
    return -1;
}

void checks::look_at_ages(uint64_t now_ns) {
    for (const link& each : links_) {
        if (!claims_encryption(each.ends[0], false) || !claims_encryption(each.ends[1], false))
            continue;
        for (const link_end& end : each.ends) {
            for (auto& [channel, held] : secys_[end].transmit) {
                for (const association& sa : held) {
                    if (sa.in_use && now_ns - sa.installed_ns > oldest_key_ns)
                        fail(to_text(end) + " sends with a key that is " +
                             std::to_string((now_ns - sa.installed_ns) / second) + " s old");
                }
            }
        }
    }
}

bool checks::claims_encryption(const link_end& end, bool even_old) const {
    auto last = claims_.find(end);
    return last != claims_.end() && last->second.encrypted && (even_old || !last->second.is_old);
}

bool checks::is_good(const link& which) const {
    auto& [one, other] = which.ends;
    return claims_encryption(one, true) && claims_encryption(other, true) && why_dark(one, other).empty() &&
           why_dark(other, one).empty();
}

bool checks::all_good() const {
    return std::all_of(links_.begin(), links_.end(), [this](const link& each) { return is_good(each); });
}

void checks::look_at_links(uint64_t now_ns, bool after_stall, uint64_t excused_until_ns) {
    for (const link& each : links_) {
        const bool both_claim =
            claims_encryption(each.ends[0], false) && claims_encryption(each.ends[1], false);
        for (int end : {0, 1}) {
            std::string why = both_claim ? why_dark(each.ends[end], each.ends[1 - end]) : "";
            if (why.empty() || is_yet_to_protect(each.ends[end])) {
                dark_since_.erase(each.ends[end]);
                continue;
            }
            const uint64_t since_ns = dark_since_.try_emplace(each.ends[end], now_ns).first->second;
            if (!after_stall || (now_ns > excused_until_ns && now_ns - since_ns > longest_untruth_ns))
                fail("both ends report encryption enabled, but " + why);
        }
    }
}

std::string checks::open_matters() const {
    std::string matters;
    for (const link& each : links_) {
        if (!is_good(each))
            matters +=
                "the link " + to_text(each.ends[0]) + " - " + to_text(each.ends[1]) + " is not encrypted; ";
    }
    // A manager probes its daemon all the time, and says itself when that is not answered.
    for (auto& [asked, number] : requests_) {
        if (number != tavu::OXMSI_CAPABILITIES_GET_REQ)
            matters += std::string(tavu::oxmsi_msg_no_to_str(number)) + " is not answered; ";
    }
    return matters;
}

} // namespace simulate
