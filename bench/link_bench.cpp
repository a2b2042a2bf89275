// From a link's publication to its confirmation, between two real daemons on the simulated SecY: one link
// alone and the four of the name map at once, beside what a bare socket pair takes for as many messages, all
// on one core and in turns; and the daemons' memory with four secured ports. Prints JSON.
//
//   link_bench QEL-TAVU [TURNS]
#include <algorithm>
#include <cstdio>
#include <cstdlib>
#include <filesystem>
#include <string>
#include <vector>

#include "protocols/message_numbers.h"
#include "protocols/mka_messages.h"
#include "protocols/oxmsi_messages.h"
#include "support/critical_path.h"
#include "support/measure.h"
#include "support/unit.h"

namespace {

using namespace bench;

constexpr int default_turns = 61;
constexpr int bare_round_trips = 2000;

// The unit with the smaller MP id holds the key server. It publishes first, so that the confirmation at the
// other end waits for nothing but messages.
constexpr uint32_t key_server_mpid = 3;
constexpr uint32_t other_mpid = 7;

// A second file, so that the two daemons share no page of code and each counts its own.
std::string copy_of(const std::string& program, const test::temporary_folder& folder) {
    std::string copy = folder.path() + "/qel-tavu";
    std::error_code error;
    if (!std::filesystem::copy_file(program, copy, error))
        fail(copy.c_str());
    return copy;
}

// Two units that have just started.
struct node {
    node(const std::string& program, const std::string& trace_groups = "none")
        : key_server(key_server_mpid, program, folder.path(), trace_groups),
          other(other_mpid, copy_of(program, folder), folder.path(), trace_groups) {}

    // Microseconds from the first request to the last confirmation.
    double publish(unsigned count) {
        key_server.publish_first(count, other_mpid);
        double took_us = other.publish_second(count, key_server_mpid);
        key_server.await_confirmations(count);
        return took_us;
    }

    test::temporary_folder folder{messaging_folders};
    unit key_server;
    unit other;
};

std::vector<path_step> trace_critical_path(const std::string& program) {
    node traced(program, "send receive");
    (void)traced.publish(1);
    std::vector<path_step> path =
        critical_path({traced.other.end_and_read_traces(), traced.key_server.end_and_read_traces()},
                      tavu::OXMSI_IDL_TOPOLOGY_PUBLISH_LINK_ADDED_REQ,
                      tavu::OXMSI_IDL_TOPOLOGY_PUBLISH_LINK_ADDED_CFM, tavu::MKA_SERVER_UP_IND);
    if (path.empty()) {
        fprintf(stderr, "the traces do not tell the critical path\n");
        exit(2);
    }
    return path;
}

const char* name_of(uint32_t number) {
    bool is_mka = number >= tavu::MKA_CONNECTION_ESTABLISH_REQ && number <= tavu::MKA_PEER_DOWN_IND;
    return is_mka ? tavu::mka_msg_no_to_str(number) : tavu::oxmsi_msg_no_to_str(number);
}

void print_path(const std::vector<path_step>& path) {
    printf(" \"path\": [");
    for (const path_step& step : path)
        printf("%s\"%s%s\"", &step == path.data() ? "" : ", ", name_of(step.number),
               step.between_processes ? "" : " (within one process)");
    printf("]");
}

struct figures {
    std::vector<double> bare_us, link_us, of_four_us, link_ratio, four_ratio;
    unsigned memory_kib = 0; // of the daemon that has more

    void take_turn(const bare_socket_pair& bare, const std::string& program, double messages) {
        bare_us.push_back(bare.one_way_us(bare_round_trips));
        {
            node one(program);
            link_us.push_back(one.publish(1));
        }
        node four(program);
        of_four_us.push_back(four.publish(max_ports) / max_ports);
        memory_kib =
            std::max({memory_kib, four.key_server.private_memory_kib(), four.other.private_memory_kib()});
        link_ratio.push_back(link_us.back() / (messages * bare_us.back()));
        four_ratio.push_back(of_four_us.back() / link_us.back());
    }
};

} // namespace

int main(int argc, char** argv) {
    int turns = argc == 3 ? atoi(argv[2]) : default_turns;
    if (argc < 2 || argc > 3 || turns < 1) {
        fprintf(stderr, "usage: %s QEL-TAVU [TURNS]\n", argv[0]);
        return 2;
    }
    pin_to_one_core();
    std::vector<path_step> path = trace_critical_path(argv[1]);
    auto messages =
        std::count_if(path.begin(), path.end(), [](auto& step) { return step.between_processes; });

    bare_socket_pair bare;
    figures taken;
    for (int turn = 0; turn < turns; turn++)
        taken.take_turn(bare, argv[1], static_cast<double>(messages));

    printf("{\"bare_one_way_us\": %.3f, \"link_us\": %.1f, \"messages\": %d, \"link_ratio\": %.3f,\n",
           median(taken.bare_us), median(taken.link_us), static_cast<int>(messages),
           median(taken.link_ratio));
    printf(" \"of_four_us\": %.1f, \"four_ratio\": %.3f, \"memory_kib\": %u, \"turns\": %d,\n",
           median(taken.of_four_us), median(taken.four_ratio), taken.memory_kib, turns);
    print_path(path);
    printf("}\n");
    return 0;
}
