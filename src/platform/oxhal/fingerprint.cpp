#include "platform/oxhal/fingerprint.h"

#include <cstring>
#include <mbedtls/md.h>

namespace oxhal {

void fingerprint_of(const uint8_t* key, size_t length, uint8_t (&fingerprint)[fingerprint_size]) {
    // So that nothing else that is made from the key comes to the same octets.
    static constexpr uint8_t purpose[] = "qel-tavu key fingerprint";
    uint8_t digest[32];
    (void)mbedtls_md_hmac(mbedtls_md_info_from_type(MBEDTLS_MD_SHA256), key, length, purpose, sizeof purpose,
                          digest);
    memcpy(fingerprint, digest, sizeof fingerprint);
    explicit_bzero(digest, sizeof digest);
}

} // namespace oxhal
