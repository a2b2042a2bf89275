// The types that messages are made of. A message is a plain struct of alignment 1 laid over the buffer of
// the messaging service; its integers convert by themselves, so no handler converts byte order and no
// field can be read in the wrong one.
#pragma once

#include <cstddef>
#include <cstdint>
#include <cstdio>
#include <cstring>
#include <type_traits>

#include "platform/oka.h"

namespace tavu {

// Four bytes, most significant first.
class be32 {
  public:
    be32() = default;
    constexpr be32(uint32_t value)
        : octets_{static_cast<uint8_t>(value >> 24), static_cast<uint8_t>(value >> 16),
                  static_cast<uint8_t>(value >> 8), static_cast<uint8_t>(value)} {}
    constexpr operator uint32_t() const {
        return uint32_t{octets_[0]} << 24 | uint32_t{octets_[1]} << 16 | uint32_t{octets_[2]} << 8 |
               octets_[3];
    }

  private:
    uint8_t octets_[4];
};

// Four bytes in the machine's own order: the message number, which the transport has converted.
class host32 {
  public:
    operator uint32_t() const {
        uint32_t value;
        memcpy(&value, octets_, sizeof value);
        return value;
    }

  private:
    uint8_t octets_[4];
};

// A character field. What we write always ends in NUL, with zeros behind it; what we receive is trusted
// only after is_terminated(), and shown through printable() before that.
template<size_t N>
struct text {
    char octets[N];

    void assign(const char* source) {
        size_t length = strnlen(source, N - 1);
        memcpy(octets, source, length);
        memset(octets + length, 0, N - length);
    }
    template<size_t M>
    void assign(const text<M>& source) {
        assign(source.printable().octets);
    }

    bool is_terminated() const { return length() < N; }
    size_t length() const { return strnlen(octets, N); }
    // Only for fields that we wrote ourselves or that are known to be terminated.
    const char* c_str() const { return octets; }
    // A terminated copy, whatever the field holds; it lives until the end of the full expression.
    text<N + 1> printable() const {
        text<N + 1> copy;
        memcpy(copy.octets, octets, N);
        copy.octets[N] = '\0';
        return copy;
    }

    // Equal as text over the whole field.
    bool operator==(const text& other) const { return strncmp(octets, other.octets, N) == 0; }
    bool operator==(const char* other) const { return strncmp(octets, other, N) == 0; }
};

// The secure channel identifier (IEEE 802.1AE-2018, 7.1.2): a MAC address, then a port identifier, high
// octet first. Compared and copied as it stands.
struct sci {
    uint8_t octets[8];

    bool operator==(const sci& other) const { return memcmp(octets, other.octets, sizeof octets) == 0; }
};

using port_name = text<16>;
using ca_name = text<64>;
using sak_name = text<64>;

// A field of what lies over a message buffer, with its offset, which the compiler checks. The check stands in
// a member function, since only there the struct is complete; nobody calls it.
#define TAVU_FIELD(offset, name, ...)                                                                        \
    __VA_ARGS__ name;                                                                                        \
    void check_offset_of_##name() const {                                                                    \
        static_assert(offsetof(std::remove_cvref_t<decltype(*this)>, name) == (offset));                     \
    }                                                                                                        \
    static_assert(true)

template<class T, size_t Count>
using array_of = T[Count];

// The head of every protocol message. Which reference means what is each protocol's own rule.
struct message_header {
    TAVU_FIELD(0, number, host32);
    TAVU_FIELD(4, procedure_reference, be32);
    TAVU_FIELD(8, connection_reference, be32);
};

// Everything that lies over a message buffer is checked with this: its size, and that it has neither
// padding nor an alignment of its own.
#define TAVU_WIRE_LAYOUT(type, size)                                                                         \
    static_assert(sizeof(type) == (size) && alignof(type) == 1);                                             \
    static_assert(std::is_trivially_copyable_v<type> && std::is_standard_layout_v<type>)

TAVU_WIRE_LAYOUT(be32, 4);
TAVU_WIRE_LAYOUT(host32, 4);
TAVU_WIRE_LAYOUT(port_name, 16);
TAVU_WIRE_LAYOUT(sci, 8);
TAVU_WIRE_LAYOUT(message_header, 12);

// False, after an error trace, for a message from another mailbox. `name` is the message's.
[[nodiscard]] bool verify_sender(const oka_message* message, oka_mailbox expected, const char* name);

// The message as a T. Only for a message whose size was checked already, at least sizeof(T).
template<class T>
const T& as(const oka_message* message) {
    static_assert(alignof(T) == 1 && std::is_trivially_copyable_v<T>);
    return *reinterpret_cast<const T*>(message);
}

// False, with an error trace, when the message is not exactly `expected` bytes long.
[[nodiscard]] bool verify_msg_length_equals(const oka_message* message, uint32_t expected);
// False, with an error trace, when the message is shorter than `minimum` bytes.
[[nodiscard]] bool verify_msg_length_minimum_size(const oka_message* message, uint32_t minimum);

// The message as a T when it has exactly the size of one; otherwise traces its size and gives null.
template<class T>
[[nodiscard]] const T* view(const oka_message* message) {
    return verify_msg_length_equals(message, sizeof(T)) ? &as<T>(message) : nullptr;
}

// A message under construction: zero-filled, freed unless it is sent.
//     outgoing<mka_rej> message(MKA_JOIN_CA_REJ);
//     message->reason = reason;
//     TRACE_SEND(message, receiver, "TAVU: ...", ...);
//     message.send(receiver, sender);
template<class T>
class outgoing {
  public:
    // `extra` bytes follow the struct.
    explicit outgoing(uint32_t number, size_t extra = 0) : message_(oka_alloc(sizeof(T) + extra, number)) {
        static_assert(alignof(T) == 1 && std::is_trivially_copyable_v<T>);
    }
    ~outgoing() {
        if (message_)
            oka_free(&message_);
    }
    outgoing(const outgoing&) = delete;
    outgoing& operator=(const outgoing&) = delete;

    T* operator->() { return reinterpret_cast<T*>(message_); }
    uint8_t* extra() { return reinterpret_cast<uint8_t*>(message_) + sizeof(T); }
    uint32_t number() const { return message_->number; }

    void send(oka_mailbox receiver, oka_mailbox sender) { oka_send(&message_, receiver, sender); }
    // For operations that take a prepared message: oka_locate_async, oka_monitor, oka_timer_request_sig.
    oka_message** prepared() { return &message_; }

  private:
    oka_message* message_;
};

} // namespace tavu
