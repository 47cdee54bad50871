// Test plug-in: records that its entry ran in the file named by VIGIL_TEST_MARKER. Built a
// second time with VIGIL_ENTRY renamed, as a library without the entry.

#include <fcntl.h>
#include <stdlib.h>
#include <unistd.h>

#ifndef VIGIL_ENTRY
#define VIGIL_ENTRY vigild_main
#endif

extern "C" __attribute__((visibility("default"))) int VIGIL_ENTRY() {
    const char* marker = getenv("VIGIL_TEST_MARKER");
    int fd = marker == nullptr ? -1 : open(marker, O_WRONLY | O_CREAT | O_APPEND | O_CLOEXEC, 0644);
    if (fd < 0) return 1;
    ssize_t n = write(fd, "vigild_main ran\n", 16);
    close(fd);
    return n == 16 ? 0 : 1;
}
