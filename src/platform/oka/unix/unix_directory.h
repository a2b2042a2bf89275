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

struct folder_path {
    char path[4096];
};
// The folder that holds the mailbox's socket. It is the unit's, unless there is a folder in that one with the
// mailbox's name, with or without the number at its end. Such a folder reserves a name for the user who owns
// it.
folder_path folder_of(const mailbox_address& at);
// Without what folder_of adds.
size_t messaging_directory_length();

// As in the table of a family. A published socket is known by its file.
int publish(const mailbox_address& at, published_socket& published);
void unpublish(const mailbox_address& at, const published_socket& published);
bool is_in_place(const mailbox_address& at, const published_socket& published);

// The connected, non-blocking socket and the process behind it, or -1 with errno: ENOENT when there is no
// such mailbox now, EPERM when its process belongs to a user that we do not talk to.
int connect_socket(const folder_path& folder, const char* name, uint32_t& pid);

// Whether the process at the other end may talk to us through a mailbox of that folder: the same user,
// root, the folder's owner, or a member of its group when it is open to its group.
bool peer_allowed(int socket, const folder_path& folder, uint32_t& pid);

} // namespace oka::af_unix
