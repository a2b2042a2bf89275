// Being told of changes in folders that may not exist yet, and may go away and come back: inotify.
#pragma once

#include <cstdint>

#include "platform/oka/core/descriptors.h"
#include "platform/oka/unix/unix_directory.h"

namespace oka::af_unix {

struct folder_watch {
    // For every change: the name that it is about, or null when a folder went away or changes were lost.
    void (*changed)(const char* name) = nullptr;
    // After all changes that were there.
    void (*settled)() = nullptr;

    descriptor inotify = {};
};

// Watches the folder, or the deepest part of its path that there is, for `events` (inotify's) and for the
// next part to appear, and all of it for going away. False with errno when the kernel refuses.
bool watch_folder(folder_watch& watch, const unit_folder& folder, uint32_t events);
// Ends all watches.
void close_folder_watch(folder_watch& watch);

} // namespace oka::af_unix
