// The main of every test program. Modules keep their state in globals and start once, so when more than
// one test is selected each runs in a fresh child process; a single one runs right here, where a debugger
// sees it. A child that ends without a result, however it ends, is a failed test.
#include <cerrno>
#include <chrono>
#include <csignal>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <fcntl.h>
#include <string>
#include <sys/prctl.h>
#include <sys/wait.h>
#include <unistd.h>
#include <vector>

#include <gtest/gtest.h>

#include "support/process.h"

namespace {

constexpr unsigned seconds_per_test = 60;
constexpr unsigned seconds_per_emulated_test = 300;

enum class result : char { passed = 'p', failed = 'f', skipped = 's', none = 0 };

struct outcome {
    result what = result::none;
    int wait_status = 0;
    std::string output;
};

std::string read_all(int fd) {
    std::string text;
    char buffer[4096];
    for (;;) {
        ssize_t count = read(fd, buffer, sizeof buffer);
        if (count > 0)
            text.append(buffer, static_cast<size_t>(count));
        else if (count == 0 || errno != EINTR)
            return text;
    }
}

int wait_for(pid_t child) {
    int status = 0;
    while (waitpid(child, &status, 0) < 0 && errno == EINTR) {
    }
    return status;
}

[[noreturn]] void give_up(const char* what) {
    perror(what);
    exit(2);
}

// The full names of the tests that the filter selects: the framework marks them when it lists them.
std::vector<std::string> selected_tests() {
    fflush(stdout);
    int output = dup(STDOUT_FILENO);
    if (!freopen("/dev/null", "w", stdout))
        give_up("/dev/null");
    GTEST_FLAG_SET(list_tests, true);
    if (RUN_ALL_TESTS() != 0)
        give_up("list of tests");
    GTEST_FLAG_SET(list_tests, false);
    fflush(stdout);
    dup2(output, STDOUT_FILENO);
    close(output);

    std::vector<std::string> names;
    const testing::UnitTest& unit = *testing::UnitTest::GetInstance();
    for (int suite = 0; suite < unit.total_test_suite_count(); suite++) {
        const testing::TestSuite& tests = *unit.GetTestSuite(suite);
        for (int test = 0; test < tests.total_test_count(); test++) {
            if (tests.GetTestInfo(test)->should_run())
                names.push_back(std::string(tests.name()) + "." + tests.GetTestInfo(test)->name());
        }
    }
    return names;
}

// In the child: runs the one test and says how it went through `report`.
[[noreturn]] void run_alone(const std::string& name, int report) {
    prctl(PR_SET_PDEATHSIG, SIGKILL);
    setpgid(0, 0);
    alarm(test::is_emulated() ? seconds_per_emulated_test : seconds_per_test);
    GTEST_FLAG_SET(filter, name);
    int status = RUN_ALL_TESTS();
    const testing::UnitTest& unit = *testing::UnitTest::GetInstance();
    result what = result::failed;
    if (status == 0 && unit.successful_test_count() == 1)
        what = result::passed;
    else if (status == 0 && unit.skipped_test_count() == 1)
        what = result::skipped;
    if (write(report, &what, 1) != 1)
        status = 1;
    exit(status);
}

outcome run_test(const std::string& name) {
    outcome seen;
    int report[2];
    FILE* output = tmpfile();
    if (!output || pipe2(report, O_CLOEXEC) < 0)
        give_up("test output");
    fflush(nullptr);
    pid_t child = fork();
    if (child < 0)
        give_up("fork");
    if (child == 0) {
        close(report[0]);
        dup2(fileno(output), STDOUT_FILENO);
        dup2(fileno(output), STDERR_FILENO);
        run_alone(name, report[1]);
    }
    close(report[1]);
    seen.wait_status = wait_for(child);
    // Whatever processes the test left behind are in its group, and hold the report's end open.
    kill(-child, SIGKILL);
    std::string letter = read_all(report[0]);
    close(report[0]);
    // What fails at exit, a leak for one, fails the test.
    if (!letter.empty())
        seen.what = seen.wait_status == 0 ? static_cast<result>(letter[0]) : result::failed;
    rewind(output);
    seen.output = read_all(fileno(output));
    fclose(output);
    return seen;
}

std::string describe_end(int wait_status) {
    if (WIFSIGNALED(wait_status)) {
        int number = WTERMSIG(wait_status);
        std::string text = "killed by signal " + std::to_string(number) + " (" + strsignal(number) + ")";
        return number == SIGALRM ? text + ", it took too long" : text;
    }
    return "ended with status " + std::to_string(WEXITSTATUS(wait_status));
}

void print_names(const char* label, const std::vector<std::string>& names) {
    for (const std::string& name : names)
        printf("[  %-7s ] %s\n", label, name.c_str());
}

int run_each_alone(const std::vector<std::string>& names) {
    std::vector<std::string> failed;
    std::vector<std::string> skipped;
    printf("[==========] Running %zu tests, each in a process of its own.\n", names.size());
    for (const std::string& name : names) {
        printf("[ RUN      ] %s\n", name.c_str());
        fflush(stdout);
        auto start = std::chrono::steady_clock::now();
        outcome seen = run_test(name);
        auto took = std::chrono::steady_clock::now() - start;
        auto ms = static_cast<long>(std::chrono::duration_cast<std::chrono::milliseconds>(took).count());
        bool passed = seen.what == result::passed;
        if (!passed) {
            fwrite(seen.output.data(), 1, seen.output.size(), stdout);
            (seen.what == result::skipped ? skipped : failed).push_back(name);
        }
        if (seen.what == result::none || (seen.what == result::failed && WIFSIGNALED(seen.wait_status)))
            printf("%s: %s\n", name.c_str(), describe_end(seen.wait_status).c_str());
        printf("[ %s ] %s (%ld ms)\n",
               passed ? "      OK" : (seen.what == result::skipped ? " SKIPPED" : " FAILED "), name.c_str(),
               ms);
    }
    printf("[==========] %zu tests ran.\n", names.size());
    printf("[  PASSED  ] %zu tests.\n", names.size() - failed.size() - skipped.size());
    print_names("SKIPPED", skipped);
    print_names("FAILED", failed);
    return failed.empty() ? 0 : 1;
}

} // namespace

int main(int argc, char** argv) {
    testing::InitGoogleTest(&argc, argv);
    if (argc > 1) {
        fprintf(stderr, "%s: unknown argument '%s'\n", argv[0], argv[1]);
        return 2;
    }
    if (GTEST_FLAG_GET(list_tests))
        return RUN_ALL_TESTS();
    std::vector<std::string> names = selected_tests();
    if (names.empty()) {
        fprintf(stderr, "%s: no test is selected\n", argv[0]);
        return 2;
    }
    if (names.size() == 1)
        return RUN_ALL_TESTS();
    if (!GTEST_FLAG_GET(output).empty() || GTEST_FLAG_GET(repeat) != 1 || GTEST_FLAG_GET(shuffle)) {
        fprintf(stderr, "%s: --gtest_output, --gtest_repeat and --gtest_shuffle need a single test\n",
                argv[0]);
        return 2;
    }
    return run_each_alone(names);
}
