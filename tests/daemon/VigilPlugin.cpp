// Test plug-in: its entry, named by VIGIL_ENTRY, says so on the host's standard error.

#include <stdio.h>

extern "C" __attribute__((visibility("default"))) int VIGIL_ENTRY() {
    return fputs("vigild_main ran\n", stderr) < 0;
}
