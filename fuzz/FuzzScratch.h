// Private scratch directories for the fuzz targets. tmpfs by default: on a disk file
// system every truncating close forces a write-back and the run slows to a crawl.
#pragma once

#include <stdlib.h>
#include <unistd.h>

#include <string>
#include <vector>

inline std::string fuzzScratchDir(const char* tag) {
    const char* base = getenv("TMPDIR");
    std::string dir = base != nullptr && *base != '\0' ? base
                      : access("/dev/shm", W_OK) == 0  ? "/dev/shm"
                                                       : "/tmp";
    std::string tmpl = dir + "/qmed-" + tag + "-XXXXXX";
    std::vector<char> buf(tmpl.begin(), tmpl.end());
    buf.push_back('\0');
    if (mkdtemp(buf.data()) == nullptr) abort();
    return buf.data();
}
