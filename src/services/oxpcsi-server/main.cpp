#include "services/oxpcsi-server/oxpcsi_server.h"

int main(int argc, char** argv) {
    return oxpcsi::run(argc, argv);
}
