#include <klNetBase/serial/klNetSerializer.h>

#include <klNetBase/core/klNetBufferPool.h>
#include <klNetBase/core/klNetError.h>

#include <algorithm>
#include <sstream>
#include <utility>

namespace {

[[noreturn]] void throwUnreachable(std::size_t requested, std::size_t accessible) {
    throw klNetError(std::ostringstream()
                     << "Unable to get " << requested << " bytes in buffer. Max accessible bytes "
                     << accessible);
}

}  // namespace

klNetSerializer::klNetSerializer(int sendThreshold) : m_sendThreshold(sendThreshold) {}

klNetSerializer::~klNetSerializer() {
    m_sendBuffer.reset();
    m_recvBuffer.reset();
}

klNetSerializer::klNetSerializer(klNetSerializer&& other) noexcept
    : m_recvBuffer(std::move(other.m_recvBuffer)),
      m_sendBuffer(std::move(other.m_sendBuffer)),
      m_readPosition(std::exchange(other.m_readPosition, nullptr)),
      m_readEnd(std::exchange(other.m_readEnd, nullptr)),
      m_writePosition(std::exchange(other.m_writePosition, nullptr)),
      m_writeEnd(std::exchange(other.m_writeEnd, nullptr)),
      m_sendThreshold(other.m_sendThreshold),
      m_inputReference(other.m_inputReference) {}

klNetSerializer& klNetSerializer::operator=(klNetSerializer&& other) noexcept {
    if (this != &other) {
        m_recvBuffer = std::move(other.m_recvBuffer);
        m_sendBuffer = std::move(other.m_sendBuffer);
        m_readPosition = std::exchange(other.m_readPosition, nullptr);
        m_readEnd = std::exchange(other.m_readEnd, nullptr);
        m_writePosition = std::exchange(other.m_writePosition, nullptr);
        m_writeEnd = std::exchange(other.m_writeEnd, nullptr);
        m_sendThreshold = other.m_sendThreshold;
        m_inputReference = other.m_inputReference;
    }
    return *this;
}

void klNetSerializer::setEmptySendBuffer() {
    m_sendBuffer = klNetBufferPool::pop();
    klNetBuffer& buffer = *m_sendBuffer;
    buffer.setSendMode(klNetSendModeDefault);
    buffer.setDestination(0);
    buffer.setType(getMessageType());
    buffer.setCompression(klNetCompressionNone, 0);
    m_writePosition = buffer.getData();
    m_writeEnd = m_writePosition +
                 (m_sendThreshold != 0 ? std::size_t(m_sendThreshold) : klNetBuffer::getCapacity());
}

void klNetSerializer::putBytes(const void* source, std::size_t n) {
    const auto* from = static_cast<const unsigned char*>(source);
    while (n != 0) {
        if (!m_sendBuffer) {
            setEmptySendBuffer();
        }
        const std::size_t room = writeRoom();
        const std::size_t count = std::min(room, n);
        std::memcpy(m_writePosition, from, count);
        m_writePosition += count;
        from += count;
        n -= count;
        if (n == 0) {
            return;
        }
        if (m_sendThreshold == 0) {
            throw klNetError("Send buffer size exceeded");
        }
        flushSendBuffer();
    }
}

void klNetSerializer::flushSendBuffer() {
    if (!m_sendBuffer) {
        return;
    }
    const std::shared_ptr<klNetBuffer> buffer = m_sendBuffer;
    const std::size_t written = std::size_t(m_writePosition - buffer->getData());
    buffer->setDataSize(written);
    buffer->setCompression(klNetCompressionNone, written);
    buffer->setSource(0);
    buffer->setSequence(0);
    // Released only once it was taken: if sendBuffer() throws, the bytes stay current and the
    // next flush sends them.
    sendBuffer(buffer);
    m_sendBuffer.reset();
    m_writePosition = m_writeEnd;
}

void klNetSerializer::getBytes(void* target, std::size_t n) {
    auto* to = static_cast<unsigned char*>(target);
    for (;;) {
        const std::size_t count = std::min(readable(), n);
        if (count != 0) {
            std::memcpy(to, m_readPosition, count);
            m_readPosition += count;
            to += count;
            n -= count;
        }
        if (m_readPosition == m_readEnd) {
            m_recvBuffer.reset();
        }
        if (n == 0) {
            return;
        }
        fetchRecvBuffer();
    }
}

void klNetSerializer::fetchRecvBuffer() {
    m_recvBuffer.reset();
    std::shared_ptr<klNetBuffer> next;
    recvBuffer(next);
    if (next) {
        installRecvBuffer(next);
    }
}

void klNetSerializer::installRecvBuffer(const std::shared_ptr<klNetBuffer>& buffer) {
    m_recvBuffer = buffer;
    m_readPosition = buffer->getData();
    m_readEnd = m_readPosition + buffer->getDataSize();
    m_inputReference = false;
}

void klNetSerializer::setRecvBuffer(const std::shared_ptr<klNetBuffer>& buffer) {
    if (buffer) {
        installRecvBuffer(buffer);
    } else {
        m_recvBuffer.reset();
    }
}

void klNetSerializer::resetRecvPosition() {
    if (m_recvBuffer) {
        m_readPosition = m_recvBuffer->getData();
    }
    m_inputReference = false;
}

void klNetSerializer::putValue(const char* text) {
    const std::size_t length = std::strlen(text) + 1;
    putValue(std::uint32_t(length));
    putBytes(text, length);
}

void klNetSerializer::putValue(const std::string& text) {
    putValue(std::uint32_t(text.size() + 1));
    // c_str() ends in the terminating zero, so the text and its terminator go in one copy.
    putBytes(text.c_str(), text.size() + 1);
}

void klNetSerializer::getValue(std::string& text) {
    std::uint32_t length;
    getValue(length);
    text.clear();
    // The length comes from the peer: grow with the data actually read.
    constexpr std::size_t kStep = 65536;
    for (std::size_t done = 0; done < length;) {
        const std::size_t step = std::min<std::size_t>(length - done, kStep);
        text.resize(done + step);
        getBytes(&text[done], step);
        done += step;
    }
    if (!text.empty()) {
        text.pop_back();
    }
}

unsigned char* klNetSerializer::getOutputReference(std::size_t n) {
    if (!m_sendBuffer) {
        setEmptySendBuffer();
    }
    if (writeRoom() < n) {
        throwUnreachable(n, writeRoom());
    }
    unsigned char* reference = m_writePosition;
    m_writePosition += n;
    return reference;
}

const unsigned char* klNetSerializer::getInputReference(std::size_t n) {
    const std::size_t available = readable();
    if (n != 0 && available == 0) {
        fetchRecvBuffer();
    }
    // Deliberately the count from before the fetch: a request exactly at a buffer boundary fails.
    if (available < n) {
        throwUnreachable(n, readable());
    }
    const unsigned char* reference = m_readPosition;
    m_readPosition += n;
    m_inputReference = true;
    return reference;
}

std::shared_ptr<klNetBuffer> klNetSerializer::takeSendBuffer() {
    std::shared_ptr<klNetBuffer> buffer = std::move(m_sendBuffer);
    if (buffer) {
        const std::size_t written = std::size_t(m_writePosition - buffer->getData());
        buffer->setDataSize(written);
        buffer->setCompression(klNetCompressionNone, written);
    }
    m_writePosition = m_writeEnd;
    m_inputReference = false;
    return buffer;
}

void klNetSerializer::clearSendBuffer() {
    m_sendBuffer.reset();
    m_writePosition = m_writeEnd;
    m_inputReference = false;
}
