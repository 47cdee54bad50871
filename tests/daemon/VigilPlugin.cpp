// Test plug-in: records that its entry ran in the file named by VIGIL_TEST_MARKER.

#include <fcntl.h>
#include <stdlib.h>
#include <string.h>
#include <unistd.h>

extern "C" __attribute__((visibility("default"))) int vigild_main() {
    const char* marker = getenv("VIGIL_TEST_MARKER");
    if (marker == nullptr) return 1;
    int fd = open(marker, O_WRONLY | O_CREAT | O_APPEND | O_CLOEXEC, 0644);
    if (fd < 0) return 1;
    const char text[] = "vigild_main ran\n";
    ssize_t n = write(fd, text, strlen(text));
    close(fd);
    return n > 0 ? 0 : 1;
}
