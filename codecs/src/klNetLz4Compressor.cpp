#include <klNetBase/codecs/klNetLz4Compressor.h>

#include <lz4.h>

#include <algorithm>

klNetLz4Compressor::klNetLz4Compressor(int acceleration)
    : klNetBlockCompressor(kMethod, "LZ4"), m_acceleration(std::max(1, acceleration)) {}

void klNetLz4Compressor::setAcceleration(int acceleration) {
    m_acceleration.store(std::max(1, acceleration), std::memory_order_relaxed);
}

std::size_t klNetLz4Compressor::encode(const unsigned char* source, std::size_t size,
                                       unsigned char* destination, std::size_t capacity) {
    // LZ4_compress_fast returns 0 as soon as the output would exceed capacity. Sizes are at most
    // a buffer's capacity, far inside int.
    const int written = LZ4_compress_fast(reinterpret_cast<const char*>(source),
                                          reinterpret_cast<char*>(destination), int(size),
                                          int(capacity), getAcceleration());
    return written > 0 ? std::size_t(written) : 0;
}

bool klNetLz4Compressor::decode(const unsigned char* source, std::size_t size,
                                unsigned char* destination, std::size_t originalSize) {
    // The safe decoder never reads past size input bytes nor writes past originalSize output
    // bytes, and reports malformed input as a negative result.
    const int decoded =
        LZ4_decompress_safe(reinterpret_cast<const char*>(source),
                            reinterpret_cast<char*>(destination), int(size), int(originalSize));
    return decoded >= 0 && std::size_t(decoded) == originalSize;
}
