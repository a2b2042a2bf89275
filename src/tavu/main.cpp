#include <cstdio>
#include <cstring>
#include <sys/resource.h>

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
    // Keys pass through this process's memory, and a core file would keep them.
    const rlimit no_core_file = {.rlim_cur = 0, .rlim_max = 0};
    if (setrlimit(RLIMIT_CORE, &no_core_file) < 0)
        perror("qel-tavu: core files cannot be forbidden");
    tavu::tavu_main();
}
