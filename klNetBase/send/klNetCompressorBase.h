// klNetCompressorBase: the application's compressor, through which the compressing sender and the
// decompressing receiver pass buffers.
//
// The library decides nothing about methods: it asks shouldCompress() which buffers are to be
// compressed (a decision taken from the buffer's header and the process-wide compression
// settings of klNetOptions), and hands those to compress() on one of its worker threads. The same
// compressor object serves the receiving side, whose workers call decompress() on every buffer
// that arrives with a compression method set, and isCompressible() on buffers injected locally
// into the receive pipeline.
//
// compress() returns the buffer to send in place of its argument: either the argument itself or a
// new buffer from klNetBufferPool. A compressed buffer carries the compressed payload, dataSize =
// the compressed size and setCompression(method, size before compression); the method is usually
// getRequestedCompression(buffer). decompress() undoes that: the original payload, dataSize = the
// original size and compression 0. Both must keep every other header field (sequence, type,
// source, destination, message id and count), which the receiving side needs to reassemble and
// order the data.
//
// Ownership: held by std::shared_ptr, shared by the stages that use it; the stages never copy it.
//
// Thread safety: compress() runs on several worker threads at once, and so does decompress();
// an implementation must allow that. shouldCompress() and getRequestedCompression() only read the
// buffer and the compression settings.
#pragma once

#include <klNetBase/core/klNetBuffer.h>
#include <klNetBase/core/klNetTypes.h>
#include <klNetBase/klNetBaseExport.h>

#include <memory>

class KLNETBASE_EXPORT klNetCompressorBase {
public:
    klNetCompressorBase() = default;
    klNetCompressorBase(const klNetCompressorBase&) = default;
    klNetCompressorBase(klNetCompressorBase&&) = default;
    klNetCompressorBase& operator=(const klNetCompressorBase&) = default;
    klNetCompressorBase& operator=(klNetCompressorBase&&) = default;
    virtual ~klNetCompressorBase();

    // The buffer to send in place of buffer (a new one, or buffer itself).
    virtual std::shared_ptr<klNetBuffer> compress(const std::shared_ptr<klNetBuffer>& buffer) = 0;
    // The buffer with its original payload restored and compression 0 (a new one, or buffer).
    virtual std::shared_ptr<klNetBuffer> decompress(const std::shared_ptr<klNetBuffer>& buffer) = 0;
    // Whether a buffer injected locally into a receive pipeline is worth compressing.
    virtual bool isCompressible(const std::shared_ptr<klNetBuffer>& buffer) = 0;

    // True when the buffer is neither compressed already nor a bundle, has not been shrunk by an
    // earlier stage (original size above data size), and the compression setting that applies to
    // its type (image setting for image data, data setting otherwise) is not 0. The size
    // threshold of klNetOptions is left to compress().
    bool shouldCompress(const std::shared_ptr<klNetBuffer>& buffer);

protected:
    // The method configured for the buffer's type: the image compression setting for image data,
    // the data compression setting for everything else.
    klNetCompression getRequestedCompression(const std::shared_ptr<klNetBuffer>& buffer);
};
