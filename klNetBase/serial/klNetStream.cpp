#include <klNetBase/serial/klNetStream.h>

#include <klNetBase/core/klConnectionClosed.h>
#include <klNetBase/core/klNetBufferPool.h>
#include <klNetBase/core/klNetError.h>
#include <klNetBase/core/klNetOptions.h>
#include <klNetBase/recv/klNetLinkReceiver.h>
#include <klNetBase/runtime/klNetProgress.h>
#include <klNetBase/send/klNetLinkSender.h>

#include <algorithm>
#include <chrono>
#include <set>
#include <sstream>
#include <thread>

namespace {

std::uint64_t wireSize(const klNetBuffer& buffer) {
    return buffer.getDataSize() + klNetBuffer::getHeaderSize();
}

}  // namespace

klNetStream::klNetStream() : klNetStream(std::shared_ptr<klNetLink>()) {}

klNetStream::klNetStream(const std::shared_ptr<klNetLink>& link)
    : klNetSerializer(klNetOptions::getStreamBufferSize()) {
    if (link) {
        m_sender = klNetLinkSender::create(link);
        m_receiver = klNetLinkReceiver::create(link);
    }
}

klNetStream::~klNetStream() {
    m_partialMessages.clear();
    m_sender.reset();
    m_receiver.reset();
}

void klNetStream::setSender(const std::shared_ptr<klNetSender>& sender) {
    m_sender = sender;
    m_multicastSequence = 0;
    m_directedSequence = 0;
    clearSendBuffer();
}

void klNetStream::setReceiver(const std::shared_ptr<klNetReceiver>& receiver) {
    m_receiver = receiver;
    clearRecvBuffer();
}

void klNetStream::setMaxPendingBuffers(std::size_t perSource, std::size_t total) {
    m_maxPendingPerSource = std::max<std::size_t>(perSource, 1);
    m_maxPending = std::max<std::size_t>(total, 1);
}

std::size_t klNetStream::getDestinationCount() const {
    return m_sender ? m_sender->getDestinations().size() : 0;
}

std::shared_ptr<klNetLink> klNetStream::getFirstLink() {
    if (!m_sender) {
        throw klConnectionClosed();
    }
    const std::vector<std::shared_ptr<klNetLink>> links = m_sender->getLinks();
    if (links.empty()) {
        throw klConnectionClosed();
    }
    return links.front();
}

std::string klNetStream::getLinkName() {
    requireReceiver();
    return m_receiver->getLinkName();
}

std::uint64_t klNetStream::getCompressedBytes() {
    return m_sender ? m_sender->getCompressedBytes() : 0;
}

void klNetStream::resetStatistics() {
    m_sentBytes = 0;
    m_receivedBytes = 0;
    if (m_sender) {
        m_sender->resetStatistics();
    }
}

void klNetStream::waitAllDataTransfered() {
    if (m_sender) {
        m_sender->waitAllDataTransfered();
    }
}

void klNetStream::shutdown() {
    if (m_sender) {
        m_sender->shutdown();
    }
    if (m_receiver) {
        m_receiver->shutdown();
    }
}

bool klNetStream::isReadable() {
    if (klNetSerializer::isReadable()) {
        return true;
    }
    requireReceiver();
    return m_receiver->isReadable();
}

void klNetStream::waitReadableOrAbort() {
    while (!klNetProgress::isAborting()) {
        if (isReadable()) {
            return;
        }
        std::this_thread::sleep_until(std::chrono::steady_clock::now() +
                                      std::chrono::milliseconds(1));
    }
    throw klNetError("Aborted");
}

klNetSerializer& klNetStream::flush(klNetSerializer& serializer) {
    auto* stream = dynamic_cast<klNetStream*>(&serializer);
    if (stream == nullptr) {
        throw klNetError("Unable to flush this type of stream");
    }
    stream->flush();
    return serializer;
}

void klNetStream::requireReceiver() const {
    if (!m_receiver) {
        throw klConnectionClosed();
    }
}

void klNetStream::sendBuffer(const std::shared_ptr<klNetBuffer>& buffer) {
    if (!m_sender) {
        throw klConnectionClosed();
    }
    buffer->setSource(m_rank);
    if (!buffer->isMulticast()) {
        buffer->setSequence(m_directedSequence++);
    } else {
        buffer->setSequence(m_multicastSequence++);
    }
    if (!buffer->isMulticast() && buffer->getDestination() == m_rank) {
        requireReceiver();
        m_receiver->addToRecvQueue(buffer);
    } else {
        m_sender->send(buffer);
    }
    m_sentBytes += wireSize(*buffer);
}

void klNetStream::acceptStreamBuffer(const klNetBuffer& buffer) {
    if (buffer.getType() != klNetMessageTypeStream) {
        throw klNetError(std::ostringstream()
                         << "Stream out of sync. Stream expected at " << m_rank << " from "
                         << buffer.getSource() << " to " << buffer.getDestination());
    }
    m_receivedBytes += wireSize(buffer);
}

void klNetStream::recvBuffer(std::shared_ptr<klNetBuffer>& buffer) {
    requireReceiver();
    std::shared_ptr<klNetBuffer> received;
    m_receiver->recv(received);
    acceptStreamBuffer(*received);
    buffer = std::move(received);
}

void klNetStream::sendWhole(const unsigned char* payload, std::size_t size) {
    // Stamped as a flushed stream buffer would be; the message fields carry nothing here.
    klNetHeader header{};
    header.dataSize = header.originalDataSize = std::uint32_t(size);
    header.sequence = std::uint16_t(m_multicastSequence++);
    header.type = std::uint8_t(getMessageType());
    header.source = m_rank;
    m_sender->sendFrom(header, payload);
    m_sentBytes += size + klNetBuffer::getHeaderSize();
}

void klNetStream::putBytes(const void* source, std::size_t n) {
    const auto* from = static_cast<const unsigned char*>(source);
    const std::size_t whole = std::size_t(getSendThreshold());
    if (m_sender && whole != 0) {
        // Fill a partly written buffer first: it goes out before the whole ones, as it would.
        const std::size_t unsent = getUnsentSize();
        if (unsent != 0 && n > getSendRoom()) {
            const std::size_t room = getSendRoom();
            klNetSerializer::putBytes(from, room);
            flushSendBuffer();
            from += room;
            n -= room;
        }
        if (getUnsentSize() == 0) {
            // Only whole buffers that more bytes follow go out at once: the last one, filled
            // exactly, stays current until the next write or flush, as in the serializer.
            for (; n > whole; from += whole, n -= whole) {
                try {
                    sendWhole(from, whole);
                } catch (...) {
                    // Where the serializer's failed flush would leave them: in the current
                    // buffer, for the next flush to send.
                    klNetSerializer::putBytes(from, whole);
                    throw;
                }
            }
        }
    }
    klNetSerializer::putBytes(from, n);
}

void klNetStream::getBytes(void* target, std::size_t n) {
    auto* to = static_cast<unsigned char*>(target);
    const std::size_t buffered = std::min(n, getReadable());
    klNetSerializer::getBytes(to, buffered);
    to += buffered;
    n -= buffered;
    while (n != 0) {
        requireReceiver();
        klNetHeader header;
        std::shared_ptr<klNetBuffer> received;
        if (m_receiver->recvInto(to, n, klNetMessageTypeStream, header, received)) {
            m_receivedBytes += header.dataSize + klNetBuffer::getHeaderSize();
            to += header.dataSize;
            n -= header.dataSize;
            continue;
        }
        // Too big for what is left to read, or from a stage that keeps its buffers: read on
        // from it as the serializer would.
        acceptStreamBuffer(*received);
        setRecvBuffer(received);
        const std::size_t part = std::min(n, received->getDataSize());
        received.reset();
        klNetSerializer::getBytes(to, part);
        to += part;
        n -= part;
    }
}

void klNetStream::sendMessage(klNetMessage& message, int destination, klNetBufferSendMode mode) {
    for (const auto& buffer : message.takeSendBuffers()) {
        buffer->setDestination(std::uint32_t(destination));
        buffer->setSendMode(mode);
        sendBuffer(buffer);
    }
}

bool klNetStream::recvMessagePart(klNetMessage& message) {
    requireReceiver();
    std::shared_ptr<klNetBuffer> buffer;
    m_receiver->recv(buffer);
    if (buffer->getType() != message.getMessageType()) {
        throw klNetError("Stream out of sync. Wrong message type");
    }
    m_receivedBytes += wireSize(*buffer);
    const std::size_t count = buffer->getMessageBufferCount();
    if (count <= 1) {
        message.setRecvBuffer(buffer);
        return true;
    }
    const std::uint64_t key =
        std::uint64_t(std::uint32_t(buffer->getSource() << 16) | buffer->getMessageId());
    const std::uint32_t source = std::uint32_t(buffer->getSource() & 0xFFFF);
    const auto found = m_partialMessages.find(key);
    const std::size_t waiting = found == m_partialMessages.end() ? 0 : found->second.size();
    if (waiting + 1 < count) {
        checkPendingRoom(buffer->getSource());
        m_partialMessages[key].push_back(std::move(buffer));
        ++m_pendingBySource[source];
        ++m_pending;
        return false;
    }
    std::vector<std::shared_ptr<klNetBuffer>> parts;
    if (found != m_partialMessages.end()) {
        parts = std::move(found->second);
        m_partialMessages.erase(found);
        const auto bySource = m_pendingBySource.find(source);
        if ((bySource->second -= parts.size()) == 0) {
            m_pendingBySource.erase(bySource);
        }
        m_pending -= parts.size();
    }
    parts.push_back(std::move(buffer));
    std::sort(parts.begin(), parts.end(),
              [](const std::shared_ptr<klNetBuffer>& a, const std::shared_ptr<klNetBuffer>& b) {
                  return a->isSequenceLess(b);
              });
    message.setRecvBuffers(parts);
    return true;
}

void klNetStream::checkPendingRoom(std::size_t source) const {
    const auto bySource = m_pendingBySource.find(std::uint32_t(source & 0xFFFF));
    if (bySource != m_pendingBySource.end() && bySource->second >= m_maxPendingPerSource) {
        throw klNetError(std::ostringstream()
                         << "Too many incomplete messages from source " << source << ": more than "
                         << m_maxPendingPerSource << " buffers waiting");
    }
    if (m_pending >= m_maxPending) {
        throw klNetError(std::ostringstream()
                         << "Too many incomplete messages: more than " << m_maxPending
                         << " buffers waiting (the last from source " << source << ")");
    }
}

void klNetStream::recvMessage(klNetMessage& message) {
    while (!recvMessagePart(message)) {
        std::this_thread::yield();
    }
}

bool klNetStream::tryRecvMessage(klNetMessage& message) {
    return isReadable() && recvMessagePart(message);
}

klNetStream& klNetStream::sendSuccess() {
    putValue(std::uint8_t(1));
    return *this;
}

klNetStream& klNetStream::sendException(const std::exception& e) {
    putValue(std::uint8_t(0));
    putValue(e.what());
    return *this;
}

klNetStream& klNetStream::recvResult() {
    std::uint8_t success = 0;
    getValue(success);
    if (success == 0) {
        std::string text;
        getValue(text);
        throw klNetError(text);
    }
    return *this;
}

void klNetStream::sendSync(int value) {
    klNetMessage message(klNetOptions::getStreamBufferSize());
    message.putValue(std::int32_t(value));
    sendMessage(message, m_rank == 1 ? 0 : 1, klNetSendModeDefault);
}

int klNetStream::waitSync() {
    klNetMessage message;
    if (m_rank != 1) {
        recvMessage(message);
    } else {
        const std::size_t expected = getDestinationCount();
        if (expected == 0) {
            return 0;
        }
        std::set<std::size_t> sources;
        while (sources.size() < expected) {
            recvMessage(message);
            const std::size_t source = message.getSource();
            if (!sources.insert(source).second) {
                throw klNetError(std::ostringstream()
                                 << "Synchronisation error: multiple responses from " << source);
            }
        }
    }
    std::int32_t value = 0;
    message.getValue(value);
    return value;
}

void klNetStream::recvAll() {
    requireReceiver();
    std::shared_ptr<klNetBuffer> buffer = klNetBufferPool::pop();
    for (;;) {
        m_receiver->recv(buffer);
    }
}
