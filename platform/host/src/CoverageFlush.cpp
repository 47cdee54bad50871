// Coverage builds only: a daemon stopped with SIGTERM writes its counters first, so the
// integration tests that drive the real daemon count towards coverage.
#include <errno.h>
#include <signal.h>
#include <string.h>
#include <unistd.h>

extern "C" void __gcov_dump(void);

extern "C" {
// Referenced by the link options of qmed_platform so the initialiser below is always linked.
int qmedCoverageFlushInit = 0;
}

namespace {

void flushAndExit(int sig) {
    __gcov_dump();
    _exit(128 + sig);
}

__attribute__((constructor)) void installCoverageFlush() {
    // Only the daemon: tests and tools keep the default disposition they are tested with.
    if (strcmp(program_invocation_short_name, "ykqmed") != 0) return;
    struct sigaction action = {};
    action.sa_handler = flushAndExit;
    sigaction(SIGTERM, &action, nullptr);
}

}  // namespace
