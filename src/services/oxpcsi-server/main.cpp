#include "services/oxpcsi-server/oxpcsi_server.h"

int main(int argc, char** argv) {
    oxpcsi::settings chosen;
    if (auto answer = oxpcsi::read_command_line(services::arguments_of(argc, argv), chosen))
        return services::write_answer(*answer);
    return oxpcsi::run(chosen);
}
