#pragma once

#include <sys/types.h>

#include "proc/ProcFiles.h"

// Reads the nodes of process directories below one root ("/proc" by default). Every node is
// taken with a single read into the caller's buffer, so a file longer than the buffer reads
// as its prefix and a vanished process as a failed open.
//
// Threading: const and stateless; callers on any thread.
class ProcReader {
  public:
    static constexpr const char* kProcRoot = ProcFiles::kProcRoot;
    // Buffer for one node read, NUL included.
    static constexpr size_t kNodeSize = 1024;
    // Results of read other than a count; errno tells why.
    static constexpr ssize_t kOpenFailed = -1;
    static constexpr ssize_t kReadFailed = -2;

    explicit ProcReader(const char* root = kProcRoot);
    explicit ProcReader(const android::sp<ProcFiles>& files);

    const char* root() const { return mFiles->root(); }
    ProcFiles& files() const { return *mFiles; }

    // "root/pid/node", as log lines name a node.
    void pathOf(int pid, const char* node, char* buf, size_t size) const;
    // At most size - 1 bytes of the node in one read, NUL-terminated at the count (at 0 on a
    // failure). Returns the count, kOpenFailed or kReadFailed.
    ssize_t read(int pid, const char* node, char* buf, size_t size) const;
    // Owner of the process directory; 0 when it cannot be looked at.
    uid_t ownerOf(int pid) const;
    // The value of the first status line "Tgid:\t..." into *tgid, -1 when the node has none or
    // cannot be read. False, with errno set, only when the node cannot be opened. A live or
    // zombie thread-group leader costs one system call instead of the status node.
    bool threadGroupOf(int tid, int* tgid) const;
    // Second word of the first status line, cut to size - 1 bytes: the short name with an
    // escaped newline, ending at a blank. False when there is no such word.
    bool statusName(int pid, char* name, size_t size) const;
    // Whether the real "/proc" is a procfs mount, whatever the root.
    bool procfsMounted() const;

  private:
    android::sp<ProcFiles> mFiles;
};
