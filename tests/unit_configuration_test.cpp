#include <gtest/gtest.h>

#include "services/common/unit_configuration.h"

using namespace services;

TEST(unit_configuration, is_taken_or_refused_with_line_and_remedy) {
    const std::string good = "MPID=3\nOXHAL_PORTS=\"DiPort_A1=eth1:sec-a1\"\n";
    const struct {
        std::string content;
        const char* error; // all of the first, or its beginning; "" for a good file
    } cases[] = {
        {"# A comment\n\n; and another\n  MPID = 3 \nOXHAL_PORTS='DiPort_A1=eth1:sec-a1 DiPort_B2=e:s'", ""},
        {"MPID=3\nOXHAL_DRIVER=sim\nOKA_UNIT=mp3\nOKA_TRANSPORTS=unix "
         "tipc\nOKA_TIPC_CLEAR=yes\nZEB_TRACE=\"error info\"",
         ""},
        {"", "FILE: MPID is missing; add MPID= and the unit's own number"},
        {"MPID=3", "FILE: OXHAL_PORTS is missing; add OXHAL_PORTS=\"DiPort_A1=eth1:sec-a1\""},
        {good + "eth1", "FILE:3: 'eth1' sets no variable; write NAME=value"},
        {good + "\nMIPD=4", "FILE:4: unknown variable 'MIPD'; there are: MPID OXHAL_PORTS"},
        {good + "MPID=4", "FILE:3: MPID is set a second time; remove either line"},
        {"MPID=3 # own", "FILE:1: MPID is '3 # own'; write the unit's own number, from 0 to 2147483647"},
        {"MPID=2147483648", "FILE:1: MPID is '2147483648'; write"},
        {"MPID=", "FILE:1: MPID is ''; write"},
        {"MPID=\"3", "FILE:1: MPID: write the value as it is, or all of it in one pair of quotes"},
        {good + "OKA_UNIT=../mp3", "FILE:3: OKA_UNIT is '../mp3'; write the name"},
        {good + "OKA_DIR=run/oka", "FILE:3: OKA_DIR is 'run/oka'; write the absolute path of a directory"},
        {good + "OKA_DIR=//", "FILE:3: OKA_DIR is '//'; write the absolute path of a directory"},
        {good + "OKA_PEERS=mp7,../x", "FILE:3: OKA_PEERS is 'mp7,../x'; '../x' is no path of a unit"},
        {good + "OKA_TRANSPORTS=unix,tcp",
         "FILE:3: OKA_TRANSPORTS is 'unix,tcp'; there is no 'tcp'; there are: unix"},
        {good + "OKA_TRANSPORTS=unix unix", "FILE:3: OKA_TRANSPORTS is 'unix unix'; 'unix' is named twice"},
        {good + "ZEB_TRACE=error,all,loud",
         "FILE:3: ZEB_TRACE is 'error,all,loud'; there is no 'loud'; there are: error"},
        {good + "OKA_TRANSPORTS=tipc\nOKA_TIPC_INTERFACES=eth1",
         "FILE: OKA_TRANSPORTS leads to other machines only; add unix"},
        {good + "OKA_TRANSPORTS=unix tipc", "FILE: OKA_TIPC_INTERFACES is missing; add"},
        {good + "OKA_TRANSPORTS=unix tipc\nOKA_TIPC_INTERFACES=eth1 eth2\nOKA_TIPC_TOLERANCE=50", ""},
        {good + "OKA_TIPC_INTERFACES=eth1 sec-a1\nOKA_UNIT=mp3",
         "FILE:3: OKA_TIPC_INTERFACES names the controlled port 'sec-a1'; write its common port, 'eth1'"},
        {good + "OKA_TIPC_INTERFACES=eth1,eth2:",
         "FILE:3: OKA_TIPC_INTERFACES is 'eth1,eth2:'; 'eth1,eth2:' is no"},
        {good + "OKA_TIPC_TOLERANCE=49", "FILE:3: OKA_TIPC_TOLERANCE is '49'; write milliseconds"},
        {good + "OKA_TIPC_IDENTITY=0123456789abcdef", "FILE:3: OKA_TIPC_IDENTITY is"},
        {good + "OXHAL_DRIVER=Sim\033",
         "FILE:3: OXHAL_DRIVER is 'Sim?'; there is no 'Sim?'; there are: macsec sim"},
        {"OXHAL_PORTS=", "FILE:1: OXHAL_PORTS is ''; no port is named; write them as"},
        {"OXHAL_PORTS=DiPort_A1=eth1",
         "FILE:1: OXHAL_PORTS is 'DiPort_A1=eth1'; 'DiPort_A1=eth1' is no port;"},
        {"OXHAL_PORTS=DiPort_A1=eth1:0123456789abcdef", "FILE:1: OXHAL_PORTS is"},
        {"OXHAL_PORTS=DiPort_C1=e:s", "FILE:1: OXHAL_PORTS is 'DiPort_C1=e:s'; none of the ports is one that "
                                      "carries a link; there are DiPort_A1"},
        {"MPID=3\nOXHAL_PORTS=\"P=eth1:sec1 DiPort_A1=eth2:sec2\"", ""},
        {"OXHAL_PORTS=DiPort_A1=e:s DiPort_A1=f:t", "FILE:1: OXHAL_PORTS is 'DiPort_A1=e:s DiPort_A1=f:t'; "
                                                    "'DiPort_A1=f:t' names 'DiPort_A1' a second time"},
        {"OXHAL_PORTS=DiPort_A1=e:s DiPort_B1=s:t",
         "FILE:1: OXHAL_PORTS is 'DiPort_A1=e:s DiPort_B1=s:t'; 'DiPort_B1=s:t' names 's' a second time"},
    };
    for (const auto& row : cases) {
        unit_configuration read = parse_unit_configuration(row.content, "FILE");
        EXPECT_EQ(read.is_good(), !*row.error) << row.content;
        std::string first = read.is_good() ? "" : read.errors[0];
        EXPECT_TRUE(first.starts_with(row.error)) << row.content << "\n" << first;
    }
    EXPECT_EQ(read_unit_configuration("/nowhere").errors[0],
              "/nowhere: cannot be read: No such file or directory; create it, from unit.conf.example");

    unit_configuration read = parse_unit_configuration(good + "OKA_UNIT = 'mp3'\n", "FILE");
    ASSERT_EQ(read.variables.size(), 3u);
    EXPECT_EQ(read.variables[1].value, "DiPort_A1=eth1:sec-a1");
    EXPECT_EQ(read.variables[2].value, "mp3");
}
