#include "fuzz/peers.h"

#include <algorithm>
#include <cstring>
#include <map>
#include <vector>

#include "platform/oka/simulation/simulation.h"
#include "protocols/mka_messages.h"
#include "protocols/oxmsi_messages.h"
#include "protocols/oxpcsi_messages.h"

namespace fuzz {
namespace {

using namespace tavu;

constexpr uint8_t ports = 1 << PORTS, managers = 1 << MANAGER_1 | 1 << MANAGER_2,
                  kays = 1 << KAY_1 | 1 << KAY_2, key_server = 1 << KEY_SERVER,
                  nobody = 1 << STRANGER; // what the daemon tells itself

// Messages of one layout, a letter a field behind the number: "p" and "c" are the references, "0" and what
// follows it words of that value ("@" is 16, "X" 40), the others stand in `fields`.
constexpr unsigned most_numbers = 9;
constexpr struct {
    uint8_t senders;
    const char* layout;
    uint32_t numbers[most_numbers];
} layouts[] = {
    {ports, "pc2", {OXPCSI_INIT_SERVICE_CFM}},
    {ports,
     "pc1",
     {OXPCSI_INIT_SERVICE_REJ, OXPCSI_GET_ETH_PORT_SUPPORT_REJ, OXPCSI_SUBSCRIBE_ETH_PORT_STATUS_CFM,
      OXPCSI_SUBSCRIBE_ETH_PORT_STATUS_REJ, OXPCSI_SET_ETH_PORT_STATE_CFM}},
    {ports, "pc211mxf_12Myf_", {OXPCSI_GET_ETH_PORT_SUPPORT_CFM}},
    {ports, "pc111rnN", {OXPCSI_ETH_PORT_STATUS2_IND}},
    {managers, "pc11", {OXMSI_CONNECTION_ESTABLISH_REQ}},
    {managers, "pc", {OXMSI_CONNECTION_CLOSE_REQ, OXMSI_CAPABILITIES_GET_REQ}},
    {managers, "pcnq10d022h", {OXMSI_IDL_TOPOLOGY_PUBLISH_LINK_ADDED_REQ}},
    {managers, "pcnq10d022", {OXMSI_IDL_TOPOLOGY_PUBLISH_LINK_UPDATED_REQ}},
    {managers, "pcn1", {OXMSI_IDL_TOPOLOGY_PUBLISH_LINK_DELETED_REQ}},
    {managers, "pcn", {OXMSI_PORT_STATE_CHANGE_SUBSCRIBE_REQ, OXMSI_PORT_STATE_CHANGE_UNSUBSCRIBE_REQ}},
    {kays, "pc11", {MKA_CONNECTION_ESTABLISH_REQ}},
    {kays,
     "pc",
     {MKA_CONNECTION_CLOSE_REQ, MKA_CAPABILITIES_GET_REQ, MKA_HEARTBEAT_REQ, MKA_HEARTBEAT_RCFM,
      MKA_LEAVE_CA_RCFM, MKA_CREATE_RX_SC_RCFM, MKA_CREATE_TX_SA_RCFM, MKA_CREATE_RX_SA_RCFM,
      MKA_UPDATE_PROTECT_FRAMES_RCFM}},
    {kays,
     "pc1",
     {MKA_CREATE_RX_SC_RREJ, MKA_CREATE_TX_SA_RREJ, MKA_CREATE_RX_SA_RREJ, MKA_UPDATE_PROTECT_FRAMES_RREJ}},
    {kays, "pcar10X14110000", {MKA_JOIN_CA_REQ}},
    {kays, "pca", {MKA_LEAVE_CA_REQ}},
    {kays, "pcas", {MKA_CREATE_TX_SC_REQ}},
    {key_server,
     "pc1",
     {MKA_CONNECTION_ESTABLISH_CFM, MKA_CONNECTION_ESTABLISH_REJ, MKA_CAPABILITIES_GET_REJ, MKA_JOIN_CA_REJ,
      MKA_CREATE_TX_SC_REJ}},
    {key_server, "pc10X14110000", {MKA_CAPABILITIES_GET_CFM}},
    {key_server, "pc0", {MKA_JOIN_CA_CFM}},
    {key_server,
     "pc",
     {MKA_CONNECTION_CLOSE_CFM, MKA_LEAVE_CA_CFM, MKA_CREATE_TX_SC_CFM, MKA_HEARTBEAT_CFM, MKA_HEARTBEAT_RREQ,
      MKA_PEER_DOWN_IND}},
    {key_server, "pca", {MKA_LEAVE_CA_RREQ}},
    {key_server, "pcas", {MKA_CREATE_RX_SC_RREQ}},
    {key_server, "pcas0111K@k", {MKA_CREATE_RX_SA_RREQ}},
    {key_server, "pcao0111K@k", {MKA_CREATE_TX_SA_RREQ}},
    {key_server, "pca1", {MKA_UPDATE_PROTECT_FRAMES_RREQ}},
    {nobody,
     "pc",
     {OXPCSI_SERVER_UP_IND, OXPCSI_SERVER_DOWN_IND, OXMSI_CLIENT_DOWN_IND, MKA_SERVER_UP_IND,
      MKA_SERVER_DOWN_IND, MKA_CLIENT_DOWN_IND, MKA_CLIENT_HEARTBEAT_TIMEOUT_IND,
      MKA_SERVER_HEARTBEAT_TIMEOUT_IND, TAVU_PM_RETRY_TIMEOUT_IND}},
    {nobody, "pca", {KEYSRV_KEY_REFRESH_TIMER_IND, KAY_SA_DISPOSAL_TIMEOUT_IND}},
    {nobody, "pc111a", {KEYSRV_MSG_TIMEOUT_IND}},
};

struct field {
    char letter;
    uint8_t size; // 0 for 256
    const char* of_link[2];
};
constexpr field fields[] = {
    {'n', 16, {"IDL_A1", "IDL_B1"}},
    {'x', 16, {"IDL_A1", "IDL_A1"}},
    {'y', 16, {"IDL_B1", "IDL_B1"}},
    {'q', 16, {"IDL_B2", "IDL_B2"}},
    {'a', 64, {"CA_mp3_IDL_A1_mp7_IDL_B2", "CA_mp1_IDL_B2_mp3_IDL_B1"}},
    {'h', 64, {"unit-7", "unit-1"}},
    {'K', 64, {"key", "%s%n"}},
    {'k', 16, {"secret", "secret"}},
    {'f', 16, {"", "IDL_X9"}},
    {'N', 0, {"", "../../x"}},
    {'m', 6, {"\2\1\1\1\1\1", "\2\1\1\1\1\1"}},
    {'M', 6, {"\2\1\1\1\1\2", "\2\1\1\1\1\2"}},
    {'o', 8, {"\2\1\1\1\1\1", "\2\1\1\1\1\2"}}, // the daemon's own channels
    {'s', 8, {"\2\7\7\7\7\7", "\2\1\7\7\7\7"}},
    {'_', 2, {"", ""}},
};

// What is said once more, beside the answer to a request.
constexpr struct {
    uint8_t by;
    uint32_t after, number;
} sequels[] = {
    {ports, OXPCSI_SUBSCRIBE_ETH_PORT_STATUS_REQ, OXPCSI_ETH_PORT_STATUS2_IND},
    {kays, MKA_CONNECTION_ESTABLISH_CFM, MKA_JOIN_CA_REQ},
    {kays, MKA_JOIN_CA_CFM, MKA_CREATE_TX_SC_REQ},
    {key_server, MKA_CREATE_TX_SC_REQ, MKA_CREATE_RX_SC_RREQ},
    {key_server, MKA_CREATE_RX_SC_RCFM, MKA_CREATE_RX_SA_RREQ},
    {key_server, MKA_CREATE_RX_SA_RCFM, MKA_CREATE_TX_SA_RREQ},
    {key_server, MKA_CREATE_TX_SA_RCFM, MKA_UPDATE_PROTECT_FRAMES_RREQ},
};

constexpr const char* names[PEERS] = {"oxpcsi-server",         "manager-1", "manager-2", "kay-1", "kay-2",
                                      "unit-1/mka-key-server", "stranger"};

struct peer {
    oka_mailbox mailbox = OKA_MAILBOX_NONE;
    oka_mailbox talks_to = OKA_MAILBOX_NONE; // whom it heard last
    bool answers = true;
    unsigned link = 0;
    uint32_t connection = 1;
    uint32_t procedure = 1; // heard last
    unsigned answers_until_slip = 0;
    edit edits[edits_max] = {};
    std::map<uint32_t, unsigned> heard;
};
peer peers[PEERS];
std::vector<oka_mailbox> daemons; // its mailboxes, as far as known

const field& field_of(char letter) {
    static constexpr field word = {'0', sizeof(be32), {"", ""}};
    const field* found =
        std::find_if(fields, std::end(fields), [&](const field& f) { return f.letter == letter; });
    return found == std::end(fields) ? word : *found;
}
size_t size_of(char letter) {
    return field_of(letter).size ? field_of(letter).size : 256;
}

void put(uint8_t* at, be32 word) {
    memcpy(at, &word, sizeof word);
}
void put(uint8_t* at, size_t size, const char* text) {
    memcpy(at, text, std::min(strlen(text), size));
}

void put_good_value(uint8_t* at, char letter, const peer& from) {
    if (letter == 'p' || letter == 'c')
        put(at, letter == 'p' ? from.procedure : from.connection);
    else if (letter == 'r')
        put(at, 10000); // the line rate
    else if (letter == 'd')
        put(at, from.link == 0 ? 7 : 1); // the unit at the other end
    else if (field_of(letter).letter == '0')
        put(at, static_cast<uint32_t>(letter - '0'));
    else
        put(at, size_of(letter), field_of(letter).of_link[from.link]);
    if (letter == 's')
        at[7] = static_cast<uint8_t>(&from - peers);
}

// `bytes` are a message's, its number included.
void apply(const edit& one, const char* layout, std::vector<uint8_t>& bytes) {
    size_t at = sizeof(uint32_t), which = one.field % strlen(layout);
    for (size_t i = 0; i < which; i++)
        at += size_of(layout[i]);
    size_t size = size_of(layout[which]);
    if (at + size > bytes.size())
        return; // it was cut off
    const peer& other = peers[one.high % PEERS];
    const field& of = fields[one.high % std::size(fields)];
    switch (static_cast<change>(one.how % static_cast<unsigned>(change::KINDS))) {
    case change::value:
        bytes[at + size - 1] = one.low;
        if (size == sizeof(be32))
            put(&bytes[at], static_cast<uint32_t>(static_cast<int16_t>(one.high << 8 | one.low)));
        return;
    case change::reference:
        return size < sizeof(be32) ? void()
                                   : put(&bytes[at], one.low % 2 ? other.connection : other.procedure);
    case change::name:
        memset(&bytes[at], 0, size);
        return put(&bytes[at], size, of.of_link[one.low % 2]);
    case change::filled:
        memset(&bytes[at], one.low, size);
        return;
    case change::cut:
        return bytes.resize(at + one.low % size);
    case change::extended:
        return bytes.resize(bytes.size() + one.high + one.low, one.low);
    case change::none:
    case change::KINDS:
        return;
    }
}

void send(unsigned index, unsigned row, unsigned link, const edit* edits, unsigned edit_count, oka_mailbox to,
          oka_mailbox sender) {
    if (!exists(index))
        return;
    const auto& of = layouts[row / most_numbers % std::size(layouts)];
    uint32_t number = of.numbers[row % most_numbers] ? of.numbers[row % most_numbers] : of.numbers[0];
    peer& from = peers[index];
    from.link = link;
    if (number == OXMSI_CONNECTION_ESTABLISH_REQ)
        from.connection = index;
    std::vector<uint8_t> bytes(sizeof number);
    for (const char* letter = of.layout; *letter; letter++) {
        bytes.resize(bytes.size() + size_of(*letter));
        put_good_value(&bytes[bytes.size() - size_of(*letter)], *letter, from);
    }
    for (unsigned i = 0; i < edit_count; i++)
        apply(edits[i], of.layout, bytes);
    oka_message* message = oka_alloc(bytes.size(), number);
    memcpy(message + 1, bytes.data() + sizeof number, bytes.size() - sizeof number);
    oka_send(&message, to, sender);
}

} // namespace

uint8_t row_of(uint32_t number) {
    for (uint8_t row = 0; row < std::size(layouts) * most_numbers; row++) {
        if (layouts[row / most_numbers].numbers[row % most_numbers] == number)
            return row;
    }
    return 0xff;
}
bool is_sent_by(unsigned row, unsigned index) {
    return row / most_numbers < std::size(layouts) &&
           layouts[row / most_numbers].numbers[row % most_numbers] &&
           layouts[row / most_numbers].senders & 1 << index;
}

bool exists(unsigned index) {
    return peers[index].mailbox != OKA_MAILBOX_NONE;
}
void appear(unsigned index) {
    peers[index] = {};
    peers[index].mailbox = oka::simulation::create_mailbox(names[index]);
    peers[index].link = index == KEY_SERVER;
}
void disappear(unsigned index) {
    oka_delete_mailbox(peers[index].mailbox);
    peers[index] = {};
}
void oblige(unsigned index) {
    peers[index].answers = !peers[index].answers;
}
void slip(unsigned index, unsigned answers, const edit* edits) {
    peers[index].answers_until_slip = answers + 1;
    std::copy_n(edits, edits_max, peers[index].edits);
}
void locate(unsigned index) {
    oka_message* up = oka_alloc(sizeof(message_header), 1);
    oka_locate_async(index < KAY_1 ? "oxmsi" : "mka-key-server", &up, peers[index].mailbox);
}

void say(unsigned index, unsigned row, unsigned to, unsigned link, const edit* edits, unsigned edit_count) {
    send(index, row, link, edits, edit_count,
         to == 0 || daemons.empty() ? peers[index].talks_to : daemons[to % daemons.size()],
         peers[index].mailbox);
}
void forge(unsigned index, unsigned row, unsigned by, unsigned link, const edit* edits, unsigned edit_count) {
    if (exists(by))
        send(index, row, link, edits, edit_count, peers[index].talks_to, peers[by].mailbox);
}

bool heard(const oka_message* message) {
    auto index_of = [](oka_mailbox mailbox) {
        return static_cast<unsigned>(
            std::find_if(peers, peers + PEERS, [&](const peer& each) { return each.mailbox == mailbox; }) -
            peers);
    };
    const unsigned index = index_of(oka_receiver(message)), by = index_of(oka_sender(message));
    const oka_mailbox daemon = index == PEERS ? oka_receiver(message) : oka_sender(message);
    if ((index == PEERS || by == PEERS) && std::find(daemons.begin(), daemons.end(), daemon) == daemons.end())
        daemons.push_back(daemon);
    if (index == PEERS)
        return false;
    peer& hearing = peers[index];
    const uint32_t number = message->number;
    hearing.heard[number]++;
    if (by != PEERS || oka_size(message) < sizeof(message_header))
        return true;
    hearing.talks_to = oka_sender(message);
    if (number == 1)
        return true; // it is located
    const auto& header = as<message_header>(message);
    hearing.procedure = header.procedure_reference;
    if (number == OXMSI_CONNECTION_ESTABLISH_CFM || number == MKA_CONNECTION_ESTABLISH_CFM ||
        number == MKA_CONNECTION_ESTABLISH_REQ)
        hearing.connection = header.connection_reference;
    if (!hearing.answers || managers & 1 << index)
        return true;
    auto answer = [&](uint32_t with, unsigned link) {
        bool slips = hearing.answers_until_slip > 0 && --hearing.answers_until_slip == 0;
        say(index, row_of(with), 0, link, hearing.edits, slips ? edits_max : 0);
    };
    // In all protocols the confirmation's number follows the request's.
    if (is_sent_by(row_of(number + 1), index))
        answer(number + 1, hearing.link);
    for (const auto& sequel : sequels) {
        for (unsigned link = 0; sequel.after == number && sequel.by & 1 << index && link < 2; link++) {
            if (index == PORTS || link == hearing.link)
                answer(sequel.number, link);
        }
    }
    return true;
}

unsigned times_heard(unsigned index, uint32_t number) {
    return peers[index].heard[number];
}

} // namespace fuzz
