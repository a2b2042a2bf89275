// Real processes, for tests of whole nodes and for measurements: started with an environment of their own,
// read while waiting for something to happen, and ended with the object. Nothing here sleeps: a
// test waits until a process writes something or ends, for a limited time.
#pragma once

#include <chrono>
#include <functional>
#include <string>
#include <sys/types.h>
#include <vector>

namespace test {

constexpr std::chrono::seconds patience{20};

class process {
  public:
    // The command's first word is searched in PATH. The environment is the own one with these on top,
    // NAME=VALUE each; a NAME alone is left out of it.
    process(const std::vector<std::string>& command, const std::vector<std::string>& environment = {});
    ~process();
    process(const process&) = delete;
    process& operator=(const process&) = delete;

    pid_t pid() const { return pid_; }
    // What it wrote to standard output and error, as far as it was read.
    const std::string& output() const { return output_; }
    void forget_output() { output_.clear(); }
    bool wrote(const std::string& text) const { return output_.find(text) != std::string::npos; }

    // Ends it at once, however busy it is; returns when it is gone and all its output is read.
    void kill();
    // Waits for its end: the exit status, or the signal's number negated, or still_running past the bound.
    static constexpr int still_running = 1000;
    int wait_for_end();

  private:
    friend bool wait_until(const std::function<bool()>& condition, std::chrono::milliseconds bound);

    void read_output();

    pid_t pid_ = -1;
    int output_fd_ = -1;
    std::string output_;
};

// Reads what all processes write until the condition holds, and looks at it again after everything that was
// read. False when the bound has passed.
bool wait_until(const std::function<bool()>& condition, std::chrono::milliseconds bound = patience);

// A folder of the test's own, removed with what is in it.
class temporary_folder {
  public:
    explicit temporary_folder(const char* where = "/tmp");
    ~temporary_folder();
    temporary_folder(const temporary_folder&) = delete;
    temporary_folder& operator=(const temporary_folder&) = delete;
    const std::string& path() const { return path_; }

  private:
    std::string path_;
};

// Whether this process, and with it the programs that it starts by a path, run under user-mode emulation of
// another machine: by the command line in QEL_TAVU_EMULATOR, which the test run of a cross build sets.
bool is_emulated();

// From here on this process and those it starts have network interfaces of their own, and the right to change
// them: as root of a user namespace when the user is not root already. False with errno when the host does
// not allow that.
bool enter_own_network();

} // namespace test
