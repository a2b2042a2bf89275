#include "platform/oka/core/names.h"

#include <cstring>

namespace oka {

bool valid_name(const char* name) {
    size_t length = strnlen(name, mailbox_name_size);
    return length > 0 && length < mailbox_name_size && name[0] != '.' && !strchr(name, '/');
}

bool valid_unit(const char* unit) {
    if (strnlen(unit, unit_path_size) == unit_path_size)
        return false;
    for (;;) {
        size_t length = strcspn(unit, "/");
        if (length == 0 || unit[0] == '.')
            return false;
        if (unit[length] == '\0')
            return true;
        unit += length + 1;
    }
}

bool split_path(const char* text, path& result) {
    result.unit[0] = '\0';
    if (strnlen(text, unit_path_size + mailbox_name_size) == unit_path_size + mailbox_name_size)
        return false;
    const char* name = text;
    if (const char* slash = strrchr(text, '/')) {
        auto length = static_cast<size_t>(slash - text);
        if (length >= sizeof result.unit)
            return false;
        memcpy(result.unit, text, length);
        result.unit[length] = '\0';
        if (!valid_unit(result.unit))
            return false;
        name = slash + 1;
    }
    if (!valid_name(name))
        return false;
    strcpy(result.name, name);
    return true;
}

} // namespace oka
