// Runs a fuzz target without libFuzzer: over the files named on the command line (a corpus or
// crash reproducers), or, with no arguments, over a fixed series of pseudo-random inputs whose
// length fields are biased towards the hostile values that matter (huge counts, counts just past
// the data). Used by CTest so that every build, sanitizer builds included, exercises the target.
#include <cstddef>
#include <cstdint>
#include <cstdio>
#include <fstream>
#include <iterator>
#include <random>
#include <vector>

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size);

namespace {

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

}  // namespace

int main(int argc, char** argv) {
    if (argc > 1) {
        for (int i = 1; i < argc; ++i) {
            std::ifstream file(argv[i], std::ios::binary);
            std::vector<std::uint8_t> input((std::istreambuf_iterator<char>(file)),
                                            std::istreambuf_iterator<char>());
            LLVMFuzzerTestOneInput(input.data(), input.size());
        }
        std::printf("replayed %d inputs\n", argc - 1);
        return 0;
    }
    std::mt19937 random(20261121);
    const int rounds = 20000;
    for (int i = 0; i < rounds; ++i) {
        const std::vector<std::uint8_t> input = randomInput(random);
        LLVMFuzzerTestOneInput(input.data(), input.size());
    }
    std::printf("ran %d generated inputs\n", rounds);
    return 0;
}
