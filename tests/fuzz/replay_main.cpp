// Runs a fuzz target over files, as libFuzzer does with the files it is
// given: each argument is a file, or a directory whose files are taken in
// name order. A crash is a crash of this program; otherwise it prints how
// many inputs went through and exits 0.
#include <dirent.h>
#include <sys/stat.h>

#include <algorithm>
#include <fstream>
#include <iostream>
#include <iterator>
#include <string>
#include <vector>

#include "FuzzTarget.h"

namespace {

std::vector<std::string> inputsOf(const std::string& path) {
    struct stat st = {};
    if (::stat(path.c_str(), &st) != 0) {
        std::cerr << path << ": no such file or directory\n";
        std::exit(2);
    }
    if (!S_ISDIR(st.st_mode)) return {path};
    std::vector<std::string> files;
    if (DIR* d = ::opendir(path.c_str())) {
        while (dirent* e = ::readdir(d))
            if (e->d_name[0] != '.') files.push_back(path + "/" + e->d_name);
        ::closedir(d);
    }
    std::sort(files.begin(), files.end());
    return files;
}

}  // namespace

int main(int argc, char** argv) {
    size_t count = 0;
    for (int i = 1; i < argc; ++i) {
        for (const std::string& file : inputsOf(argv[i])) {
            std::ifstream in(file, std::ios::binary);
            std::vector<uint8_t> bytes((std::istreambuf_iterator<char>(in)), std::istreambuf_iterator<char>());
            LLVMFuzzerTestOneInput(bytes.data(), bytes.size());
            ++count;
        }
    }
    std::cout << argv[0] << ": " << count << " inputs replayed\n";
    return 0;
}
