#include "proc/ProcStat.h"

#include <string.h>

namespace {

char sEmpty[1] = {'\0'};

}  // namespace

ssize_t ProcStat::read(const ProcReader& proc, int pid) {
    mName = sEmpty;
    for (const char*& t : mTok) t = sEmpty;
    return proc.read(pid, "stat", mText, sizeof(mText));
}

const char* ProcStat::field(int n) const {
    return n >= 1 && n <= kMaxField ? mTok[n] : sEmpty;
}

bool ProcStat::splitAtName() {
    char* blank = strchr(mText, ' ');
    if (blank == nullptr || blank[1] == '\0') return false;
    char* name = blank + 2;
    char* end = strrchr(name, ')');
    if (end == nullptr) return false;
    *end = '\0';
    mName = name;
    // One blank between fields: a doubled blank is an empty field, not a separator.
    char* cursor = end[1] == '\0' ? end + 1 : end + 2;
    for (int n = 3; n <= kMaxField && cursor != nullptr; n++) {
        mTok[n] = cursor;
        cursor = strchr(cursor, ' ');
        if (cursor != nullptr) *cursor++ = '\0';
    }
    return true;
}

void ProcStat::splitWords() {
    char* end = strchr(mText, '\n');
    if (end != nullptr) end[1] = '\0';
    char* s = mText;
    for (int n = 1; n <= kMaxField; n++) {
        while (*s == ' ') s++;
        if (*s == '\0') break;
        mTok[n] = s;
        while (*s != '\0' && *s != ' ') s++;
        if (*s == ' ') *s++ = '\0';
    }
}
