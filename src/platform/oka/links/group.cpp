#include "platform/oka/links/group.h"

#include <cerrno>
#include <cstdlib>
#include <cstring>
#include <fcntl.h>
#include <mbedtls/md.h>
#include <string_view>
#include <sys/stat.h>
#include <unistd.h>

extern "C" { // its header does not say so itself
#include <mbedtls/constant_time.h>
}

#include "platform/oka/core/core.h"
#include "platform/oka/core/oka_trace.h"
#include "platform/words.h"

namespace oka {

namespace {

constexpr size_t least_secret = 32;
constexpr size_t longest_secret = 256;

struct {
    unsigned char secret[longest_secret];
    size_t secret_size = 0;      // 0: there is none
    const char* units = nullptr; // of OKA_PEERS; null: all
} group;

void forget_secret() {
    explicit_bzero(group.secret, sizeof group.secret);
    group.secret_size = 0;
}

int refuse_secret(const char* path, const char* why, int error) {
    forget_secret();
    OKA_ERROR(
        "OKA: Every process of every machine of the cluster could speak for a unit: '%.200s', the secret of "
        "the node's group, %s. See OKA_TIPC_SECRET in qel-tavu(8)",
        path, why);
    return error;
}

class mac {
  public:
    mac() {
        mbedtls_md_init(&context_);
        failed_ = mbedtls_md_setup(&context_, mbedtls_md_info_from_type(MBEDTLS_MD_SHA256), 1) != 0 ||
                  mbedtls_md_hmac_starts(&context_, group.secret, group.secret_size) != 0;
    }
    ~mac() { mbedtls_md_free(&context_); }
    mac(const mac&) = delete;
    mac& operator=(const mac&) = delete;

    void add(const void* octets, size_t size) {
        failed_ |= mbedtls_md_hmac_update(&context_, static_cast<const unsigned char*>(octets), size) != 0;
    }
    void add(uint64_t number) {
        const uint64_t number_be = htobe64(number);
        add(&number_be, sizeof number_be);
    }
    void add(const greeting_end& end) {
        add(end.process, sizeof *end.process);
        add(end.challenge, sizeof *end.challenge);
        add(end.unit, strlen(end.unit) + 1);
        add(end.socket);
    }
    bool finish(proof& made) { return !failed_ && mbedtls_md_hmac_finish(&context_, made.bytes) == 0; }

  private:
    mbedtls_md_context_t context_;
    bool failed_;
};

} // namespace

int read_group() {
    forget_group();
    const char* units = getenv("OKA_PEERS");
    if (!units || !*units)
        return 0;
    char wrong[128];
    if (!oka_check_peers(units, wrong, sizeof wrong)) {
        OKA_ERROR("OKA: OKA_PEERS: %s", wrong);
        return EINVAL;
    }
    group.units = units;
    return 0;
}

// A secret that anybody can read is none.
int read_group_secret(const char* path) {
    int file = open(path, O_RDONLY | O_CLOEXEC | O_NONBLOCK);
    if (file < 0)
        return refuse_secret(path, strerror(errno), errno);
    struct stat facts = {};
    const bool is_private = fstat(file, &facts) == 0 && S_ISREG(facts.st_mode) && !(facts.st_mode & 07);
    const ssize_t size = is_private ? read(file, group.secret, longest_secret) : 0;
    close(file);
    if (!is_private)
        return refuse_secret(path, "is no regular file, or others than its owner and its group may use it",
                             EACCES);
    if (size < static_cast<ssize_t>(least_secret))
        return refuse_secret(path, "has less than 32 octets", EINVAL);
    group.secret_size = static_cast<size_t>(size);
    return 0;
}

void forget_group() {
    forget_secret();
    group.units = nullptr;
}

bool has_group_secret() {
    return group.secret_size > 0;
}

proof make_proof(prover by, const greeting_facts& facts) {
    proof made = {};
    if (!has_group_secret())
        return made;
    static constexpr char purpose[] = "qel-tavu greeting";
    mac of;
    of.add(purpose, sizeof purpose);
    of.add(static_cast<uint64_t>(by));
    of.add(facts.connector);
    of.add(facts.acceptor);
    of.add(uint64_t{facts.mailbox});
    if (of.finish(made))
        return made;
    // No MAC could be made: nothing that the other end can send is one.
    memset(made.bytes, 0xff, sizeof made.bytes);
    return made;
}

bool is_proof(const proof& given, const proof& expected) {
    return mbedtls_ct_memcmp(given.bytes, expected.bytes, sizeof given.bytes) == 0;
}

bool is_allowed_unit(const char* unit) {
    if (!group.units || !strcmp(unit, own_unit()) || platform::has_word(group.units, unit))
        return true;
    OKA_ERROR("OKA: A process of unit '%.100s' is refused: OKA_PEERS does not name that unit", unit);
    return false;
}

} // namespace oka
