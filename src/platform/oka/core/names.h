// The name that a mailbox is located by, taken apart. Names become file names and travel between hosts, so
// nothing in them may lead elsewhere.
#pragma once

#include "platform/oka_names.h"

namespace oka {

struct path {
    char unit[OKA_UNIT_PATH_SIZE]; // "" is the own unit
    char name[OKA_MAILBOX_NAME_SIZE];
};

// Splits "name" or "unit/path/name"; false when it is neither.
bool split_path(const char* text, path& result);

} // namespace oka
