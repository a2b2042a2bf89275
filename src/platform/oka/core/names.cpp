#include "platform/oka/core/names.h"

#include <algorithm>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <string_view>

#include "platform/words.h"

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

bool oka_check_directory(const char* value, char* wrong, size_t size) {
    size_t length = strlen(value);
    while (length > 1 && value[length - 1] == '/')
        --length;
    if (length == 0 || (value[0] == '/' && length > 1 && length < OKA_DIRECTORY_SIZE))
        return true;
    snprintf(wrong, size, "write the absolute path of a directory, such as " OKA_DEFAULT_DIRECTORY);
    return false;
}

bool oka_check_peers(const char* value, char* wrong, size_t size) {
    std::string_view rest = value;
    for (auto unit = platform::next_word(rest); !unit.empty(); unit = platform::next_word(rest)) {
        char path[OKA_UNIT_PATH_SIZE] = {};
        if (unit.size() < sizeof path)
            memcpy(path, unit.data(), unit.size());
        if (!oka_valid_unit_path(path)) {
            snprintf(wrong, size, "'%.*s' is no path of a unit; write the names of units, such as mp7 mp9",
                     static_cast<int>(std::min(unit.size(), size_t{60})), unit.data());
            return false;
        }
    }
    return true;
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

bool is_offered(const char* name) {
    const char* chosen = getenv("OKA_TIPC_NAMES");
    std::string_view names = chosen && *chosen ? chosen : "mka-key-server idl-topologyd-peer";
    return names == "all" || platform::has_word(names, name);
}

} // namespace oka
