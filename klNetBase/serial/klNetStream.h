// klNetStream: the endpoint through which application code talks to its peers.
//
// A serializer whose filled buffers go down a sender chain and whose next buffers come up a
// receiver chain. Every buffer sent is stamped with the stream's rank as source and a sequence
// number from one of two counters (multicast buffers and directed buffers are numbered apart). A
// buffer for the stream's own rank is delivered to its own receiver instead of the network.
//
// On top of the byte stream it carries:
//   - whole messages (sendMessage / recvMessage), reassembled by source and message id;
//   - results of remote calls: one byte 1 for success, or 0 and the exception text, rethrown as
//     klNetError by recvResult();
//   - synchronisation points between the master (rank 1) and the other ranks.
//
// A stream-data read that meets another type throws "Stream out of sync. Stream expected at
// <rank> from <source> to <destination>"; a message read that meets stream data throws "Stream
// out of sync. Wrong message type". The offending buffer is dropped and the stream stays usable.
// Operations on a missing chain throw klConnectionClosed.
//
// Buffers of incomplete messages wait for their partners in the stream, and what a peer claims
// (sources, message ids, buffer counts) decides how many. So their number is bounded, per source
// and in all (setMaxPendingBuffers): a buffer that would exceed a bound is dropped with
// "Too many incomplete messages from source <source>: more than <n> buffers waiting" or
// "Too many incomplete messages: more than <n> buffers waiting (the last from source <source>)".
// The per-source bound is also the largest message, in buffers, that the stream can receive.
//
// Thread safety: one thread at a time; the chains may run threads of their own. shutdown() may be
// called from another thread to end a blocked call.
#pragma once

#include <klNetBase/klNetBaseExport.h>
#include <klNetBase/recv/klNetReceiver.h>
#include <klNetBase/send/klNetSender.h>
#include <klNetBase/serial/klNetMessage.h>
#include <klNetBase/serial/klNetSerializer.h>

#include <cstdint>
#include <exception>
#include <map>
#include <memory>
#include <vector>

class KLNETBASE_EXPORT klNetStream : public klNetSerializer {
public:
    // Without a link: no chains yet (set them with setSender/setReceiver).
    klNetStream();
    // A link sender and a link receiver over the link.
    explicit klNetStream(const std::shared_ptr<klNetLink>& link);
    klNetStream(const klNetStream&) = default;
    klNetStream& operator=(const klNetStream&) = default;
    // Nothing is flushed: call flush() or use the flush manipulator before letting go.
    virtual ~klNetStream();

    // Replaces the sender; both sequence counters restart at 0 and the send buffer is dropped.
    void setSender(const std::shared_ptr<klNetSender>& sender);
    const std::shared_ptr<klNetSender>& getSender() const { return m_sender; }
    // Replaces the receiver and drops the current receive buffer.
    void setReceiver(const std::shared_ptr<klNetReceiver>& receiver);
    const std::shared_ptr<klNetReceiver>& getReceiver() const { return m_receiver; }
    void setRank(int rank) { m_rank = std::uint32_t(rank); }
    int getRank() const { return int(m_rank); }

    // Number of peers the sender reaches; 0 without a sender.
    std::size_t getDestinationCount() const;
    // The first link below the sender. REQUIRES: a sender with at least one link.
    std::shared_ptr<klNetLink> getFirstLink();
    std::string getLinkName();

    // Bounds on the buffers of incomplete messages held at once: from one source, and from all
    // sources together. A bound below 1 counts as 1.
    static constexpr std::size_t kDefaultMaxPendingBuffersPerSource = 256;  // 32 MiB of payload
    static constexpr std::size_t kDefaultMaxPendingBuffers = 512;
    void setMaxPendingBuffers(std::size_t perSource, std::size_t total);
    std::size_t getMaxPendingBuffersPerSource() const { return m_maxPendingPerSource; }
    std::size_t getMaxPendingBuffers() const { return m_maxPending; }

    std::uint64_t getSentBytes() const { return m_sentBytes; }
    std::uint64_t getRecevedBytes() const { return m_receivedBytes; }
    std::uint64_t getCompressedBytes();
    void resetStatistics();
    void waitAllDataTransfered();
    // Shuts both chains down (closing their links); the chains stay set.
    void shutdown();

    // Unread bytes in the current buffer, or the receiver says a buffer can be read.
    bool isReadable() override;
    // Returns once the stream is readable; throws "Aborted" when the progress reporter asks to
    // abort, before or while waiting.
    void waitReadableOrAbort();

    // The serializer's putBytes and getBytes, without the copy through a pool buffer where a whole
    // buffer comes from or goes to the caller's memory: the whole buffers that a write covers go
    // out at once, each as a header and the caller's bytes (over a link sender straight from the
    // caller's memory with one writev), and a read that has room for the whole payload of the next
    // stream-data buffer takes it straight into the caller's memory (from a link receiver). The
    // bytes on the wire, the order of buffers and when they go out are those of the serializer's
    // functions: a whole buffer goes out at once only when more bytes of the write follow it (the
    // last one stays current, for clearSendBuffer() to drop or the next write or flush to send),
    // and one whose send fails stays in the current send buffer for the next flush.
    void putBytes(const void* source, std::size_t n);
    void getBytes(void* target, std::size_t n);

    // Sends the partly filled buffer now.
    void flush() { flushSendBuffer(); }
    // Manipulator: stream << klNetStream::flush. On a serializer that is no stream: klNetError
    // "Unable to flush this type of stream".
    static klNetSerializer& flush(klNetSerializer& serializer);

    // Sends every buffer of the message to destination (0: every peer) with the given send mode.
    // The stream's own partly written data is not flushed by this.
    void sendMessage(klNetMessage& message, int destination,
                     klNetBufferSendMode mode = klNetSendModeDefault);
    // Blocks until one whole message has arrived and installs it in message for reading.
    void recvMessage(klNetMessage& message);
    // One step of receiving, only when something is readable; true when a message is complete.
    bool tryRecvMessage(klNetMessage& message);

    // Result protocol: the callee writes one of these and flushes; the caller reads it back.
    klNetStream& sendSuccess();
    klNetStream& sendException(const std::exception& e);
    // Returns on success; throws klNetError with the remote text on a remote exception.
    klNetStream& recvResult();

    // The master (rank 1) sends to every peer, other ranks send to the master.
    void sendSync(int value);
    // A node: the master's next sync value. The master: waits for one reply from every
    // destination (a second reply from one source throws "Synchronisation error: multiple
    // responses from <source>") and returns the value of the last; 0 at once without destinations.
    int waitSync();

    // Receives and discards until the receiver throws (typically when the peer closes).
    void recvAll();

protected:
    void recvBuffer(std::shared_ptr<klNetBuffer>& buffer) override;
    void sendBuffer(const std::shared_ptr<klNetBuffer>& buffer) override;
    // True when the message is complete and installed in message.
    bool recvMessagePart(klNetMessage& message);

private:
    void requireReceiver() const;
    // Stamps and sends one whole buffer's payload from the caller's memory.
    void sendWhole(const unsigned char* payload, std::size_t size);
    // Checks a buffer read for the byte stream and counts it.
    void acceptStreamBuffer(const klNetBuffer& buffer);
    // Throws when one more buffer from source may not wait for its partners.
    void checkPendingRoom(std::size_t source) const;

    std::shared_ptr<klNetReceiver> m_receiver;
    std::shared_ptr<klNetSender> m_sender;
    std::uint32_t m_rank = 0;
    std::uint32_t m_multicastSequence = 0;
    std::uint32_t m_directedSequence = 0;
    std::uint64_t m_sentBytes = 0;
    std::uint64_t m_receivedBytes = 0;
    // Buffers of multi-buffer messages still incomplete, by (low 16 bits of source, message id).
    std::map<std::uint64_t, std::vector<std::shared_ptr<klNetBuffer>>> m_partialMessages;
    // The number of buffers in m_partialMessages, by the low 16 bits of source and in all.
    std::map<std::uint32_t, std::size_t> m_pendingBySource;
    std::size_t m_pending = 0;
    std::size_t m_maxPendingPerSource = kDefaultMaxPendingBuffersPerSource;
    std::size_t m_maxPending = kDefaultMaxPendingBuffers;
};
