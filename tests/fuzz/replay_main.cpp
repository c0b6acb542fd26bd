// Replays fuzz inputs without libFuzzer, so that the normal suite runs every
// seed of a target's corpus through it (built with the compiler and the
// sanitizers of the test build). Arguments: corpus directories or files.
// Exits 0 when every input ran; a target's own check aborts on a violation.

#include <dirent.h>
#include <stdint.h>
#include <stdio.h>
#include <sys/stat.h>

#include <algorithm>
#include <fstream>
#include <iterator>
#include <string>
#include <vector>

extern "C" int LLVMFuzzerTestOneInput(const uint8_t *data, size_t size);
extern "C" [[gnu::weak]] int LLVMFuzzerInitialize(int *argc, char ***argv);

namespace {

void collect(const std::string &path, std::vector<std::string> *files) {
    struct stat st;
    if (stat(path.c_str(), &st) != 0) return;
    if (!S_ISDIR(st.st_mode)) {
        files->push_back(path);
        return;
    }
    if (DIR *d = opendir(path.c_str())) {
        while (dirent *e = readdir(d)) {
            if (e->d_name[0] != '.') collect(path + "/" + e->d_name, files);
        }
        closedir(d);
    }
}

}  // namespace

int main(int argc, char **argv) {
    if (LLVMFuzzerInitialize != nullptr) LLVMFuzzerInitialize(&argc, &argv);
    std::vector<std::string> files;
    for (int i = 1; i < argc; ++i) collect(argv[i], &files);
    std::sort(files.begin(), files.end());
    if (files.empty()) {
        fprintf(stderr, "replay: no inputs found\n");
        return 1;
    }
    for (const std::string &f : files) {
        std::ifstream in(f, std::ios::binary);
        const std::string data((std::istreambuf_iterator<char>(in)),
                               std::istreambuf_iterator<char>());
        LLVMFuzzerTestOneInput(reinterpret_cast<const uint8_t *>(data.data()),
                               data.size());
    }
    printf("replay: %zu inputs\n", files.size());
    return 0;
}
