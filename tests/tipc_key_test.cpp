// The file that holds the key of a TIPC cluster.
#include <gtest/gtest.h>

#include <fstream>
#include <sys/stat.h>
#include <unistd.h>

#include "services/common/tipc_key.h"

namespace {

const std::string path = testing::TempDir() + "tipc_key." + std::to_string(getpid());

std::string why_not(const std::string& content, mode_t mode = 0600) {
    std::ofstream(path) << content;
    chmod(path.c_str(), mode);
    services::tipc_key key;
    std::string error;
    bool taken = services::read_tipc_key(path.c_str(), key, error);
    unlink(path.c_str());
    EXPECT_EQ(taken, error.empty());
    return error;
}

TEST(tipc_key, is_read_as_the_kernel_is_to_have_it) {
    std::ofstream(path) << "0x00ff10A9" << std::string(32, '7') << "\n";
    chmod(path.c_str(), 0400);
    services::tipc_key key;
    std::string error;
    ASSERT_TRUE(services::read_tipc_key(path.c_str(), key, error)) << error;
    unlink(path.c_str());
    EXPECT_EQ(key.size, 20u);
    EXPECT_EQ(std::string(key.octets, key.octets + 5), std::string("\x00\xff\x10\xa9\x77", 5));
}

TEST(tipc_key, is_refused_where_it_is_none_or_no_secret) {
    for (size_t octets : {20u, 28u, 36u})
        EXPECT_EQ(why_not("0x" + std::string(2 * octets, 'a')), "") << octets;
    struct {
        const char* rule;
        std::string content;
        mode_t mode;
        const char* expected;
    } const rows[] = {
        {"others may read it", "0x" + std::string(40, 'a'), 0640, "chmod 600"},
        {"empty", "", 0600, "begins with 0x"},
        {"no prefix", std::string(40, 'a'), 0600, "begins with 0x"},
        {"another digit", "0x" + std::string(38, 'a') + "zz", 0600, "hexadecimal digits only"},
        {"a digit short", "0x" + std::string(39, 'a'), 0600, "40, 56 or 72"},
        {"another length", "0x" + std::string(44, 'a'), 0600, "40, 56 or 72"},
        {"too long for any", "0x" + std::string(400, 'a'), 0600, "40, 56 or 72"},
    };
    for (const auto& row : rows)
        EXPECT_NE(why_not(row.content, row.mode).find(row.expected), std::string::npos) << row.rule;
    services::tipc_key key;
    std::string error;
    EXPECT_FALSE(services::read_tipc_key("/nowhere/tipc.key", key, error));
    EXPECT_FALSE(services::read_tipc_key(testing::TempDir().c_str(), key, error));
}

} // namespace
