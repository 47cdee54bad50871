#pragma once

#include <sys/types.h>
#include <utils/RefBase.h>
#include <utils/String8.h>

// The file system calls ProcReader makes, on paths below one root. The defaults are the real
// calls; a test or fuzzer overrides them to serve a tree from memory.
//
// Threading: no state changes after construction; every call may run concurrently.
class ProcFiles : public android::RefBase {
  public:
    static constexpr const char* kProcRoot = "/proc";

    explicit ProcFiles(const char* root = kProcRoot);
    ~ProcFiles() override;

    const char* root() const { return mRoot.c_str(); }
    // Whether signals reach the processes this tree describes: the root is the real procfs
    // and shows our own pid namespace.
    bool describesOurPids() const { return mOurPids; }

    // Each returns what the system call of the same name returns, with errno set on failure.
    // `rel` is a path below the root; openRoot opens the root itself for readDir.
    virtual int openRoot();
    // linux_dirent64 records, as getdents64 gives them.
    virtual ssize_t readDir(int fd, void* buf, size_t size);
    virtual int openNode(const char* rel);
    virtual ssize_t read(int fd, void* buf, size_t size);
    virtual int close(int fd);
    virtual int ownerOf(const char* rel, uid_t* uid);
    // tgkill(tid, tid, 0): succeeds only for a thread-group leader, live or zombie.
    virtual int signalLeader(int tid);
    // statfs of the real "/proc", whatever the root: its filesystem type, or -1.
    virtual long realProcType();

  private:
    // Writes root + "/" + rel into buf; false when it does not fit.
    bool fullPath(const char* rel, char* buf, size_t size) const;

    android::String8 mRoot;
    bool mOurPids;
    // The root, held open so node paths resolve from it; -1 when it did not exist at first.
    int mRootFd;
};
