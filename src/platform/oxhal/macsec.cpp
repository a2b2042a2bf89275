#include "platform/oxhal/secy.h"

#include <cerrno>

namespace oxhal {

// Not there yet: says so at start-up.
const driver macsec_driver = {
    .name = "macsec",
    .init =
        [](port_list&) {
            OXHAL_ERROR("this build has no driver for the kernel's MACsec; set OXHAL_DRIVER=sim");
            return ENOTSUP;
        },
    .prepare = nullptr,
    .capabilities = nullptr,
    .refresh = nullptr,
    .enable = nullptr,
    .configure = nullptr,
    .create_channel = nullptr,
    .delete_channel = nullptr,
    .create_association = nullptr,
    .enable_association = nullptr,
    .delete_association = nullptr,
    .read_in_use = nullptr,
    .before = nullptr,
    .after = nullptr,
};

} // namespace oxhal
