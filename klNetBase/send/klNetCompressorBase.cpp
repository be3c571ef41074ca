#include <klNetBase/send/klNetCompressorBase.h>

#include <klNetBase/core/klNetOptions.h>

klNetCompressorBase::~klNetCompressorBase() = default;

bool klNetCompressorBase::shouldCompress(const std::shared_ptr<klNetBuffer>& buffer) {
    if (buffer->getCompression() != klNetCompressionNone)
        return false;
    if (buffer->getType() == klNetMessageTypeBundle)
        return false;
    // An original size above the data size means an earlier stage already shrank the payload.
    if (buffer->getOriginalDataSize() > buffer->getDataSize())
        return false;
    return getRequestedCompression(buffer) != klNetCompressionNone;
}

klNetCompression klNetCompressorBase::getRequestedCompression(
    const std::shared_ptr<klNetBuffer>& buffer) {
    return buffer->getType() == klNetMessageTypeImage ? klNetOptions::getImageCompression()
                                                      : klNetOptions::getDataCompression();
}
