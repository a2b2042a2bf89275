#include "base/trace.h"

namespace tavu {

void function_trace::enter(const char* prefix, const char* function) const {
    lttngZebTrace(ZEB_GROUP_ENTER, short_fname(file_), line_, formatStr("%s: %s", prefix, function),
                  &procInfo);
}

void function_trace::leave() const {
    lttngZebTrace(ZEB_GROUP_RETURN, short_fname(file_), line_, nullptr, &procInfo);
}

void trace_wrong_state(const char* prefix, const char* operation, const char* current, const char* expected,
                       const char* file, int line) {
    if (ZEB_IS_TRACED(ZEB_GROUP_ERROR))
        lttngZebTrace(ZEB_GROUP_ERROR, short_fname(file), line,
                      formatStr("%s: %s called in wrong state: current: '%s', expected: '%s'", prefix,
                                operation, current, expected),
                      &procInfo);
}

} // namespace tavu
