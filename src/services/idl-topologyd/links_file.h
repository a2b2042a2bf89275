// Reads the links file: what the links of this node are to be.
//
//     [[link]]
//     port = "IDL_A1"          # own port
//     id = 1
//     remote-port = "IDL_A1"
//     remote-mpid = 7
//     du-type = "type-3"       # the kind of unit at the other end; "type-3" unless given
//     status = "up"            # unless given
//     hunt-path = "mp7"        # where the remote unit's mailboxes are found; needed for "type-3"
#pragma once

#include <string>
#include <string_view>
#include <vector>

#include "protocols/oxmsi_messages.h"

namespace topologyd {

struct link_attributes {
    tavu::port_name port;
    tavu::port_name remote_port;
    tavu::oka_hunt_path hunt_path;
    uint32_t id;
    uint32_t remote_mpid;
    uint32_t du_type; // oxmsi_du_type
    uint32_t status;  // oxmsi_ltm_link_status

    bool operator==(const link_attributes&) const = default;
};

// The daemon keeps this many subscriptions, so more links could not all be followed.
constexpr size_t links_max = 32;

struct links_file {
    std::vector<link_attributes> links; // in the order of the file; empty when there are errors
    // One line each: file, line, link and key, and what to do about it.
    std::vector<std::string> errors;

    bool is_good() const { return errors.empty(); }
};

links_file parse_links(std::string_view content, const char* path);
links_file read_links_file(const char* path);

// The units at the other ends, each once, separated by blanks: what OKA_PEERS needs to name.
std::string units_of(const std::vector<link_attributes>& links);

} // namespace topologyd
