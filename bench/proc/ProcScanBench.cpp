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

}  // namespace

int main(int argc, char** argv) {
    int children = argc > 1 ? atoi(argv[1]) : 1000;
    int rounds = argc > 2 ? atoi(argv[2]) : 20;
    std::vector<pid_t> pids;
    for (int i = 0; i < children; i++) {
        pid_t pid = fork();
        if (pid == 0) {
            prctl(PR_SET_PDEATHSIG, SIGKILL);
            char name[32];
            snprintf(name, sizeof(name), "qmbench%d", i);
            prctl(PR_SET_NAME, name);
            // A little work so that most children carry a non-zero CPU time.
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
    if (runPs() != 0) {
        fprintf(stderr, "ps is not available\n");
        return 1;
    }
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
    printf("  getProcCpuTime(type 0): %8.3f ms per scan\n", scanMs / rounds);
    printf("  ps -e -o uid=,time=,comm=: %8.3f ms per run\n", psMs / rounds);
    printf("  ratio ps/getProcCpuTime: %.2fx (target >= 2x)\n", psMs / scanMs);
    return 0;
}
