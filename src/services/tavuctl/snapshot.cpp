#include "services/tavuctl/snapshot.h"

#include <algorithm>
#include <cstdarg>
#include <cstring>

namespace tavuctl {

namespace {

using namespace tavu;
using namespace services;

__attribute__((format(printf, 1, 2))) std::string format(const char* pattern, ...) {
    char buffer[256];
    va_list arguments;
    va_start(arguments, pattern);
    vsnprintf(buffer, sizeof buffer, pattern, arguments);
    va_end(arguments);
    return buffer;
}

const char* state_in_words(uint32_t state) {
    return state == 1 ? "enabled" : state == 0 ? "disabled" : "not known";
}

const char* publication_in_words(uint32_t publication) {
    switch (static_cast<topology_publication>(publication)) {
    case TOPOLOGY_LINK_WAITING:
        return "waiting";
    case TOPOLOGY_LINK_REQUESTED:
        return "requested";
    case TOPOLOGY_LINK_PUBLISHED:
        return "published";
    case TOPOLOGY_LINK_REMOVING:
        return "removing";
    }
    return "unknown";
}

const char* daemon_in_words(uint32_t state) {
    switch (static_cast<topology_daemon_state>(state)) {
    case TOPOLOGY_DAEMON_LOCATING:
        return "locating";
    case TOPOLOGY_DAEMON_CONNECTING:
        return "connecting";
    case TOPOLOGY_DAEMON_REFUSED:
        return "refused";
    case TOPOLOGY_DAEMON_CONNECTED:
        return "connected";
    }
    return "unknown";
}

std::string show_age(const topology_age& age, uint64_t elapsed_ms) {
    return age.is_never() ? "-" : show_duration(age.in_ms() + elapsed_ms);
}

bool asks_for_security(const topology_link& link) {
    return link.du_type == OXMSI_DU_TYPE_3 &&
           (link.status == OXMSI_LTM_LINK_STATUS_UP || link.status == OXMSI_LTM_LINK_STATUS_MACSEC_PENDING);
}

// The last answer in words, or how long there has been none, and what comes next.
std::string show_answer(const topology_link& link, uint64_t elapsed_ms) {
    if (link.publication == TOPOLOGY_LINK_REQUESTED) {
        std::string words = std::string(request_in_words(link.last_request)) + ": no answer yet, for " +
                            show_age(link.requested, elapsed_ms);
        if (asks_for_security(link) && link.phase >= TOPOLOGY_PHASE_STARTING)
            words += "; it comes when the other end has joined";
        return words;
    }
    std::string words = request_in_words(link.last_answer);
    if (link.last_reason != 0)
        words += std::string(": ") + reject_reason_in_words(link.last_reason);
    if (link.milliseconds_to_next > elapsed_ms)
        words += "; asked again in " + show_duration(link.milliseconds_to_next - elapsed_ms);
    return words;
}

// Why the link is not secured: "wrong at mp7 for 3.2 s: what it is; what to do".
std::string show_fault(const topology_link& link, uint64_t elapsed_ms) {
    if (link.fault == TOPOLOGY_FAULT_NONE)
        return "";
    std::string where =
        link.fault_end == TOPOLOGY_END_THERE ? format("at mp%u", uint32_t{link.remote_mpid}) : "at this end";
    return "wrong " + where + " for " + show_age(link.fault_since, elapsed_ms) + ": " + link.words.c_str();
}

std::string show_status(const topology_link& link) {
    return std::string(link_status_to_word(link.status)) + (link.is_status_set ? " (set)" : "");
}

using row = std::vector<std::string>;

std::string show_rows(const std::vector<row>& rows) {
    std::vector<size_t> widths(rows[0].size(), 0);
    for (const row& each : rows) {
        for (size_t i = 0; i < each.size(); i++)
            widths[i] = std::max(widths[i], each[i].size());
    }
    std::string shown;
    for (const row& each : rows) {
        for (size_t i = 0; i + 1 < each.size(); i++)
            shown += each[i] + std::string(widths[i] - each[i].size() + 2, ' ');
        shown += each.back() + "\n";
    }
    return shown;
}

std::string show_daemon(const topology_snapshot& head, uint64_t elapsed_ms) {
    std::string age = show_age(head.daemon_since, elapsed_ms);
    switch (static_cast<topology_daemon_state>(uint32_t{head.daemon_state})) {
    case TOPOLOGY_DAEMON_LOCATING:
        return "not found for " + age +
               "; is it running in this unit, and is oxpcsi-server? It serves once it knows its ports";
    case TOPOLOGY_DAEMON_CONNECTING:
        return "found, but silent for " + age;
    case TOPOLOGY_DAEMON_REFUSED:
        return std::string("refuses the connection: ") + reject_reason_in_words(head.daemon_reason) +
               "; asked again soon";
    case TOPOLOGY_DAEMON_CONNECTED:
        return "connected for " + age;
    }
    return "unknown";
}

// Builds a JSON object. A value that is a string is JSON text already.
class json {
  public:
    json& add(const char* key, const std::string& value) {
        text_ += (text_.empty() ? "" : ",") + quote(key) + ":" + value;
        return *this;
    }
    json& add(const char* key, uint32_t value) { return add(key, std::to_string(value)); }
    std::string object() const { return "{" + text_ + "}"; }

    static std::string quote(const std::string& value) {
        std::string quoted = "\"";
        for (char octet : value) {
            auto code = static_cast<unsigned char>(octet);
            if (octet == '"' || octet == '\\')
                quoted += std::string("\\") + octet;
            else if (code < 0x20 || code > 0x7e)
                quoted += format("\\u%04x", code);
            else
                quoted += octet;
        }
        return quoted + "\"";
    }
    // Null for 0.
    static std::string name(uint32_t value, const char* (*to_str)(uint32_t)) {
        return value == 0 ? "null" : quote(to_str(value));
    }
    static std::string age(const topology_age& age) {
        return age.is_never() ? "null" : std::to_string(age.in_ms());
    }
    static std::string boolean(bool value) { return value ? "true" : "false"; }
    static std::string state(uint32_t state) { return state > 1 ? "null" : quote(state_in_words(state)); }

  private:
    std::string text_;
};

std::string fault_as_json(const topology_link& link) {
    if (link.fault == TOPOLOGY_FAULT_NONE)
        return "null";
    return json()
        .add("code", json::quote(fault_to_word(link.fault)))
        .add("at", json::quote(link.fault_end == TOPOLOGY_END_THERE ? "other end" : "this end"))
        .add("since_ms", json::age(link.fault_since))
        .add("words", json::quote(link.words.c_str()))
        .object();
}

std::string link_as_json(const topology_link& link) {
    return json()
        .add("port", json::quote(link.port.c_str()))
        .add("link_id", link.link_id)
        .add("remote_port", json::quote(link.remote_port.c_str()))
        .add("remote_mpid", link.remote_mpid)
        .add("hunt_path", json::quote(link.hunt_path.c_str()))
        .add("du_type", json::quote(du_type_to_word(link.du_type)))
        .add("status", json::quote(link_status_to_word(link.status)))
        .add("status_of_file", json::quote(link_status_to_word(link.status_of_file)))
        .add("status_is_set", json::boolean(link.is_status_set))
        .add("publication", json::quote(publication_in_words(link.publication)))
        .add("published_ms", json::age(link.published))
        .add("controlled_port", json::state(link.oper_state))
        .add("encryption", json::state(link.encryption_state))
        .add("state_since_ms", json::age(link.state_since))
        .add("state_told_ms", json::age(link.state_told))
        .add("last_request", json::name(link.last_request, oxmsi_msg_no_to_str))
        .add("requested_ms", json::age(link.requested))
        .add("last_answer", json::name(link.last_answer, oxmsi_msg_no_to_str))
        .add("last_reason", json::name(link.last_reason, oxmsi_error_to_str))
        .add("last_answer_in_words", json::quote(show_answer(link, 0)))
        .add("answered_ms", json::age(link.answered))
        .add("next_attempt_ms", link.milliseconds_to_next)
        .add("phase", json::quote(phase_to_word(link.phase)))
        .add("fault", fault_as_json(link))
        .object();
}

// Ages do not count.
bool differs(const topology_link& before, const topology_link& after) {
    return !(before.port == after.port) || !(before.remote_port == after.remote_port) ||
           before.remote_mpid != after.remote_mpid || before.status != after.status ||
           before.is_status_set != after.is_status_set || before.publication != after.publication ||
           before.oper_state != after.oper_state || before.encryption_state != after.encryption_state ||
           before.last_answer != after.last_answer || before.last_reason != after.last_reason ||
           before.phase != after.phase || before.fault != after.fault ||
           before.fault_end != after.fault_end || !(before.words == after.words);
}

const topology_link* find_link(const snapshot& among, const port_name& port) {
    auto found = std::find_if(among.links.begin(), among.links.end(),
                              [&port](const topology_link& link) { return link.port == port; });
    return found == among.links.end() ? nullptr : &*found;
}

} // namespace

bool is_well_formed(const topology_link& link) {
    return link.port.is_terminated() && link.remote_port.is_terminated() && link.hunt_path.is_terminated() &&
           link.words.is_terminated();
}

std::optional<snapshot> read_snapshot(const oka_message* message) {
    if (oka_size(message) < sizeof(topology_snapshot))
        return std::nullopt;
    snapshot read{as<topology_snapshot>(message), {}};
    uint64_t size = sizeof(topology_snapshot) + uint64_t{read.head.link_count} * sizeof(topology_link);
    if (read.head.version != topology_protocol_version || oka_size(message) != size ||
        !read.head.links_file.is_terminated() || !read.head.file_error.is_terminated())
        return std::nullopt;
    const auto* links = reinterpret_cast<const topology_link*>(&as<topology_snapshot>(message) + 1);
    read.links.assign(links, links + read.head.link_count);
    if (!std::all_of(read.links.begin(), read.links.end(), is_well_formed))
        return std::nullopt;
    return read;
}

std::string show_duration(uint64_t ms) {
    uint64_t seconds = ms / 1000;
    uint64_t minutes = seconds / 60;
    uint64_t hours = minutes / 60;
    using ull = unsigned long long;
    if (minutes == 0)
        return format("%llu.%llu s", ull{seconds}, ull{ms % 1000 / 100});
    if (hours == 0)
        return format("%llu m %02llu s", ull{minutes}, ull{seconds % 60});
    if (hours < 24)
        return format("%llu h %02llu m", ull{hours}, ull{minutes % 60});
    return format("%llu d %llu h", ull{hours / 24}, ull{hours % 24});
}

std::string show_table(const snapshot& shown, uint64_t elapsed_ms) {
    std::string text = "qel-tavu:   " + show_daemon(shown.head, elapsed_ms) + "\n";
    if (shown.head.file_error.length() == 0)
        text += std::string("links file: ") + shown.head.links_file.c_str() + "\n\n";
    else
        text += std::string("links file: not in force: ") + shown.head.file_error.c_str() + "\n\n";
    if (shown.links.empty())
        return text + "no links\n";
    std::vector<row> rows = {{"PORT", "LINK", "PEER", "STATUS", "CONTROLLED PORT", "ENCRYPTION", "SINCE",
                              "PUBLISHED", "LAST ANSWER"}};
    for (const topology_link& link : shown.links) {
        rows.push_back({link.port.c_str(), std::to_string(link.link_id),
                        format("mp%u %s", uint32_t{link.remote_mpid}, link.remote_port.c_str()),
                        show_status(link), state_in_words(link.oper_state),
                        state_in_words(link.encryption_state), show_age(link.state_since, elapsed_ms),
                        show_age(link.published, elapsed_ms), show_answer(link, elapsed_ms)});
    }
    text += show_rows(rows);
    for (const topology_link& link : shown.links) {
        if (link.fault != TOPOLOGY_FAULT_NONE)
            text += std::string("\n") + link.port.c_str() + ": " + show_fault(link, elapsed_ms) + "\n";
    }
    return text;
}

std::string show_json(const snapshot& shown) {
    std::string links;
    for (const topology_link& link : shown.links)
        links += (links.empty() ? "" : ",") + link_as_json(link);
    bool in_force = shown.head.file_error.length() == 0;
    json daemon;
    daemon.add("state", json::quote(daemon_in_words(shown.head.daemon_state)))
        .add("since_ms", json::age(shown.head.daemon_since))
        .add("refusal", json::name(shown.head.daemon_reason, oxmsi_error_to_str));
    json file;
    file.add("path", json::quote(shown.head.links_file.c_str()))
        .add("in_force", json::boolean(in_force))
        .add("error", in_force ? "null" : json::quote(shown.head.file_error.c_str()));
    return json()
        .add("daemon", daemon.object())
        .add("links_file", file.object())
        .add("links", "[" + links + "]")
        .object();
}

std::string show_link(const topology_link& link) {
    return format("%s: link %u to mp%u %s, status %s: controlled port %s, encryption %s; ", link.port.c_str(),
                  uint32_t{link.link_id}, uint32_t{link.remote_mpid}, link.remote_port.c_str(),
                  show_status(link).c_str(), state_in_words(link.oper_state),
                  state_in_words(link.encryption_state)) +
           show_answer(link, 0) + (link.fault == TOPOLOGY_FAULT_NONE ? "" : "; " + show_fault(link, 0)) +
           "\n";
}

std::string show_changes(const snapshot& before, const snapshot& after) {
    std::string text;
    if (before.head.daemon_state != after.head.daemon_state)
        text += "qel-tavu: " + show_daemon(after.head, 0) + "\n";
    if (!(before.head.file_error == after.head.file_error))
        text += std::string("links file: ") +
                (after.head.file_error.length() ? after.head.file_error.c_str() : "in force") + "\n";
    for (const topology_link& link : after.links) {
        const topology_link* earlier = find_link(before, link.port);
        if (!earlier || differs(*earlier, link))
            text += show_link(link);
    }
    for (const topology_link& link : before.links) {
        if (!find_link(after, link.port))
            text += std::string(link.port.c_str()) + ": no longer a link\n";
    }
    return text;
}

} // namespace tavuctl
