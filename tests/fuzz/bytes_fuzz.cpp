// What takes bytes from outside the process, one of them an input: the frames of a link, the two readers of
// netlink, the links file.
#include <algorithm>
#include <cstring>
#include <linux/rtnetlink.h>
#include <string_view>
#include <sys/socket.h>
#include <unistd.h>

#include "fuzz/target.h"
#include "platform/oka/core/descriptors.h"
#include "platform/oka/links/family.h"
#include "platform/oka/links/link.h"
#include "platform/oka/links/link_frames.h"
#include "platform/oka/simulation/simulation.h"
#include "platform/oka_timer.h"
#include "platform/oxhal/macsec_kernel.h"
#include "services/idl-topologyd/links_file.h"
#include "services/oxpcsi-server/link_messages.h"

extern "C" {
__attribute__((weak)) size_t LLVMFuzzerMutate(uint8_t* data, size_t size, size_t max_size);
size_t LLVMFuzzerCustomMutator(uint8_t* data, size_t size, size_t max_size, unsigned seed);
}

namespace fuzz {
namespace {

unsigned accepted; // of what the last input gave

// The input from front to back; zeros behind its end.
struct reader {
    std::string_view rest;
    std::string_view take(size_t size) {
        std::string_view taken = rest.substr(0, size);
        rest.remove_prefix(taken.size());
        return taken;
    }
    uint8_t octet() { return static_cast<uint8_t>(rest.empty() ? 0 : take(1)[0]); }
    uint16_t number() { return static_cast<uint16_t>(octet() << 8 | octet()); }
};

void send_packet(int fd, const void* packet, size_t size) {
    (void)!send(fd, packet, size, MSG_NOSIGNAL | MSG_DONTWAIT);
}

// --- The frames of a link, between a mailbox of ours and the other ends of up to four connections

struct {
    oka_mailbox mailbox;
    int ends[4];
    oka::link_search search;
} link;

int new_connection() {
    int pair[2];
    expect(socketpair(AF_UNIX, SOCK_SEQPACKET | SOCK_NONBLOCK | SOCK_CLOEXEC, 0, pair) == 0,
           "there are sockets");
    close(link.ends[0]);
    std::rotate(link.ends, link.ends + 1, std::end(link.ends));
    link.ends[3] = pair[1];
    return pair[0];
}

// Some messages are answered with more than a peer that does not read is granted, and some senders are
// watched.
void settle() {
    int waits = 0;
    do {
        while (oka_message* message = oka_receive(nullptr, 0, OKA_ANY_SENDER)) {
            accepted++;
            for (unsigned i = message->number % 8 == 1 ? 20 : 0; i > 0; i--) {
                oka_message* answer = oka_alloc(OKA_MESSAGE_SIZE_MAX, message->number);
                oka_send(&answer, oka_sender(message), link.mailbox);
            }
            if (message->number % 8 == 2) {
                oka_message* down = oka_alloc(sizeof *down, 0);
                oka_monitor(oka_sender(message), &down);
            }
            oka_free(&message);
        }
        expect(++waits < 10000, "frames come to an end");
    } while (oka::wait_for_descriptors(0));
}

void send_frame(int fd, oka::frame_kind kind, uint32_t receiver, uint32_t sender, std::string_view rest) {
    oka::frame_header header = oka::make_header(kind, receiver, sender);
    std::string frame(reinterpret_cast<const char*>(&header), sizeof header);
    frame += rest;
    send_packet(fd, frame.data(), frame.size());
}

// A greeting ends in a proof and a unit, which are zero here: an input says version and process alone.
constexpr size_t short_greeting = 20;

std::string completed(oka::frame_kind kind, std::string_view said) {
    std::string rest(said);
    if ((kind == oka::frame_kind::hello || kind == oka::frame_kind::welcome) && said.size() == short_greeting)
        rest.resize(sizeof(oka::greeting_frame) - sizeof(oka::frame_header));
    if (kind == oka::frame_kind::attach && said.empty())
        rest.resize(sizeof(oka::proof));
    return rest;
}

constexpr oka::family sockets = {.name = "fuzzed",
                                 .between_hosts = false,
                                 .start = nullptr,
                                 .publish = nullptr,
                                 .may_connect = nullptr,
                                 .look = nullptr,
                                 .stop_looking = nullptr,
                                 .connect = nullptr};

void do_step(reader& input) {
    const uint8_t what = input.octet();
    const int fd = link.ends[what >> 4 & 3];
    std::string_view raw;
    switch (what & 15) {
    case 0: // as octets come
        raw = input.take(input.octet());
        send_packet(fd, raw.data(), raw.size());
        break;
    case 8:
        oka::accept_link(sockets, new_connection(), 1 + input.octet() % 2, link.mailbox);
        break;
    case 9:
        if (!link.search.busy())
            oka::begin_link(sockets, link.search, new_connection(), 1 + input.octet() % 2, true);
        break;
    case 10:
        oka::cancel_link(link.search);
        break;
    case 11:
        shutdown(fd, what >> 6);
        break;
    case 12: { // beyond the largest frame, too
        const std::string large(input.number() + size_t{64}, 'x');
        send_frame(fd, oka::frame_kind::message, link.mailbox, 1, large);
        break;
    }
    case 13:
        return; // what was sent before is received together with the next
    default: {  // the number is the frame's kind
        const uint32_t receiver = what & 0x80 ? 9 : link.mailbox, sender = input.octet();
        const auto kind = static_cast<oka::frame_kind>(what & 15);
        send_frame(fd, kind, receiver, sender, completed(kind, input.take(input.octet())));
    }
    }
    settle();
}

std::string hello(uint64_t process) { // from its version on
    std::string rest(short_greeting, '\0');
    rest[3] = static_cast<char>(oka::link_version);
    memcpy(&rest[4], &process, sizeof process);
    return rest;
}

void fuzz_link(reader& input) {
    const size_t stranger = std::hash<std::string_view>()(input.rest);
    oka::simulation::plug();
    expect(oka_timer_service_init() && oka_init(37, 0, 0, 0, 0) == 0 && oka::start_links([] {}),
           "messaging begins");
    link = {oka_create_mailbox("link", 0), {-1, -1, -1, -1}, {}};
    link.search.found = [](oka::link_search&, oka_mailbox) {};
    link.search.failed = [](oka::link_search&) {};
    while (!input.rest.empty())
        do_step(input);
    settle();
    // A new process that means well is served. Its number is one that the input does not know.
    oka::accept_link(sockets, new_connection(), 99, link.mailbox);
    settle();
    const unsigned before = accepted;
    send_frame(link.ends[3], oka::frame_kind::hello, 0, 0,
               completed(oka::frame_kind::hello, hello(stranger)));
    settle();
    send_frame(link.ends[3], oka::frame_kind::attach, 0, 0, std::string(sizeof(oka::proof), '\0'));
    send_frame(link.ends[3], oka::frame_kind::message, link.mailbox, 7, std::string(4, '\0'));
    settle();
    expect(accepted == before + 1, "the message of one that means well arrives");
    accepted = before;
    oka::cancel_link(link.search);
    oka::stop_links();
    for (int each : link.ends)
        close(each);
    expect(oka_timer_service_stop(), "timers stop");
    oka_exit();
    expect(oka::simulation::live() == oka::simulation::balance{},
           "no message, mailbox, monitor or watch is left");
}

// --- Netlink

void fuzz_port_facts(reader& input) {
    const size_t size = input.rest.size();
    auto* datagram = static_cast<char*>(aligned_alloc(4, (size + 3) / 4 * 4));
    input.take(size).copy(datagram, size);
    (void)!oxpcsi::parse_link_messages(datagram, size, [](const oxpcsi::link_event& event) {
        accepted++;
        expect(memchr(event.name, 0, sizeof event.name) != nullptr, "a name ends");
    });
    free(datagram);
}

// The kernel's part is played, on sockets in the place of its own: the answers wait before they are asked
// for. Last comes an acknowledgement, since a kernel that says nothing is waited for.
class kernel {
  public:
    explicit kernel(int replaced) : replaced_(replaced) {}
    void prepare(reader& input) {
        int pair[2];
        close(end_);
        expect(socketpair(AF_UNIX, SOCK_SEQPACKET | SOCK_CLOEXEC, 0, pair) == 0 &&
                   dup2(pair[0], replaced_) >= 0,
               "there are sockets");
        close(pair[0]);
        end_ = pair[1];
        asked_++;
        for (unsigned count = input.octet() % 4; count > 0; count--) {
            std::string answer(input.take(input.number() % 2048));
            constexpr size_t sequence = offsetof(nlmsghdr, nlmsg_seq);
            if (answer.size() >= sizeof(nlmsghdr) && answer[sequence] == 0)
                memcpy(&answer[sequence], &asked_, sizeof asked_);
            send_packet(end_, answer.data(), answer.size());
        }
        const nlmsghdr done[2] = {{sizeof done, NLMSG_DONE, 0, asked_, 0}, {}};
        send_packet(end_, done, sizeof done);
    }

  private:
    int replaced_;
    int end_ = -1;
    uint32_t asked_ = 0;
};

void fuzz_hardware(reader& input) {
    static const int first = dup(STDERR_FILENO); // the lowest that is free, as the next one will be
    static const bool is_open = close(first) == 0 && oxhal::kernel::open() == 0;
    static kernel route(first), generic(first + 1);
    expect(is_open, "there is netlink");
    oxhal::kernel::interface interface;
    oxhal::kernel::contents contents;
    route.prepare(input);
    accepted += oxhal::kernel::find_interface("eth0", interface) == 0;
    generic.prepare(input);
    accepted += oxhal::kernel::find_family() == 0;
    generic.prepare(input);
    accepted += oxhal::kernel::read_contents(1, contents) == 0 && contents.receive_channels > 0;
}

// --- What people write

void fuzz_links_file(reader& input) {
    const topologyd::links_file file = topologyd::parse_links(input.rest, "links.toml");
    accepted = static_cast<unsigned>(file.links.size());
    expect(file.links.size() <= topologyd::links_max && (file.is_good() || file.links.empty()),
           "a links file is taken as a whole, and no more than fits");
    for (const topologyd::link_attributes& each : file.links)
        expect(each.port.is_terminated() && each.remote_port.is_terminated() &&
                   each.hunt_path.is_terminated(),
               "a text ends");
}

constexpr void (*parts[])(reader&) = {fuzz_link, fuzz_port_facts, fuzz_hardware, fuzz_links_file};

// --- Inputs that are taken, which others grow out of

template<class Head>
std::string framed(const Head& head, const std::string& body) {
    return std::string(reinterpret_cast<const char*>(&head), sizeof head) + body;
}
std::string attribute(uint16_t type, const std::string& value) {
    return framed(nlattr{static_cast<uint16_t>(sizeof(nlattr) + value.size()), type}, value) +
           std::string(-value.size() & 3, '\0');
}
std::string netlink_message(uint16_t type, const std::string& body, uint32_t more = 0) {
    return framed(nlmsghdr{static_cast<uint32_t>(sizeof(nlmsghdr) + body.size()) + more, type, 0, 0, 0},
                  body);
}
std::string answer(const std::string& datagram) { // the only one to a request
    return std::string{1, static_cast<char>(datagram.size() >> 8), static_cast<char>(datagram.size())} +
           datagram;
}
std::string frame(oka::frame_kind kind, char sender, const std::string& rest = "") {
    return std::string{static_cast<char>(0x30 | static_cast<int>(kind)), sender,
                       static_cast<char>(rest.size())} +
           rest;
}

} // namespace

std::vector<scenario> scenarios() {
    using enum oka::frame_kind;
    const std::string frames(1, '\0'), accept("\x38\0", 2), begin("\x39\0", 2), close("\xbb"), zeros(3, '\0');
    const std::string family(4, '\0'), id = framed(uint32_t{33}, ""), one = framed(uint32_t{1}, "");
    const std::string interface = netlink_message(
        RTM_NEWLINK,
        framed(ifinfomsg{0, 0, 0, 2, 0x11043, 0}, "") + attribute(IFLA_IFNAME, {"eth1", 5}) +
            attribute(IFLA_LINKINFO, attribute(1, {"macsec", 7}) + attribute(2, attribute(1, "12345678"))));
    const std::string channel =
        attribute(1, attribute(1, "12345678") + attribute(3, attribute(1, attribute(1, "\1"))));
    return {
        {"a link whose peer does not read",
         frames + accept + frame(hello, 0, fuzz::hello(1)) + frame(attach, 0) + frame(lookup, 0) +
             frame(message, 1, zeros + "\2") + frame(message, 1, zeros + "\3") + frame(gone, 3) +
             frame(message, 1, zeros + "\1"),
         4},
        {"a link that we begin",
         frames + begin + frame(welcome, 7, fuzz::hello(2)) + frame(found, 7) +
             frame(message, 7, zeros + "\2") + close,
         2},
        {"a message that ends within its header",
         frames + accept + frame(hello, 0, fuzz::hello(1)) + frame(attach, 0) +
             std::string("\x30\x8\0\0\0\7\0\0\0\0", 10),
         0},
        {"an interface", "\1" + interface, 1},
        {"a SecY",
         "\2" + answer(interface) + answer(netlink_message(16, family + attribute(1, id))) +
             answer(netlink_message(33, family + attribute(1, one) + attribute(6, channel))),
         3},
        {"links",
         "\3[[link]]\nport = \"IDL_A1\"\nid = 1\nremote-port = \"IDL_B1\"\nremote-mpid = 7\nhunt-path = "
         "\"mp7\"\n",
         1},
        // What was found
        {"a netlink message of a negative length",
         "\1" + interface + netlink_message(RTM_NEWLINK, "", 0x80000040), 1},
        {"the same from the hardware",
         "\2" + answer(interface) + answer(netlink_message(16, family, 0x80000040)), 1},
        {"a table without a name", "\3[[ =", 0},
        {"a character that is in no table", "\3V\357\261\277", 0},
    };
}
unsigned reached() {
    return accepted;
}

} // namespace fuzz

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
    if (size == 0)
        return 0;
    // In a buffer of exactly its size, so that each octet that is read behind it is seen.
    const std::vector<char> exact(data + 1, data + size);
    fuzz::reader input{{exact.data(), exact.size()}};
    fuzz::accepted = 0;
    fuzz::parts[data[0] % std::size(fuzz::parts)](input);
    return 0;
}

extern "C" size_t LLVMFuzzerCustomMutator(uint8_t* data, size_t size, size_t max_size, unsigned seed) {
    static const std::vector<fuzz::scenario> known = fuzz::scenarios();
    if (size > 1 && seed % 500 != 0)
        return LLVMFuzzerMutate(data, size, max_size);
    return known[seed / 500 % known.size()].input.copy(reinterpret_cast<char*>(data), max_size);
}
