// klNetLz4Compressor: LZ4 block compression (liblz4), the fast method for large data and images.
//
// Method id 2, the library's default data compression setting, so that an application which
// leaves the settings alone gets LZ4. Each payload is one raw LZ4 block (no frame): the header's
// originalDataSize is the block's decoded size. Decoding uses LZ4_decompress_safe bounded by that
// size. Buffer handling, size checks and error texts: klNetBlockCompressor.
//
// Thread safety: compress() and decompress() from any number of threads at once; the acceleration
// may be changed while they run.
#pragma once

#include <klNetBase/codecs/klNetBlockCompressor.h>

#include <atomic>

class KLNETCODECS_EXPORT klNetLz4Compressor final : public klNetBlockCompressor {
public:
    static constexpr klNetCompression kMethod = klNetCompression(2);

    // acceleration: LZ4's speed/ratio trade-off, 1 (best ratio) upward; below 1 counts as 1.
    explicit klNetLz4Compressor(int acceleration = 1);

    static std::shared_ptr<klNetLz4Compressor> create(int acceleration = 1) {
        return std::make_shared<klNetLz4Compressor>(acceleration);
    }

    int getAcceleration() const { return m_acceleration.load(std::memory_order_relaxed); }
    void setAcceleration(int acceleration);

protected:
    std::size_t encode(const unsigned char* source, std::size_t size, unsigned char* destination,
                       std::size_t capacity) override;
    bool decode(const unsigned char* source, std::size_t size, unsigned char* destination,
                std::size_t originalSize) override;

private:
    std::atomic<int> m_acceleration;
};
