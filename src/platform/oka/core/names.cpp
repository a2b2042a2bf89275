#include "platform/oka/core/names.h"

#include <cstring>

bool oka_valid_mailbox_name(const char* name) {
    size_t length = strnlen(name, OKA_MAILBOX_NAME_SIZE);
    return length > 0 && length < OKA_MAILBOX_NAME_SIZE && name[0] != '.' && !strchr(name, '/');
}

bool oka_valid_unit_path(const char* path) {
    if (strnlen(path, OKA_UNIT_PATH_SIZE) == OKA_UNIT_PATH_SIZE)
        return false;
    for (;;) {
        size_t length = strcspn(path, "/");
        if (length == 0 || path[0] == '.')
            return false;
        if (path[length] == '\0')
            return true;
        path += length + 1;
    }
}

namespace oka {

bool split_path(const char* text, path& result) {
    result.unit[0] = '\0';
    if (strnlen(text, OKA_UNIT_PATH_SIZE + OKA_MAILBOX_NAME_SIZE) ==
        OKA_UNIT_PATH_SIZE + OKA_MAILBOX_NAME_SIZE)
        return false;
    const char* name = text;
    if (const char* slash = strrchr(text, '/')) {
        auto length = static_cast<size_t>(slash - text);
        if (length >= sizeof result.unit)
            return false;
        memcpy(result.unit, text, length);
        result.unit[length] = '\0';
        if (!oka_valid_unit_path(result.unit))
            return false;
        name = slash + 1;
    }
    if (!oka_valid_mailbox_name(name))
        return false;
    strcpy(result.name, name);
    return true;
}

} // namespace oka
