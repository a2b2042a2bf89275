// Linked into a program, this puts it under the conductor before its main begins.
#include "platform/oka/simulation/conductor.h"

namespace {

[[gnu::constructor]] void plug() {
    oka::simulation::plug_conductor();
}

} // namespace
