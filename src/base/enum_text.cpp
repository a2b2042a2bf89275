#include "base/enum_text.h"

#include "base/trace.h"

namespace tavu {

const char* enum_to_str(const enum_text* table, size_t rows, uint32_t value) {
    for (size_t row = 0; row < rows; row++) {
        if (table[row].value == value)
            return table[row].name;
    }
    TRACE_ERROR("TAVU: <unknown value: %u>", value);
    return "<unknown value>";
}

} // namespace tavu
