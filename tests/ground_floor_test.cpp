// What every module stands on: wire types, records, texts, traces and the port-name map.
#include <fcntl.h>
#include <poll.h>
#include <string>
#include <sys/wait.h>
#include <unistd.h>

#include "base/enum_text.h"
#include "base/record_list.h"
#include "base/wire.h"
#include "platform/oxhal/sim.h"
#include "platform/zeb/zeb_sink.h"
#include "support/world.h"
#include "tavu/common/tavu_utils.h"

using namespace tavu;

namespace {

class ground_floor : public test::world {};

TEST_F(ground_floor, text_is_cut_terminated_and_zero_filled_when_written_and_distrusted_when_read) {
    text<8> field;
    memset(field.octets, 'x', sizeof field.octets);
    EXPECT_FALSE(field.is_terminated());
    EXPECT_STREQ(field.printable().c_str(), "xxxxxxxx");

    text<8> cut;
    cut.assign(field);
    EXPECT_STREQ(cut.c_str(), "xxxxxxx");
    cut.assign("ab");
    const char expected[8] = {'a', 'b'};
    EXPECT_EQ(memcmp(cut.octets, expected, sizeof expected), 0);

    text<8> same = cut;
    same.octets[5] = 'q'; // behind the NUL
    EXPECT_TRUE(cut == same);
    EXPECT_FALSE(cut == "abc");
}

struct numbered {
    int value;
};

std::string values(record_list<numbered>& list) {
    std::string text;
    for (numbered& record : list)
        text += std::to_string(record.value);
    return text;
}

TEST_F(ground_floor, any_record_may_go_while_walks_are_under_way) {
    record_list<numbered> list;
    for (int value = 1; value <= 5; value++)
        list.add()->value += value; // to zero
    std::string walked;
    for (numbered& record : list) {
        walked += std::to_string(record.value);
        if (record.value == 5) {
            // A walk within the walk takes away what both would step on next, and itself.
            for (numbered& inner : list) {
                if (inner.value == 4 || inner.value == 3 || inner.value == 5)
                    list.remove(inner);
            }
        }
    }
    EXPECT_EQ(walked, "521");
    EXPECT_EQ(values(list), "21");
}

TEST_F(ground_floor, a_failed_allocation_is_traced_and_leaves_the_list_as_it_was) {
    record_list<numbered> list("KEYSRV");
    list.add()->value = 7;
    test::fail_allocation(1);
    EXPECT_EQ(list.add(), nullptr);
    EXPECT_EQ(values(list), "7");
    const std::string size = std::to_string(2 * sizeof(void*)); // the link, and the padded value
    EXPECT_TRUE(take_errors().starts_with("KEYSRV: Memory allocation of " + size + " bytes failed"));
}

TEST_F(ground_floor, port_names_map_to_the_ports_of_the_hardware) {
    oxhal_sim::install();
    ASSERT_TRUE(initialize_oxhal());
    char name[16];
    uint32_t underscored = 0, plain = 1;
    EXPECT_TRUE(get_port_handle_by_idl_port_name("IDLB2", name));
    EXPECT_STREQ(name, "DiPort_B2");
    EXPECT_TRUE(idl_port_name_to_port_handle("IDL_A1", underscored));
    EXPECT_TRUE(idl_port_name_to_port_handle("IDLA1", plain));
    EXPECT_EQ(underscored, plain);
    for (const char* unknown : {"IDL_C1", "idl_a1", "IDL_A1x", ""}) {
        forget_traces();
        EXPECT_FALSE(idl_port_name_to_port_handle(unknown, plain));
        EXPECT_EQ(take_errors(),
                  std::string("TAVU: Cannot map IDL port name '") + unknown + "' to DiPort name\n");
    }
}

TEST_F(ground_floor, texts_of_identifiers_and_unknown_values) {
    const sci identifier = {{0x00, 0x11, 0x22, 0x33, 0x44, 0x55, 0x00, 0x01}};
    EXPECT_STREQ(sci_to_str2(identifier), "SCI = { MAC = 00:11:22:33:44:55 , port identifier = 1 }");
    const enum_text table[] = {{3, "three"}};
    EXPECT_STREQ(enum_to_str(table, 3), "three");
    EXPECT_STREQ(enum_to_str(table, 4), "<unknown value>");
    EXPECT_EQ(take_errors(), "TAVU: <unknown value: 4>\n");
}

const char* counting_argument(int& evaluated) {
    evaluated++;
    return "seen";
}

TEST_F(ground_floor, a_group_that_is_off_formats_nothing) {
    int evaluated = 0;
    procInfo.trace_group_mask = ~(1u << ZEB_GROUP_ERROR);
    TRACE_ERROR("TAVU: %s", counting_argument(evaluated));
    EXPECT_EQ(evaluated, 0);
    procInfo.trace_group_mask = 1u << ZEB_GROUP_ERROR;
    TRACE_ERROR("TAVU: %s", counting_argument(evaluated));
    EXPECT_EQ(evaluated, 1);
    EXPECT_EQ(take_errors(), "TAVU: seen\n");
}

TEST_F(ground_floor, trace_groups_are_chosen_by_name) {
    uint32_t mask = 1;
    char wrong[64];
    EXPECT_TRUE(zeb::read_mask("none", mask, wrong, sizeof wrong));
    EXPECT_EQ(mask, 0u);
    EXPECT_FALSE(zeb::read_mask("error,loud info state-change", mask, wrong, sizeof wrong));
    EXPECT_EQ(mask, 0x2u | 0x10u | 0x4000u);
    EXPECT_TRUE(std::string(wrong).starts_with("there is no 'loud'; there are: error enter")) << wrong;
    EXPECT_TRUE(zeb::read_mask("all", mask, wrong, sizeof wrong));
    EXPECT_EQ(mask & 0x6413e, 0x6413eu);
}

// Traces go to a pipe that the test reads.
class stderr_test : public ground_floor {
  protected:
    void SetUp() override {
        ground_floor::SetUp();
        ASSERT_EQ(pipe(ends_), 0);
        saved_ = dup(STDERR_FILENO);
        dup2(ends_[1], STDERR_FILENO);
        close(ends_[1]);
        zeb::set_sink(nullptr);
    }
    void TearDown() override {
        dup2(saved_, STDERR_FILENO);
        close(saved_);
        close(ends_[0]);
        ground_floor::TearDown();
    }

    static void trace(const char* text) { lttngZebTrace(ZEB_GROUP_ERROR, "port.cpp", 12, text, &procInfo); }

    // Until there is no room for a line.
    void fill() {
        for (pollfd out = {.fd = STDERR_FILENO, .events = POLLOUT, .revents = 0}; poll(&out, 1, 0) > 0;)
            EXPECT_EQ(write(STDERR_FILENO, "x", 1), 1);
    }
    std::string drain() {
        std::string text(1 << 20, '\0');
        pollfd in = {.fd = ends_[0], .events = POLLIN, .revents = 0};
        ssize_t size = poll(&in, 1, 0) > 0 ? read(ends_[0], text.data(), text.size()) : 0;
        text.resize(size > 0 ? static_cast<size_t>(size) : 0);
        return text;
    }

    int ends_[2];
    int saved_;
};

TEST_F(stderr_test, a_record_is_one_line_that_the_journal_understands) {
    trace("TAVU: gone\n<7>forged");
    char line[128] = "";
    ASSERT_GT(read(ends_[0], line, sizeof line - 1), 0);
    EXPECT_STREQ(line, "<3>error port.cpp:12 TAVU: gone?<7>forged\n");
}

TEST_F(stderr_test, errors_that_belong_to_ordinary_life_are_written_as_traces) {
    constexpr const char* ordinary = "KEYSRV: handle_ks_ca_member_peer_down_ind: client_id = 3";
    const uint32_t mask = procInfo.trace_group_mask;
    procInfo.trace_group_mask &= ~(1u << ZEB_GROUP_TRACE);
    trace(ordinary);
    trace("KEYSRV: handle_ks_ca_member_peer_down_ind failed");
    EXPECT_EQ(drain(), "<3>error port.cpp:12 KEYSRV: handle_ks_ca_member_peer_down_ind failed\n");
    procInfo.trace_group_mask |= 1u << ZEB_GROUP_TRACE;
    trace(ordinary);
    EXPECT_EQ(drain(), std::string("<7>trace port.cpp:12 ") + ordinary + "\n");
    procInfo.trace_group_mask = mask;
}

TEST_F(stderr_test, nobody_waits_for_the_reader_of_traces_nor_dies_with_it) {
    fill();
    close(ends_[0]);
    ends_[0] = -1;
    trace("TAVU: gone");
}

TEST_F(stderr_test, what_a_full_pipe_lost_is_counted_and_the_last_errors_are_kept) {
    fill();
    lttngZebTrace(ZEB_GROUP_INFO, "port.cpp", 12, "TAVU: lost", &procInfo);
    for (const char* text : {"TAVU: 1", "TAVU: 2", "TAVU: 3", "TAVU: 4", "TAVU: 5"})
        trace(text);
    drain();
    trace("TAVU: here again");
    std::string lines = drain();
    EXPECT_NE(lines.find(" ZEB: 2 lines were lost"), std::string::npos) << lines;
    EXPECT_TRUE(lines.ends_with("<3>error port.cpp:12 TAVU: 2\n<3>error port.cpp:12 TAVU: 3\n"
                                "<3>error port.cpp:12 TAVU: 4\n<3>error port.cpp:12 TAVU: 5\n"
                                "<3>error port.cpp:12 TAVU: here again\n"))
        << lines;
    trace("TAVU: and again");
    EXPECT_EQ(drain(), "<3>error port.cpp:12 TAVU: and again\n");
}

std::string line_of(int line, const std::string& text) {
    return "<3>error port.cpp:" + std::to_string(line) + " " + text + "\n";
}

TEST_F(stderr_test, a_place_that_repeats_is_bounded_and_counted_and_others_are_not_affected) {
    const std::string bounded =
        line_of(12, "ZEB: repeats too often, and is only counted until the minute is over");
    std::string expected;
    for (int number = 1; number <= 1000; number++) {
        trace(std::to_string(number).c_str());
        if (number <= 100)
            expected += line_of(12, std::to_string(number));
    }
    EXPECT_EQ(drain(), expected + bounded);
    lttngZebTrace(ZEB_GROUP_ERROR, "port.cpp", 13, "another line", &procInfo);
    lttngZebTrace(ZEB_GROUP_INFO, "port.cpp", 12, "another group", &procInfo);
    EXPECT_EQ(drain(), line_of(13, "another line") + "<6>info port.cpp:12 another group\n");
    for (int number = 1; number <= 1000; number++)
        lttngZebTrace(ZEB_GROUP_TRACE, "port.cpp", 12, "for debugging", &procInfo);
    EXPECT_EQ(drain().size(), 1000 * strlen("<7>trace port.cpp:12 for debugging\n"));

    advance(59'000);
    trace("still");
    EXPECT_EQ(drain(), "");
    advance(61'000);
    trace("calm again");
    EXPECT_EQ(drain(),
              line_of(12, "ZEB: repeated 901 times within a minute, not shown") + line_of(12, "calm again"));
}

TEST_F(stderr_test, the_end_of_a_process_waits_for_its_last_error_to_be_read) {
    fill();
    pid_t ending = fork();
    if (ending == 0) {
        (void)zeb_init();
        for (int times = 0; times < 103; times++)
            trace("TAVU: the reason");
        exit(1);
    }
    usleep(50'000);
    EXPECT_EQ(waitpid(ending, nullptr, WNOHANG), 0);
    drain();
    waitpid(ending, nullptr, 0);
    const std::string lines = drain();
    EXPECT_TRUE(
        lines.ends_with(line_of(12, "TAVU: the reason") +
                        line_of(12, "ZEB: repeats too often, and is only counted until the minute is over") +
                        line_of(12, "ZEB: repeated 3 times within a minute, not shown")))
        << lines;
}

} // namespace
