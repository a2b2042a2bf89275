#include <cstdio>
#include <cstring>
#include <sys/prctl.h>
#include <sys/resource.h>

#include "tavu/tavu_main.h"

namespace {

constexpr char help[] =
    "Usage: MPID=<own MP id> qel-tavu\n"
    "The MACsec control daemon of one unit. It takes no arguments but --help and --version, and stays in "
    "the\n"
    "foreground; the environment configures it and the platform under it (OKA_*, OXHAL_*, ZEB_*).\n";

// Returns the exit status.
int answer(const char* argument) {
    if (strcmp(argument, "--version") == 0) {
        printf("qel-tavu %s\n", QEL_TAVU_VERSION);
        return 0;
    }
    if (strcmp(argument, "--help") == 0 || strcmp(argument, "-h") == 0) {
        fputs(help, stdout);
        return 0;
    }
    fprintf(stderr, "qel-tavu: unexpected argument '%s'\nTry 'qel-tavu --help'.\n", argument);
    return 1;
}

} // namespace

int main(int argc, char** argv) {
    if (argc > 1)
        return answer(argv[1]);
    // This process has keys in its memory. A core file would keep them, and other processes of the same user
    // could attach and read them.
    const rlimit no_core_file = {.rlim_cur = 0, .rlim_max = 0};
    if (setrlimit(RLIMIT_CORE, &no_core_file) < 0 || prctl(PR_SET_DUMPABLE, 0, 0, 0, 0) < 0)
        perror("qel-tavu: core files and debuggers cannot be forbidden");
    tavu::tavu_main();
}
