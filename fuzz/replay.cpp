// Runs inputs without a fuzzer: those of the folders given, each of which has one folder per target.
//
//     fuzz-replay FOLDER...
//     fuzz-replay -t TARGET FILE...

#include <algorithm>
#include <cstdio>
#include <cstring>
#include <filesystem>
#include <fstream>
#include <iterator>

#include "targets.h"

namespace {

namespace fs = std::filesystem;
using arvok::fuzz::Target;

int replayed = 0;

// Says first what it runs, so that the last line names the input that ended the process.
void replay(const Target &target, const fs::path &path) {
    std::fprintf(stderr, "%s %s\n", target.name, path.c_str());
    std::ifstream file(path, std::ios::binary);
    const std::string content{std::istreambuf_iterator<char>(file), {}};
    target.run({reinterpret_cast<const std::uint8_t *>(content.data()), content.size()});
    replayed++;
}

void replay_folder(const Target &target, const fs::path &folder) {
    std::vector<fs::path> files;
    for (const fs::directory_entry &entry : fs::directory_iterator(folder))
        files.push_back(entry.path());
    std::sort(files.begin(), files.end());
    for (const fs::path &file : files)
        replay(target, file);
}

}  // namespace

int main(int argc, char **argv) {
    if (argc > 3 && std::strcmp(argv[1], "-t") == 0) {
        const Target *target = arvok::fuzz::find_target(argv[2]);
        for (int i = 3; target && i < argc; i++)
            replay(*target, argv[i]);
    } else {
        for (int i = 1; i < argc; i++)
            for (const Target &target : arvok::fuzz::targets)
                if (arvok::fuzz::find_target(target.name) &&
                    fs::is_directory(fs::path(argv[i]) / target.name))
                    replay_folder(target, fs::path(argv[i]) / target.name);
    }
    std::fprintf(stderr, "%d inputs\n", replayed);
    return replayed > 0 ? 0 : 1;
}
