/* A fuzzer's corpus once more, without the fuzzer: replay FOLDER. What was found once stays mended. */
#include <algorithm>
#include <cstdio>
#include <filesystem>
#include <fstream>
#include <iterator>
#include <string>
#include <vector>

#include "tests/fuzz/fuzz.h"

int main(int argc, char **argv) {
    std::vector<std::filesystem::path> files;
    std::error_code error;
    if (argc == 2)
        for (const auto &entry : std::filesystem::directory_iterator(argv[1], error))
            files.push_back(entry.path());
    if (files.empty()) {
        std::fprintf(stderr, "usage: replay FOLDER, with at least one input in it\n");
        return 2;
    }
    std::sort(files.begin(), files.end());
    for (const auto &path : files) {
        std::fprintf(stderr, "%s\n", path.c_str()); /* the last one told is the one that fails */
        std::ifstream file(path, std::ios::binary);
        const std::string bytes{std::istreambuf_iterator<char>(file), std::istreambuf_iterator<char>()};
        if (!file) {
            std::fprintf(stderr, "cannot be read\n");
            return 1;
        }
        LLVMFuzzerTestOneInput(reinterpret_cast<const std::uint8_t *>(bytes.data()), bytes.size());
    }
    return 0;
}
