// Helpers shared by the unit tests: raw little-endian reads, payload snapshots, exact-error checks.
#pragma once

#include <klNetBase/klNetBase.h>

#include <gtest/gtest.h>

#include <algorithm>
#include <cstddef>
#include <cstdint>
#include <cstring>
#include <memory>
#include <string>
#include <vector>

namespace kltest {

// The little-endian unsigned value of width bytes at p + offset, assembled byte by byte so that
// the check does not depend on how the library lays out its fields.
inline std::uint64_t readLE(const unsigned char* p, std::size_t offset, std::size_t width) {
    std::uint64_t value = 0;
    for (std::size_t i = width; i-- > 0;) {
        value = (value << 8) | p[offset + i];
    }
    return value;
}

using Bytes = std::vector<unsigned char>;

// Bytes from hexadecimal pairs; blanks are ignored: hex("01 00 00 00 00").
inline Bytes hex(const std::string& text) {
    Bytes bytes;
    std::string digits;
    for (char c : text) {
        if (c != ' ') {
            digits += c;
        }
    }
    for (std::size_t i = 0; i + 1 < digits.size(); i += 2) {
        bytes.push_back(static_cast<unsigned char>(std::stoul(digits.substr(i, 2), nullptr, 16)));
    }
    return bytes;
}

inline Bytes payloadOf(const klNetBuffer& buffer) {
    return Bytes(buffer.getData(), buffer.getData() + buffer.getDataSize());
}

inline Bytes concatPayloads(const std::vector<std::shared_ptr<klNetBuffer>>& buffers) {
    Bytes all;
    for (const auto& buffer : buffers) {
        const Bytes part = payloadOf(*buffer);
        all.insert(all.end(), part.begin(), part.end());
    }
    return all;
}

// A pool buffer holding exactly payload.
inline std::shared_ptr<klNetBuffer> bufferWith(const Bytes& payload) {
    auto buffer = klNetBufferPool::pop();
    std::copy(payload.begin(), payload.end(), buffer->getData());
    buffer->setDataSize(payload.size());
    return buffer;
}

// n bytes that differ from their neighbours, with a period that is no power of two.
inline Bytes pattern(std::size_t n) {
    Bytes bytes(n);
    for (std::size_t i = 0; i < n; ++i) {
        bytes[i] = static_cast<unsigned char>(i * 7 + i / 251);
    }
    return bytes;
}

// Leaves every free buffer of the process-wide pool with a nonsense header and payload, so that a
// writer that forgets to reset a field is caught. Holding count buffers at once reaches every free
// one as long as the pool has no more than count free, which holds for these small test programs.
inline void dirtyFreeBuffers(int count = 64) {
    std::vector<std::shared_ptr<klNetBuffer>> held;
    klNetBufferPool::popMany(count, held);
    for (const auto& buffer : held) {
        std::memset(buffer->getData(), 0xA5, 256);
        buffer->setDataSize(0xBEEF);
        buffer->setCompression(klNetCompression(7), 0xCAFE);
        buffer->setSequence(0x1234);
        buffer->setType(klNetMessageTypeBundle);
        buffer->setSource(0xDEAD);
        buffer->setDestination(9);
        buffer->setMessageId(0x4321);
        buffer->setMessageBufferCount(77);
        buffer->setSendMode(klNetSendModeSecondStage);
    }
}

}  // namespace kltest

// Expects statement to throw ExceptionType (or a subclass) whose what() is exactly text.
#define KL_EXPECT_THROW_TEXT(statement, ExceptionType, text)                       \
    do {                                                                           \
        try {                                                                      \
            statement;                                                             \
            ADD_FAILURE() << "no exception from: " #statement;                     \
        } catch (const ExceptionType& kl_error_) {                                 \
            EXPECT_EQ(std::string(text), kl_error_.what()) << "from: " #statement; \
        }                                                                          \
    } while (0)
