// The configuration of a unit: the environment of its processes, one variable a line, in a file that systemd
// reads for the services. The whole file is checked before they start, so that a wrong line is reported once,
// with its number and what to write, and not by each process in other words.
#pragma once

#include <string>
#include <string_view>
#include <vector>

namespace services {

constexpr const char* unit_configuration_path = "/etc/qel-tavu/unit.conf";

struct variable {
    std::string name;
    std::string value;
    size_t line;
};

struct unit_configuration {
    std::vector<variable> variables; // those that are understood, in order
    std::vector<std::string> errors; // "FILE:LINE: what is wrong; what to write"

    bool is_good() const { return errors.empty(); }
};

unit_configuration parse_unit_configuration(std::string_view content, const char* path);
// A file that cannot be read is an error in the result.
unit_configuration read_unit_configuration(const char* path);

} // namespace services
