// klNetBlockCompressor: what every codec that compresses one payload at a time has in common.
//
// The subclass only encodes and decodes bytes; this class does the rest, the same way for every
// method:
//
//   compress    payloads below klNetOptions::getCompressionThreshold() and payloads whose
//               compressed form would not be smaller go as they are (the buffer itself is
//               returned). Otherwise a new pool buffer with the same header and send mode, the
//               compressed payload, dataSize = compressed size and setCompression(method, size).
//               Payloads of 16 KiB and more whose first 4 KiB do not shrink at all are taken as
//               incompressible (random, enciphered or compressed data) and go as they are without
//               a full attempt, which makes such data nearly free to pass through.
//               The method is always this codec's own: the process-wide settings only say whether
//               to compress (0 = no), the compressor object says how.
//   decompress  a buffer with compression 0 is returned as it is. Anything else comes from a peer
//               and is checked before a byte is decoded: the method must be this codec's, the
//               original size must fit a buffer, and the payload must decode to exactly that many
//               bytes, never writing past them. Failures are klNetError with one of the texts
//               below (<name> is getName(), sizes in bytes):
//                 "<name> compressor cannot decode compression method <m>"
//                 "<name> payload claims <n> original bytes, more than a buffer holds (131602)"
//                 "<name> payload of <n> bytes is more than a buffer holds (131602)"
//                 "Corrupt <name> payload: <n> bytes do not decode to <m> bytes"
//
// Ownership: the compressor is shared (std::shared_ptr) by the stages that use it; it owns no
// buffers, and every buffer it returns comes from klNetBufferPool.
//
// Thread safety: compress() and decompress() run on many worker threads at once; subclasses keep
// per-thread state only (see each codec).
#pragma once

#include <klNetBase/codecs/klNetCodecsExport.h>
#include <klNetBase/send/klNetCompressorBase.h>

#include <cstddef>
#include <memory>
#include <string>

class KLNETCODECS_EXPORT klNetBlockCompressor : public klNetCompressorBase {
public:
    // method: the compression id this codec writes and accepts (not 0); name: for error texts.
    klNetBlockCompressor(klNetCompression method, std::string name);
    ~klNetBlockCompressor() override;

    klNetBlockCompressor(const klNetBlockCompressor&) = delete;
    klNetBlockCompressor& operator=(const klNetBlockCompressor&) = delete;

    std::shared_ptr<klNetBuffer> compress(const std::shared_ptr<klNetBuffer>& buffer) override;
    std::shared_ptr<klNetBuffer> decompress(const std::shared_ptr<klNetBuffer>& buffer) override;
    // True for a buffer that shouldCompress() accepts and that reaches the size threshold.
    bool isCompressible(const std::shared_ptr<klNetBuffer>& buffer) override;

    klNetCompression getMethod() const { return m_method; }
    const std::string& getName() const { return m_name; }

protected:
    // Compresses size bytes at source into at most capacity bytes at destination. Returns the
    // compressed length, or 0 when it would not fit (or the codec fails): the payload then goes
    // uncompressed. Runs on any worker thread.
    virtual std::size_t encode(const unsigned char* source, std::size_t size,
                               unsigned char* destination, std::size_t capacity) = 0;
    // Decodes size bytes of untrusted input at source into destination, which has room for
    // exactly originalSize bytes. True only when the input decodes to exactly originalSize bytes;
    // must never read or write outside the two ranges. Runs on any worker thread.
    virtual bool decode(const unsigned char* source, std::size_t size, unsigned char* destination,
                        std::size_t originalSize) = 0;

private:
    // Constant after construction.
    const klNetCompression m_method;
    const std::string m_name;
};
