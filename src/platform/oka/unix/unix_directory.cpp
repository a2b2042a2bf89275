#include "platform/oka/unix/unix_directory.h"

#include <cerrno>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <ctime>
#include <fcntl.h>
#include <sys/file.h>
#include <sys/random.h>
#include <sys/socket.h>
#include <sys/stat.h>
#include <sys/un.h>
#include <unistd.h>

#include "platform/oka/core/oka_trace.h"
#include "platform/oka_names.h"

namespace oka::af_unix {

namespace {

constexpr size_t temporary_name_size = 18;

struct {
    char root[OKA_DIRECTORY_SIZE] = "";
    size_t root_length = 0;
} directory;

// Closes at the end of its scope.
class scoped_fd {
  public:
    explicit scoped_fd(int fd) : fd_(fd) {}
    ~scoped_fd() {
        if (fd_ >= 0)
            close(fd_);
    }
    scoped_fd(const scoped_fd&) = delete;
    scoped_fd& operator=(const scoped_fd&) = delete;
    int get() const { return fd_; }
    int release() {
        int fd = fd_;
        fd_ = -1;
        return fd;
    }
    explicit operator bool() const { return fd_ >= 0; }

  private:
    int fd_;
};

// A socket address holds 108 bytes and our paths may be longer, so it goes through the open folder.
bool address_in(int folder, const char* name, sockaddr_un& address) {
    address = {};
    address.sun_family = AF_UNIX;
    int length = snprintf(address.sun_path, sizeof address.sun_path, "/proc/self/fd/%d/%s", folder, name);
    return length > 0 && static_cast<size_t>(length) < sizeof address.sun_path;
}

int connect_in(int folder, const char* name, int socket) {
    sockaddr_un address;
    if (!address_in(folder, name, address)) {
        errno = ENAMETOOLONG;
        return -1;
    }
    return connect(socket, reinterpret_cast<const sockaddr*>(&address), sizeof address);
}

int new_socket() {
    return socket(AF_UNIX, SOCK_SEQPACKET | SOCK_NONBLOCK | SOCK_CLOEXEC, 0);
}

// Folders below the messaging directory are open to its group, if the directory is, and else to this user.
// Members of the group cannot remove each other's sockets.
mode_t mode_of_new_folder(const char* path) {
    struct stat root;
    bool for_group = strlen(path) > directory.root_length && stat(directory.root, &root) == 0 &&
                     (root.st_mode & S_ISGID) && (root.st_mode & S_IXGRP);
    return for_group ? 01770 : 0700;
}

// The kernel takes the group, and the bit that passes it on, from the folder above.
bool make_directory(const char* path) {
    mode_t umask_before = umask(0);
    bool made = mkdir(path, mode_of_new_folder(path)) == 0;
    int error = errno;
    umask(umask_before);
    errno = error;
    return made;
}

// Creates what is missing of the path.
bool make_directories(const char* path) {
    char part[sizeof(folder_path::path)];
    snprintf(part, sizeof part, "%s", path);
    for (char* slash = strchr(part + 1, '/');; slash = strchr(slash + 1, '/')) {
        if (slash)
            *slash = '\0';
        if (!make_directory(part) && errno != EEXIST)
            return false;
        if (!slash)
            return true;
        *slash = '/';
    }
}

// Makes the folder again if it was removed since the start.
int open_and_keep(const folder_path& folder) {
    int fd = open(folder.path, O_RDONLY | O_DIRECTORY | O_CLOEXEC);
    if (fd < 0 && errno == ENOENT && make_directories(folder.path))
        fd = open(folder.path, O_RDONLY | O_DIRECTORY | O_CLOEXEC);
    return fd;
}

// Gives the folder's group rights only when the folder is open to its group. The mode is set before the
// socket has a name, so that there is no moment with more rights.
bool bind_in(int folder, const char* name, int socket) {
    struct stat folder_status;
    sockaddr_un address;
    if (fstat(folder, &folder_status) < 0 || !address_in(folder, name, address))
        return false;
    bool for_group = folder_status.st_mode & S_IXGRP;
    if (fchmod(socket, 0600) < 0 ||
        bind(socket, reinterpret_cast<const sockaddr*>(&address), sizeof address) < 0)
        return false;
    if (for_group &&
        fchownat(folder, name, static_cast<uid_t>(-1), folder_status.st_gid, AT_SYMLINK_NOFOLLOW) == 0)
        (void)fchmodat(folder, name, 0660, 0);
    return true;
}

// Whether no process listens behind the name any more. A file that is not a socket is never replaced.
bool is_stale(int folder, const char* name) {
    struct stat status;
    if (fstatat(folder, name, &status, AT_SYMLINK_NOFOLLOW) < 0)
        return errno == ENOENT;
    scoped_fd probe(new_socket());
    return S_ISSOCK(status.st_mode) && probe && connect_in(folder, name, probe.get()) < 0 &&
           errno == ECONNREFUSED;
}

// Locks the folder against other processes that replace a stale socket in it. They hold the lock for a moment
// only, so this waits for 100 ms at most.
bool lock_folder(int folder) {
    constexpr int attempts = 100;
    constexpr timespec pause = {.tv_sec = 0, .tv_nsec = 1'000'000};
    for (int attempt = 0; attempt < attempts; ++attempt) {
        if (flock(folder, LOCK_EX | LOCK_NB) == 0)
            return true;
        nanosleep(&pause, nullptr);
    }
    return false;
}

// Gives the bound and listening socket its name. From here on it can be found and connected to.
bool move_into_place(int folder, const char* temporary, const char* name) {
    if (renameat2(folder, temporary, folder, name, RENAME_NOREPLACE) == 0)
        return true;
    // EINVAL: the file system does not know this kind of rename.
    if ((errno != EEXIST && errno != EINVAL) || !lock_folder(folder))
        return false;
    bool moved = is_stale(folder, name) && renameat(folder, temporary, folder, name) == 0;
    flock(folder, LOCK_UN);
    if (!moved)
        errno = EADDRINUSE;
    return moved;
}

bool listen_under(int folder, const char* name, int socket, published_socket& published) {
    uint64_t number;
    char temporary[temporary_name_size];
    if (getrandom(&number, sizeof number, 0) != sizeof number)
        return false;
    snprintf(temporary, sizeof temporary, ".%016llx", static_cast<unsigned long long>(number));
    struct stat status;
    if (bind_in(folder, temporary, socket) && listen(socket, SOMAXCONN) == 0 &&
        fstatat(folder, temporary, &status, AT_SYMLINK_NOFOLLOW) == 0 &&
        move_into_place(folder, temporary, name)) {
        published.identity[0] = status.st_dev;
        published.identity[1] = status.st_ino;
        return true;
    }
    int error = errno;
    unlinkat(folder, temporary, 0);
    errno = error;
    return false;
}

bool is_file_of(const published_socket& published, int folder, const char* name) {
    struct stat status;
    return fstatat(folder, name, &status, AT_SYMLINK_NOFOLLOW) == 0 &&
           status.st_dev == published.identity[0] && status.st_ino == published.identity[1];
}

int open_path(const folder_path& folder) {
    return open(folder.path, O_PATH | O_DIRECTORY | O_CLOEXEC);
}

bool in_group(int socket, gid_t group) {
    socklen_t size = 0;
    if (getsockopt(socket, SOL_SOCKET, SO_PEERGROUPS, nullptr, &size) == 0 || errno != ERANGE)
        return false;
    auto* groups = static_cast<gid_t*>(malloc(size));
    bool found = false;
    if (groups && getsockopt(socket, SOL_SOCKET, SO_PEERGROUPS, groups, &size) == 0) {
        for (size_t index = 0; index < size / sizeof *groups; ++index)
            found |= groups[index] == group;
    }
    free(groups);
    return found;
}

folder_path folder_of_unit(const char* unit) {
    static_assert(sizeof directory.root + OKA_UNIT_PATH_SIZE + OKA_MAILBOX_NAME_SIZE <=
                  sizeof(folder_path::path));
    folder_path folder;
    snprintf(folder.path, sizeof folder.path, "%s/%s", directory.root, unit);
    return folder;
}

// "tavuctl" of "tavuctl-17"; the whole of a name that does not end in a number.
size_t length_without_number(const char* name) {
    const size_t length = strlen(name);
    size_t stem = length;
    while (stem > 0 && name[stem - 1] >= '0' && name[stem - 1] <= '9')
        --stem;
    return stem > 1 && stem < length && name[stem - 1] == '-' ? stem - 1 : length;
}

// Goes down into the folder of that name, if there is one.
bool enter(folder_path& folder, const char* name, size_t name_length) {
    const size_t length = strlen(folder.path);
    snprintf(folder.path + length, sizeof folder.path - length, "/%.*s", static_cast<int>(name_length), name);
    struct stat status;
    if (lstat(folder.path, &status) == 0 && S_ISDIR(status.st_mode))
        return true;
    folder.path[length] = '\0';
    return false;
}

} // namespace

int use_messaging_directory(const char* own_unit) {
    const char* chosen = getenv("OKA_DIR");
    if (!chosen || !*chosen)
        chosen = OKA_DEFAULT_DIRECTORY;
    char wrong[128];
    if (!oka_check_directory(chosen, wrong, sizeof wrong)) {
        OKA_ERROR("OKA: OKA_DIR '%.200s' is not an absolute path of a directory; %s", chosen, wrong);
        return EINVAL;
    }
    size_t length = strlen(chosen);
    while (chosen[length - 1] == '/')
        --length;
    memcpy(directory.root, chosen, length);
    directory.root[length] = '\0';
    directory.root_length = length;
    if (access("/proc/self/fd", X_OK) < 0) {
        OKA_ERROR("OKA: Messaging over AF_UNIX needs /proc: %s", strerror(errno));
        return errno;
    }
    folder_path folder = folder_of_unit(own_unit);
    if (scoped_fd(open_and_keep(folder)))
        return 0;
    int error = errno;
    OKA_ERROR("OKA: The messaging directory '%.500s' cannot be used: %s", folder.path, strerror(error));
    return error;
}

folder_path folder_of(const mailbox_address& at) {
    folder_path folder = folder_of_unit(at.unit);
    (void)(enter(folder, at.name, strlen(at.name)) || enter(folder, at.name, length_without_number(at.name)));
    return folder;
}

size_t messaging_directory_length() {
    return directory.root_length;
}

int publish(const mailbox_address& at, published_socket& published) {
    folder_path folder = folder_of(at);
    scoped_fd opened(open_and_keep(folder));
    scoped_fd socket(opened ? new_socket() : -1);
    if (!socket || !listen_under(opened.get(), at.name, socket.get(), published)) {
        int error = errno;
        OKA_ERROR("OKA: Mailbox '%s' cannot be published in '%.500s': %s", at.name, folder.path,
                  error == EADDRINUSE ? "the name is taken" : strerror(error));
        return error;
    }
    published.fd = socket.release();
    return 0;
}

bool is_in_place(const mailbox_address& at, const published_socket& published) {
    scoped_fd folder(open_path(folder_of(at)));
    return folder && is_file_of(published, folder.get(), at.name);
}

void unpublish(const mailbox_address& at, const published_socket& published) {
    scoped_fd folder(open_path(folder_of(at)));
    if (folder && is_file_of(published, folder.get(), at.name))
        unlinkat(folder.get(), at.name, 0);
}

int connect_socket(const folder_path& folder, const char* name, uint32_t& pid) {
    scoped_fd opened(open_path(folder));
    scoped_fd socket(opened ? new_socket() : -1);
    if (!socket)
        return -1;
    if (connect_in(opened.get(), name, socket.get()) < 0) {
        // The socket of a dead process is not a mailbox.
        if (errno == ECONNREFUSED || errno == ENOTDIR)
            errno = ENOENT;
        return -1;
    }
    if (!peer_allowed(socket.get(), folder, pid)) {
        errno = EPERM;
        return -1;
    }
    return socket.release();
}

bool peer_allowed(int socket, const folder_path& folder, uint32_t& pid) {
    ucred peer;
    socklen_t size = sizeof peer;
    if (getsockopt(socket, SOL_SOCKET, SO_PEERCRED, &peer, &size) < 0)
        return false;
    pid = static_cast<uint32_t>(peer.pid);
    if (peer.uid == geteuid() || peer.uid == 0)
        return true;
    struct stat status;
    if (stat(folder.path, &status) < 0)
        return false;
    return peer.uid == status.st_uid ||
           ((status.st_mode & S_IXGRP) && (peer.gid == status.st_gid || in_group(socket, status.st_gid)));
}

} // namespace oka::af_unix
