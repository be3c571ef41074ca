#include <klNetBase/serial/klNetMessage.h>

#include <klNetBase/core/klNetError.h>
#include <klNetBase/core/klNetOptions.h>

#include <utility>

std::atomic<unsigned short> klNetMessage::s_messageId{0};

klNetMessage::klNetMessage() : klNetMessage(klNetOptions::getStreamBufferSize()) {}

klNetMessage::klNetMessage(int sendThreshold) : klNetSerializer(sendThreshold) {}

klNetMessage::klNetMessage(klNetMessage&& other) noexcept
    : klNetSerializer(std::move(other)),
      m_buffers(std::move(other.m_buffers)),
      m_next(std::exchange(other.m_next, 0)) {
    other.m_buffers.clear();
}

klNetMessage& klNetMessage::operator=(klNetMessage&& other) noexcept {
    if (this != &other) {
        klNetSerializer::operator=(std::move(other));
        m_buffers = std::move(other.m_buffers);
        other.m_buffers.clear();
        m_next = std::exchange(other.m_next, 0);
    }
    return *this;
}

void klNetMessage::sendBuffer(const std::shared_ptr<klNetBuffer>& buffer) {
    m_buffers.push_back(buffer);
}

void klNetMessage::recvBuffer(std::shared_ptr<klNetBuffer>& buffer) {
    if (m_next >= m_buffers.size()) {
        throw klNetError("klNetMessage: try to read beyond buffer end.");
    }
    buffer = std::move(m_buffers[m_next++]);
    if (m_next == m_buffers.size()) {
        m_buffers.clear();
        m_next = 0;
    }
}

void klNetMessage::setRecvBuffers(const std::vector<std::shared_ptr<klNetBuffer>>& buffers) {
    // Copied first: the argument may be this message's own list. Only the waiting buffers are
    // replaced; the serializer pulls the first of them through recvBuffer() once the current
    // receive buffer, if any, has been read.
    std::vector<std::shared_ptr<klNetBuffer>> incoming = buffers;
    m_buffers = std::move(incoming);
    m_next = 0;
}

std::size_t klNetMessage::getMessageSize() const {
    std::size_t size = getDataSize();
    for (std::size_t i = m_next; i < m_buffers.size(); ++i) {
        size += m_buffers[i]->getDataSize();
    }
    return size;
}

std::vector<std::shared_ptr<klNetBuffer>> klNetMessage::takeSendBuffers() {
    const unsigned short id = s_messageId.fetch_add(1);
    std::vector<std::shared_ptr<klNetBuffer>> buffers = std::move(m_buffers);
    buffers.erase(buffers.begin(), buffers.begin() + std::ptrdiff_t(m_next));
    m_buffers.clear();
    m_next = 0;
    if (std::shared_ptr<klNetBuffer> last = takeSendBuffer()) {
        buffers.push_back(std::move(last));
    }
    for (const auto& buffer : buffers) {
        buffer->setMessageId(id);
        buffer->setMessageBufferCount(buffers.size());
    }
    return buffers;
}
