#include <klNetBase/codecs/klNetBlockCompressor.h>

#include <klNetBase/core/klNetBufferPool.h>
#include <klNetBase/core/klNetError.h>
#include <klNetBase/core/klNetOptions.h>

#include <sstream>
#include <utility>

klNetBlockCompressor::klNetBlockCompressor(klNetCompression method, std::string name)
    : m_method(method), m_name(std::move(name)) {}

klNetBlockCompressor::~klNetBlockCompressor() = default;

namespace {

// Large payloads are probed first: when their first kProbeSize bytes do not shrink at all, the
// payload is taken as incompressible (random, enciphered or already compressed data) and goes as
// it is, at a small fraction of the cost of a full attempt.
constexpr std::size_t kProbeSize = 4096;
constexpr std::size_t kProbeFrom = 4 * kProbeSize;

// A pool buffer that stands in for buffer on the wire: same header and local send mode.
std::shared_ptr<klNetBuffer> replacementFor(const klNetBuffer& buffer) {
    std::shared_ptr<klNetBuffer> out = klNetBufferPool::pop();
    out->copyHeaderFrom(buffer);
    out->setSendMode(buffer.getSendMode());
    return out;
}

}  // namespace

std::shared_ptr<klNetBuffer> klNetBlockCompressor::compress(
    const std::shared_ptr<klNetBuffer>& buffer) {
    const std::size_t size = buffer->getDataSize();
    // Compressed payloads and bundles are never compressed (again); small payloads gain too
    // little for the work.
    if (buffer->getCompression() != klNetCompressionNone ||
        buffer->getType() == klNetMessageTypeBundle ||
        size < std::size_t(klNetOptions::getCompressionThreshold()) ||
        size > klNetBuffer::getCapacity()) {
        return buffer;
    }
    if (size >= kProbeFrom) {
        // Scratch of the calling worker, so that the probe takes no buffer from the pool.
        thread_local unsigned char probe[kProbeSize];
        if (encode(buffer->getData(), kProbeSize, probe, kProbeSize - 1) == 0) {
            return buffer;
        }
    }
    std::shared_ptr<klNetBuffer> out = replacementFor(*buffer);
    // Room for one byte less than the original: a result that is not smaller does not fit, and
    // the codec gives up as soon as it knows, instead of finishing work that would be thrown away.
    const std::size_t compressed = encode(buffer->getData(), size, out->getData(), size - 1);
    if (compressed == 0 || compressed >= size) {
        return buffer;
    }
    out->setDataSize(compressed);
    out->setCompression(m_method, size);
    return out;
}

std::shared_ptr<klNetBuffer> klNetBlockCompressor::decompress(
    const std::shared_ptr<klNetBuffer>& buffer) {
    if (buffer->getCompression() == klNetCompressionNone) {
        return buffer;
    }
    if (buffer->getCompression() != m_method) {
        throw klNetError(std::ostringstream()
                         << m_name << " compressor cannot decode compression method "
                         << int(buffer->getCompression()));
    }
    const std::size_t size = buffer->getDataSize();
    const std::size_t originalSize = buffer->getOriginalDataSize();
    if (originalSize > klNetBuffer::getCapacity()) {
        throw klNetError(std::ostringstream() << m_name << " payload claims " << originalSize
                                              << " original bytes, more than a buffer holds ("
                                              << klNetBuffer::getCapacity() << ")");
    }
    if (size > klNetBuffer::getCapacity()) {
        throw klNetError(std::ostringstream() << m_name << " payload of " << size
                                              << " bytes is more than a buffer holds ("
                                              << klNetBuffer::getCapacity() << ")");
    }
    std::shared_ptr<klNetBuffer> out = replacementFor(*buffer);
    if (!decode(buffer->getData(), size, out->getData(), originalSize)) {
        throw klNetError(std::ostringstream()
                         << "Corrupt " << m_name << " payload: " << size
                         << " bytes do not decode to " << originalSize << " bytes");
    }
    out->setDataSize(originalSize);
    out->setCompression(klNetCompressionNone, originalSize);
    return out;
}

bool klNetBlockCompressor::isCompressible(const std::shared_ptr<klNetBuffer>& buffer) {
    return shouldCompress(buffer) &&
           buffer->getDataSize() >= std::size_t(klNetOptions::getCompressionThreshold());
}
