#pragma once

#include <sys/types.h>
#include <utils/RefBase.h>

#include "proc/ProcReader.h"

// Answers CPU-time, command-line and pid-by-name queries from the proc file system.
//
// Threading: called from binder threads. getProcCpuTime serialises itself on a module mutex
// because the record separator depends on a module-wide first-entry flag; the other
// operations keep no state and run concurrently. getInstance takes no lock: its first call
// is made during start-up, before the binder pool runs.
class ParseProcInfo : public android::RefBase {
  public:
    static constexpr const char* kProcRoot = ProcReader::kProcRoot;
    // Capacity of the caller's getProcCpuTime buffer; the text never grows past it.
    static constexpr size_t kCpuTimeBufferSize = 102400;
    // Directory entries a full walk looks at before giving up.
    static constexpr int kMaxWalkEntries = 10000;

    static android::sp<ParseProcInfo> getInstance();

    // `procRoot` exists so tests can feed a canned tree.
    explicit ParseProcInfo(const char* procRoot = kProcRoot);
    explicit ParseProcInfo(const ProcReader& proc);
    ~ParseProcInfo() override;

    // Appends records "uid\tcputime\tname" separated by tabs to `out`, which holds
    // kCpuTimeBufferSize bytes and arrives zeroed. type 2: the pids in ids; type 1: every
    // process whose owner is in ids; other: every process. -1 when the root cannot be opened.
    virtual int getProcCpuTime(char* out, int type, int* ids, int num);
    // First bufferLength - 1 bytes of the cmdline node, NUL-terminated; always 0.
    virtual int getCmdLineByPid(char* buffer, int pid, int bufferLength);
    // First pid in directory order whose short name is `name` and whose owner is `uid`
    // (-1: any). outPid is untouched when nothing matches; -1 only for a null name or an
    // unreadable root.
    virtual int getPidByNameAndUid(const char* name, int uid, int* outPid);
    // strsep that returns "" instead of null once the cursor is exhausted.
    virtual char* nexttoksep(char** cursor, const char* delimiters);
    virtual char* nexttok(char** cursor);
    // A negative num matches every id.
    virtual bool matchId(int id, const int* ids, int num);
    // Appends the record of one process to `out`; -1 on an I/O failure.
    virtual int psLine(int pid, char* out, int type, int* ids, int num);
    virtual bool matchNameAndUidByPid(const char* name, int uid, int pid);

  private:
    // psLine with the length of the text known: a scan appends without measuring it again.
    int appendRecord(int pid, char* out, size_t* used, int type, const int* ids, int num);
    // Whether a read of node succeeded; logs "<open|read> failed, <what>: <path>" if not.
    bool logged(ssize_t result, int pid, const char* node, const char* what);

    ProcReader mProc;
};
