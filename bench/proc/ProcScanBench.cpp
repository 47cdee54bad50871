// A full CPU-time scan, as the service runs it for a list request, against
// `ps -e -o uid=,time=,comm=` over the same processes, both measured in this run.
#include <fcntl.h>
#include <signal.h>
#include <stdio.h>
#include <stdlib.h>
#include <string.h>
#include <sys/prctl.h>
#include <sys/wait.h>
#include <unistd.h>

#include <chrono>
#include <vector>

#include "proc/ParseProcInfo.h"

namespace {

double nowMs() {
    return std::chrono::duration<double, std::milli>(
                   std::chrono::steady_clock::now().time_since_epoch())
            .count();
}

int runPs() {
    pid_t pid = fork();
    if (pid == 0) {
        int devnull = open("/dev/null", O_WRONLY);
        dup2(devnull, 1);
        execlp("ps", "ps", "-e", "-o", "uid=,time=,comm=", (char*)nullptr);
        _exit(127);
    }
    int status = 0;
    waitpid(pid, &status, 0);
    return WIFEXITED(status) ? WEXITSTATUS(status) : -1;
}

// One size: `children` sleeping children, then `rounds` scans interleaved with ps runs.
void runSize(int children, int rounds) {
    std::vector<pid_t> pids;
    for (int i = 0; i < children; i++) {
        pid_t pid = fork();
        if (pid == 0) {
            prctl(PR_SET_PDEATHSIG, SIGKILL);
            char name[32];
            snprintf(name, sizeof(name), "qmbench%d", i);
            prctl(PR_SET_NAME, name);
            // A little work: a few children reach a tick of CPU time and get a record.
            volatile unsigned long x = 0;
            for (unsigned long k = 0; k < 200000; k++) x = x + k;
            for (;;) pause();
        }
        if (pid < 0) {
            perror("fork");
            break;
        }
        pids.push_back(pid);
    }
    usleep(500 * 1000);

    android::sp<ParseProcInfo> parser = ParseProcInfo::getInstance();
    char* buf = static_cast<char*>(malloc(ParseProcInfo::kCpuTimeBufferSize));
    size_t textLen = 0;
    double scanMs = 0, psMs = 0;
    // Interleaved so that load from other users of the machine hits both alike.
    for (int r = 0; r < rounds; r++) {
        double t0 = nowMs();
        memset(buf, 0, ParseProcInfo::kCpuTimeBufferSize);
        parser->getProcCpuTime(buf, 0, nullptr, 0);
        textLen = strlen(buf);
        double t1 = nowMs();
        runPs();
        double t2 = nowMs();
        scanMs += t1 - t0;
        psMs += t2 - t1;
    }
    size_t records = textLen ? 1 : 0;
    for (size_t i = 0; i < textLen; i++) records += buf[i] == '\t';
    records = (records + 2) / 3;

    for (pid_t pid : pids) kill(pid, SIGKILL);
    for (pid_t pid : pids) waitpid(pid, nullptr, 0);
    free(buf);

    printf("proc scan: %zu live children, %d rounds, %zu records, %zu bytes of text\n", pids.size(),
           rounds, records, textLen);
    printf("  getProcCpuTime(type 0): %8.3f ms per scan, %.2f us per child\n", scanMs / rounds,
           1000 * scanMs / rounds / (pids.empty() ? 1 : pids.size()));
    printf("  ps -e -o uid=,time=,comm=: %8.3f ms per run\n", psMs / rounds);
    printf("  ratio ps/getProcCpuTime: %.2fx (target >= 5x)\n", psMs / scanMs);
}

}  // namespace

// Arguments: numbers of children, comma-separated (default 1000,4000, so the growth shows),
// and rounds per number.
int main(int argc, char** argv) {
    const char* list = argc > 1 ? argv[1] : "1000,4000";
    int rounds = argc > 2 ? atoi(argv[2]) : 20;
    if (runPs() != 0) {
        fprintf(stderr, "ps is not available\n");
        return 1;
    }
    for (const char* p = list; *p != '\0';) {
        char* end = nullptr;
        long n = strtol(p, &end, 10);
        if (end == p) break;
        if (n > 0) runSize(static_cast<int>(n), rounds);
        p = *end == ',' ? end + 1 : end;
    }
    return 0;
}
