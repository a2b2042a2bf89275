// The messaging contract over what this machine has: one process alone, and two of them over AF_UNIX sockets,
// of the same unit and of two.
#include "oka_contract.h"

namespace oka_tests {

constexpr arrangement over_unix[] = {
    {.name = "unix_one_unit", .transports = "unix", .agent_unit = "here", .prefix = ""},
    {.name = "unix_two_units", .transports = "unix", .agent_unit = "over/there", .prefix = "over/there/"},
};
constexpr arrangement alone[] = {
    {.name = "one_process", .transports = nullptr, .agent_unit = nullptr, .prefix = ""},
    {.name = "one_process_over_unix", .transports = "unix", .agent_unit = nullptr, .prefix = "here/"},
};

std::string name_of(const testing::TestParamInfo<arrangement>& info) {
    return info.param.name;
}

INSTANTIATE_TEST_SUITE_P(alone, oka_contract, testing::ValuesIn(alone), name_of);
INSTANTIATE_TEST_SUITE_P(over_unix, oka_contract, testing::ValuesIn(over_unix), name_of);
INSTANTIATE_TEST_SUITE_P(over_unix, oka_process_contract, testing::ValuesIn(over_unix), name_of);

} // namespace oka_tests
