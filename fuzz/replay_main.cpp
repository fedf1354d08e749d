// main() of the replay build (ORVO_FUZZ_REPLAY): runs LLVMFuzzerTestOneInput once on each
// file named on the command line (directories: each file in them, in name order), as
// libFuzzer would, so that a corpus can be replayed under valgrind without libFuzzer.
// Arguments starting with '-' are libFuzzer flags; only -max_len=N is honoured.
#include <algorithm>
#include <cstdint>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <dirent.h>
#include <string>
#include <sys/stat.h>
#include <vector>

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size);
extern "C" __attribute__((weak)) int LLVMFuzzerInitialize(int* argc, char*** argv);

namespace {

void collect(const std::string& path, std::vector<std::string>& files)
{
    struct stat st {};
    if (::stat(path.c_str(), &st) != 0) {
        std::fprintf(stderr, "replay: cannot read %s\n", path.c_str());
        std::exit(2);
    }
    if (!S_ISDIR(st.st_mode)) {
        files.push_back(path);
        return;
    }
    std::vector<std::string> names;
    if (DIR* dir = ::opendir(path.c_str())) {
        while (const dirent* e = ::readdir(dir))
            if (e->d_name[0] != '.')
                names.push_back(path + "/" + e->d_name);
        ::closedir(dir);
    }
    std::sort(names.begin(), names.end());
    for (const std::string& name : names)
        collect(name, files);
}

}  // namespace

int main(int argc, char** argv)
{
    if (LLVMFuzzerInitialize)
        LLVMFuzzerInitialize(&argc, &argv);
    size_t maxLen = SIZE_MAX;
    std::vector<std::string> files;
    for (int i = 1; i < argc; ++i) {
        if (std::strncmp(argv[i], "-max_len=", 9) == 0)
            maxLen = std::strtoul(argv[i] + 9, nullptr, 10);
        else if (argv[i][0] != '-')
            collect(argv[i], files);
    }
    for (const std::string& name : files) {
        std::vector<uint8_t> bytes;
        if (FILE* f = std::fopen(name.c_str(), "rb")) {
            uint8_t buffer[65536];
            size_t n;
            while ((n = std::fread(buffer, 1, sizeof buffer, f)) > 0)
                bytes.insert(bytes.end(), buffer, buffer + n);
            std::fclose(f);
        }
        bytes.resize(std::min(bytes.size(), maxLen));
        // A heap copy of exactly the input's size, so that a read past its end is seen.
        uint8_t* copy = static_cast<uint8_t*>(std::malloc(bytes.size() ? bytes.size() : 1));
        std::copy(bytes.begin(), bytes.end(), copy);
        LLVMFuzzerTestOneInput(copy, bytes.size());
        std::free(copy);
    }
    std::fprintf(stderr, "replay: %zu inputs\n", files.size());
    return 0;
}
