// Private scratch directories for the fuzz targets, removed when the process exits.
// tmpfs by default: on a disk file system every truncating close forces a write-back
// and the run slows to a crawl.
#pragma once

#include <ftw.h>
#include <stdio.h>
#include <stdlib.h>
#include <unistd.h>

#include <string>
#include <vector>

namespace fuzzscratch {

inline std::vector<std::string>& dirs() {
    static std::vector<std::string>* sDirs = new std::vector<std::string>();
    return *sDirs;
}

inline void removeAll() {
    for (const std::string& d : dirs()) {
        nftw(
                d.c_str(),
                [](const char* path, const struct stat*, int, struct FTW*) { return remove(path); },
                16, FTW_DEPTH | FTW_PHYS);
    }
}

}  // namespace fuzzscratch

inline std::string fuzzScratchDir(const char* tag) {
    const char* base = getenv("TMPDIR");
    std::string dir = base != nullptr && *base != '\0' ? base
                      : access("/dev/shm", W_OK) == 0  ? "/dev/shm"
                                                       : "/tmp";
    std::string tmpl = dir + "/qmed-" + tag + "-XXXXXX";
    std::vector<char> buf(tmpl.begin(), tmpl.end());
    buf.push_back('\0');
    if (mkdtemp(buf.data()) == nullptr) abort();
    if (fuzzscratch::dirs().empty()) atexit(fuzzscratch::removeAll);
    fuzzscratch::dirs().push_back(buf.data());
    return buf.data();
}
