// The platform's own traces; the text of each begins "OKA: ".
#pragma once

#include "platform/zeb.h"

#define OKA_TRACE(group, ...)                                                                                \
    do {                                                                                                     \
        if (procInfo.trace_group_mask & (1u << (group)))                                                     \
            lttngZebTrace((group), short_fname(__FILE__), __LINE__, formatStr(__VA_ARGS__), &procInfo);      \
    } while (0)

#define OKA_ERROR(...) OKA_TRACE(ZEB_GROUP_ERROR, __VA_ARGS__)
