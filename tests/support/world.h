// The world of a unit test: one process on virtual time, in which the module under test talks to peers that
// are mailboxes of the test's. Messages, hardware calls and traces are what a test sees of a module.
#pragma once

#include <cstdint>
#include <cstring>
#include <deque>
#include <functional>
#include <map>
#include <string>
#include <vector>

#include <gtest/gtest.h>

#include "base/wire.h"
#include "platform/oka.h"
#include "platform/oka/simulation/simulation.h"
#include "platform/oka_timer.h"
#include "platform/zeb.h"

namespace test {

// A message that a peer received. Freed with the object.
class received {
  public:
    received() = default;
    explicit received(oka_message* message) : message_(message) {}
    received(received&& other) noexcept : message_(other.message_) { other.message_ = nullptr; }
    received& operator=(received&& other) noexcept {
        std::swap(message_, other.message_);
        return *this;
    }
    ~received() {
        if (message_)
            oka_free(&message_);
    }

    explicit operator bool() const { return message_ != nullptr; }
    uint32_t number() const { return message_ ? message_->number : 0; }
    uint32_t size() const { return message_ ? oka_size(message_) : 0; }
    oka_mailbox sender() const { return message_ ? oka_sender(message_) : OKA_MAILBOX_NONE; }
    oka_mailbox receiver() const { return message_ ? oka_receiver(message_) : OKA_MAILBOX_NONE; }
    const oka_message* message() const { return message_; }

    // The message as a T; a test that asks for more than arrived fails, and reads zeros.
    template<class T>
    const T& as() const {
        static const T nothing{};
        EXPECT_GE(size(), sizeof(T)) << "message 0x" << std::hex << number() << " is too short";
        return size() >= sizeof(T) ? tavu::as<T>(message_) : nothing;
    }
    // Everything behind the number, as "00 00 00 01 ...": for comparing exact bytes with a text written by
    // hand.
    std::string hex() const;

  private:
    oka_message* message_ = nullptr;
};

// A mailbox that the test owns, with the messages that arrived at it. "unit/name" makes one that is found
// under that hunt path.
class peer {
  public:
    explicit peer(const char* path);
    ~peer() { disappear(); }
    peer(const peer&) = delete;
    peer& operator=(const peer&) = delete;

    oka_mailbox mailbox() const { return mailbox_; }
    // The mailbox ceases to exist, as when its process dies.
    void disappear();

    // Sends the struct; its number is filled in. `fields` may be anything that lies over a message.
    template<class T>
    void send(oka_mailbox receiver, uint32_t number, const T& fields) {
        send_bytes(receiver, number, &fields, sizeof fields);
    }
    // Sends `size` bytes, of which the first four are replaced by the number.
    void send_bytes(oka_mailbox receiver, uint32_t number, const void* bytes, size_t size);

    // The oldest message that was not taken yet; the test fails when there is none or it is another.
    received take(uint32_t number);
    bool is_silent() const { return inbox_.empty(); }
    // Messages of that number are answered so, as soon as they arrive, and not kept.
    void answer(uint32_t number, std::function<void(const received&)> with) { answers_[number] = with; }
    void forget_all() { inbox_.clear(); }
    // The numbers of what waits, for messages of failed expectations.
    std::string waiting() const;

  private:
    friend class world;
    oka_mailbox mailbox_;
    std::deque<received> inbox_;
    std::map<uint32_t, std::function<void(const received&)>> answers_;

    void arrived(received message);
};

struct trace_record {
    uint32_t group;
    std::string text;
};

// Delivers a message as the process prepares them for itself: as that of a timer which expires now.
void prepare_bytes(uint32_t number, const void* bytes, size_t size);

// Fixture. Brings up messaging and timers (unless the module does) and captures every trace; the module under
// test gets every message that is not a peer's, through the function that the test gives.
class world : public testing::Test {
  protected:
    enum class messaging { up, left_to_module };

    explicit world(messaging how = messaging::up);
    ~world() override;

    // The root mailbox, made under the daemon's name at the first call. Tests of the whole daemon leave that
    // to the daemon.
    oka_mailbox root();
    // Where messages for the module's mailboxes go. The function reads the message; the world frees it.
    void route_to(std::function<void(const oka_message*)> module) { module_ = std::move(module); }
    // The same for one that frees the message itself.
    void route_owned_to(std::function<void(oka_message*)> module) { owning_module_ = std::move(module); }

    // Delivers until nothing is queued any more. Fails the test when that does not come to an end.
    void settle();
    // Moves time, stopping at every timer on the way to deliver what it sets off.
    void advance(uint64_t milliseconds);

    // Whether a record with exactly this text was traced.
    bool traced(const std::string& text) const;
    unsigned count_traced(const std::string& text) const;
    // The error texts so far, one a line; forgotten once taken, as all other traces are.
    std::string take_errors();
    void forget_traces() { traces().clear(); }
    static std::vector<trace_record>& traces();

    // Ends messaging and timers, as a process that ends must; the world's own end does it otherwise.
    static void shut_down();
    // Shuts messaging down and expects that no message, mailbox, monitor, locate or timer is left. Call it
    // after the module was stopped.
    void expect_nothing_left();

  private:
    std::function<void(const oka_message*)> module_;
    std::function<void(oka_message*)> owning_module_;
    oka_mailbox root_ = OKA_MAILBOX_NONE;
};

// Records of the daemon are allocated with `new (std::nothrow)`; a test can make the nth allocation from now
// fail (counted from 1; 0 for none), once.
void fail_allocation(unsigned nth);
// How many such allocations there were so far.
unsigned allocations();

} // namespace test
