// What a mailbox and a unit may be called. Names become file names and travel between hosts, so nothing in
// them may lead elsewhere.
#pragma once

#include "platform/oka/core/core.h"

namespace oka {

struct path {
    char unit[unit_path_size]; // "" is the own unit
    char name[mailbox_name_size];
};

// Not empty, at most 79 characters, no "/" and no leading ".".
bool valid_name(const char* name);
// One or more components separated by single "/", each not empty and without a leading ".".
bool valid_unit(const char* unit);
// Splits "name" or "unit/path/name"; false when it is neither.
bool split_path(const char* text, path& result);

} // namespace oka
