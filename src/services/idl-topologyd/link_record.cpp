#include "services/idl-topologyd/link_record.h"

namespace topologyd {

namespace {

link_attributes attributes_of(const link_record& link) {
    link_attributes wanted = link.file;
    wanted.status = link.set_status.value_or(wanted.status);
    return wanted;
}

} // namespace

bool wants_security(const link_record& link) {
    return link.is_in_file && asks_for_security(attributes_of(link));
}

wanted_publication wanted_of(const link_record& link) {
    if (!link.is_in_file)
        return {};
    wanted_publication wanted = {attributes_of(link), wants_answer(link.agreed)};
    if (asks_for_security(*wanted.link) && !may_be_up(link.agreed))
        wanted.link->status = tavu::OXMSI_LTM_LINK_STATUS_DOWN;
    return wanted;
}

link_situation situation_of(const link_record& link, daemon_contact daemon) {
    return {wants_security(link), daemon != daemon_contact::none,
            is_settled(link.published, wanted_of(link).link)};
}

services::topology_phase phase_of(const link_record& link, daemon_contact daemon, uint64_t now_ms) {
    return phase_of(link.agreed, situation_of(link, daemon), now_ms);
}

bool is_fulfilled(const link_record& link) {
    agreement_state state = link.agreed.state;
    bool has_come = state == agreement_state::encrypted || state == agreement_state::port_down;
    return is_settled(link.published, wanted_of(link).link) && (has_come || !wants_security(link));
}

bool is_over(const link_record& link) {
    return !link.is_in_file && is_settled(link.published, std::nullopt);
}

} // namespace topologyd
