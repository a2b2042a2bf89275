// Follows the links file. The directory is watched rather than the file, since editors replace a file by
// renaming another over it. A file that is not good changes nothing: the links of the last good one stay.
#pragma once

#include <vector>

#include "services/idl-topologyd/links_file.h"

namespace topologyd {

struct links_follower_callbacks {
    // A good file was read, at the start or later.
    void (*handle_links)(const std::vector<link_attributes>& links);
    // A file was read, good or not.
    void (*handle_read)();
};

// Reads the file, and reads it again whenever it may have changed.
void links_follower_start(oka_mailbox mailbox, const char* path, const links_follower_callbacks* callbacks);
void links_follower_stop();

const char* links_follower_path();
// The first thing that is wrong with the file, "" when it is in force.
const char* links_follower_error();

// True when the message was this module's.
bool links_follower_dispatch_message(const oka_message* message);

} // namespace topologyd
