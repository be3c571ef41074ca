#include <klNetBase/codecs/klNetZstdCompressor.h>

#include <klNetBase/core/klNetError.h>

#include <zstd.h>

#include <memory>
#include <sstream>

namespace {

// Frames whose window exceeds a buffer's payload are refused rather than allocated for:
// 2^18 bytes is the smallest power of two above 131602.
constexpr int kWindowLogMax = 18;

struct CompressContextFree {
    void operator()(ZSTD_CCtx* context) const { ZSTD_freeCCtx(context); }
};
struct DecompressContextFree {
    void operator()(ZSTD_DCtx* context) const { ZSTD_freeDCtx(context); }
};

// One context of each kind per thread, made on first use and freed when the thread ends: the
// contexts hold sizeable tables that are worth reusing, and a context may serve one call at a time.
ZSTD_CCtx* compressContext() {
    thread_local std::unique_ptr<ZSTD_CCtx, CompressContextFree> context(ZSTD_createCCtx());
    return context.get();
}

ZSTD_DCtx* decompressContext() {
    thread_local std::unique_ptr<ZSTD_DCtx, DecompressContextFree> context([] {
        ZSTD_DCtx* made = ZSTD_createDCtx();
        if (made != nullptr &&
            ZSTD_isError(ZSTD_DCtx_setParameter(made, ZSTD_d_windowLogMax, kWindowLogMax))) {
            ZSTD_freeDCtx(made);
            made = nullptr;
        }
        return made;
    }());
    return context.get();
}

void checkLevel(int level) {
    if (level < ZSTD_minCLevel() || level > ZSTD_maxCLevel()) {
        throw klNetError(std::ostringstream() << "Zstandard level " << level << " is out of range "
                                              << ZSTD_minCLevel() << ".." << ZSTD_maxCLevel());
    }
}

}  // namespace

klNetZstdCompressor::klNetZstdCompressor(int level)
    : klNetBlockCompressor(kMethod, "Zstandard"), m_level(level) {
    checkLevel(level);
}

void klNetZstdCompressor::setLevel(int level) {
    checkLevel(level);
    m_level.store(level, std::memory_order_relaxed);
}

std::size_t klNetZstdCompressor::encode(const unsigned char* source, std::size_t size,
                                        unsigned char* destination, std::size_t capacity) {
    ZSTD_CCtx* context = compressContext();
    if (context == nullptr) {
        return 0;  // out of memory: the payload goes uncompressed
    }
    // Records the content size in the frame (the default), which the receiver checks first. An
    // output that would exceed capacity is an error, and the payload goes uncompressed.
    const std::size_t written =
        ZSTD_compressCCtx(context, destination, capacity, source, size, getLevel());
    return ZSTD_isError(written) ? 0 : written;
}

bool klNetZstdCompressor::decode(const unsigned char* source, std::size_t size,
                                 unsigned char* destination, std::size_t originalSize) {
    // Also catches a frame without a content size, a damaged frame header and a truncated one
    // (ZSTD_CONTENTSIZE_UNKNOWN and ZSTD_CONTENTSIZE_ERROR are far above any buffer size).
    if (ZSTD_getFrameContentSize(source, size) != originalSize) {
        return false;
    }
    ZSTD_DCtx* context = decompressContext();
    if (context == nullptr) {
        return false;
    }
    const std::size_t decoded =
        ZSTD_decompressDCtx(context, destination, originalSize, source, size);
    return !ZSTD_isError(decoded) && decoded == originalSize;
}
