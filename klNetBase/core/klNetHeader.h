// The 24-byte header that precedes every buffer's payload on the wire.
//
//   offset  0        4                8     10   11   12       16            20     22     24
//           +--------+----------------+-----+----+----+--------+-------------+------+------+
//           |dataSize|originalDataSize| seq |type|comp| source | destination | msgId|msgCnt|
//           +--------+----------------+-----+----+----+--------+-------------+------+------+
//              u32          u32         u16   u8   u8    u32        u32        u16    u16
//
// Every field is little-endian exactly as held in memory: the library never swaps byte order, so a
// header is sent and received as one block of bytes. Bytes 8..11 may be read as one 32-bit word
// (sequence in bits 0..15, type in 16..23, compression in 24..31).
#pragma once

#include <cstddef>
#include <cstdint>

static_assert(__BYTE_ORDER__ == __ORDER_LITTLE_ENDIAN__,
              "the wire format is the little-endian memory image of its fields");

struct klNetHeader {
    std::uint32_t dataSize;            // valid payload bytes (after compression, if any)
    std::uint32_t originalDataSize;    // payload bytes before compression
    std::uint16_t sequence;            // per-stream sequence number
    std::uint8_t type;                 // klNetMessageType
    std::uint8_t compression;          // klNetCompression; 0 = not compressed
    std::uint32_t source;              // rank of the sending stream
    std::uint32_t destination;         // rank of the receiver; 0 = every peer
    std::uint16_t messageId;           // id of the message the buffer belongs to
    std::uint16_t messageBufferCount;  // number of buffers of that message
};

static_assert(sizeof(klNetHeader) == 24, "the wire header is 24 bytes");
static_assert(offsetof(klNetHeader, originalDataSize) == 4);
static_assert(offsetof(klNetHeader, sequence) == 8);
static_assert(offsetof(klNetHeader, type) == 10);
static_assert(offsetof(klNetHeader, compression) == 11);
static_assert(offsetof(klNetHeader, source) == 12);
static_assert(offsetof(klNetHeader, destination) == 16);
static_assert(offsetof(klNetHeader, messageId) == 20);
static_assert(offsetof(klNetHeader, messageBufferCount) == 22);
