#pragma once

#include "proc/ProcReader.h"

// The entries of a ProcReader's root, in directory order, read in large batches.
//
// Threading: one object per walk.
class ProcDir {
  public:
    explicit ProcDir(const ProcReader& proc);
    ~ProcDir();
    ProcDir(const ProcDir&) = delete;
    ProcDir& operator=(const ProcDir&) = delete;

    bool isOpen() const { return mFd >= 0; }
    // The next entry's name ("." and ".." included); null at the end or on an error.
    const char* next();
    // Ends the walk early: the close's result.
    int close();
    // The pid an entry names: decimal digits without a leading zero, up to INT_MAX; else 0.
    static int pidOf(const char* name);

  private:
    android::sp<ProcFiles> mFiles;
    int mFd;
    char* mBuf;
    size_t mPos = 0;
    size_t mLen = 0;
    bool mDone = false;
};
