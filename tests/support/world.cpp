#include "support/world.h"

#include <algorithm>
#include <cstring>
#include <map>
#include <new>

#include "platform/zeb/zeb_sink.h"

namespace {

unsigned allocation_count = 0;
unsigned failing_allocation = 0;

} // namespace

// Forwards to the throwing form, so that sanitizers see a matching pair.
void* operator new(size_t size, const std::nothrow_t&) noexcept {
    if (++allocation_count == failing_allocation)
        return nullptr;
    return ::operator new(size);
}

namespace test {

namespace {

std::map<oka_mailbox, peer*>& peers() {
    static std::map<oka_mailbox, peer*> all;
    return all;
}

std::vector<trace_record>& all_traces() {
    static std::vector<trace_record> all;
    return all;
}

// Of `bytes` the first four are replaced by the number.
oka_message* make_message(uint32_t number, const void* bytes, size_t size) {
    oka_message* message = oka_alloc(std::max(size, sizeof(uint32_t)), number);
    if (size > sizeof(uint32_t))
        memcpy(message + 1, static_cast<const uint8_t*>(bytes) + sizeof(uint32_t), size - sizeof(uint32_t));
    oka::simulation::truncate(message, static_cast<uint32_t>(size));
    return message;
}

void capture(const zeb::record& record) {
    all_traces().push_back({record.group, record.text});
}

} // namespace

void fail_allocation(unsigned nth) {
    failing_allocation = nth == 0 ? 0 : allocation_count + nth;
}
unsigned allocations() {
    return allocation_count;
}

std::string received::hex() const {
    std::string text;
    const auto* octets = reinterpret_cast<const uint8_t*>(message_);
    for (uint32_t at = sizeof(uint32_t); at < size(); at++) {
        char octet[4];
        snprintf(octet, sizeof octet, "%s%02x", text.empty() ? "" : " ", octets[at]);
        text += octet;
    }
    return text;
}

peer::peer(const char* path) : mailbox_(oka::simulation::create_mailbox(path)) {
    EXPECT_NE(mailbox_, OKA_MAILBOX_NONE) << path;
    peers()[mailbox_] = this;
}

void peer::disappear() {
    if (mailbox_ == OKA_MAILBOX_NONE)
        return;
    peers().erase(mailbox_);
    oka_delete_mailbox(mailbox_);
    mailbox_ = OKA_MAILBOX_NONE;
    inbox_.clear();
}

void peer::send_bytes(oka_mailbox receiver, uint32_t number, const void* bytes, size_t size) {
    oka_message* message = make_message(number, bytes, size);
    oka_send(&message, receiver, mailbox_);
}

void prepare_bytes(uint32_t number, const void* bytes, size_t size) {
    oka_message* message = make_message(number, bytes, size);
    oka_timer_request_sig(0, &message);
}

void peer::arrived(received message) {
    auto automatic = answers_.find(message.number());
    if (automatic != answers_.end())
        automatic->second(message);
    else
        inbox_.push_back(std::move(message));
}

received peer::take(uint32_t number) {
    if (inbox_.empty()) {
        ADD_FAILURE() << "expected message 0x" << std::hex << number << ", nothing arrived";
        return received();
    }
    received oldest = std::move(inbox_.front());
    inbox_.pop_front();
    EXPECT_EQ(oldest.number(), number) << "behind it wait: " << waiting();
    return oldest;
}

std::string peer::waiting() const {
    std::string text;
    for (const received& message : inbox_) {
        char number[16];
        snprintf(number, sizeof number, "%s0x%x", text.empty() ? "" : " ", message.number());
        text += number;
    }
    return text;
}

world::world(messaging how) {
    zeb::set_sink(capture);
    procInfo.trace_group_mask = UINT32_MAX;
    oka::simulation::plug();
    if (how == messaging::up) {
        EXPECT_TRUE(oka_timer_service_init());
        EXPECT_EQ(oka_init(37, 0, 0, 0, 0), 0);
    }
}

world::~world() {
    shut_down();
    zeb::set_sink(nullptr);
}

std::vector<trace_record>& world::traces() {
    return all_traces();
}

oka_mailbox world::root() {
    if (root_ == OKA_MAILBOX_NONE)
        root_ = oka_create_mailbox("qel-tavu-root", 0);
    return root_;
}

void world::settle() {
    constexpr int more_than_any_test_needs = 100000;
    for (int count = 0; count < more_than_any_test_needs; count++) {
        oka_message* message = oka_receive(nullptr, 0, OKA_ANY_SENDER);
        if (!message)
            return;
        auto owner = peers().find(oka_receiver(message));
        if (owner != peers().end()) {
            owner->second->arrived(received(message));
        } else if (owning_module_) {
            owning_module_(message);
        } else {
            received held(message);
            if (module_)
                module_(message);
        }
    }
    FAIL() << "messages do not come to an end";
}

void world::advance(uint64_t milliseconds) {
    settle();
    uint64_t target = oka::simulation::now_ms() + milliseconds;
    for (;;) {
        uint64_t now = oka::simulation::now_ms();
        uint64_t next = std::min(std::max(oka::simulation::next_timer_ms(), now), target);
        oka::simulation::advance_ms(next - now);
        settle();
        if (next == target)
            return;
    }
}

bool world::traced(const std::string& text) const {
    return count_traced(text) > 0;
}

unsigned world::count_traced(const std::string& text) const {
    return static_cast<unsigned>(std::count_if(
        traces().begin(), traces().end(), [&](const trace_record& record) { return record.text == text; }));
}

std::string world::take_errors() {
    std::string errors;
    for (const trace_record& record : traces()) {
        if (record.group == ZEB_GROUP_ERROR)
            errors += record.text + "\n";
    }
    forget_traces();
    return errors;
}

void world::shut_down() {
    oka_timer_service_stop();
    oka_exit();
}

void world::expect_nothing_left() {
    shut_down();
    oka::simulation::balance left = oka::simulation::live();
    EXPECT_EQ(left.messages, 0u);
    EXPECT_EQ(left.mailboxes, 0u);
    EXPECT_EQ(left.monitors, 0u);
    EXPECT_EQ(left.locates, 0u);
    EXPECT_EQ(left.timers, 0u);
}

} // namespace test
