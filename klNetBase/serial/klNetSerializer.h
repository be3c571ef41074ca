// klNetSerializer: typed writing and reading over a chain of klNetBuffers.
//
// Writing appends bytes to the current send buffer, taken lazily from klNetBufferPool. When a
// write finds the buffer full, the buffer is stamped (dataSize, originalDataSize = dataSize, no
// compression, source 0, sequence 0) and handed to the subclass through sendBuffer(), and writing
// goes on in a fresh buffer. Reading takes bytes from the current receive buffer and asks the
// subclass for the next one through recvBuffer() when it is exhausted. A value may straddle any
// number of buffers; the reader sees one continuous byte sequence.
//
// Encodings: every integer and floating-point value is its little-endian memory image; sizes are
// 8-byte unsigned; bool is one byte (1 or 0, any non-zero byte reads as true); a string is a u32
// length that counts the terminating zero, then the bytes and the zero; a vector is its element
// count as a size, then its elements.
//
// Fixed-width values take a fast path when the current buffer has room strictly beyond the value;
// otherwise they go through putBytes()/getBytes(). Both paths produce the same bytes.
//
// Thread safety: none; a serializer is used by one thread at a time. The pool is thread-safe.
#pragma once

#include <klNetBase/core/klNetBuffer.h>
#include <klNetBase/core/klNetTypes.h>
#include <klNetBase/klNetBaseExport.h>

#include <cstddef>
#include <cstdint>
#include <cstring>
#include <memory>
#include <string>
#include <type_traits>
#include <vector>

class KLNETBASE_EXPORT klNetSerializer {
public:
    // sendThreshold: payload bytes per send buffer, between 1 and 131602; 0 means a single buffer
    // of full capacity, beyond which writing fails with "Send buffer size exceeded".
    explicit klNetSerializer(int sendThreshold);

    // Copies share both buffers (not their bytes) and copy positions, threshold and flag. Moves
    // take the buffers over and leave the source with none.
    klNetSerializer(const klNetSerializer&) = default;
    klNetSerializer& operator=(const klNetSerializer&) = default;
    klNetSerializer(klNetSerializer&& other) noexcept;
    klNetSerializer& operator=(klNetSerializer&& other) noexcept;

    // Installs a buffer for reading from its first payload byte to its dataSize. An empty pointer
    // only drops the current buffer and leaves the read positions as they are.
    virtual void setRecvBuffer(const std::shared_ptr<klNetBuffer>& buffer);
    // The type stamped on fresh send buffers.
    virtual klNetMessageType getMessageType() { return klNetMessageTypeStream; }

    void putBytes(const void* source, std::size_t n);
    void getBytes(void* target, std::size_t n);

    void putValueSize(const std::size_t& size) { putValue(std::uint64_t(size)); }
    void getValueSize(std::size_t& size) {
        std::uint64_t value;
        getValue(value);
        size = std::size_t(value);
    }
    std::size_t getValueSize() {
        std::size_t size;
        getValueSize(size);
        return size;
    }

    // Fixed-width values: integers, floating point, enumerations and bool.
    template <class T>
    std::enable_if_t<std::is_arithmetic_v<T> || std::is_enum_v<T>> putValue(const T& value);
    template <class T>
    std::enable_if_t<std::is_arithmetic_v<T> || std::is_enum_v<T>> getValue(T& value);

    // Strings. putValue(const char*) writes up to the first zero byte; a std::string is written
    // whole, embedded zero bytes included.
    void putValue(const char* text);
    void putValue(const std::string& text);
    // A length of 0 reads as the empty string; otherwise the last byte (the terminator) is dropped.
    void getValue(std::string& text);

    template <class T>
    void putValue(const std::vector<T>& values);
    template <class T>
    void getValue(std::vector<T>& values);

    // Returns n writable bytes in the current send buffer and moves past them. Never flushes:
    // fails with "Unable to get <n> bytes in buffer. Max accessible bytes <room>" when the buffer
    // has less room.
    unsigned char* getOutputReference(std::size_t n);
    // Returns n readable bytes of the current receive buffer and moves past them. At the end of a
    // buffer the next one is fetched, but the request still fails (the check uses the count taken
    // before the fetch, and the error names the new buffer's count). n = 0 always succeeds.
    const unsigned char* getInputReference(std::size_t n);

    // Takes effect at the next fresh send buffer.
    void setSendThreshold(int threshold) { m_sendThreshold = threshold; }

    // Detaches the partly filled send buffer with dataSize and originalDataSize set; source and
    // sequence are left as they are. Empty when there is none.
    std::shared_ptr<klNetBuffer> takeSendBuffer();
    // Drops the current send buffer unsent.
    void clearSendBuffer();
    // Drops the current receive buffer; the read positions stay as they were.
    void clearRecvBuffer() { m_recvBuffer.reset(); }

    // Header fields of the current receive buffer; 0 when there is none.
    std::size_t getSource() const { return m_recvBuffer ? m_recvBuffer->getSource() : 0; }
    klNetMessageType getType() const {
        return m_recvBuffer ? m_recvBuffer->getType() : klNetMessageTypeStream;
    }
    std::size_t getDataSize() const { return m_recvBuffer ? m_recvBuffer->getDataSize() : 0; }
    std::size_t getOriginalDataSize() const { return getDataSize(); }

    // Applies a manipulator such as klNetStream::flush.
    klNetSerializer& operator<<(klNetSerializer& (*manipulator)(klNetSerializer&)) {
        return manipulator(*this);
    }

protected:
    // Not virtual: serializers are not deleted through this base.
    ~klNetSerializer();

    // Must deliver the next buffer to read, or throw; leaving the pointer empty makes the reader
    // ask again.
    virtual void recvBuffer(std::shared_ptr<klNetBuffer>& buffer) = 0;
    // Takes over a filled, stamped buffer.
    virtual void sendBuffer(const std::shared_ptr<klNetBuffer>& buffer) = 0;
    // True while unread bytes remain in the current receive buffer.
    virtual bool isReadable() { return m_readPosition < m_readEnd; }

    // Stamps the current send buffer and hands it to sendBuffer(); nothing when there is none.
    // The buffer is released after the call, so when sendBuffer() throws it stays current with
    // its bytes and a later flush sends it.
    void flushSendBuffer();
    // Bytes written into the current send buffer and not yet handed on, and the room left in it;
    // both 0 without a send buffer.
    std::size_t getUnsentSize() const {
        return m_sendBuffer ? std::size_t(m_writePosition - m_sendBuffer->getData()) : 0;
    }
    std::size_t getSendRoom() const { return m_sendBuffer ? writeRoom() : 0; }
    std::int64_t getSendThreshold() const { return m_sendThreshold; }
    // Unread bytes of the current receive buffer.
    std::size_t getReadable() const { return readable(); }
    // Drops the current receive buffer together with its unread bytes.
    void discardRecvBuffer() {
        m_recvBuffer.reset();
        m_readPosition = m_readEnd;
    }

private:
    void setEmptySendBuffer();
    void installRecvBuffer(const std::shared_ptr<klNetBuffer>& buffer);
    void fetchRecvBuffer();
    void resetRecvPosition();
    std::size_t writeRoom() const { return std::size_t(m_writeEnd - m_writePosition); }
    std::size_t readable() const { return std::size_t(m_readEnd - m_readPosition); }

    std::shared_ptr<klNetBuffer> m_recvBuffer;
    std::shared_ptr<klNetBuffer> m_sendBuffer;
    const unsigned char* m_readPosition = nullptr;
    const unsigned char* m_readEnd = nullptr;
    unsigned char* m_writePosition = nullptr;
    unsigned char* m_writeEnd = nullptr;
    std::int64_t m_sendThreshold;
    // Set by getInputReference; cleared when a receive buffer is installed or the send buffer is
    // taken or cleared.
    bool m_inputReference = false;
};

template <class T>
std::enable_if_t<std::is_arithmetic_v<T> || std::is_enum_v<T>> klNetSerializer::putValue(
    const T& value) {
    if constexpr (std::is_same_v<T, bool>) {
        putValue(std::uint8_t(value ? 1 : 0));
    } else if (writeRoom() > sizeof(T)) {
        std::memcpy(m_writePosition, &value, sizeof(T));
        m_writePosition += sizeof(T);
    } else {
        putBytes(&value, sizeof(T));
    }
}

template <class T>
std::enable_if_t<std::is_arithmetic_v<T> || std::is_enum_v<T>> klNetSerializer::getValue(T& value) {
    if constexpr (std::is_same_v<T, bool>) {
        std::uint8_t byte;
        getValue(byte);
        value = byte != 0;
    } else if (readable() > sizeof(T)) {
        std::memcpy(&value, m_readPosition, sizeof(T));
        m_readPosition += sizeof(T);
    } else {
        getBytes(&value, sizeof(T));
    }
}

template <class T>
void klNetSerializer::putValue(const std::vector<T>& values) {
    putValueSize(values.size());
    if constexpr (std::is_arithmetic_v<T> && !std::is_same_v<T, bool>) {
        putBytes(values.data(), values.size() * sizeof(T));
    } else {
        for (const T& value : values) {
            putValue(value);
        }
    }
}

template <class T>
void klNetSerializer::getValue(std::vector<T>& values) {
    const std::size_t count = getValueSize();
    values.clear();
    // The count comes from the peer: grow with the data actually read instead of trusting it for
    // one allocation up front.
    constexpr std::size_t kStep = 65536;
    if constexpr (std::is_arithmetic_v<T> && !std::is_same_v<T, bool>) {
        for (std::size_t done = 0; done < count;) {
            const std::size_t step = count - done < kStep ? count - done : kStep;
            values.resize(done + step);
            getBytes(values.data() + done, step * sizeof(T));
            done += step;
        }
    } else {
        for (std::size_t i = 0; i < count; ++i) {
            T value{};
            getValue(value);
            values.push_back(std::move(value));
        }
    }
}

template <class T>
klNetSerializer& operator<<(klNetSerializer& s, const T& value) {
    s.putValue(value);
    return s;
}

template <class T>
klNetSerializer& operator>>(klNetSerializer& s, T& value) {
    s.getValue(value);
    return s;
}
