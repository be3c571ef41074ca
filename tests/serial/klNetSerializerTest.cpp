#include <support/klNetAllocationProbe.h>
#include <support/klNetTestSupport.h>

#include <klNetBase/serial/klNetMessage.h>
#include <klNetBase/serial/klNetSerializer.h>

#include <gtest/gtest.h>

#include <algorithm>
#include <cstring>
#include <deque>
#include <memory>
#include <string>
#include <tuple>
#include <type_traits>
#include <vector>

using kltest::Bytes;
using kltest::readLE;

namespace {

const char* const kBeyondEnd = "klNetMessage: try to read beyond buffer end.";

// Records what it is handed and serves reads from a scripted list of buffers.
class ScriptedSerializer : public klNetSerializer {
public:
    explicit ScriptedSerializer(int sendThreshold) : klNetSerializer(sendThreshold) {}

    using klNetSerializer::discardRecvBuffer;
    using klNetSerializer::flushSendBuffer;
    using klNetSerializer::isReadable;

    std::vector<std::shared_ptr<klNetBuffer>> sent;
    std::deque<std::shared_ptr<klNetBuffer>> script;
    int fetches = 0;

protected:
    void recvBuffer(std::shared_ptr<klNetBuffer>& buffer) override {
        ++fetches;
        if (script.empty()) {
            throw klNetError(std::string("script exhausted"));
        }
        buffer = script.front();
        script.pop_front();
    }
    void sendBuffer(const std::shared_ptr<klNetBuffer>& buffer) override { sent.push_back(buffer); }
};

// The header a serializer stamps on a buffer it hands over, read from the raw wire bytes.
void expectHandedOver(const klNetBuffer& buffer, std::size_t size, klNetMessageType type) {
    const unsigned char* wire = buffer.getBuffer();
    EXPECT_EQ(size, readLE(wire, 0, 4)) << "dataSize";
    EXPECT_EQ(size, readLE(wire, 4, 4)) << "originalDataSize";
    EXPECT_EQ(std::uint64_t(type), readLE(wire, 10, 1)) << "type";
    EXPECT_EQ(0u, readLE(wire, 11, 1)) << "compression";
    EXPECT_EQ(0u, readLE(wire, 16, 4)) << "destination";
    EXPECT_EQ(klNetSendModeDefault, buffer.getSendMode());
}

void expectFlushed(const klNetBuffer& buffer, std::size_t size, klNetMessageType type) {
    expectHandedOver(buffer, size, type);
    EXPECT_EQ(0u, readLE(buffer.getBuffer(), 8, 2)) << "sequence";
    EXPECT_EQ(0u, readLE(buffer.getBuffer(), 12, 4)) << "source";
}

klNetMessage messageOver(const Bytes& payload) {
    klNetMessage message;
    message.setRecvBuffer(kltest::bufferWith(payload));
    return message;
}

}  // namespace

TEST(klNetSerializer, ValuesTravelAsLittleEndianImagesWithCountedStrings) {
    ScriptedSerializer s(0);
    s.putValue("");
    s.putValue(std::string("a\0b", 3));
    s << std::int32_t(-2) << std::uint16_t(0x0102) << true << false << 1.0
      << klNetMessageTypeBundle;
    s.putValueSize(0x0102030405060708);
    s << std::vector<std::int32_t>{1, -1} << std::vector<bool>{true, false}
      << std::vector<std::string>{"x"};
    const Bytes expected = kltest::hex(
        "01000000 00  04000000 61006200  FEFFFFFF 0201 01 00  000000000000F03F 03000000"
        "0807060504030201  0200000000000000 01000000 FFFFFFFF  0200000000000000 01 00"
        "0100000000000000 02000000 7800");
    const auto buffer = s.takeSendBuffer();
    ASSERT_TRUE(buffer);
    EXPECT_EQ(expected, kltest::payloadOf(*buffer));
    expectHandedOver(*buffer, expected.size(), klNetMessageTypeStream);
    EXPECT_TRUE(s.sent.empty());

    // Reading: any non-zero byte is true, a zero length is the empty string.
    ScriptedSerializer r(0);
    r.setRecvBuffer(kltest::bufferWith(kltest::hex("02 00000000 03000000 686900 00")));
    bool flag = false, off = true;
    std::string empty = "old", text;
    r >> flag >> empty >> text >> off;
    EXPECT_TRUE(flag);
    EXPECT_EQ("", empty);
    EXPECT_EQ("hi", text);
    EXPECT_FALSE(off);
}

TEST(klNetSerializer, FullBuffersAreStampedAndHandedOverAtTheThreshold) {
    kltest::dirtyFreeBuffers();
    ScriptedSerializer s(131072);
    s.putBytes(nullptr, 0);
    EXPECT_FALSE(s.takeSendBuffer());  // writing nothing takes no buffer
    s.flushSendBuffer();
    EXPECT_TRUE(s.sent.empty());

    const Bytes data = kltest::pattern(300000);
    s.putBytes(data.data(), data.size());
    ASSERT_EQ(2u, s.sent.size());
    expectFlushed(*s.sent[0], 131072, klNetMessageTypeStream);
    expectFlushed(*s.sent[1], 131072, klNetMessageTypeStream);
    const auto rest = s.takeSendBuffer();
    ASSERT_TRUE(rest);
    expectHandedOver(*rest, 37856, klNetMessageTypeStream);
    s.sent.push_back(rest);
    EXPECT_EQ(data, kltest::concatPayloads(s.sent));

    // A new threshold applies from the next fresh buffer on.
    ScriptedSerializer t(8);
    t.putBytes(data.data(), 3);
    t.setSendThreshold(5);
    t.putBytes(data.data(), 7);
    t.putBytes(data.data(), 4);
    t.flushSendBuffer();
    ASSERT_EQ(3u, t.sent.size());
    expectFlushed(*t.sent[0], 8, klNetMessageTypeStream);
    expectFlushed(*t.sent[1], 5, klNetMessageTypeStream);
    expectFlushed(*t.sent[2], 1, klNetMessageTypeStream);
    EXPECT_FALSE(t.takeSendBuffer());
}

TEST(klNetSerializer, ThresholdZeroAllowsExactlyOneFullBuffer) {
    const Bytes data = kltest::pattern(klNetBuffer::getCapacity());
    ScriptedSerializer s(0);
    s.putBytes(data.data(), data.size());
    KL_EXPECT_THROW_TEXT(s.putValue(std::uint8_t(1)), klNetError, "Send buffer size exceeded");
    EXPECT_TRUE(s.sent.empty());
    auto buffer = s.takeSendBuffer();
    ASSERT_TRUE(buffer);
    EXPECT_EQ(data, kltest::payloadOf(*buffer));

    // The bytes that fitted stay written.
    ScriptedSerializer t(0);
    t.putBytes(data.data(), data.size() - 2);
    KL_EXPECT_THROW_TEXT(t.putValue(std::uint32_t(0xAABBCCDD)), klNetError,
                         "Send buffer size exceeded");
    buffer = t.takeSendBuffer();
    ASSERT_TRUE(buffer);
    EXPECT_EQ(klNetBuffer::getCapacity(), buffer->getDataSize());
    EXPECT_EQ(0xCC, buffer->getData()[klNetBuffer::getCapacity() - 1]);
}

TEST(klNetSerializer, OutputReferenceNeverFlushesToMakeRoom) {
    ScriptedSerializer s(10);
    unsigned char* first = s.getOutputReference(7);
    std::memset(first, 0x71, 7);
    KL_EXPECT_THROW_TEXT(s.getOutputReference(5), klNetError,
                         "Unable to get 5 bytes in buffer. Max accessible bytes 3");
    EXPECT_TRUE(s.sent.empty());
    unsigned char* last = s.getOutputReference(3);
    EXPECT_EQ(first + 7, last);
    std::memset(last, 0x72, 3);
    EXPECT_EQ(first + 10, s.getOutputReference(0));
    const auto buffer = s.takeSendBuffer();
    ASSERT_TRUE(buffer);
    EXPECT_EQ(kltest::hex("71717171717171 727272"), kltest::payloadOf(*buffer));
}

TEST(klNetSerializer, InputReferenceAtABoundaryFailsNamingTheNextBuffer) {
    ScriptedSerializer s(0);
    const auto first = kltest::bufferWith({1, 2, 3, 4});
    const auto second = kltest::bufferWith({5, 6, 7, 8, 9, 10});
    s.setRecvBuffer(first);
    s.script.push_back(second);

    KL_EXPECT_THROW_TEXT(s.getInputReference(5), klNetError,
                         "Unable to get 5 bytes in buffer. Max accessible bytes 4");
    EXPECT_EQ(first->getData(), s.getInputReference(4));
    EXPECT_EQ(first->getData() + 4, s.getInputReference(0));  // the end, without a fetch
    EXPECT_EQ(0, s.fetches);
    // Exactly at the boundary: the next buffer is fetched, yet the request fails.
    KL_EXPECT_THROW_TEXT(s.getInputReference(2), klNetError,
                         "Unable to get 2 bytes in buffer. Max accessible bytes 6");
    EXPECT_EQ(1, s.fetches);
    EXPECT_EQ(6u, s.getDataSize());
    EXPECT_EQ(second->getData(), s.getInputReference(2));
    std::uint32_t value = 0;
    s.getValue(value);
    EXPECT_EQ(0x0A090807u, value);
}

TEST(klNetSerializer, ReceiveBufferIsDroppedApartFromItsPositions) {
    ScriptedSerializer s(0);
    auto buffer = kltest::bufferWith({1, 2, 3, 4});
    buffer->setSource(12);
    buffer->setType(klNetMessageTypeImage);
    s.setRecvBuffer(buffer);
    EXPECT_EQ(12u, s.getSource());
    EXPECT_EQ(klNetMessageTypeImage, s.getType());
    std::uint8_t byte = 0;
    s.getValue(byte);
    s.clearRecvBuffer();
    EXPECT_TRUE(s.isReadable());  // positions stay where they were
    EXPECT_EQ(0u, s.getDataSize());
    EXPECT_EQ(0u, s.getSource());
    s.setRecvBuffer(buffer);
    s.setRecvBuffer(nullptr);
    EXPECT_TRUE(s.isReadable());
    s.discardRecvBuffer();
    EXPECT_FALSE(s.isReadable());

    // The byte path lets go of a buffer as soon as it is read to its end.
    s.setRecvBuffer(buffer);
    Bytes all(4);
    s.getBytes(all.data(), all.size());
    EXPECT_EQ(Bytes({1, 2, 3, 4}), all);
    EXPECT_EQ(0u, s.getDataSize());
    EXPECT_EQ(1, buffer.use_count());
    EXPECT_FALSE(s.isReadable());
    KL_EXPECT_THROW_TEXT(s.getValue(byte), klNetError, "script exhausted");
}

// One value of every kind the serializer writes, distinct in every byte where possible.
static auto straddleValues() {
    return std::make_tuple(
        std::int8_t(-5), std::uint16_t(0xA1B2), std::int32_t(-0x12345678),
        std::uint32_t(0xC1D2E3F4), std::int64_t(-0x0102030405060708),
        std::uint64_t(0xF1E2D3C4B5A69788), 1.5f, -2.25e10, true, klNetMessageTypeImage,
        std::size_t(0x0A0B0C0D0E0F1011), std::string("straddle"), std::string("a\0b\0", 4),
        std::vector<std::int32_t>{1, -2, 3}, std::vector<double>{0.5, -7.0},
        std::vector<std::string>{"", "xy"}, std::vector<bool>{true, false, true});
}

// Every value written across buffers of a small threshold, starting at every offset: the typed
// writers (fast path inside a buffer, byte path across a boundary) must give the same bytes as
// plain putBytes, and reading back through a message must restore every value.
class klNetSerializerStraddle : public ::testing::TestWithParam<int> {
protected:
    const decltype(straddleValues()) m_values = straddleValues();

    void writeTyped(klNetSerializer& s) const {
        std::apply([&](const auto&... value) { (s << ... << value); }, m_values);
    }

    // The reference encoding, byte run by byte run through putBytes alone.
    template <class T>
    static void raw(klNetSerializer& s, const T& value) {
        if constexpr (std::is_same_v<T, bool>) {
            raw(s, std::uint8_t(value ? 1 : 0));
        } else if constexpr (std::is_same_v<T, std::string>) {
            raw(s, std::uint32_t(value.size() + 1));
            s.putBytes(value.c_str(), value.size() + 1);
        } else if constexpr (std::is_class_v<T>) {  // a vector
            raw(s, std::uint64_t(value.size()));
            for (const auto& element : value) {
                raw(s, static_cast<typename T::value_type>(element));
            }
        } else {
            s.putBytes(&value, sizeof(value));
        }
    }
    void writeRaw(klNetSerializer& s) const {
        std::apply([&](const auto&... value) { (raw(s, value), ...); }, m_values);
    }

    void readAndCheck(klNetSerializer& s) const {
        auto check = [&](const auto& expected) {
            std::decay_t<decltype(expected)> value{};
            s >> value;
            EXPECT_EQ(expected, value);
        };
        std::apply([&](const auto&... expected) { (check(expected), ...); }, m_values);
    }
};

TEST_P(klNetSerializerStraddle, ValuesCrossBufferBoundariesAtEveryOffset) {
    const int threshold = GetParam();
    const Bytes padding = kltest::pattern(std::size_t(threshold));
    for (int pad = 0; pad < std::min(threshold, 64); ++pad) {
        SCOPED_TRACE(testing::Message() << "pad " << pad);
        klNetMessage typed(threshold);
        klNetMessage reference(threshold);
        typed.putBytes(padding.data(), std::size_t(pad));
        reference.putBytes(padding.data(), std::size_t(pad));
        writeTyped(typed);
        writeRaw(reference);
        const auto buffers = typed.takeSendBuffers();
        const auto expected = reference.takeSendBuffers();
        ASSERT_EQ(expected.size(), buffers.size());
        for (std::size_t i = 0; i < buffers.size(); ++i) {
            EXPECT_EQ(kltest::payloadOf(*expected[i]), kltest::payloadOf(*buffers[i]));
            if (i + 1 < buffers.size()) {
                EXPECT_EQ(std::size_t(threshold), buffers[i]->getDataSize());
            }
        }

        klNetMessage reader;
        reader.setRecvBuffers(buffers);
        Bytes pads(static_cast<std::size_t>(pad));
        reader.getBytes(pads.data(), pads.size());
        EXPECT_TRUE(std::equal(pads.begin(), pads.end(), padding.begin()));
        readAndCheck(reader);
        std::uint8_t beyond = 0;
        KL_EXPECT_THROW_TEXT(reader.getValue(beyond), klNetError, kBeyondEnd);
        if (HasFailure()) {
            return;
        }
    }
}

INSTANTIATE_TEST_SUITE_P(Thresholds, klNetSerializerStraddle,
                         ::testing::Values(1, 7, 13, 64, 131072));

TEST(klNetSerializer, LengthsFromThePeerAreReadInStepsAndFailAtTheEnd) {
    // Large values cross the reader's growth steps intact.
    const Bytes big = kltest::pattern(150000);
    const std::string bigText(big.begin(), big.end());
    std::vector<std::int32_t> bigInts(70000);
    for (std::size_t i = 0; i < bigInts.size(); ++i) {
        bigInts[i] = std::int32_t(i * 2654435761u);
    }
    klNetMessage writer;
    writer << bigText << bigInts;
    klNetMessage reader;
    reader.setRecvBuffers(writer.takeSendBuffers());
    std::string text;
    std::vector<std::int32_t> ints;
    reader >> text >> ints;
    EXPECT_EQ(bigText, text);
    EXPECT_EQ(bigInts, ints);

    // Hostile lengths followed by a few bytes: an exact error, no huge allocation, no crash.
    kltest::resetLargestAllocation();
    const Bytes hugeText = {0xFF, 0xFF, 0xFF, 0xFF, 'a', 'b', 'c'};
    const Bytes shortText = {0x10, 0, 0, 0, 'a'};
    const Bytes hugeCount = {0xFF, 0xFF, 0xFF, 0xFF, 0xFF, 0xFF, 0xFF, 0xFF, 1, 2, 3};
    std::string s;
    std::vector<std::int32_t> vi;
    std::vector<double> vd;
    std::vector<std::string> vs;
    std::vector<bool> vb;
    KL_EXPECT_THROW_TEXT(messageOver(hugeText).getValue(s), klNetError, kBeyondEnd);
    KL_EXPECT_THROW_TEXT(messageOver(shortText).getValue(s), klNetError, kBeyondEnd);
    KL_EXPECT_THROW_TEXT(messageOver(hugeCount).getValue(vi), klNetError, kBeyondEnd);
    KL_EXPECT_THROW_TEXT(messageOver(hugeCount).getValue(vd), klNetError, kBeyondEnd);
    KL_EXPECT_THROW_TEXT(messageOver(hugeCount).getValue(vs), klNetError, kBeyondEnd);
    KL_EXPECT_THROW_TEXT(messageOver(hugeCount).getValue(vb), klNetError, kBeyondEnd);
    EXPECT_LT(kltest::largestAllocation(), std::size_t(1) << 20);
}
