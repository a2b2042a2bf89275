// Traces are one line at the call. The macro tests the group's bit in the thread's mask, and only then
// formats; with the mask zero a trace is a load and a branch. Texts are part of the daemon's interface:
// they begin with "TAVU: ", those of the key server with "KEYSRV: ".
#pragma once

#include <type_traits>

#include "platform/zeb.h"

#define TRACE_ERROR(...) ZEB_TRACE(ZEB_GROUP_ERROR, __VA_ARGS__)
#define TRACE_INFO(...) ZEB_TRACE(ZEB_GROUP_INFO, __VA_ARGS__)
// Progress.
#define TRACE(...) ZEB_TRACE(ZEB_GROUP_TRACE, __VA_ARGS__)
#define TRACE_DETAIL(...) ZEB_TRACE(ZEB_GROUP_DETAIL, __VA_ARGS__)
#define TRACE_STATE_CHANGE(...) ZEB_TRACE(ZEB_GROUP_STATE_CHANGE, __VA_ARGS__)

// Before a message is sent. `message` is an outgoing<T>.
#define TRACE_SEND(message, receiver, ...)                                                                   \
    do {                                                                                                     \
        if (ZEB_IS_TRACED(ZEB_GROUP_SEND_SIGNAL))                                                            \
            lttngZebSendSigTrace(short_fname(__FILE__), __LINE__, (message).number(), receiver,              \
                                 formatStr(__VA_ARGS__), &procInfo);                                         \
    } while (0)

// After a received message has passed its size check.
#define TRACE_RECEIVE(message, ...)                                                                          \
    do {                                                                                                     \
        if (ZEB_IS_TRACED(ZEB_GROUP_RECEIVE_SIGNAL))                                                         \
            lttngZebRecSigTrace(short_fname(__FILE__), __LINE__, message, formatStr(__VA_ARGS__),            \
                                &procInfo);                                                                  \
    } while (0)

// First line of a function: traces its name now and its return at every exit.
#define TAVU_FUNCTION() const ::tavu::function_trace function_trace_here("TAVU", __func__, __FILE__, __LINE__)
#define KEYSRV_FUNCTION()                                                                                    \
    const ::tavu::function_trace function_trace_here("KEYSRV", __func__, __FILE__, __LINE__)

namespace tavu {

class function_trace {
  public:
    function_trace(const char* prefix, const char* function, const char* file, int line)
        : file_(file), line_(line) {
        if (ZEB_IS_TRACED(ZEB_GROUP_ENTER))
            enter(prefix, function);
    }
    ~function_trace() {
        if (ZEB_IS_TRACED(ZEB_GROUP_RETURN))
            leave();
    }
    function_trace(const function_trace&) = delete;
    function_trace& operator=(const function_trace&) = delete;

  private:
    void enter(const char* prefix, const char* function) const;
    void leave() const;

    const char* file_;
    int line_;
};

// Traces at error level that `operation` was called in the wrong state, as the function below does; for
// operations that accept more than one state and name them in words.
void trace_wrong_state(const char* prefix, const char* operation, const char* current, const char* expected,
                       const char* file, int line);

// True in the expected state. Otherwise traces the name of the calling operation, both states, and gives
// false: the gate at the head of every public operation.
//     if (!is_in_state(self.state, OXMSI_SERVER_STATE_INITIAL, state_to_str))
//         return false;
template<class State>
[[nodiscard]] bool is_in_state(State current, std::type_identity_t<State> expected,
                               const char* (*to_str)(State), const char* prefix = "TAVU",
                               const char* operation = __builtin_FUNCTION(),
                               const char* file = __builtin_FILE(), int line = __builtin_LINE()) {
    if (current == expected) [[likely]]
        return true;
    trace_wrong_state(prefix, operation, to_str(current), to_str(expected), file, line);
    return false;
}

} // namespace tavu
