#include <klNetBase/link/klNetLink.h>

#include <klNetBase/core/klNetBufferPool.h>
#include <klNetBase/core/klNetError.h>

#include <cstring>

namespace {

// Ciphering starts after the payload-size field and runs over the rest of the header and the
// payload.
constexpr std::size_t kClearBytes = 4;

std::uint64_t cipheredLength(const klNetBuffer& buffer) {
    return klNetBuffer::getHeaderSize() - kClearBytes + buffer.getDataSize();
}

}  // namespace

klNetLink::klNetLink(const klNetLink& other)
    : std::enable_shared_from_this<klNetLink>(),
      m_id(other.m_id),
      m_remoteId(other.m_remoteId),
      m_nodeAffinity(other.m_nodeAffinity),
      m_cipher(other.m_cipher),
      m_userData(other.m_userData) {}

klNetLink& klNetLink::operator=(const klNetLink& other) {
    m_id = other.m_id;
    m_remoteId = other.m_remoteId;
    m_nodeAffinity = other.m_nodeAffinity;
    m_cipher = other.m_cipher;
    m_userData = other.m_userData;
    return *this;
}

klNetLink::~klNetLink() = default;

void klNetLink::recvAvailable(std::queue<std::shared_ptr<klNetBuffer>>& queue) {
    std::shared_ptr<klNetBuffer> buffer;
    recv(buffer);
    queue.push(std::move(buffer));
}

void klNetLink::sendFrom(const klNetHeader& header, const void* payload) {
    std::shared_ptr<klNetBuffer> buffer = klNetBufferPool::pop();
    *buffer->getHeader() = header;
    std::memcpy(buffer->getData(), payload, header.dataSize);
    send(buffer);
}

bool klNetLink::recvInto(void*, std::size_t, klNetMessageType, klNetHeader&,
                         std::shared_ptr<klNetBuffer>& buffer) {
    recv(buffer);
    return false;
}

void klNetLink::setRecvTimeout(double) {
    throw klNetError("Unable to set recv timeout");
}

std::shared_ptr<klNetBuffer> klNetLink::encryptBuffer(const std::shared_ptr<klNetBuffer>& buffer) {
    if (!m_cipher) {
        return buffer;
    }
    std::shared_ptr<klNetBuffer> ciphered = klNetBufferPool::pop();
    ciphered->copyHeaderFrom(*buffer);
    m_cipher->encrypt(ciphered->getBuffer() + kClearBytes, buffer->getBuffer() + kClearBytes,
                      cipheredLength(*buffer));
    return ciphered;
}

void klNetLink::decryptBuffer(std::shared_ptr<klNetBuffer>& buffer) {
    if (!m_cipher) {
        return;
    }
    unsigned char* region = buffer->getBuffer() + kClearBytes;
    m_cipher->decrypt(region, region, cipheredLength(*buffer));
}
