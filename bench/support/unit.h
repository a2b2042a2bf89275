// A unit of a node, to be measured: the real daemon on the simulated SecY, and the services around it as a
// process of their own, which does what the measuring program tells it.
#pragma once

#include <memory>
#include <string>
#include <vector>

#include "support/process.h"
#include "support/unit_services.h"

namespace bench {

class unit {
  public:
    // `messaging_directory` is that of all units.
    unit(uint32_t mpid, const std::string& daemon_program, const std::string& messaging_directory,
         const std::string& trace_groups = "none");
    ~unit();
    unit(const unit&) = delete;
    unit& operator=(const unit&) = delete;

    // Publishes the links of the first `count` ports; the key server's end comes first. Returns once the
    // daemon has done all that it can without the other end.
    void publish_first(unsigned count, uint32_t remote_mpid);
    // Publishes them at the other end. Microseconds from the first request to the last confirmation.
    double publish_second(unsigned count, uint32_t remote_mpid);
    // Waits for the confirmations that publish_first left open.
    void await_confirmations(unsigned count);

    // Of the daemon, in KiB: pages that no other process has.
    unsigned private_memory_kib() const;
    // Ends the daemon. All that it traced.
    const std::string& end_and_read_traces() {
        daemon_->kill();
        return daemon_->output();
    }

  private:
    double order(char what, unsigned count, uint32_t remote_mpid = 0);

    int orders_ = -1;
    pid_t services_ = -1;
    std::unique_ptr<test::process> daemon_;
};

} // namespace bench
