// Runs a fuzz target without libFuzzer, as a test in every build (sanitizer builds included):
// over the files named on the command line (every file of a directory, such as the target's
// corpus, in name order, or single crash reproducers), then over a series of pseudo-random inputs
// whose length fields are biased towards the hostile values that matter (huge counts, counts just
// past the data).
//
//   <target> [--generated N] [PATH...]
//
// Without PATH the series has 20000 inputs; with one, none unless --generated asks for them.
#include <algorithm>
#include <cstddef>
#include <cstdint>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <filesystem>
#include <fstream>
#include <iterator>
#include <random>
#include <string>
#include <system_error>
#include <vector>

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size);

namespace {

namespace fs = std::filesystem;

std::vector<std::uint8_t> randomInput(std::mt19937& random) {
    std::vector<std::uint8_t> input(2 + random() % 2048);
    for (auto& byte : input) {
        byte = std::uint8_t(random());
    }
    // Plant length words that claim far more data than there is, and small exact ones.
    const std::uint32_t lengths[] = {0xFFFFFFFFu, 0x7FFFFFFFu, 0x10000u, 0, 1, 5};
    for (int i = 0; i < 4 && input.size() > 16; ++i) {
        const std::size_t at = 2 + random() % (input.size() - 10);
        const std::uint32_t length = lengths[random() % 6];
        for (int b = 0; b < 4; ++b) {
            input[at + b] = std::uint8_t(length >> (8 * b));
        }
    }
    return input;
}

void usage(const char* program, std::FILE* to) {
    std::fprintf(to,
                 "usage: %s [--generated N] [PATH...]\n"
                 "Runs this fuzz target over every file of each PATH (a file, or a directory such\n"
                 "as the target's corpus), then over N pseudo-random inputs (default: 20000 when\n"
                 "no PATH is given, else 0).\n",
                 program);
}

// Every regular file of path (a directory, in name order) or path itself.
bool collect(const fs::path& path, std::vector<fs::path>& files) {
    std::error_code error;
    if (fs::is_directory(path, error)) {
        std::vector<fs::path> found;
        for (const auto& entry : fs::directory_iterator(path, error)) {
            if (entry.is_regular_file()) {
                found.push_back(entry.path());
            }
        }
        std::sort(found.begin(), found.end());
        files.insert(files.end(), found.begin(), found.end());
        return !error;
    }
    if (fs::is_regular_file(path, error)) {
        files.push_back(path);
        return true;
    }
    return false;
}

}  // namespace

int main(int argc, char** argv) {
    long generated = -1;
    std::vector<fs::path> files;
    for (int i = 1; i < argc; ++i) {
        const std::string argument = argv[i];
        if (argument == "--help" || argument == "-h") {
            usage(argv[0], stdout);
            return 0;
        }
        if (argument == "--generated") {
            char* end = nullptr;
            generated = i + 1 < argc ? std::strtol(argv[++i], &end, 10) : -1;
            if (end == nullptr || *end != '\0' || generated < 0) {
                std::fprintf(stderr, "%s: --generated needs a count of 0 or more\n", argv[0]);
                return 2;
            }
            continue;
        }
        if (argument.size() > 1 && argument[0] == '-') {
            std::fprintf(stderr, "%s: unknown option '%s' (see --help)\n", argv[0],
                         argument.c_str());
            return 2;
        }
        if (!collect(argument, files)) {
            std::fprintf(stderr, "%s: cannot read '%s'\n", argv[0], argument.c_str());
            return 1;
        }
    }
    if (generated < 0) {
        generated = files.empty() && argc == 1 ? 20000 : 0;
    }

    for (const fs::path& file : files) {
        // Named first, so that a crash shows which input caused it.
        std::fprintf(stderr, "%s\n", file.c_str());
        std::ifstream stream(file, std::ios::binary);
        const std::vector<std::uint8_t> input((std::istreambuf_iterator<char>(stream)),
                                              std::istreambuf_iterator<char>());
        LLVMFuzzerTestOneInput(input.data(), input.size());
    }
    std::mt19937 random(20261121);
    for (long i = 0; i < generated; ++i) {
        const std::vector<std::uint8_t> input = randomInput(random);
        LLVMFuzzerTestOneInput(input.data(), input.size());
    }
    std::printf("replayed %zu inputs from files, ran %ld generated inputs\n", files.size(),
                generated);
    return 0;
}
