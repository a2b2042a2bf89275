// The text of an enumeration: a table of its values and names beside it.
#pragma once

#include <cstddef>
#include <cstdint>

namespace tavu {

// One row of the table that stands beside every enumeration.
struct enum_text {
    uint32_t value;
    const char* name;
};
#define ENUM_TEXT(enumerator)                                                                                \
    { static_cast<uint32_t>(enumerator), #enumerator }

// The enumerator's name; "<unknown value>", after an error trace, for a value without a row.
const char* enum_to_str(const enum_text* table, size_t rows, uint32_t value);
template<size_t N>
const char* enum_to_str(const enum_text (&table)[N], uint32_t value) {
    return enum_to_str(table, N, value);
}

} // namespace tavu
