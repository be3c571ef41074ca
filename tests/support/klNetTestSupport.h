// Helpers shared by the unit tests: hex literals, byte snapshots of buffers, exact-error checks.
#pragma once

#include <klNetBase/klNetBase.h>

#include <gtest/gtest.h>

#include <algorithm>
#include <cstring>
#include <memory>
#include <string>
#include <vector>

namespace kltest {

using Bytes = std::vector<unsigned char>;

// Bytes from hexadecimal pairs; blanks are ignored: hex("01 00 00 00 00").
inline Bytes hex(std::string text) {
    text.erase(std::remove(text.begin(), text.end(), ' '), text.end());
    Bytes bytes;
    for (std::size_t i = 0; i + 1 < text.size(); i += 2) {
        bytes.push_back(static_cast<unsigned char>(std::stoul(text.substr(i, 2), nullptr, 16)));
    }
    return bytes;
}

inline Bytes headerOf(const klNetBuffer& buffer) {
    return Bytes(buffer.getBuffer(), buffer.getBuffer() + klNetBuffer::getHeaderSize());
}

inline Bytes payloadOf(const klNetBuffer& buffer) {
    return Bytes(buffer.getData(), buffer.getData() + buffer.getDataSize());
}

inline Bytes concatPayloads(const std::vector<std::shared_ptr<klNetBuffer>>& buffers) {
    Bytes all;
    for (const auto& buffer : buffers) {
        all.insert(all.end(), buffer->getData(), buffer->getData() + buffer->getDataSize());
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

// Leaves the free buffers of the process-wide pool (all of them, while it has no more than count
// free) with a nonsense header and payload, so that a writer that forgets to reset a field is
// caught.
inline void dirtyFreeBuffers(int count = 64) {
    std::vector<std::shared_ptr<klNetBuffer>> held;
    klNetBufferPool::popMany(count, held);
    for (const auto& buffer : held) {
        std::memset(buffer->getBuffer(), 0xA5, klNetBuffer::getHeaderSize() + 256);
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
