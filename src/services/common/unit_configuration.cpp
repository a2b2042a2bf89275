#include "services/common/unit_configuration.h"

#include <algorithm>
#include <cstdlib>
#include <initializer_list>
#include <optional>

#include "platform/oka_names.h"
#include "platform/oxhal_names.h"
#include "platform/words.h"
#include "platform/zeb_names.h"
#include "protocols/port_names.h"
#include "services/common/plain_text.h"
#include "services/common/small_file.h"

namespace services {

namespace {

using platform::has_word;
using platform::next_word;

constexpr size_t file_size_max = size_t{64} * 1024;
constexpr size_t errors_max = 20;
constexpr std::string_view blanks = " \t\r";

using word_list = std::initializer_list<std::string_view>;

bool contains(word_list known, std::string_view word) {
    return std::find(known.begin(), known.end(), word) != known.end();
}

std::string list(word_list known) {
    std::string text;
    for (std::string_view word : known)
        text += (text.empty() ? "" : " ") + std::string(word);
    return text;
}

std::string_view without_blanks(std::string_view text) {
    size_t first = text.find_first_not_of(blanks);
    if (first == std::string_view::npos)
        return {};
    return text.substr(first, text.find_last_not_of(blanks) - first + 1);
}

// --- What each variable may be: "", or what to write instead.

std::string check_mpid(const std::string& value) {
    bool digits = !value.empty() && value.find_first_not_of("0123456789") == std::string::npos;
    if (digits && value.size() <= 10 && strtoull(value.c_str(), nullptr, 10) <= INT32_MAX)
        return "";
    return "write the unit's own number, from 0 to 2147483647";
}

std::string check_unit(const std::string& value) {
    return oka_valid_unit_path(value.c_str())
               ? ""
               : "write the name under which other units find this one, such as mp3; no '.' begins it";
}

std::string check_path(const std::string& value) {
    return value.size() > 1 && value[0] == '/' ? "" : "write an absolute path, such as /run/oka";
}

template<bool (*check)(const char* value, char* wrong, size_t size)>
std::string ask_platform(const std::string& value) {
    char wrong[256];
    return check(value.c_str(), wrong, sizeof wrong) ? "" : wrong;
}

std::string check_one_word(const std::string& value, word_list known) {
    return contains(known, value) ? "" : "write one of: " + list(known);
}

std::string check_interfaces(const std::string& value) {
    for (std::string_view rest = value, word = next_word(rest, " "); !word.empty();
         word = next_word(rest, " ")) {
        if (std::string name(word); !oxhal_valid_interface_name(name.c_str()))
            return "'" + name + "' is no interface; write the common ports, such as eth1 eth2";
    }
    return "";
}

std::string check_identity(const std::string& value) {
    return !value.empty() && value.size() <= 15 && value.find(' ') == std::string::npos
               ? ""
               : "write a name of 1 to 15 characters, different on every machine";
}

std::string check_tolerance(const std::string& value) {
    bool digits = !value.empty() && value.find_first_not_of("0123456789") == std::string::npos;
    unsigned long long ms = digits && value.size() <= 5 ? strtoull(value.c_str(), nullptr, 10) : 0;
    return ms >= 50 && ms <= 30000 ? "" : "write milliseconds, from 50 to 30000";
}

std::string check_ports(const std::string& value) {
    oxhal_port_settings settings;
    char wrong[256];
    if (!oxhal_read_ports(value.c_str(), &settings, wrong, sizeof wrong))
        return wrong;
    bool carries_links = std::any_of(settings.ports, settings.ports + settings.count,
                                     [](const auto& port) { return tavu::idl_name_of(port.name); });
    return carries_links ? "" : tavu::no_port_for_links();
}

const struct known_variable {
    std::string_view name;
    std::string (*check)(const std::string& value);
} known_variables[] = {
    {"MPID", check_mpid},
    {"OXHAL_PORTS", check_ports},
    {"OKA_UNIT", check_unit},
    {"OKA_DIR", ask_platform<oka_check_directory>},
    {"OKA_TRANSPORTS", ask_platform<oka_check_transports>},
    {"OKA_TIPC_CLEAR",
     [](const std::string& value) {
         return check_one_word(value, {"yes", "no"});
     }},
    {"OKA_TIPC_INTERFACES", check_interfaces},
    {"OKA_TIPC_IDENTITY", check_identity},
    {"OKA_TIPC_TOLERANCE", check_tolerance},
    {"OKA_TIPC_KEY_MARK", check_path},
    {"OKA_TIPC_SECRET", check_path},
    {"OKA_PEERS", ask_platform<oka_check_peers>},
    {"OXHAL_DRIVER", ask_platform<oxhal_check_driver>},
    {"ZEB_TRACE", ask_platform<zeb_check_trace_groups>},
    {"ZEB_STAMP",
     [](const std::string& value) {
         return check_one_word(value, {"yes", "no"});
     }},
};

// --- The file.

struct reader {
    const char* path;
    size_t line = 0;
    unit_configuration result = {};

    void complain(std::string words) {
        if (result.errors.size() >= errors_max)
            return;
        result.errors.push_back(path + (line ? ":" + std::to_string(line) : "") + ": " +
                                plain_text(std::move(words)));
    }

    const variable* find(std::string_view name) const {
        for (const variable& each : result.variables) {
            if (each.name == name)
                return &each;
        }
        return nullptr;
    }

    std::string_view value(std::string_view name) const {
        const variable* found = find(name);
        return found ? std::string_view(found->value) : std::string_view();
    }
};

// The value without its quotes, if it has any. Nothing when systemd would read another value than the one
// between them.
std::optional<std::string> unquoted(std::string_view value) {
    if (value.size() >= 2 && (value[0] == '"' || value[0] == '\'') && value.back() == value[0])
        value = value.substr(1, value.size() - 2);
    if (value.find_first_of("\"'\\") != std::string_view::npos)
        return std::nullopt;
    return std::string(value);
}

void read_variable(reader& file, std::string_view name, std::string_view text) {
    const auto* known =
        std::find_if(std::begin(known_variables), std::end(known_variables),
                     [name](const known_variable& candidate) { return candidate.name == name; });
    std::optional<std::string> value = unquoted(text);
    std::string what(name);
    if (known == std::end(known_variables)) {
        std::string names;
        for (const known_variable& each : known_variables)
            names += (names.empty() ? "" : " ") + std::string(each.name);
        file.complain("unknown variable '" + what.substr(0, 40) + "'; there are: " + names);
    } else if (file.find(name)) {
        file.complain(what + " is set a second time; remove either line");
    } else if (!value) {
        file.complain(what + ": write the value as it is, or all of it in one pair of quotes, without '\\'");
    } else if (std::string wrong = known->check(*value); !wrong.empty()) {
        file.complain(what + " is '" + value->substr(0, 80) + "'; " + wrong);
    } else {
        file.result.variables.push_back({what, *value, file.line});
    }
}

void read_line(reader& file, std::string_view line) {
    line = without_blanks(line);
    if (line.empty() || line[0] == '#' || line[0] == ';')
        return;
    size_t equals = line.find('=');
    if (equals == std::string_view::npos)
        file.complain("'" + std::string(line.substr(0, 40)) + "' sets no variable; write NAME=value");
    else
        read_variable(file, without_blanks(line.substr(0, equals)), without_blanks(line.substr(equals + 1)));
}

// TIPC carries the messages by which the keys of a link are agreed. The controlled port works only after
// that, so it must not carry TIPC.
void check_bearers(reader& file) {
    const variable* bearers = file.find("OKA_TIPC_INTERFACES");
    const variable* ports = file.find("OXHAL_PORTS");
    oxhal_port_settings settings;
    char wrong[256];
    if (!bearers || !ports || !oxhal_read_ports(ports->value.c_str(), &settings, wrong, sizeof wrong))
        return;
    file.line = bearers->line;
    for (uint32_t i = 0; i < settings.count; i++) {
        const oxhal_port_setting& port = settings.ports[i];
        if (has_word(bearers->value, port.controlled_port))
            file.complain("OKA_TIPC_INTERFACES names the controlled port '" +
                          std::string(port.controlled_port) + "'; write its common port, '" +
                          port.common_port + "'");
    }
    file.line = 0;
}

// After another error nothing is reported as missing: the wrong line may be the one that sets it.
void check_completeness(reader& file) {
    file.line = 0;
    if (!file.result.is_good())
        return;
    if (!file.find("MPID"))
        file.complain("MPID is missing; add MPID= and the unit's own number");
    if (!file.find("OXHAL_PORTS") && file.value("OXHAL_DRIVER") != "sim")
        file.complain(
            "OXHAL_PORTS is missing; add OXHAL_PORTS=\"DiPort_A1=eth1:sec-a1\", with the unit's own "
            "interfaces");
    const std::string_view transports = file.value("OKA_TRANSPORTS");
    if (!transports.empty() && !has_word(transports, "unix"))
        file.complain("OKA_TRANSPORTS leads to other machines only; add unix, for the processes of this one");
    if (has_word(transports, "tipc") && file.value("OKA_TIPC_INTERFACES").empty() &&
        file.value("OKA_TIPC_CLEAR") != "yes")
        file.complain("OKA_TIPC_INTERFACES is missing; add OKA_TIPC_INTERFACES=\"eth1\", with the interfaces "
                      "that lead to the other machines");
    check_bearers(file);
}

} // namespace

unit_configuration parse_unit_configuration(std::string_view content, const char* path) {
    reader file{path};
    while (!content.empty()) {
        std::string_view line = content.substr(0, content.find('\n'));
        content.remove_prefix(std::min(line.size() + 1, content.size()));
        file.line++;
        read_line(file, line);
    }
    check_completeness(file);
    return file.result;
}

unit_configuration read_unit_configuration(const char* path) {
    small_file file = read_small_file(path, file_size_max);
    if (file.error.empty())
        return parse_unit_configuration(file.content, path);
    reader failed{path};
    failed.complain(file.error +
                    (file.is_missing ? "; create it, from unit.conf.example" : "; make it a readable file"));
    return failed.result;
}

} // namespace services
