#include <support/klNetAllocationProbe.h>
#include <support/klNetTestSupport.h>

#include <tuple>
#include <type_traits>

using namespace kltest;

namespace {

const char* const kBeyondEnd = "klNetMessage: try to read beyond buffer end.";

// Records what it is handed and serves next, once, when asked for a buffer to read.
class ScriptedSerializer : public klNetSerializer {
public:
    using klNetSerializer::discardRecvBuffer;
    using klNetSerializer::flushSendBuffer;
    using klNetSerializer::isReadable;
    using klNetSerializer::klNetSerializer;

    Buffers sent;
    Buffer next;

protected:
    void recvBuffer(std::shared_ptr<klNetBuffer>& buffer) override {
        if (!next) {
            throw klNetError(std::string("nothing more to read"));
        }
        buffer = std::move(next);
    }
    void sendBuffer(const std::shared_ptr<klNetBuffer>& buffer) override { sent.push_back(buffer); }
};

}  // namespace

TEST(klNetSerializer, ValuesTravelAsLittleEndianImagesInBuffersStampedAtTheThreshold) {
    dirtyFreeBuffers();
    ScriptedSerializer s(32);
    s.putBytes(nullptr, 0);
    s.flushSendBuffer();
    EXPECT_FALSE(s.takeSendBuffer());  // writing nothing takes no buffer
    EXPECT_TRUE(s.sent.empty());
    s.putValue("");
    s.putValue(std::string("a\0b", 3));
    s << std::int32_t(-2) << std::uint16_t(0x0102) << true << false << 1.0
      << klNetMessageTypeBundle;
    s.setSendThreshold(8);  // from the next fresh buffer on
    s.putValueSize(0x0102030405060708);
    s << std::vector<std::int32_t>{1, -1} << std::vector<bool>{true, false}
      << std::vector<std::string>{"x"};
    s.flushSendBuffer();
    EXPECT_EQ(hex("01000000 00  04000000 61006200  FEFFFFFF 0201 01 00  000000000000F03F 03000000"
                  "0807060504030201  0200000000000000 01000000 FFFFFFFF  0200000000000000 01 00"
                  "0100000000000000 02000000 7800"),
              concatPayloads(s.sent));
    std::vector<std::size_t> sizes;
    for (const auto& buffer : s.sent) {
        sizes.push_back(buffer->getOriginalDataSize());
        EXPECT_EQ(buffer->getDataSize(), buffer->getOriginalDataSize());
        // Sequence, type stream, no compression, source and destination: all zero.
        EXPECT_EQ(Bytes(12, 0), Bytes(buffer->getBuffer() + 8, buffer->getBuffer() + 20));
        EXPECT_EQ(klNetSendModeDefault, buffer->getSendMode());
    }
    EXPECT_EQ((std::vector<std::size_t>{32, 32, 8, 8, 1}), sizes);
}

TEST(klNetSerializer, ThresholdZeroAllowsExactlyOneFullBufferAndKeepsWhatFitted) {
    const Bytes data = pattern(klNetBuffer::getCapacity());
    ScriptedSerializer s(0);
    s.putBytes(data.data(), data.size() - 2);
    KL_EXPECT_THROW_TEXT(s.putValue(std::uint32_t(0xAABBCCDD)), klNetError,
                         "Send buffer size exceeded");
    EXPECT_TRUE(s.sent.empty());
    const auto buffer = s.takeSendBuffer();
    ASSERT_TRUE(buffer);
    EXPECT_EQ(klNetBuffer::getCapacity(), buffer->getDataSize());
    EXPECT_EQ(0xCC, buffer->getData()[klNetBuffer::getCapacity() - 1]);
}

TEST(klNetSerializer, ReferencesNeverCrossABufferBoundary) {
    ScriptedSerializer out(10);
    unsigned char* first = out.getOutputReference(7);
    std::memset(first, 0x71, 7);
    KL_EXPECT_THROW_TEXT(out.getOutputReference(5), klNetError,
                         "Unable to get 5 bytes in buffer. Max accessible bytes 3");
    EXPECT_TRUE(out.sent.empty());  // never flushes to make room
    std::memset(out.getOutputReference(3), 0x72, 3);
    EXPECT_EQ(first + 10, out.getOutputReference(0));
    EXPECT_EQ(hex("71717171717171 727272"), payloadOf(*out.takeSendBuffer()));

    ScriptedSerializer in(0);
    const auto head = bufferWith({1, 2, 3, 4});
    const auto tail = bufferWith({5, 6, 7, 8, 9, 10});
    in.setRecvBuffer(head);
    in.next = tail;
    KL_EXPECT_THROW_TEXT(in.getInputReference(5), klNetError,
                         "Unable to get 5 bytes in buffer. Max accessible bytes 4");
    EXPECT_EQ(head->getData(), in.getInputReference(4));
    EXPECT_EQ(head->getData() + 4, in.getInputReference(0));  // the end, without a fetch
    // Exactly at the boundary: the next buffer is fetched, yet the request fails.
    KL_EXPECT_THROW_TEXT(in.getInputReference(2), klNetError,
                         "Unable to get 2 bytes in buffer. Max accessible bytes 6");
    EXPECT_EQ(tail->getData(), in.getInputReference(2));
    std::uint32_t value = 0;
    in.getValue(value);
    EXPECT_EQ(0x0A090807u, value);
    EXPECT_EQ(1, tail.use_count());  // let go of as soon as it is read to its end
    KL_EXPECT_THROW_TEXT(in.getValue(value), klNetError, "nothing more to read");
}

TEST(klNetSerializer, ReadsAnyNonZeroByteAsTrueAndDropsItsBufferApartFromThePositions) {
    ScriptedSerializer s(0);
    auto buffer = bufferWith(hex("02 00000000 03000000 686900 00"));
    buffer->setSource(12);
    buffer->setType(klNetMessageTypeImage);
    s.setRecvBuffer(buffer);
    EXPECT_EQ(12u, s.getSource());
    EXPECT_EQ(klNetMessageTypeImage, s.getType());
    bool flag = false;
    std::string empty = "old", text;
    s >> flag >> empty >> text;  // a zero length is the empty string
    EXPECT_TRUE(flag);
    EXPECT_EQ("", empty);
    EXPECT_EQ("hi", text);
    s.clearRecvBuffer();
    EXPECT_EQ(0u, s.getSource() + s.getDataSize());
    EXPECT_TRUE(s.isReadable());  // the positions stay where they were, before the last byte
    s.setRecvBuffer(buffer);
    s.setRecvBuffer(nullptr);
    EXPECT_TRUE(s.isReadable());
    s.discardRecvBuffer();
    EXPECT_FALSE(s.isReadable());
}

// Every kind of value written across buffers of small thresholds, starting at every offset, must
// give the bytes of one write into a single buffer and read back through a message.
TEST(klNetSerializer, ValuesCrossBufferBoundariesAtEveryOffset) {
    const auto values =
        std::make_tuple(std::int8_t(-5), std::uint16_t(0xA1B2), std::int32_t(-0x12345678),
                        std::uint32_t(0xC1D2E3F4), std::int64_t(-0x0102030405060708),
                        std::uint64_t(0xF1E2D3C4B5A69788), 1.5f, -2.25e10, true,
                        klNetMessageTypeImage, std::string("straddle"), std::string("a\0b\0", 4),
                        std::vector<std::int32_t>{1, -2, 3}, std::vector<double>{0.5, -7.0},
                        std::vector<std::string>{"", "xy"}, std::vector<bool>{true, false, true});
    const Bytes padding = pattern(64);
    const auto write = [&](klNetMessage& message, int pad) {
        message.putBytes(padding.data(), std::size_t(pad));
        std::apply([&](const auto&... value) { (message << ... << value); }, values);
        return message.takeSendBuffers();
    };
    for (const int threshold : {1, 7, 13, 64}) {
        for (int pad = 0; pad < threshold; ++pad) {
            SCOPED_TRACE(testing::Message() << "threshold " << threshold << ", pad " << pad);
            klNetMessage whole(0), split(threshold);
            const auto buffers = write(split, pad);
            ASSERT_EQ(concatPayloads(write(whole, pad)), concatPayloads(buffers));
            for (std::size_t i = 0; i + 1 < buffers.size(); ++i) {
                EXPECT_EQ(std::size_t(threshold), buffers[i]->getDataSize());
            }
            klNetMessage reader;
            reader.setRecvBuffers(buffers);
            Bytes pads(static_cast<std::size_t>(pad));
            reader.getBytes(pads.data(), pads.size());
            std::decay_t<decltype(values)> read{};
            std::apply([&](auto&... value) { (reader >> ... >> value); }, read);
            ASSERT_EQ(values, read);
        }
    }
}

// (Long values that cross the reader's growth steps travel through the cluster test.)
TEST(klNetSerializer, HostileLengthsFromThePeerFailAtTheEndWithoutAHugeAllocation) {
    resetLargestAllocation();
    const Bytes huge = {0xFF, 0xFF, 0xFF, 0xFF, 0xFF, 0xFF, 0xFF, 0xFF, 1, 2, 3};
    const auto fails = [](const Bytes& wire, auto value) {
        klNetMessage message;
        message.setRecvBuffer(bufferWith(wire));
        KL_EXPECT_THROW_TEXT(message.getValue(value), klNetError, kBeyondEnd);
    };
    fails(huge, std::string());
    fails({0x10, 0, 0, 0, 'a'}, std::string());
    fails(huge, std::vector<std::int32_t>());
    fails(huge, std::vector<double>());
    fails(huge, std::vector<std::string>());
    fails(huge, std::vector<bool>());
    EXPECT_LT(largestAllocation(), std::size_t(1) << 20);
}
