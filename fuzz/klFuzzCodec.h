// The body of the decompression fuzz targets, the same for every codec of klNetBase::codecs.
//
// Input: a byte of settings, then
//   bit 0 clear, a buffer from a peer: its 24-byte header as it came (any compression method,
//     sizes and routing fields) and its payload bytes; payload bytes the header claims beyond the
//     input are zero;
//   bit 0 set, a round trip: a byte tuning the codec (level or acceleration), a 32-bit original
//     size (modulo one more than a buffer holds), a byte choosing a damage and a 32-bit value for
//     it, then bytes repeated to fill the original payload. The payload is compressed by the
//     codec's own compress(), damaged as chosen (none, a flipped byte, a shorter or longer
//     payload, another original size or method) and decompressed.
//
// decompress() must return the buffer itself for compression 0, otherwise refuse with exactly the
// error text the header calls for, or return a buffer with the header's routing fields, no
// compression and exactly the claimed original size. An undamaged round trip must give back the
// original bytes. Each buffer is decompressed twice into output buffers filled with different
// patterns: the two results must agree (every output byte written by the decoder, nothing read
// from stale memory), and the pattern after the claimed size must be intact (no write past it).
//
// The output buffer is the pool's: while the codec runs, the pool holds exactly one free buffer,
// prepared with the pattern, and the target checks that the codec got that one.
#pragma once

#include "klFuzzSupport.h"

#include <klNetBase/codecs/klNetCodecs.h>

#include <sstream>
#include <string>

namespace klfuzz {

// Every buffer of the pool held by one fuzz iteration, so that the pool's next free buffer is
// always one this class chose (the pool hands out the buffer released longest ago).
class HeldPool {
public:
    // Enough for the input, the compressed buffer and the two outputs.
    static constexpr int kSize = 4;

    HeldPool() { klNetBufferPool::popMany(kSize, m_held); }

    std::shared_ptr<klNetBuffer> take() {
        if (m_held.empty()) {
            std::fprintf(stderr, "fuzz harness: no held pool buffer left\n");
            std::abort();
        }
        std::shared_ptr<klNetBuffer> buffer = std::move(m_held.back());
        m_held.pop_back();
        return buffer;
    }

    // Makes one held buffer, its payload area filled with fill, the pool's only free buffer.
    void offer(std::uint8_t fill) {
        std::shared_ptr<klNetBuffer> buffer = take();
        std::memset(buffer->getData(), fill, klNetBuffer::getCapacity());
        m_offered = buffer.get();
    }

    // After a codec call that returned result: the offered buffer must be result, or still free.
    void settle(const std::shared_ptr<klNetBuffer>& result) {
        if (result.get() != m_offered) {
            std::shared_ptr<klNetBuffer> back = klNetBufferPool::pop();
            if (back.get() != m_offered) {
                std::fprintf(stderr,
                             "fuzz harness: the pool is out of step (a codec call took "
                             "more than one buffer)\n");
                std::abort();
            }
            m_held.push_back(std::move(back));
        }
        m_offered = nullptr;
    }

private:
    std::vector<std::shared_ptr<klNetBuffer>> m_held;
    const klNetBuffer* m_offered = nullptr;
};

[[noreturn]] inline void codecFinding(const std::string& what) {
    std::fprintf(stderr, "fuzz harness: %s\n", what.c_str());
    std::abort();
}

// The refusal a buffer must get, if any; the decode failure text when the header is acceptable.
inline std::string expectedRefusal(const klNetBlockCompressor& codec, const klNetBuffer& buffer) {
    std::ostringstream text;
    const std::string& name = codec.getName();
    const std::size_t capacity = klNetBuffer::getCapacity();
    if (buffer.getCompression() != codec.getMethod()) {
        text << name << " compressor cannot decode compression method "
             << int(buffer.getCompression());
    } else if (buffer.getOriginalDataSize() > capacity) {
        text << name << " payload claims " << buffer.getOriginalDataSize()
             << " original bytes, more than a buffer holds (" << capacity << ")";
    } else if (buffer.getDataSize() > capacity) {
        text << name << " payload of " << buffer.getDataSize()
             << " bytes is more than a buffer holds (" << capacity << ")";
    } else {
        text << "Corrupt " << name << " payload: " << buffer.getDataSize()
             << " bytes do not decode to " << buffer.getOriginalDataSize() << " bytes";
    }
    return text.str();
}

inline bool sameRouting(const klNetBuffer& a, const klNetBuffer& b) {
    return a.getSequence() == b.getSequence() && a.getType() == b.getType() &&
           a.getSource() == b.getSource() && a.getDestination() == b.getDestination() &&
           a.getMessageId() == b.getMessageId() &&
           a.getMessageBufferCount() == b.getMessageBufferCount() &&
           a.getSendMode() == b.getSendMode();
}

// Decompresses input into an output buffer filled with fill. Returns the output, or empty with
// the error text in refusal.
inline std::shared_ptr<klNetBuffer> decompressChecked(klNetBlockCompressor& codec, HeldPool& pool,
                                                      const std::shared_ptr<klNetBuffer>& input,
                                                      std::uint8_t fill, std::string& refusal) {
    pool.offer(fill);
    std::shared_ptr<klNetBuffer> output;
    try {
        output = codec.decompress(input);
    } catch (const klNetError& e) {
        pool.settle(nullptr);
        refusal = e.what();
        if (refusal != expectedRefusal(codec, *input)) {
            codecFinding("refused with \"" + refusal + "\", expected \"" +
                         expectedRefusal(codec, *input) + "\"");
        }
        return nullptr;
    }
    pool.settle(output);
    if (input->getCompression() == klNetCompressionNone) {
        if (output != input) {
            codecFinding("an uncompressed buffer was not returned as it is");
        }
        return output;
    }
    const std::size_t original = input->getOriginalDataSize();
    if (input->getCompression() != codec.getMethod() || original > klNetBuffer::getCapacity() ||
        input->getDataSize() > klNetBuffer::getCapacity()) {
        codecFinding("accepted a buffer it must refuse: " + expectedRefusal(codec, *input));
    }
    if (output->getDataSize() != original || output->getOriginalDataSize() != original ||
        output->getCompression() != klNetCompressionNone || !sameRouting(*input, *output)) {
        codecFinding("decompressed header differs from the compressed one's");
    }
    // Compared as a whole (every byte the same as the next) rather than byte by byte: the
    // instrumented loop took most of the target's time.
    const unsigned char* tail = output->getData() + original;
    const std::size_t tailSize = klNetBuffer::getCapacity() - original;
    if (tailSize > 0 && (tail[0] != fill || std::memcmp(tail, tail + 1, tailSize - 1) != 0)) {
        const std::size_t at = std::size_t(
            std::find_if(tail, tail + tailSize, [fill](unsigned char c) { return c != fill; }) -
            tail);
        codecFinding("decoder wrote past the original size " + std::to_string(original) +
                     " at offset " + std::to_string(original + at));
    }
    return output;
}

// Decompresses input twice; both must end alike. Returns the first output (empty if refused).
inline std::shared_ptr<klNetBuffer> decompressTwice(klNetBlockCompressor& codec, HeldPool& pool,
                                                    const std::shared_ptr<klNetBuffer>& input) {
    std::string firstRefusal;
    std::string secondRefusal;
    std::shared_ptr<klNetBuffer> first = decompressChecked(codec, pool, input, 0xA5, firstRefusal);
    const std::shared_ptr<klNetBuffer> second =
        decompressChecked(codec, pool, input, 0x5A, secondRefusal);
    if (bool(first) != bool(second) || firstRefusal != secondRefusal) {
        codecFinding("the same buffer decompressed twice ended differently");
    }
    // An uncompressed buffer comes back as it is, its size unchecked: nothing to compare.
    if (first && first != input &&
        std::memcmp(first->getData(), second->getData(), first->getDataSize()) != 0) {
        codecFinding("the same buffer decompressed twice gave different bytes");
    }
    return first;
}

inline void peerBuffer(klNetBlockCompressor& codec, HeldPool& pool, Input& input) {
    std::shared_ptr<klNetBuffer> buffer = pool.take();
    const std::vector<std::uint8_t> header = input.bytes(klNetBuffer::getHeaderSize());
    std::memset(buffer->getBuffer(), 0, klNetBuffer::getHeaderSize());
    std::copy(header.begin(), header.end(), buffer->getBuffer());
    const std::size_t claimed = std::min(buffer->getDataSize(), klNetBuffer::getCapacity());
    const std::vector<std::uint8_t> payload = input.bytes(claimed);
    std::copy(payload.begin(), payload.end(), buffer->getData());
    std::memset(buffer->getData() + payload.size(), 0, claimed - payload.size());
    decompressTwice(codec, pool, buffer);
}

// tune: sets the codec's speed/ratio setting from a byte of the input.
template <class Codec>
void roundTrip(Codec& codec, HeldPool& pool, Input& input, void (*tune)(Codec&, std::uint8_t)) {
    tune(codec, input.u8());
    const std::size_t size = input.u32() % (klNetBuffer::getCapacity() + 1);
    const std::uint8_t damage = input.u8() % 6;
    const std::uint32_t value = input.u32();
    const std::vector<std::uint8_t> seed = input.rest();

    // The seed repeated: copied once, then the filled part doubled.
    std::shared_ptr<klNetBuffer> original = pool.take();
    unsigned char* data = original->getData();
    std::size_t filled = std::min(seed.size(), size);
    std::copy(seed.begin(), seed.begin() + std::ptrdiff_t(filled), data);
    if (filled == 0) {
        std::memset(data, 0, size);
    } else {
        for (; filled < size; filled *= 2) {
            std::memcpy(data + filled, data, std::min(filled, size - filled));
        }
    }
    original->setDataSize(size);
    original->setCompression(klNetCompressionNone, size);
    original->setType(klNetMessageTypeMessage);
    original->setSequence(7);
    original->setSource(3);
    original->setDestination(2);
    original->setMessageId(9);
    original->setMessageBufferCount(1);

    pool.offer(0xC3);
    const std::shared_ptr<klNetBuffer> compressed = codec.compress(original);
    pool.settle(compressed);
    if (compressed == original) {
        return;  // below the threshold or not smaller: sent as it is
    }
    if (compressed->getCompression() != codec.getMethod() ||
        compressed->getOriginalDataSize() != size || compressed->getDataSize() >= size ||
        !sameRouting(*original, *compressed)) {
        codecFinding("compress() gave a header that does not describe its payload");
    }
    const std::size_t packed = compressed->getDataSize();
    switch (damage) {
        case 0:
            break;
        case 1:
            compressed->getData()[value % packed] ^= std::uint8_t((value >> 24) | 1);
            break;
        case 2:
            compressed->setDataSize(packed - 1 - value % packed);
            break;
        case 3:
            compressed->setDataSize(packed + 1 + value % 64);
            break;
        case 4:
            compressed->setCompression(
                codec.getMethod(), (value & 1) != 0 ? value >> 1 : size + (value >> 1) % 33 - 16);
            break;
        default:
            compressed->setCompression(klNetCompression(value & 0xFF), size);
            break;
    }
    const std::shared_ptr<klNetBuffer> restored = decompressTwice(codec, pool, compressed);
    if (damage == 0 && (!restored || restored->getDataSize() != size ||
                        std::memcmp(restored->getData(), original->getData(), size) != 0)) {
        codecFinding("an undamaged round trip did not give back the original bytes");
    }
}

template <class Codec>
int decompressOne(Codec& codec, const std::uint8_t* data, std::size_t size,
                  void (*tune)(Codec&, std::uint8_t)) {
    Input input(data, size);
    HeldPool pool;
    if ((input.u8() & 1) != 0) {
        roundTrip(codec, pool, input, tune);
    } else {
        peerBuffer(codec, pool, input);
    }
    return 0;
}

}  // namespace klfuzz
