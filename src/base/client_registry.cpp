#include "base/client_registry.h"

namespace tavu {

uint32_t select_pv(const be32* offered, uint32_t count, uint32_t own) {
    TAVU_FUNCTION();
    for (uint32_t at = 0; at < count; at++) {
        uint32_t version = offered[at];
        if (version == own) {
            TRACE("TAVU: Offered protocol version %u is selected", version);
            return version;
        }
        TRACE("TAVU: Offered protocol version %u is not selected", version);
    }
    TRACE("TAVU: None of the offered protocol versions are selected");
    return 0;
}

} // namespace tavu
