// Learns of changes in folders, by inotify. A folder may not exist yet, and may be removed and come back.
#pragma once

#include <cstdint>

#include "platform/oka/core/descriptors.h"
#include "platform/oka/unix/unix_directory.h"

namespace oka::af_unix {

struct folder_watch {
    // For every change: the name that it is about, or null when a folder went away or changes were lost.
    void (*changed)(const char* name) = nullptr;
    // After all changes that were waiting.
    void (*settled)() = nullptr;

    descriptor inotify = {};
};

// Watches the folder for `events` (inotify's). If it does not exist, watches the deepest part of its path
// that does, until the next part appears. Watches every part for being removed. False, with errno, when the
// kernel refuses.
bool watch_folder(folder_watch& watch, const folder_path& folder, uint32_t events);
// Ends all watches.
void close_folder_watch(folder_watch& watch);

} // namespace oka::af_unix
