// A timer of a service, which can be armed again and again. An expiry that was already queued when the timer
// was cancelled is told from the expiry of the timer as it is armed now.
#pragma once

#include "base/wire.h"
#include "platform/oka_timer.h"

namespace services {

class one_shot {
  public:
    // Each timer of a process has a message number of its own.
    explicit constexpr one_shot(uint32_t number) : number_(number) {}
    one_shot(const one_shot&) = delete;
    one_shot& operator=(const one_shot&) = delete;

    void arm(uint32_t after_ms) {
        stop();
        tavu::outgoing<expiry> message(number_);
        message->generation = generation_;
        timer_ = oka_timer_request_sig(after_ms, message.prepared());
    }
    void stop() {
        oka_timer_cancel(timer_);
        timer_ = 0;
        generation_++;
    }
    bool is_armed() const { return timer_ != 0; }

    // True for the expiry of the timer as it was armed last; then the timer is no longer armed.
    bool take(const oka_message* message) {
        if (message->number != number_ || oka_sender(message) != OKA_MAILBOX_NONE ||
            oka_size(message) != sizeof(expiry) || !timer_)
            return false;
        if (tavu::as<expiry>(message).generation != generation_)
            return false;
        timer_ = 0;
        return true;
    }

  private:
    struct expiry {
        TAVU_FIELD(0, number, tavu::host32);
        TAVU_FIELD(4, generation, tavu::be32);
    };
    TAVU_WIRE_LAYOUT(expiry, 8);

    uint32_t number_;
    uint32_t generation_ = 0;
    oka_timer_ref timer_ = 0;
};

} // namespace services
