// The platform's own traces; the text of each begins "OKA: ".
#pragma once

#include "platform/zeb.h"

#define OKA_ERROR(...) ZEB_TRACE(ZEB_GROUP_ERROR, __VA_ARGS__)
