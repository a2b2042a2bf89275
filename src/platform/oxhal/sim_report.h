// Lets another process watch the SecY in memory, decide which calls fail, and make the keys: for simulations
// of whole nodes. OXHAL_SIM_REPORT is the number of an inherited SOCK_SEQPACKET socket that leads there;
// without it nothing is reported. Keys leave the process this way, as they do towards hardware.
#pragma once

#include "platform/oxhal/secy.h"

namespace oxhal_sim {

enum class report_kind : uint32_t {
    asks = 0x53656301, // before the call; answered, and the call fails when the answer says so
    ended = 0x53656302,
};

// Texts end in NUL.
struct call_report {
    report_kind kind;
    int32_t result; // once it has ended
    int32_t an;     // -1: none
    uint32_t number;
    char operation[32];
    char port[32];
    char word[16];
    oxhal_macsec_sci sci;
    uint8_t key[OXHAL_KEY_SIZE_MAX]; // of an association that was created
};

struct report_answer {
    int32_t error;
    uint8_t key[OXHAL_KEY_SIZE_MAX]; // for generate_key
};

// Whether somebody watches.
bool reports();
// The error that the call is to fail with, or 0; a key for generate_key.
report_answer ask(const oxhal::call& what);
void report_end(const oxhal::call& what, int result, const uint8_t (&key)[OXHAL_KEY_SIZE_MAX]);

} // namespace oxhal_sim
