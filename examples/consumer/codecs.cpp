// An application of the installed codecs component: one image buffer through the LZ4 compressor
// and back, as the compressing and decompressing stages would pass it.
#include <klNetBase/codecs/klNetCodecs.h>
#include <klNetBase/klNetBase.h>

#include <cstdio>
#include <cstring>

int main() {
    constexpr std::size_t kSize = 65536;
    auto buffer = klNetBufferPool::pop();
    for (std::size_t i = 0; i < kSize; ++i) {
        buffer->getData()[i] = static_cast<unsigned char>(i / 256);  // a gradient
    }
    buffer->setDataSize(kSize);
    buffer->setCompression(klNetCompressionNone, kSize);
    buffer->setType(klNetMessageTypeImage);

    auto lz4 = klNetLz4Compressor::create();
    auto packed = lz4->compress(buffer);
    auto restored = lz4->decompress(packed);
    std::printf("LZ4: %zu bytes as %zu (method %d), back to %zu\n", buffer->getDataSize(),
                packed->getDataSize(), int(packed->getCompression()), restored->getDataSize());
    const bool ok = packed->getCompression() == klNetLz4Compressor::kMethod &&
                    packed->getDataSize() < kSize && restored->getDataSize() == kSize &&
                    std::memcmp(restored->getData(), buffer->getData(), kSize) == 0;
    return ok ? 0 : 1;
}
