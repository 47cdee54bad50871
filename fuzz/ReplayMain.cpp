// Replays files or directories of fuzz inputs through a target's entry point, without
// libFuzzer, so the committed corpora run in every test build.
#include <dirent.h>
#include <stdint.h>
#include <stdio.h>
#include <sys/stat.h>

#include <algorithm>
#include <fstream>
#include <iterator>
#include <string>
#include <vector>

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size);
extern "C" int LLVMFuzzerInitialize(int* argc, char*** argv) __attribute__((weak));

namespace {

void collect(const std::string& path, std::vector<std::string>* files) {
    struct stat st;
    if (stat(path.c_str(), &st) != 0) return;
    if (!S_ISDIR(st.st_mode)) {
        files->push_back(path);
        return;
    }
    DIR* dir = opendir(path.c_str());
    if (dir == nullptr) return;
    while (struct dirent* e = readdir(dir)) {
        if (e->d_name[0] == '.') continue;
        collect(path + "/" + e->d_name, files);
    }
    closedir(dir);
}

}  // namespace

int main(int argc, char** argv) {
    if (LLVMFuzzerInitialize != nullptr) LLVMFuzzerInitialize(&argc, &argv);
    std::vector<std::string> files;
    for (int i = 1; i < argc; i++) collect(argv[i], &files);
    std::sort(files.begin(), files.end());
    if (files.empty()) {
        fprintf(stderr, "no inputs found\n");
        return 1;
    }
    for (const std::string& f : files) {
        std::vector<uint8_t> bytes;
        {
            // Closed before the run: targets may watch their descriptors.
            std::ifstream in(f, std::ios::binary);
            bytes.assign(std::istreambuf_iterator<char>(in), std::istreambuf_iterator<char>());
        }
        LLVMFuzzerTestOneInput(bytes.data(), bytes.size());
    }
    printf("replayed %zu inputs\n", files.size());
    return 0;
}
