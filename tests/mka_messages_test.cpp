#include "protocols/mka_messages.h"

#include "support/octets.h"
#include "support/world.h"

using namespace tavu;
using test::octets;

namespace {

using mka_messages = test::world;

TEST_F(mka_messages, are_searched_for_elements_within_their_bytes_only) {
    constexpr uint32_t offset = 12;
    const struct {
        const char* rule;
        octets bytes;
        uint32_t count;
        uint32_t size;
        uint32_t found; // where the element of 802.1AE-2006 begins; 0: nowhere
    } cases[] = {
        {"one element", octets(0, 0).word(0).word(40).fill(9, 32), 1, 52, 12},
        {"the first of its type", octets(0, 0).word(2).word(8).word(0).word(40).fill(9, 32), 2, 60, 20},
        {"none of its type", octets(0, 0).word(1).word(40).fill(9, 32), 1, 52, 0},
        {"one that is too short to be it", octets(0, 0).word(0).word(36).fill(9, 28), 1, 48, 0},
        {"more behind the elements", octets(0, 0).word(1).word(8).fill(9, 4), 1, 20, 0},
        {"a head beyond the end", octets(0, 0).word(1).word(8).word(0), 2, 28, 0},
        {"a length beyond the end", octets(0, 0).word(0).word(41).fill(9, 32), 1, 53, 0},
        {"a length that wraps", octets(0, 0).word(0).word(0xfffffffc).fill(9, 32), 1, 8, 0},
        {"a length shorter than a head", octets(0, 0).word(0).word(7).fill(9, 32), 1, 0, 0},
        {"no end of empty elements", octets(0, 0).word(0).word(0).fill(9, 32), UINT32_MAX, 0, 0},
    };
    test::peer peer("mka-key-server");
    for (const auto& row : cases) {
        peer.send_bytes(peer.mailbox(), 7, row.bytes.data(), row.bytes.size());
        settle();
        test::received arrived = peer.take(7);
        EXPECT_EQ(size_with_information_elements(arrived.message(), offset, row.count), row.size) << row.rule;
        if (row.size != row.bytes.size())
            continue;
        const auto* found = find_802_1ae_2006_tlv(arrived.message(), offset, row.count);
        const auto* expected = reinterpret_cast<const uint8_t*>(arrived.message()) + row.found;
        EXPECT_EQ(reinterpret_cast<const uint8_t*>(found), row.found == 0 ? nullptr : expected) << row.rule;
    }
}

} // namespace
