// klNetMessage: a serializer that holds one whole message in memory.
//
// Writing collects every filled buffer in a list instead of sending it; takeSendBuffers() then
// hands the complete message over in one piece, every buffer stamped with one message id (drawn
// from a process-wide 16-bit counter that wraps from 65535 to 0) and the message's buffer count.
// Reading serves the buffers given with setRecvBuffer()/setRecvBuffers() back in order; reading
// past the last byte throws "klNetMessage: try to read beyond buffer end.".
//
// Thread safety: a message is used by one thread at a time; the id counter is atomic, so
// concurrent senders never draw the same id at once.
#pragma once

#include <klNetBase/serial/klNetSerializer.h>

#include <atomic>
#include <memory>
#include <vector>

class KLNETBASE_EXPORT klNetMessage : public klNetSerializer {
public:
    // A message fills buffers of 131072 payload bytes unless told otherwise.
    klNetMessage();
    explicit klNetMessage(int sendThreshold);

    klNetMessage(const klNetMessage&) = default;
    klNetMessage& operator=(const klNetMessage&) = default;
    klNetMessage(klNetMessage&& other) noexcept;
    klNetMessage& operator=(klNetMessage&& other) noexcept;
    ~klNetMessage() = default;

    klNetMessageType getMessageType() override { return klNetMessageTypeMessage; }

    // Replaces the buffers waiting to be read by a copy of the given ones. None is installed at
    // once: reading pulls them in order once the current receive buffer (kept, with its unread
    // bytes) is used up, so getSource()/getType() report a listed buffer's header only from the
    // first read on. An empty list leaves the current receive buffer as it is.
    void setRecvBuffers(const std::vector<std::shared_ptr<klNetBuffer>>& buffers);
    // Unread payload bytes: the current receive buffer's dataSize plus every listed buffer's.
    std::size_t getMessageSize() const;
    // All buffers of the message, each with the same new message id and the buffer count;
    // afterwards the message is empty. An empty message yields none but still draws an id.
    std::vector<std::shared_ptr<klNetBuffer>> takeSendBuffers();

protected:
    void recvBuffer(std::shared_ptr<klNetBuffer>& buffer) override;
    void sendBuffer(const std::shared_ptr<klNetBuffer>& buffer) override;

private:
    static std::atomic<unsigned short> s_messageId;

    // Writing: buffers filled so far. Reading: buffers not yet read. Both in order.
    std::vector<std::shared_ptr<klNetBuffer>> m_buffers;
    // Index of the next buffer to read in m_buffers, so that reading does not shift the list.
    std::size_t m_next = 0;
};
