#include "support/process.h"

#include <algorithm>
#include <cerrno>
#include <csignal>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <fcntl.h>
#include <filesystem>
#include <iterator>
#include <poll.h>
#include <sched.h>
#include <sstream>
#include <sys/prctl.h>
#include <sys/wait.h>
#include <unistd.h>

namespace test {

namespace {

constexpr const char* emulator_variable = "QEL_TAVU_EMULATOR";

std::vector<process*>& processes() {
    static std::vector<process*> all;
    return all;
}

[[noreturn]] void give_up(const char* what) {
    perror(what);
    abort();
}

bool write_file(const char* path, const std::string& text) {
    FILE* file = fopen(path, "we");
    if (!file)
        return false;
    fputs(text.c_str(), file);
    return fclose(file) == 0;
}

[[noreturn]] void become(const std::vector<std::string>& command, const std::vector<std::string>& environment,
                         int output_fd) {
    prctl(PR_SET_PDEATHSIG, SIGKILL);
    dup2(output_fd, STDOUT_FILENO);
    dup2(output_fd, STDERR_FILENO);
    for (const std::string& variable : environment) {
        size_t equals = variable.find('=');
        if (equals == std::string::npos)
            unsetenv(variable.c_str());
        else
            setenv(variable.substr(0, equals).c_str(), variable.substr(equals + 1).c_str(), 1);
    }
    std::vector<std::string> words = command;
    // Names that are searched in PATH are the host's programs; those with a path are ours.
    if (is_emulated() && command[0].find('/') != std::string::npos) {
        std::istringstream emulator(getenv(emulator_variable));
        words.assign(std::istream_iterator<std::string>(emulator), {});
        words.insert(words.end(), command.begin(), command.end());
    }
    std::vector<char*> arguments;
    for (const std::string& word : words)
        arguments.push_back(const_cast<char*>(word.c_str()));
    arguments.push_back(nullptr);
    execvp(arguments[0], arguments.data());
    perror(arguments[0]);
    _exit(127);
}

} // namespace

process::process(const std::vector<std::string>& command, const std::vector<std::string>& environment) {
    int ends[2];
    if (pipe2(ends, O_CLOEXEC) != 0)
        give_up("pipe2");
    output_fd_ = ends[0];
    // A test that waits for something else reads late; the process must not wait for its reader until then.
    (void)fcntl(output_fd_, F_SETPIPE_SZ, 1 << 20);
    pid_ = fork();
    if (pid_ < 0)
        give_up("fork");
    if (pid_ == 0)
        become(command, environment, ends[1]);
    close(ends[1]);
    processes().push_back(this);
}

process::~process() {
    kill();
    std::erase(processes(), this);
}

void process::kill() {
    if (pid_ <= 0)
        return;
    ::kill(pid_, SIGKILL);
    while (waitpid(pid_, nullptr, 0) < 0 && errno == EINTR) {
    }
    pid_ = -1;
    while (output_fd_ >= 0)
        read_output();
}

int process::wait_for_end() {
    if (!wait_until([&] { return output_fd_ < 0; }))
        return still_running;
    int status = 0;
    while (waitpid(pid_, &status, 0) < 0 && errno == EINTR) {
    }
    pid_ = -1;
    return WIFEXITED(status) ? WEXITSTATUS(status) : -WTERMSIG(status);
}

void process::read_output() {
    char buffer[8192];
    ssize_t count = read(output_fd_, buffer, sizeof buffer);
    if (count > 0) {
        output_.append(buffer, static_cast<size_t>(count));
        return;
    }
    close(output_fd_);
    output_fd_ = -1;
}

bool wait_until(const std::function<bool()>& condition, std::chrono::milliseconds bound) {
    using clock = std::chrono::steady_clock;
    clock::time_point limit = clock::now() + bound;
    while (!condition()) {
        std::vector<process*> open;
        std::vector<pollfd> fds;
        for (process* each : processes()) {
            if (each->output_fd_ < 0)
                continue;
            open.push_back(each);
            fds.push_back({each->output_fd_, POLLIN, 0});
        }
        auto left = std::chrono::ceil<std::chrono::milliseconds>(limit - clock::now());
        if (left.count() <= 0 || open.empty())
            return false;
        if (poll(fds.data(), fds.size(), static_cast<int>(left.count())) < 0 && errno != EINTR)
            give_up("poll");
        for (size_t i = 0; i < open.size(); i++) {
            if (fds[i].revents != 0)
                open[i]->read_output();
        }
    }
    return true;
}

temporary_folder::temporary_folder(const char* where) {
    path_ = std::string(where) + "/qel-tavu-XXXXXX";
    if (!mkdtemp(path_.data()))
        give_up("mkdtemp");
}

temporary_folder::~temporary_folder() {
    std::error_code ignored;
    std::filesystem::remove_all(path_, ignored);
}

bool is_emulated() {
    return getenv(emulator_variable) != nullptr;
}

bool enter_own_network() {
    uid_t user = geteuid();
    gid_t group = getegid();
    if (user == 0)
        return unshare(CLONE_NEWNET) == 0;
    return unshare(CLONE_NEWUSER | CLONE_NEWNET) == 0 && write_file("/proc/self/setgroups", "deny") &&
           write_file("/proc/self/uid_map", "0 " + std::to_string(user) + " 1") &&
           write_file("/proc/self/gid_map", "0 " + std::to_string(group) + " 1");
}

} // namespace test
