// One conversation with the kernel at a time: a request is built in a buffer of the socket, sent, and its
// answers are read until the kernel acknowledges. libmnl frames the messages; the sockets are ours, since
// a request may hold a key, and both buffers are wiped after every conversation.
#pragma once

#include <cstdint>
#include <cstring>
#include <libmnl/libmnl.h>

namespace oxhal {

class netlink {
  public:
    // Hears each answer that is no acknowledgement.
    using answer_handler = void (*)(const nlmsghdr* message, void* context);

    // Returns 0 or an errno value.
    int open(int protocol);
    // An empty request of that type, flags beside NLM_F_REQUEST and NLM_F_ACK. There is one at a time.
    nlmsghdr* begin(uint16_t type, uint16_t flags);
    // Sends it and waits for the end of the answers, a second at most. Returns 0 or an errno value; the
    // kernel's own words on an error, if any, are error_text() until the next request.
    int transact(answer_handler on_answer = nullptr, void* context = nullptr);
    [[nodiscard]] const char* error_text() const { return kernel_text; }

  private:
    int receive_all(answer_handler on_answer, void* context);

    int descriptor = -1;
    uint32_t sequence = 0;
    char kernel_text[96] = "";
    alignas(nlmsghdr) uint8_t request[2048] = {};
    alignas(nlmsghdr) uint8_t reply[32768] = {};
};

// The nested attributes of one attribute (or of a message behind `offset` octets of header), by type;
// null where there is none. Types from `Size` on are left out.
template<unsigned Size>
struct attributes {
    const nlattr* of_type[Size] = {};

    explicit attributes(const nlattr* nest) {
        if (nest)
            mnl_attr_parse_nested(nest, take, this);
    }
    attributes(const nlmsghdr* message, unsigned offset) { mnl_attr_parse(message, offset, take, this); }

    const nlattr* operator[](unsigned type) const { return of_type[type]; }
    // The value, or 0 if the attribute is absent or too short.
    [[nodiscard]] uint8_t u8(unsigned type) const { return value<uint8_t>(type); }
    [[nodiscard]] uint32_t u32(unsigned type) const { return value<uint32_t>(type); }
    // Whether the attribute is there and fills `into`, which stays as it is otherwise.
    template<class Value>
    bool copy(unsigned type, Value& into) const {
        if (!of_type[type] || mnl_attr_get_payload_len(of_type[type]) < sizeof into)
            return false;
        memcpy(&into, mnl_attr_get_payload(of_type[type]), sizeof into);
        return true;
    }

  private:
    template<class Value>
    [[nodiscard]] Value value(unsigned type) const {
        Value found = 0;
        copy(type, found);
        return found;
    }
    static int take(const nlattr* each, void* context) {
        unsigned type = mnl_attr_get_type(each);
        if (type < Size)
            static_cast<attributes*>(context)->of_type[type] = each;
        return MNL_CB_OK;
    }
};

// Calls `visit` with each attribute in a nest, which may be null.
template<class Visit>
void for_each_nested(const nlattr* nest, Visit visit) {
    if (!nest)
        return;
    const auto* each = static_cast<const nlattr*>(mnl_attr_get_payload(nest));
    int left = mnl_attr_get_payload_len(nest);
    while (mnl_attr_ok(each, left)) {
        visit(each);
        left -= static_cast<int>(MNL_ALIGN(each->nla_len));
        each = mnl_attr_next(each);
    }
}

} // namespace oxhal
