// What the programs around the daemon share: their command lines, and reading a small file.
#include <gtest/gtest.h>

#include <fstream>
#include <sys/stat.h>

#include "services/common/options.h"
#include "services/common/small_file.h"
#include "support/process.h"

using namespace services;

namespace {

command fruit_command() {
    return {"fruit pick",
            "BASKET",
            "Picks fruit.",
            "",
            {{"colour", "NAME", "its colour"}, {"tree", "N", "a tree", true}, {"ripe", nullptr, "no other"}},
            1};
}

TEST(command_line, is_read_in_every_form_of_its_options) {
    const char* arguments[] = {"--tree", "1", "basket", "--tree=2", "--ripe", "--colour="};
    command pick = fruit_command();
    EXPECT_FALSE(pick.read(arguments));
    EXPECT_EQ(pick.get("tree").values, (std::vector<std::string>{"1", "2"}));
    EXPECT_TRUE(pick.get("ripe").given());
    EXPECT_STREQ(pick.get("colour").value_or("none"), "");
    EXPECT_EQ(pick.operands, std::vector<std::string>{"basket"});

    const char* after_dashes[] = {"--", "--ripe"};
    command dashed = fruit_command();
    EXPECT_FALSE(dashed.read(after_dashes));
    EXPECT_EQ(dashed.operands, std::vector<std::string>{"--ripe"});
    EXPECT_STREQ(dashed.get("colour").value_or("none"), "none");
}

TEST(command_line, is_answered_when_it_asks_or_is_wrong) {
    const struct {
        std::vector<const char*> arguments;
        int exit_status;
        const char* text;
    } rows[] = {
        {{"-h"},
         0,
         "Picks fruit.\n\nUsage: fruit pick BASKET\n\nOptions:\n  --colour NAME  its colour\n"
         "  --tree N       a tree\n  --ripe         no other\n  --help         show this help\n"},
        {{"--version"}, 0, "fruit 0."},
        {{"--ripeness"}, 2, "fruit: unknown option '--ripeness'\nTry 'fruit pick --help'.\n"},
        {{"-r"}, 2, "fruit: unknown option '-r'\n"},
        {{"--ripe", "--ripe"}, 2, "fruit: option '--ripe' is given twice\n"},
        {{"--ripe=yes"}, 2, "fruit: option '--ripe' takes no value\n"},
        {{"--colour"}, 2, "fruit: option '--colour' needs a value: --colour NAME\n"},
        {{"a", "b"}, 2, "fruit: unexpected argument 'b'\n"},
    };
    for (const auto& row : rows) {
        command pick = fruit_command();
        auto answer = pick.read(row.arguments);
        ASSERT_TRUE(answer) << row.text;
        EXPECT_EQ(answer->exit_status, row.exit_status) << row.text;
        EXPECT_TRUE(answer->text.starts_with(row.text)) << answer->text;
    }
}

TEST(small_file, is_read_whole_or_refused) {
    test::temporary_folder folder;
    const std::string path = folder.path() + "/file";
    auto read = [&path](size_t size) {
        std::ofstream(path) << std::string(size, 'x');
        return read_small_file(path.c_str(), 2048);
    };
    EXPECT_EQ(read(2048).content, std::string(2048, 'x'));
    EXPECT_EQ(read(2049).error, "is larger than 2 KiB");
    EXPECT_EQ(read(2049).content, "");
    unlink(path.c_str());
    EXPECT_TRUE(read_small_file(path.c_str(), 2048).is_missing);
    ASSERT_EQ(mkfifo(path.c_str(), 0600), 0);
    EXPECT_EQ(read_small_file(path.c_str(), 2048).error, "cannot be read: it is no regular file");
}

} // namespace
