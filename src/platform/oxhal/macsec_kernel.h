// What the Linux kernel is asked about MACsec, a request a function: interfaces over rtnetlink, channels
// and associations over the generic netlink family "macsec". No rules and no traces; the transmit channel
// is a part of the interface and is named by a null SCI.
#pragma once

#include "platform/oxhal/netlink.h"
#include "platform/oxhal/secy.h"

namespace oxhal::kernel {

struct interface {
    unsigned index;
    unsigned lower; // the interface that it is on
    bool is_macsec;
    oxhal_macsec_sci sci;
    uint8_t address[6];
};

constexpr uint32_t max_channels = 64;

// The associations of an interface; bits stand for association numbers.
struct contents {
    unsigned index;
    uint8_t encoding_an;
    uint8_t transmit_installed, transmit_active;
    uint32_t receive_channels; // what is beyond max_channels is left out
    struct {
        oxhal_macsec_sci sci;
        uint8_t active;
    } receive[max_channels];
};

// Both sockets; for the texts of errors, and for other requests.
netlink& route();
netlink& generic();

// All return 0 or an errno value.
int open();        // the sockets
int find_family(); // makes the kernel load its module, where it has one

int find_interface(const char* name, interface& found); // ENODEV: there is none
int create_interface(const char* name, unsigned lower, const oxhal_macsec_sci& sci, const settings& wanted);
int delete_interface(unsigned index);
int change_settings(unsigned index, const settings& wanted);
int encrypt_with(unsigned index, uint8_t an, bool confidentiality);

int create_receive_channel(unsigned index, const oxhal_macsec_sci& sci);
int delete_receive_channel(unsigned index, const oxhal_macsec_sci& sci);
int create_association(unsigned index, const oxhal_macsec_sci* sci, uint8_t an, uint32_t packet_number,
                       const oxhal_macsec_key& key);
int activate_association(unsigned index, const oxhal_macsec_sci* sci, uint8_t an, bool active);
int delete_association(unsigned index, const oxhal_macsec_sci* sci, uint8_t an);
int read_contents(unsigned index, contents& found);
// Every SecY of the machine, an answer each.
int dump_secys(netlink::answer_handler on_answer, void* context);

} // namespace oxhal::kernel
