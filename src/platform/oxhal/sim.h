// A SecY in memory, for tests and for running the daemon without MACsec hardware: what a test may ask
// of it and do to it. It is as strict as hardware (the rules stand in oxhal.cpp), writes every call
// down, and fails where it is told to. No frames are sent.
#pragma once

#include <cstddef>
#include <cstdint>
#include <string>

#include "platform/oxhal/secy.h"

namespace oxhal_sim {

// Makes this driver the process's own, whatever OXHAL_DRIVER says, with fresh ports (those of all
// units, or those that OXHAL_PORTS names), no calls written down and no failure planned. oxhal_init and
// oxhal_macsec_init are still to be called, as with any driver.
void install();

// The port's SecY as it is now: enabled, settings, channels, associations. Ends the process if there is no
// port of that name.
const oxhal::port& secy(const char* port_name);
// Null if there is none.
const oxhal::channel* receive_channel(const char* port_name, const oxhal_macsec_sci& sci);
// Channels and associations of both directions.
size_t channel_count(const char* port_name);
size_t association_count(const char* port_name);
// Whether the association is installed with exactly this key.
bool has_transmit_key(const char* port_name, uint8_t an, const uint8_t* key, size_t length);
bool has_receive_key(const char* port_name, const oxhal_macsec_sci& sci, uint8_t an, const uint8_t* key,
                     size_t length);

// The calls since the last take, one a line, in order, for example
//   transmit_sa_create DiPort_A1 02:00:00:00:00:01/0 an=1 pn=128 conf
//   protect_frames_set2 DiPort_A1 true
// A call that failed ends in " = " and its error number. Calls that change nothing (port_cap_get,
// *_in_use_get) are left out, unless all are asked for.
std::string take_calls();
std::string take_all_calls();
// How often the operation was called since install; "transmit_sa_enable", without a prefix.
unsigned call_count(const char* operation);

// Makes the nth call from now of that operation (nullptr: of any) fail with that error, and `times - 1`
// calls of it after that; nothing is changed by such a call. Up to eight plans at once.
void fail(const char* operation, unsigned nth = 1, int error = 5, unsigned times = 1);
void fail_never();

// What oxhal_macsec_port_cap_get answers for the port: up to four entries, none, or no list at all.
void set_capabilities(const char* port_name, const oxhal_macsec_port_cap* entries, uint32_t count);
void set_no_capability_list(const char* port_name);

} // namespace oxhal_sim
