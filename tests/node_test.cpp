// Whole nodes: two units, MP ids 3 and 7, each with the real programs as processes on the simulated SecY,
// joined by a veth cable in a network namespace of the test's own. What a person sees is what the test sees:
// tavuctl, the links file, traces and exit statuses.
#include <cerrno>
#include <chrono>
#include <csignal>
#include <cstdio>
#include <cstring>
#include <functional>
#include <optional>
#include <string>
#include <unistd.h>
#include <vector>

#include <gtest/gtest.h>

#include "services/oka-guard/guard.h"
#include "support/process.h"

namespace {

using test::process;
using test::wait_until;

using words = std::vector<std::string>;

struct ended {
    int status;
    std::string output;
};

ended run(const words& command, const words& environment) {
    process running(command, environment);
    int status = running.wait_for_end();
    return {status, running.output()};
}

class unit {
  public:
    unit(const std::string& folder, unsigned mpid, unsigned remote_mpid)
        : folder_(folder), mpid_(mpid), remote_mpid_(remote_mpid) {
        write_links("link = []\n");
    }

    void start() {
        start_all();
        watch.emplace(words{TAVUCTL, "watch", "--json"}, environment());
        ASSERT_TRUE(wait_until([&] { return shows(R"("state":"connected")"); })) << all_output();
    }
    void start_port_control() {
        port_control.emplace(words{OXPCSI_SERVER, "--port", "IDL_A1=port" + std::to_string(mpid_)},
                             environment());
    }
    void start_daemon() { daemon.emplace(words{QEL_TAVU}, environment()); }
    void start_topology() { topology.emplace(words{IDL_TOPOLOGYD, "--links", links_file()}, environment()); }
    void start_all() {
        start_port_control();
        start_daemon();
        start_topology();
    }
    // A watch outlives its manager; only what it shows from here on counts.
    void kill_topology() {
        topology->kill();
        watch->forget_output();
    }
    void kill_all() {
        kill_topology();
        daemon->kill();
        port_control->kill();
    }

    words environment() const {
        return {"OKA_DIR=" + folder_, "OKA_UNIT=" + name(mpid_), "MPID=" + std::to_string(mpid_),
                "OXHAL_DRIVER=sim", "OXHAL_SIM_VIEW=" + folder_ + "/" + name(mpid_) + ".secys"};
    }
    ended tavuctl(words arguments) const {
        arguments.insert(arguments.begin(), TAVUCTL);
        return run(arguments, environment());
    }

    void publish_link() {
        write_links("[[link]]\n"
                    "port = \"IDL_A1\"\nid = 1\nremote-port = \"IDL_A1\"\n"
                    "remote-mpid = " +
                    std::to_string(remote_mpid_) + "\nhunt-path = \"" + name(remote_mpid_) + "\"\n");
    }
    void delete_link() { write_links("link = []\n"); }

    // Whether the latest line of the watch contains the text.
    bool shows(const char* text) const {
        const std::string& lines = watch->output();
        size_t end = lines.rfind('\n');
        if (end == std::string::npos)
            return false;
        size_t start = end == 0 ? 0 : lines.rfind('\n', end - 1) + 1;
        return lines.substr(start, end - start).find(text) != std::string::npos;
    }
    bool is_secured() const { return shows(R"("phase":"encrypted")"); }
    bool is_encrypted() const { return shows(R"("encryption":"enabled")"); }

    std::string all_output() const {
        return "daemon:\n" + daemon->output() + "topology manager:\n" + topology->output() + "watch:\n" +
               watch->output();
    }

    std::optional<process> port_control, daemon, topology, watch;

  private:
    static std::string name(unsigned mpid) { return "mp" + std::to_string(mpid); }
    std::string links_file() const { return folder_ + "/" + name(mpid_) + ".toml"; }
    // In one move, as an editor does.
    void write_links(const std::string& text) const {
        std::string fresh = links_file() + ".new";
        FILE* file = fopen(fresh.c_str(), "we");
        ASSERT_TRUE(file) << fresh;
        fputs(text.c_str(), file);
        fclose(file);
        ASSERT_EQ(rename(fresh.c_str(), links_file().c_str()), 0);
    }

    std::string folder_;
    unsigned mpid_;
    unsigned remote_mpid_;
};

class node : public testing::Test {
  protected:
    void SetUp() override {
        if (!test::enter_own_network())
            GTEST_SKIP() << "this host allows no network namespace: " << strerror(errno);
        lay_cable();
    }
    void start_both() {
        ASSERT_NO_FATAL_FAILURE(three.start());
        ASSERT_NO_FATAL_FAILURE(seven.start());
    }
    void secure_link() {
        seven.publish_link();
        three.publish_link();
        expect_encrypted();
    }
    void expect_encrypted() {
        ASSERT_TRUE(wait_until([&] { return three.is_encrypted() && seven.is_encrypted(); })) << all_output();
    }
    std::string all_output() const { return three.all_output() + seven.all_output(); }

    test::temporary_folder folder;
    unit three{folder.path(), 3, 7};
    unit seven{folder.path(), 7, 3};

  private:
    static void lay_cable() {
        const words commands[] = {{"ip", "link", "add", "port3", "type", "veth", "peer", "name", "port7"},
                                  {"ip", "link", "set", "port3", "up"},
                                  {"ip", "link", "set", "port7", "up"}};
        for (const words& command : commands) {
            ended result = run(command, {});
            ASSERT_EQ(result.status, 0) << result.output;
        }
    }
};

TEST_F(node, encrypts_a_published_link_at_both_ends_and_tells_what_it_does) {
    ASSERT_NO_FATAL_FAILURE(start_both());
    ASSERT_NO_FATAL_FAILURE(secure_link());
    const struct {
        const unit& at;
        words arguments;
        int status;
        std::vector<const char*> texts;
    } rows[] = {
        {three, {"status"}, 0, {"IDL_A1", "mp7 IDL_A1", "enabled", "link updated", "connected for"}},
        {seven, {"status", "--json"}, 0, {R"("remote_mpid":3)", R"("encryption":"enabled")"}},
        {three, {"link", "set", "IDL_B1", "--status", "down"}, 1, {"IDL_B1"}},
        {three, {"link", "set", "IDL_A1"}, 2, {"--status"}},
    };
    for (const auto& row : rows) {
        ended result = row.at.tavuctl(row.arguments);
        EXPECT_EQ(result.status, row.status) << result.output;
        for (const char* text : row.texts)
            EXPECT_NE(result.output.find(text), std::string::npos) << text << " in:\n" << result.output;
    }
    // It tells which of its processes is missing, too.
    three.daemon->kill();
    EXPECT_TRUE(wait_until([&] { return three.shows(R"("state":"locating")"); })) << three.all_output();
    ended status = three.tavuctl({"status"});
    EXPECT_NE(status.output.find("is it running in this unit"), std::string::npos) << status.output;
    EXPECT_FALSE(three.is_encrypted());
    EXPECT_EQ(three.tavuctl({"link", "set", "IDL_A1", "--status", "down"}).status, 1);

    three.topology->kill();
    status = three.tavuctl({"status", "--timeout", "1"});
    EXPECT_EQ(status.status, 3);
    EXPECT_NE(status.output.find("is idl-topologyd running"), std::string::npos) << status.output;
}

TEST_F(node, leaves_a_port_unauthenticated_whose_link_is_deleted_or_down) {
    ASSERT_NO_FATAL_FAILURE(start_both());
    ASSERT_NO_FATAL_FAILURE(secure_link());

    constexpr const char* unauthenticated =
        "changing MACsec role: 'MACSEC_ROLE_SECURED' -> 'MACSEC_ROLE_UNAUTHENTICATED'";
    ended set = three.tavuctl({"link", "set", "IDL_A1", "--status", "down"});
    EXPECT_EQ(set.status, 0) << set.output;
    EXPECT_NE(set.output.find("encryption disabled"), std::string::npos) << set.output;
    EXPECT_TRUE(wait_until([&] { return three.daemon->wrote(unauthenticated); })) << three.all_output();

    seven.delete_link();
    EXPECT_TRUE(wait_until([&] { return seven.shows(R"("links":[])"); })) << seven.all_output();
    EXPECT_TRUE(wait_until([&] { return seven.daemon->wrote(unauthenticated); })) << seven.all_output();

    // Both ends as before: the key server takes the re-formed association up again.
    seven.publish_link();
    EXPECT_EQ(three.tavuctl({"link", "set", "IDL_A1", "--status", "file"}).status, 0);
    expect_encrypted();
}

// An init system starts again what died; here the test does. How long a link needs from then on is printed.
TEST_F(node, comes_back_from_whatever_breaks) {
    ASSERT_NO_FATAL_FAILURE(start_both());
    ASSERT_NO_FATAL_FAILURE(secure_link());
    using act = std::function<void(unit&)>;
    auto set_cable = [](const char* how) {
        return [how](unit&) { EXPECT_EQ(run({"ip", "link", "set", "port3", how}, {}).status, 0); };
    };
    const act kill_daemon = [](unit& of) { of.daemon->kill(); };
    const act kill_port_control = [](unit& of) { of.port_control->kill(); };
    const struct {
        const char* what;
        unit& at;
        act breaks, mends;
    } rows[] = {
        {"qel-tavu of the key server's unit", three, kill_daemon, &unit::start_daemon},
        {"oxpcsi-server of the key server's unit", three, kill_port_control, &unit::start_port_control},
        {"idl-topologyd of the other unit", seven, &unit::kill_topology, &unit::start_topology},
        {"the cable", three, set_cable("down"), set_cable("up")},
        {"the key server's unit", three, &unit::kill_all, &unit::start_all},
        {"the other unit", seven, &unit::kill_all, &unit::start_all},
    };
    for (const auto& row : rows) {
        row.breaks(row.at);
        ASSERT_TRUE(wait_until([&] { return !three.is_secured() && !seven.is_secured(); }))
            << row.what << ":\n"
            << all_output();
        auto mended = std::chrono::steady_clock::now();
        row.mends(row.at);
        ASSERT_TRUE(wait_until([&] { return three.is_secured() && seven.is_secured(); })) << row.what << ":\n"
                                                                                          << all_output();
        std::chrono::duration<double, std::milli> took = std::chrono::steady_clock::now() - mended;
        printf("    %-45s secured again after %6.1f ms\n", row.what, took.count());
        EXPECT_TRUE(three.is_encrypted() && seven.is_encrypted()) << row.what;
    }
}

// The key server hears nothing of it and drops the association. Nobody tells the two members.
TEST_F(node, starts_over_after_a_daemon_stood_still) {
    ASSERT_NO_FATAL_FAILURE(start_both());
    ASSERT_NO_FATAL_FAILURE(secure_link());
    ASSERT_EQ(kill(seven.daemon->pid(), SIGSTOP), 0);
    EXPECT_TRUE(wait_until([&] { return seven.shows(R"("code":"stalled")"); })) << all_output();
    EXPECT_TRUE(wait_until([&] { return three.daemon->wrote("Heartbeat timeout"); })) << all_output();
    ASSERT_EQ(kill(seven.daemon->pid(), SIGCONT), 0);
    for (unit* of : {&three, &seven}) {
        EXPECT_TRUE(wait_until([&] { return of->topology->wrote("'encrypted' -> 'down'"); })) << all_output();
    }
    EXPECT_TRUE(wait_until([&] {
        return three.is_secured() && seven.is_secured() && !seven.shows(R"("code":"stalled")");
    })) << all_output();
}

TEST_F(node, refuses_to_run_where_it_cannot_work) {
    ASSERT_NO_FATAL_FAILURE(start_both());
    const struct {
        const char* what;
        words environment; // over the unit's
        const char* complaint;
    } rows[] = {
        {"a second daemon of the unit", {}, "qel-tavu-root"},
        {"no MP id", {"OKA_UNIT=mp9", "MPID"}, "MPID"},
        {"no such hardware", {"OKA_UNIT=mp9", "OXHAL_DRIVER=none"}, "OXHAL_DRIVER"},
        {"no messaging directory", {"OKA_DIR=/dev/null/oka"}, "/dev/null/oka"},
    };
    for (const auto& row : rows) {
        words environment = three.environment();
        environment.insert(environment.end(), row.environment.begin(), row.environment.end());
        ended result = run({QEL_TAVU}, environment);
        EXPECT_EQ(result.status, 1) << row.what << ":\n" << result.output;
        EXPECT_NE(result.output.find(row.complaint), std::string::npos) << row.what << ":\n" << result.output;
        EXPECT_NE(result.output.find("Exiting with error code: 1"), std::string::npos) << row.what;
    }
    // The daemon that was there first still works.
    ASSERT_NO_FATAL_FAILURE(secure_link());
}

TEST_F(node, ends_in_order_when_it_is_asked_to) {
    ASSERT_NO_FATAL_FAILURE(start_both());
    ASSERT_NO_FATAL_FAILURE(secure_link());
    const std::string sockets = folder.path() + "/mp3/";
    const struct {
        std::optional<test::process>& asked;
        int with;
        int status;
        std::string socket;
    } rows[] = {
        {three.watch, SIGINT, 0, "tavuctl-" + std::to_string(three.watch->pid())},
        {three.daemon, SIGTERM, 1, "mka-key-server"},
        {three.port_control, SIGTERM, 0, "oxpcsi-server"},
        {three.topology, SIGINT, 0, "idl-topologyd"},
    };
    for (const auto& row : rows) {
        std::string socket = sockets + row.socket;
        EXPECT_EQ(access(socket.c_str(), F_OK), 0) << socket;
        ASSERT_EQ(kill(row.asked->pid(), row.with), 0);
        EXPECT_EQ(row.asked->wait_for_end(), row.status) << row.asked->output();
        EXPECT_NE(access(socket.c_str(), F_OK), 0) << socket;
    }
}

TEST_F(node, a_guard_kills_what_stands_still_and_nothing_else) {
    ASSERT_NO_FATAL_FAILURE(start_both());
    const std::string sockets = folder.path() + "/mp3/";
    const words looked_at = {sockets + "oxpcsi-server-root", sockets + "qel-tavu-root",
                             sockets + "idl-topologyd", sockets + "nobody", sockets + std::string(108, 'x')};
    EXPECT_EQ(guard::look(looked_at, 20), words{});
    ASSERT_EQ(kill(three.port_control->pid(), SIGSTOP), 0);
    EXPECT_EQ(guard::look(looked_at, 1),
              words{"process " + std::to_string(three.port_control->pid()) + " at " + looked_at[0] +
                    " stood still for 1 s and was killed"});
    EXPECT_EQ(three.port_control->wait_for_end(), -SIGKILL);
    EXPECT_EQ(guard::look(looked_at, 20), words{});
    EXPECT_FALSE(three.daemon->wrote("OKA:") || three.topology->wrote("OKA:")) << all_output();
}

TEST_F(node, command_line_of_the_daemon_is_answered_before_anything_starts) {
    const struct {
        const char* argument;
        int status;
        const char* text;
    } rows[] = {
        {"--version", 0, "qel-tavu 0."},
        {"--help", 0, "Usage: "},
        {"-h", 0, "Usage: "},
        {"--verison", 1, "unexpected argument '--verison'"},
    };
    for (const auto& row : rows) {
        ended result = run({QEL_TAVU, row.argument}, three.environment());
        EXPECT_EQ(result.status, row.status) << row.argument;
        EXPECT_EQ(result.output.find(row.status ? std::string("qel-tavu: ") + row.text : row.text), 0u)
            << result.output;
    }
}

} // namespace
