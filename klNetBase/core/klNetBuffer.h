// klNetBuffer: the unit every stage of the library moves.
//
// One flat block: a local send mode, the 24-byte wire header and a payload area of 131602 bytes.
// Header and payload are contiguous, so the first getBufferSize() bytes from getBuffer() are
// exactly what travels on a connection, and a whole buffer copies with one block copy.
//
//   +----------+---------+------------------+------------------------------------------------+
//   | sendMode | padding | klNetHeader (24) | payload (131602 bytes, 64-byte aligned)        |
//   +----------+---------+------------------+------------------------------------------------+
//                        ^ getBuffer()       ^ getData()
//
// Buffers are always held as std::shared_ptr<klNetBuffer> obtained from klNetBufferPool, whose
// deleter returns them to the pool; the record itself owns nothing. Getters widen sizes to
// std::size_t, setters truncate to the field width.
//
// Thread safety: none. A buffer belongs to one stage at a time; stages hand it on through queues
// and never touch a buffer they have passed on.
#pragma once

#include <klNetBase/core/klNetHeader.h>
#include <klNetBase/core/klNetTypes.h>
#include <klNetBase/klNetBaseExport.h>

#include <cstddef>
#include <cstdint>
#include <memory>
#include <queue>

class KLNETBASE_EXPORT klNetBuffer {
public:
    static constexpr std::size_t kHeaderSize = sizeof(klNetHeader);
    static constexpr std::size_t kCapacity = 131602;

    // Send mode and every header field 0; the payload is left as it is (the pool zeroes new
    // buffers once, recycled buffers keep their old bytes).
    klNetBuffer();

    // Copying copies the whole record: send mode, header and every payload byte, whatever
    // dataSize says. Moving is the same copy.
    klNetBuffer(const klNetBuffer&) = default;
    klNetBuffer& operator=(const klNetBuffer&) = default;
    klNetBuffer& operator=(klNetBuffer&&) = default;

    klNetHeader* getHeader() { return &m_header; }
    const klNetHeader* getHeader() const { return &m_header; }
    // Start of the bytes that travel: the header, followed by dataSize payload bytes.
    unsigned char* getBuffer() { return reinterpret_cast<unsigned char*>(&m_header); }
    const unsigned char* getBuffer() const {
        return reinterpret_cast<const unsigned char*>(&m_header);
    }
    unsigned char* getData() { return m_data; }
    const unsigned char* getData() const { return m_data; }

    static constexpr std::size_t getHeaderSize() { return kHeaderSize; }
    static constexpr std::size_t getCapacity() { return kCapacity; }
    // dataSize + 24: the number of bytes that travel for this buffer.
    std::size_t getBufferSize() const { return std::size_t(m_header.dataSize) + kHeaderSize; }

    std::size_t getDataSize() const { return m_header.dataSize; }
    void setDataSize(std::size_t size) { m_header.dataSize = std::uint32_t(size); }
    std::size_t getOriginalDataSize() const { return m_header.originalDataSize; }
    // The payload's size as it travels: dataSize when compressed, otherwise originalDataSize.
    std::size_t getCompressedDataSize() const {
        return m_header.compression != 0 ? m_header.dataSize : m_header.originalDataSize;
    }
    klNetCompression getCompression() const { return klNetCompression(m_header.compression); }
    // Sets the compression byte and originalDataSize together; dataSize is left as it is.
    void setCompression(klNetCompression compression, std::size_t originalSize) {
        m_header.compression = std::uint8_t(compression);
        m_header.originalDataSize = std::uint32_t(originalSize);
    }

    std::size_t getSequence() const { return m_header.sequence; }
    void setSequence(std::size_t sequence) { m_header.sequence = std::uint16_t(sequence); }
    klNetMessageType getType() const { return klNetMessageType(m_header.type); }
    void setType(klNetMessageType type) { m_header.type = std::uint8_t(type); }
    std::size_t getSource() const { return m_header.source; }
    void setSource(std::size_t source) { m_header.source = std::uint32_t(source); }
    std::size_t getDestination() const { return m_header.destination; }
    void setDestination(std::size_t destination) {
        m_header.destination = std::uint32_t(destination);
    }
    std::size_t getMessageId() const { return m_header.messageId; }
    void setMessageId(std::size_t id) { m_header.messageId = std::uint16_t(id); }
    std::size_t getMessageBufferCount() const { return m_header.messageBufferCount; }
    void setMessageBufferCount(std::size_t count) {
        m_header.messageBufferCount = std::uint16_t(count);
    }

    klNetBufferSendMode getSendMode() const { return m_sendMode; }
    void setSendMode(klNetBufferSendMode mode) { m_sendMode = mode; }

    // True when the buffer goes to every peer (destination 0).
    bool isMulticast() const { return m_header.destination == 0; }

    // Copies all 24 header bytes of other; send mode and payload stay as they are.
    void copyHeaderFrom(const klNetBuffer& other) { m_header = other.m_header; }

    // Bundling. A bundle (type 3) carries other buffers as a run of records, with no count, padding
    // or terminator:
    //
    //   +-------------------+------------------+-------------------+------------------+--
    //   | header 1 (24)     | payload 1        | header 2 (24)     | payload 2        | ...
    //   +-------------------+------------------+-------------------+------------------+--
    //
    // Its own header is a copy of the first packed buffer's with type 3, dataSize = length of the
    // records, and originalDataSize, sequence and compression 0. A bundle packed into another is
    // copied flat (its records, not its header).

    // Takes a consecutive run of buffers for one destination off the front of the queue and sets
    // out to a bundle of them, or to the front buffer alone when nothing can join it. Buffers of
    // size 0 are never packed. False, with out unchanged, when the queue is empty.
    static bool tryBundle(std::queue<std::shared_ptr<klNetBuffer>>& queue,
                          std::shared_ptr<klNetBuffer>& out);
    // The same rule one buffer at a time, for a stage that packs buffers as they come: run is a
    // run's first buffer while packed is false, and the bundle made of the run once packed is true.
    // Packs next into the run (making the bundle from a pool buffer on the first join) exactly as
    // tryBundle would have when next followed the run's buffers in its queue, and returns true;
    // false, with nothing changed, when next does not join (it then starts a run of its own).
    static bool tryAddToRun(std::shared_ptr<klNetBuffer>& run, bool& packed,
                            const std::shared_ptr<klNetBuffer>& next);
    // Pushes one buffer per record of this bundle onto out, in record order. Bundles arrive from
    // the network, so records are read within this buffer's payload area only: a record that runs
    // past the area is cut short at its edge (its dataSize then says what was copied), and a header
    // that does not fit is dropped.
    void split(std::queue<std::shared_ptr<klNetBuffer>>& out) const;
    // One record at a time, for readers that hand parts out as they are asked for them (so that
    // a bundle of thousands of empty records never costs thousands of buffers at once), read
    // within the payload area exactly as split() reads them. True when a record starts at
    // position (0 for the first).
    bool hasRecordAt(std::size_t position) const;
    // Copies the record at position into part's header and payload (cut at the area's edge, as
    // split() does) and returns the position of the next record. part's send mode is left as it
    // is. REQUIRES: hasRecordAt(position).
    std::size_t copyRecordTo(std::size_t position, klNetBuffer& part) const;
    // Sequence order as plain unsigned 16-bit numbers, without wrap-around: 65535 sorts after 0.
    bool isSequenceLess(const std::shared_ptr<klNetBuffer>& other) const {
        return m_header.sequence < other->m_header.sequence;
    }

private:
    // Appends buffer to this bundle. REQUIRES: the caller has checked the room.
    void addToBundle(const std::shared_ptr<klNetBuffer>& buffer);

    alignas(64) klNetBufferSendMode m_sendMode;
    // Places the header so that the payload starts on a cache line: block copies of payloads
    // then run on aligned addresses at both ends.
    [[maybe_unused]] unsigned char m_padding[64 - sizeof(klNetBufferSendMode) - kHeaderSize];
    klNetHeader m_header;
    unsigned char m_data[kCapacity];
};
