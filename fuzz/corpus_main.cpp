/* Runs a target once over each file of the directories that are given: the corpora as plain tests, with any compiler.
 * A directory without a file is a failure, so that no corpus gets lost unnoticed. */
#include <algorithm>
#include <filesystem>
#include <fstream>
#include <iterator>

#include "fuzz/fuzz.h"

namespace fs = std::filesystem;

namespace {

Bytes content(const fs::path &path) {
    std::ifstream file(path, std::ios::binary);
    return Bytes(std::istreambuf_iterator<char>(file), {});
}

std::vector<fs::path> files_in(const fs::path &directory) {
    std::vector<fs::path> files;
    for (const auto &entry : fs::directory_iterator(directory)) files.push_back(entry.path());
    std::sort(files.begin(), files.end());
    return files;
}

}  // namespace

int main(int argc, char **argv) {
    for (int place = 1; place < argc; ++place) {
        const std::vector<fs::path> files = files_in(argv[place]);
        for (const fs::path &path : files) {
            printf("%s\n", path.filename().c_str());
            fflush(stdout);  // the last line before a crash names the input
            const Bytes input = content(path);
            LLVMFuzzerTestOneInput(input.data(), input.size());
        }
        printf("%zu inputs in %s\n", files.size(), argv[place]);
        if (files.empty()) return EXIT_FAILURE;
    }
    return argc > 1 ? EXIT_SUCCESS : EXIT_FAILURE;
}
