// Fuzz target: the Zstandard compressor's decompress() on payloads and header fields from a peer
// (frames with any content size, window size and block layout), and on its own output, whole and
// damaged. Input layout and what is checked: klFuzzCodec.h.
#include "klFuzzCodec.h"

namespace {

void tune(klNetZstdCompressor& codec, std::uint8_t setting) {
    // Levels -3 to 6: the fast ones, the default and the first that search further; the highest
    // levels cost too much time per input and change nothing the decoder sees.
    codec.setLevel(int(setting % 10) - 3);
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
    static klNetZstdCompressor codec;
    return klfuzz::decompressOne(codec, data, size, tune);
}
