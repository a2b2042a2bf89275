// Error traces whose level and text are fixed, although they belong to the ordinary life of a link. They are
// written in the group `trace`, so that a journal has errors only where something is wrong.
#pragma once

#include <algorithm>
#include <iterator>
#include <string_view>

namespace zeb {

struct harmless_row {
    std::string_view text; // with which the trace begins
    std::string_view reason;
};

constexpr harmless_row harmless_rows[] = {
    {"KEYSRV: Invalid state change issued: not applied in wrong state: current: 'CA_EMPTY', "
     "expected: 'CA_OPERATIONAL'",
     "two members form a CA in one step"},
    {"KEYSRV: Invalid state change issued: not applied in wrong state: current: 'CA_MEMBER_STATE_SECURED', "
     "expected: 'CA_MEMBER_STATE_CONFIGURED_SA'",
     "the keys of a member that is secured are replaced"},
    {"KEYSRV: handle_ks_ca_member_peer_down_ind: client_id = ",
     "a member leaves when its link is taken down"},
    {"TAVU: handle_leave_ca_rreq called in wrong state: current: 'MKA_STATE_JOINED'",
     "the other member has left; the topology managers watch what follows"},
};

constexpr bool is_harmless(std::string_view text) {
    return std::any_of(std::begin(harmless_rows), std::end(harmless_rows),
                       [=](const harmless_row& row) { return text.starts_with(row.text); });
}

} // namespace zeb
