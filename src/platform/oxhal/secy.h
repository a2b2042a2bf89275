// What the layer knows of each SecY, and the table of operations behind which a driver reaches the
// hardware. The contract's rules (which channel may be deleted when, which association number is free)
// are the same for every driver, so they stand once, in oxhal.cpp; a driver is only asked for what the
// rules allow, and only it knows whether the hardware can do it.
#pragma once

#include <span>

#include "platform/oxhal.h"
#include "platform/oxhal_ciphers.h"
#include "platform/oxhal_names.h"
#include "platform/zeb.h"

namespace oxhal {

constexpr uint32_t max_ports = OXHAL_PORTS_MAX;
constexpr uint32_t max_receive_channels = 8;
constexpr uint32_t associations_per_channel = 4;

#define CHECK_KEY_LENGTH(number, name, key_length, supported)                                                \
    static_assert((key_length) <= OXHAL_KEY_SIZE_MAX);
OXHAL_CIPHER_SUITES(CHECK_KEY_LENGTH)
#undef CHECK_KEY_LENGTH

// Whether there is a cipher suite that our SecYs support and whose key has so many octets.
constexpr bool is_key_length(uint32_t octets) {
#define TAKES_KEY_LENGTH(number, name, key_length, supported) || ((supported) && octets == (key_length))
    return false OXHAL_CIPHER_SUITES(TAKES_KEY_LENGTH);
#undef TAKES_KEY_LENGTH
}

enum class direction { transmit, receive };

struct association {
    bool installed;
    bool in_use; // as last asked for; the hardware has the last word
    bool confidentiality;
    uint32_t packet_number;
};

struct channel {
    bool exists;
    oxhal_macsec_sci sci;
    association associations[associations_per_channel];
};

struct settings {
    bool protect_frames;
    bool replay_protect;
    bool es;
    bool scb;
    bool always_include_sci;
    oxhal_macsec_validate_frames validate_frames;
    uint32_t replay_window;
};

// What a new SecY starts with: clear frames in both directions.
constexpr settings initial_settings = {
    .protect_frames = false,
    .replay_protect = false,
    .es = false,
    .scb = false,
    .always_include_sci = true,
    .validate_frames = OXHAL_MACSEC_VALIDATE_FRAMES_DISABLED,
    .replay_window = 0,
};

// What both drivers can do.
constexpr oxhal_macsec_port_cap usual_capability = {
    .standard = OXHAL_MACSEC_STANDARD_IEEE_802_1AE_2006,
    .replay_protection_supported = 1,
    .confidentiality_supported = 1,
    .confidentiality_offset_supported = 0,
    .reserved_1 = 0,
    .num_of_rx_scs = max_receive_channels,
    .reserved_2 = 0,
    .num_of_rx_sas = associations_per_channel,
    .num_of_additional_ciphers = 0,
    .reserved_3 = {},
};

struct port {
    uint32_t handle;
    char name[64]; // all three as OXHAL_PORTS names them
    char common_port[OXHAL_INTERFACE_NAME_SIZE];
    char controlled_port[OXHAL_INTERFACE_NAME_SIZE];
    unsigned controlled_port_index; // the driver's, 0 while there is none
    bool enabled;
    settings wanted;      // kept while there is no controlled port, and given to it when it comes
    oxhal_macsec_sci sci; // the driver's: that of the last transmit channel; zero before the first
    channel transmit;
    channel receive[max_receive_channels];
};

struct port_list {
    uint32_t count;
    port ports[max_ports];
};

// One call of the contract, for the driver's observers and for traces. Pointers may be null.
struct call {
    const char* operation; // without the "oxhal_" or "oxhal_macsec_" prefix; never null
    const char* port_name = nullptr;
    const oxhal_macsec_sci* sci = nullptr;
    int an = -1;                 // -1: none
    const char* label = nullptr; // stands before the number; null: there is no number
    uint32_t number = 0;
    const char* word = nullptr; // a value in words
};

constexpr unsigned call_text_size = 192;
void describe(const call& what, char (&text)[call_text_size]);

// Operations return 0 or an errno value, after an error trace of their own. `configure` is given all
// settings at once, since hardware accepts some of them only together. Of an association, the driver
// reads the packet number and the confidentiality flag; the model is updated by the caller.
struct driver {
    const char* name;
    int (*init)(port_list& list);
    int (*prepare)(const port_list& list);
    int (*capabilities)(const port& on, const oxhal_macsec_port_cap_list** list);
    // Whether the hardware still is what the model says. May empty the model of a SecY that was lost.
    void (*refresh)(port& on);
    int (*enable)(port& on, bool enable);
    int (*configure)(port& on, const settings& wanted);
    int (*create_channel)(port& on, direction way, const oxhal_macsec_sci& sci);
    int (*delete_channel)(port& on, direction way, const channel& which); // with its associations
    int (*create_association)(port& on, direction way, const channel& of, uint8_t an, const association& what,
                              const oxhal_macsec_key& key);
    int (*enable_association)(port& on, direction way, const channel& of, uint8_t an, bool enable);
    int (*delete_association)(port& on, direction way, const channel& of, uint8_t an);
    int (*read_in_use)(const port& on, direction way, const channel& of, uint8_t an, bool* in_use);
    // Null: the kernel's random numbers.
    int (*generate_key)(uint32_t length, uint8_t* key);
    // Both may be null. `before` may refuse the call with an error number of its own.
    int (*before)(const call& what);
    void (*after)(const call& what, int result);
};

// The values of OXHAL_DRIVER, the default first. Each has its table in a file of its own.
#define OXHAL_DRIVERS(X) X(macsec) X(sim)

#define DECLARE_DRIVER(name)                                                                                 \
    constexpr const char* name##_driver_name = #name;                                                        \
    extern const driver name##_driver;
OXHAL_DRIVERS(DECLARE_DRIVER)
#undef DECLARE_DRIVER

// The layer's state: its driver, how far it has come, and its ports.
struct layer_state {
    const driver* current;
    bool initialised;
    bool prepared;
    port_list list;
};
extern layer_state layer;

// Forgets every port and makes `chosen` the driver of the process; null leaves the choice to OXHAL_DRIVER.
void reset(const driver* chosen);
port_list& ports();
void forget_channels(port& on);
// The places for channels of that direction, those that do not exist included.
std::span<channel> channels_of(port& on, direction way);
channel* find_channel(port& on, direction way, const oxhal_macsec_sci& sci);

// Up to 256 octets come in one piece, or not at all while the kernel's generator is not seeded yet.
int kernel_random(uint32_t length, uint8_t* octets);

// Reads a value of OXHAL_PORTS into the list; an error trace says what is wrong with it.
int read_ports(const char* value, port_list& list);

// An error trace that begins with "OXHAL: ".
#define OXHAL_ERROR(...) ZEB_TRACE(ZEB_GROUP_ERROR, "OXHAL: " __VA_ARGS__)

} // namespace oxhal
