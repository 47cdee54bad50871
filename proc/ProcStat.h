#pragma once

#include <sys/types.h>

#include "proc/ProcReader.h"

// One process's stat node, read once and taken apart in one of two ways.
//
// Threading: one object per caller.
class ProcStat {
  public:
    // Last field number the kernel writes today.
    static constexpr int kMaxField = 52;

    // Reads the stat node of pid: the count, or ProcReader::kOpenFailed / kReadFailed.
    ssize_t read(const ProcReader& proc, int pid);

    // The name runs from the character after the first blank (the opening parenthesis) to the
    // last ')' of the text, so it may hold blanks and ')'. Fields follow it one blank apart,
    // numbered as the kernel numbers them (3 is the state). False when the text has no
    // parenthesised name; every field is then empty.
    bool splitAtName();
    const char* name() const { return mName; }
    const char* field(int n) const;

    // Words of the first line at runs of blanks, from 1: a name with blanks shifts the ones
    // after it, as callers that count words have always seen.
    void splitWords();
    const char* word(int n) const { return field(n); }

  private:
    char mText[ProcReader::kNodeSize] = {};
    const char* mName = "";
    const char* mTok[kMaxField + 1] = {};
};
