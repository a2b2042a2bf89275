#include <cstdio>
#include <cstring>

#include "tavu/tavu_main.h"

int main(int argc, char** argv) {
    if (argc > 1) {
        bool help = argc == 2 && strcmp(argv[1], "--help") == 0;
        fprintf(help ? stdout : stderr,
                "Usage: MPID=<own MP id> qel-tavu\n"
                "The MACsec control daemon of one unit. It takes no arguments and stays in the foreground;\n"
                "the environment configures it and the platform under it (OKA_*, OXHAL_*, ZEB_*).\n");
        return help ? 0 : 1;
    }
    tavu::tavu_main();
}
