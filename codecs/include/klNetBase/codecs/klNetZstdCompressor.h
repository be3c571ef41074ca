// klNetZstdCompressor: Zstandard compression (libzstd), a better ratio than LZ4 for more CPU time.
//
// Method id 3. Each payload is one Zstandard frame that records its content size; decoding first
// checks that size against the header's originalDataSize (ZSTD_getFrameContentSize), decodes into
// exactly that room and refuses frames that ask for a window above 256 KiB (a payload needs at
// most 128.5 KiB), so a hostile frame can make the receiver neither overrun nor allocate much
// memory. Buffer handling, size checks and error texts: klNetBlockCompressor.
//
// Ownership and thread safety: compress() and decompress() from any number of threads at once;
// each thread keeps one compression and one decompression context of its own for its lifetime.
// The level may be changed while they run.
#pragma once

#include <klNetBase/codecs/klNetBlockCompressor.h>

#include <atomic>

class KLNETCODECS_EXPORT klNetZstdCompressor final : public klNetBlockCompressor {
public:
    static constexpr klNetCompression kMethod = klNetCompression(3);
    static constexpr int kDefaultLevel = 1;

    // level: Zstandard's compression level, negative (fastest) up to 22 (smallest); 0 is the
    // library's own default. Out of range: klNetError
    // "Zstandard level <n> is out of range <min>..<max>".
    explicit klNetZstdCompressor(int level = kDefaultLevel);

    static std::shared_ptr<klNetZstdCompressor> create(int level = kDefaultLevel) {
        return std::make_shared<klNetZstdCompressor>(level);
    }

    int getLevel() const { return m_level.load(std::memory_order_relaxed); }
    void setLevel(int level);

protected:
    std::size_t encode(const unsigned char* source, std::size_t size, unsigned char* destination,
                       std::size_t capacity) override;
    bool decode(const unsigned char* source, std::size_t size, unsigned char* destination,
                std::size_t originalSize) override;

private:
    std::atomic<int> m_level;
};
