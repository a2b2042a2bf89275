// The messaging directory, in which units are folders and mailboxes are socket files: publishes sockets
// there, connects to them, and decides which processes may connect.
#pragma once

#include <cstddef>
#include <cstdint>

#include "platform/oka/links/family.h"

namespace oka::af_unix {

// Once, before anything else. Returns 0, or an error number that it has reported when the path cannot be
// used.
int use_messaging_directory(const char* own_unit);

struct unit_folder {
    char path[4096];
};
unit_folder folder_of(const char* unit);
// Without what folder_of adds.
size_t messaging_directory_length();

// As in the table of a family. A published socket is known by its file.
int publish(const mailbox_address& at, published_socket& published);
void unpublish(const mailbox_address& at, const published_socket& published);
bool is_in_place(const mailbox_address& at, const published_socket& published);

// The connected, non-blocking socket and the process behind it, or -1 with errno: ENOENT when there is no
// such mailbox now, EPERM when its process belongs to a user that we do not talk to.
int connect_socket(const unit_folder& folder, const char* name, uint32_t& pid);

// Whether the process at the other end may talk to us through a mailbox of that folder: the same user,
// root, or a member of the folder's group when the folder is open to its group.
bool peer_allowed(int socket, const unit_folder& folder, uint32_t& pid);

} // namespace oka::af_unix
