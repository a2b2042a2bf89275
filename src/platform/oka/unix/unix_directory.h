// The messaging directory: where units are folders and mailboxes are socket files. Publishing a socket
// there, connecting to one, and who may.
#pragma once

#include <cstddef>
#include <cstdint>
#include <sys/types.h>

namespace oka {

// Set once, before anything else. Reports and returns an error number when the path cannot be used.
int set_messaging_directory(const char* own_unit);

// The folder of a unit, "" being the own one.
struct unit_folder {
    char path[4096];
};
bool folder_of(const char* unit, unit_folder& folder);
// Without what folder_of adds.
size_t messaging_directory_length();

// A socket that listens under its name in the own unit's folder.
struct published_socket {
    int fd = -1;
    dev_t device = 0;
    ino_t inode = 0;
};
// Returns 0 or an error number that it has reported: EADDRINUSE when the name is taken.
int publish_socket(const char* name, published_socket& published);
// Whether the file is there and still that socket's.
bool socket_in_place(const char* name, const published_socket& published);
// Removes the file, if it is still that socket's.
void unpublish_socket(const char* name, const published_socket& published);

// The connected, non-blocking socket and the process behind it, or -1 with errno: ENOENT when there is no
// such mailbox now, EPERM when the process behind it is none that we talk to.
int connect_socket(const unit_folder& folder, const char* name, uint32_t& pid);

// Whether the process at the other end may talk to us through a mailbox of that folder: the same user,
// root, or a member of the folder's group when the folder is open to its group.
bool peer_allowed(int socket, const unit_folder& folder, uint32_t& pid);

} // namespace oka
