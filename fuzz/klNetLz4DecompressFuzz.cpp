// Fuzz target: the LZ4 compressor's decompress() on payloads and header fields from a peer, and
// on its own output, whole and damaged. Input layout and what is checked: klFuzzCodec.h.
#include "klFuzzCodec.h"

namespace {

void tune(klNetLz4Compressor& codec, std::uint8_t setting) {
    // Accelerations 1 to 16 (1 is the best ratio); higher ones only skip more.
    codec.setAcceleration(1 + setting % 16);
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
    static klNetLz4Compressor codec;
    return klfuzz::decompressOne(codec, data, size, tune);
}
