// Which changes of a state are allowed, as a table: row by row the state that is left, and in it one bit for
// each state that may be entered. Staying is always allowed.
#pragma once

#include <cassert>
#include <cstddef>
#include <cstdint>

namespace tavu {

template<class State>
constexpr uint32_t to(State state) {
    return 1u << static_cast<uint32_t>(state);
}

template<class State, size_t N>
constexpr bool is_allowed(const uint32_t (&changes)[N], State from, State entered) {
    return from == entered || (changes[static_cast<size_t>(from)] & to(entered)) != 0;
}

template<class State, size_t N>
void change(State& state, State entered, const uint32_t (&changes)[N]) {
    assert(is_allowed(changes, state, entered));
    (void)changes;
    state = entered;
}

} // namespace tavu
