#include "services/oxpcsi-server/oxpcsi_server.h"

int main(int argc, char** argv) {
    oxpcsi::settings chosen;
    if (auto answer =
            oxpcsi::read_command_line({argv + 1, static_cast<size_t>(argc > 0 ? argc - 1 : 0)}, chosen))
        return services::give(*answer);
    return oxpcsi::run(chosen);
}
