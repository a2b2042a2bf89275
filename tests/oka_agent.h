// The other side of a messaging test: an agent is a few mailboxes that do as they are told by messages. It is
// driven the same way whether it lives in this process or in another.
#pragma once

#include <csignal>
#include <cstdlib>
#include <cstring>
#include <fcntl.h>
#include <map>
#include <sched.h>
#include <string>
#include <sys/prctl.h>
#include <sys/wait.h>
#include <unistd.h>

#include <gtest/gtest.h>

#include "platform/oka.h"
#include "platform/oka/simulation/simulation.h"
#include "platform/oka_timer.h"
#include "support/process.h"

namespace oka_tests {

constexpr int32_t patience_ms = 10'000;

// --- Messages as the tests make and see them

struct arrival {
    uint32_t number = 0;
    oka_mailbox sender = OKA_MAILBOX_NONE;
    oka_mailbox receiver = OKA_MAILBOX_NONE;
    std::string bytes; // behind the number
    bool is_prepared = false;
    explicit operator bool() const { return number != 0; }
};

inline oka_message* make_message(uint32_t number, const std::string& bytes = "") {
    oka_message* made = oka_alloc(sizeof(oka_message) + bytes.size(), number);
    memcpy(made + 1, bytes.data(), bytes.size());
    return made;
}

inline void send_message(oka_mailbox to, oka_mailbox from, uint32_t number, const std::string& bytes = "") {
    oka_message* sent = make_message(number, bytes);
    oka_send(&sent, to, from);
}

inline arrival take(oka_message* message) {
    if (!message)
        return {};
    arrival taken = {message->number, oka_sender(message), oka_receiver(message), "",
                     oka_is_prepared(message)};
    if (oka_size(message) > sizeof *message)
        taken.bytes.assign(reinterpret_cast<const char*>(message + 1), oka_size(message) - sizeof *message);
    oka_free(&message);
    return taken;
}

inline void locate(const std::string& path, oka_mailbox mailbox, uint32_t number) {
    oka_message* prepared = make_message(number);
    oka_locate_async(path.c_str(), &prepared, mailbox);
}

inline oka_monitor_ref monitor(oka_mailbox supervised, uint32_t number) {
    oka_message* prepared = make_message(number);
    return oka_monitor(supervised, &prepared);
}

// --- The agent

enum agent_command : uint32_t {
    agent_create = 0xa0, // a mailbox of the name in the message; answered with agent_done
    agent_delete,        // that mailbox
    agent_talk,          // "name count": that mailbox sends so many chatter messages to the commander
    agent_watch_me,      // reports to the agent's last commander when the sending mailbox is gone
    agent_seek,          // locates the path in the message; the agent sends agent_done to what it found
    agent_exit,          // the agent's process ends in good order
    agent_done = 0xb0,
    agent_watched_is_gone, // the report of agent_watch_me
    chatter = 0xc0,        // a message to one of the agent's mailboxes comes back; see also agent_talk
};

class agent {
  public:
    // With the mailbox "agent", cloned from `root` or, without one, a root itself.
    explicit agent(oka_mailbox root) {
        own_ = root == OKA_MAILBOX_NONE ? oka_create_mailbox("agent", 0) : oka_clone_mailbox(root, "agent");
    }

    bool owns(oka_mailbox mailbox) const {
        if (mailbox == own_)
            return true;
        for (const auto& [name, id] : mailboxes_) {
            if (id == mailbox)
                return true;
        }
        return false;
    }

    // False when it is to end.
    bool handle(const arrival& command) {
        const std::string& text = command.bytes;
        switch (command.number) {
        case agent_create:
            mailboxes_[text] = oka_clone_mailbox(own_, text.c_str());
            break;
        case agent_delete:
            oka_delete_mailbox(mailboxes_[text]);
            mailboxes_.erase(text);
            break;
        case agent_talk: {
            size_t blank = text.find(' ');
            for (int index = 0; index < atoi(text.c_str() + blank); ++index)
                send_message(command.sender, mailboxes_[text.substr(0, blank)], chatter,
                             std::to_string(index));
            break;
        }
        case agent_watch_me:
            monitor(command.sender, agent_watched_is_gone);
            return true;
        case agent_seek:
            locate(text, own_, agent_done);
            return true;
        case agent_done:
            send_message(command.sender, own_, agent_done);
            return true;
        case agent_watched_is_gone:
            send_message(commander_, own_, agent_watched_is_gone);
            return true;
        case agent_exit:
            return false;
        case chatter:
            send_message(command.sender, command.receiver, chatter, text);
            return true;
        }
        commander_ = command.sender;
        send_message(command.sender, own_, agent_done);
        return true;
    }

  private:
    oka_mailbox own_;
    oka_mailbox commander_ = OKA_MAILBOX_NONE;
    std::map<std::string, oka_mailbox> mailboxes_;
};

// --- Processes

inline bool start_service() {
    return oka_timer_service_init() && oka_init(37, 0, 0, 0, 0) == 0;
}

inline void stop_service() {
    oka_timer_service_stop();
    oka_exit();
}

// A process of its own with an agent in it; killed with the object. It is made before the service is up in
// this process, and waits for `start`.
class agent_process {
  public:
    // `network` is the network namespace that it lives in, null for ours.
    explicit agent_process(const std::string& unit, const char* network = nullptr) {
        int ends[2];
        fflush(nullptr);
        if (pipe(ends) < 0 || (pid = fork()) < 0)
            abort();
        start_fd_ = ends[1];
        if (pid != 0) {
            close(ends[0]);
            return;
        }
        prctl(PR_SET_PDEATHSIG, SIGKILL);
        setenv("OKA_UNIT", unit.c_str(), 1);
        if (network && setns(open(network, O_RDONLY | O_CLOEXEC), CLONE_NEWNET) < 0)
            _exit(1);
        if (network)
            setenv("OKA_TIPC_KEY_MARK", "/run/there-key", 1);
        char go;
        if (read(ends[0], &go, 1) != 1 || !start_service())
            _exit(1);
        agent inside(OKA_MAILBOX_NONE);
        while (inside.handle(take(oka_receive(nullptr, OKA_WAIT_FOREVER, OKA_ANY_SENDER)))) {
        }
        stop_service();
        _exit(0);
    }
    ~agent_process() {
        close(start_fd_);
        end(SIGKILL);
    }
    agent_process(const agent_process&) = delete;
    agent_process& operator=(const agent_process&) = delete;

    void start() const { ASSERT_EQ(write(start_fd_, "", 1), 1); }

    // Signal 0 only waits for it to end by itself.
    void end(int signal) {
        if (pid <= 0)
            return;
        kill(pid, signal);
        waitpid(pid, nullptr, 0);
        pid = -1;
    }

    // Waits until the process sleeps ('S': it has done all it was told), or is stopped ('T').
    void wait_for_state(char state) const {
        char seen = 0;
        while (seen != state) {
            usleep(500);
            FILE* status = fopen(("/proc/" + std::to_string(pid) + "/stat").c_str(), "re");
            ASSERT_TRUE(status);
            ASSERT_EQ(fscanf(status, "%*d (%*[^)]) %c", &seen), 1);
            fclose(status);
        }
    }

    void stop() const {
        kill(pid, SIGSTOP);
        wait_for_state('T');
    }

    pid_t pid = -1;

  private:
    int start_fd_ = -1;
};

// A messaging directory for one test.
class scratch_directory {
  public:
    scratch_directory() { setenv("OKA_DIR", path.c_str(), 1); }

  private:
    test::temporary_folder folder_;

  public:
    const std::string& path = folder_.path();
};

} // namespace oka_tests
