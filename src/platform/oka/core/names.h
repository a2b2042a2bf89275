// The name that a mailbox is located by, taken apart, and whether other hosts may use it. Names become file
// names and travel between hosts, so nothing in them may lead elsewhere.
#pragma once

#include "platform/oka_names.h"

namespace oka {

struct path {
    char unit[OKA_UNIT_PATH_SIZE]; // "" is the own unit
    char name[OKA_MAILBOX_NAME_SIZE];
};

// Splits "name" or "unit/path/name"; false when it is neither.
bool split_path(const char* text, path& result);

// Whether processes of other hosts may find mailboxes of that name: those that OKA_TIPC_NAMES lists or,
// without it, those that units need of each other. All others stay within the host, as what a person asks
// for.
bool is_offered(const char* name);

} // namespace oka
