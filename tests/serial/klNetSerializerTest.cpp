// Serialisation: the serializer's wire images and buffer boundaries, messages, and the standard
// stream adapters between two streams over a loopback link.
#include <support/klNetAllocationProbe.h>
#include <support/klNetPipelineSupport.h>
#include <support/klNetSocketTestSupport.h>

#include <klNetBase/serial/klNetStdIStream.h>
#include <klNetBase/serial/klNetStdOStream.h>
#include <klNetBase/serial/klNetStream.h>

#include <iterator>
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
            readBytes(reader, std::size_t(pad));
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
        for (int attempt = 0; attempt < 2; ++attempt) {  // and the message stays at its end
            KL_EXPECT_THROW_TEXT(message.getValue(value), klNetError, kBeyondEnd);
        }
    };
    fails({0x10, 0, 0, 0, 'a'}, std::string());
    std::apply([&](auto... value) { (fails(huge, value), ...); },
               std::tuple<std::string, std::vector<std::int32_t>, std::vector<double>,
                          std::vector<std::string>, std::vector<bool>>());
    EXPECT_LT(largestAllocation(), std::size_t(1) << 20);
}

namespace {

Buffers takeWritten(klNetMessage& message, std::size_t bytes) {
    const Bytes data(bytes, 0x3C);
    message.putBytes(data.data(), data.size());
    return message.takeSendBuffers();
}

}  // namespace

TEST(klNetMessage, TakenBuffersShareOneIdAndTheBufferCountEveryTakeDrawsAnIdAndMovesTakeThemAlong) {
    dirtyFreeBuffers();
    klNetMessage message;
    const Buffers one = takeWritten(message, 131072);
    const Buffers two = takeWritten(message, 131073);
    ASSERT_EQ(1u, one.size());
    ASSERT_EQ(2u, two.size());
    EXPECT_EQ(1u, one[0]->getMessageBufferCount());
    const std::size_t id = two[1]->getMessageId();
    EXPECT_EQ((one[0]->getMessageId() + 1) & 0xFFFF, id);
    for (const auto& buffer : two) {
        EXPECT_EQ(buffer->getDataSize(), buffer->getOriginalDataSize());
        EXPECT_EQ(klNetMessageTypeMessage, buffer->getType());
        EXPECT_EQ(id, buffer->getMessageId());
        EXPECT_EQ(2u, buffer->getMessageBufferCount());  // on every buffer, not only the last
    }
    EXPECT_EQ(1u, two[1]->getDataSize());

    // Taking an empty message draws an id too; after 65536 the ids wrap.
    for (int i = 0; i < 65535; ++i) {
        EXPECT_TRUE(message.takeSendBuffers().empty());
    }
    const Buffers again = takeWritten(message, 1);
    ASSERT_EQ(1u, again.size());
    EXPECT_EQ(id, again[0]->getMessageId());
    EXPECT_EQ(1u, again[0]->getDataSize());

    // Moving a message takes what was written along.
    const Bytes data(131073, 0x42);
    message.putBytes(data.data(), data.size());
    klNetMessage moved(std::move(message)), assigned;
    assigned = std::move(moved);
    EXPECT_TRUE(message.takeSendBuffers().empty());  // NOLINT(bugprone-use-after-move)
    EXPECT_TRUE(moved.takeSendBuffers().empty());    // NOLINT(bugprone-use-after-move)
    EXPECT_EQ(data, concatPayloads(assigned.takeSendBuffers()));
}

namespace {

// Counts the buffers the serializer pulls from the message's list.
struct PullCountingMessage : klNetMessage {
    void recvBuffer(std::shared_ptr<klNetBuffer>& buffer) override {
        ++pulls;
        klNetMessage::recvBuffer(buffer);
    }
    int pulls = 0;
};

}  // namespace

// A new list only replaces the waiting buffers: every listed buffer is pulled when reading reaches
// it, and the unread rest of a current buffer is read first and counted in the size.
TEST(klNetMessage, SetRecvBuffersReplacesTheListAndReadingPullsEachOfItsBuffers) {
    const struct Row {
        const char* name;
        Bytes current;  // installed and read one byte into first, when not empty
        std::vector<Bytes> list;
        std::size_t size;
        Bytes read;
        int pulls;
    } rows[] = {
        {"fresh", {}, {{1, 2}, {3}}, 3, {1, 2, 3}, 2},
        {"after a partly read buffer", {9, 1, 2}, {{3}}, 4, {1, 2, 3}, 1},
        {"an empty list", {9, 1, 2}, {}, 3, {1, 2}, 0},
    };
    for (const Row& row : rows) {
        SCOPED_TRACE(row.name);
        PullCountingMessage message;
        if (!row.current.empty()) {
            message.setRecvBuffer(bufferWith(row.current));
            readBytes(message, 1);
        }
        Buffers list;
        for (const Bytes& payload : row.list) {
            list.push_back(bufferWith(payload));
        }
        message.setRecvBuffers(list);
        list.clear();  // a copy was taken
        EXPECT_EQ(row.size, message.getMessageSize());
        EXPECT_EQ(0, message.pulls);
        EXPECT_EQ(row.read, readBytes(message, row.read.size()));
        EXPECT_EQ(row.pulls, message.pulls);
        KL_EXPECT_THROW_TEXT(readBytes(message, 1), klNetError, kBeyondEnd);
    }
}

// The standard stream adapters between two klNetStreams over a loopback link.
namespace {

struct Pair {
    Pair() {
        auto links = kltest::connectedPair();
        near = links.first;
        writer = std::make_shared<klNetStream>(links.first);
        reader = std::make_shared<klNetStream>(links.second);
    }
    std::shared_ptr<klSocketLink> near;
    std::shared_ptr<klNetStream> writer, reader;
};

constexpr std::uint32_t kSentinel = 0xDDCCBBAA;  // written after each case: nothing more came

}  // namespace

TEST(klNetStdOStream, WritesLengthPrefixedChunksAndAnEndMarkerOnlyOnClose) {
    const struct Row {
        std::string text;
        bool close;
        const char* wire;
    } rows[] = {
        {"abc", true, "03000000 616263 00000000"},
        {"", true, "00000000"},
        {"abc", false, "03000000 616263"},  // destroyed unclosed: the chunk, no marker
        {"", false, ""},
    };
    Pair pair;
    for (const Row& row : rows) {
        {
            klNetStdOStream out(*pair.writer);
            out << row.text;
            if (row.close)
                out.close();
        }
        pair.writer->putValue(kSentinel);
        *pair.writer << klNetStream::flush;
        kltest::Bytes expected = hex(row.wire + std::string("AABBCCDD"));
        EXPECT_EQ(expected, readBytes(*pair.reader, expected.size())) << row.text << row.close;
    }
    // A full area makes a chunk of 1 MiB; the rest goes at the next flush.
    Task write([w = pair.writer] {
        klNetStdOStream out(*w);
        out << std::string(klNetStreamBuf::kAreaSize + 1, 'x') << std::flush;
        out.close();
        *w << klNetStream::flush;
    });
    EXPECT_EQ(hex("00001000"), readBytes(*pair.reader, 4));
    EXPECT_EQ(kltest::Bytes(klNetStreamBuf::kAreaSize, 'x'),
              readBytes(*pair.reader, klNetStreamBuf::kAreaSize));
    EXPECT_EQ(hex("01000000 78 00000000"), readBytes(*pair.reader, 9));
    ASSERT_TRUE(write.finishedWithin(kBound));
}

TEST(klNetStdIStream, ReadsTextAcrossChunksUpToEachMarkerThenEndsQuietlyWhenTheLinkCloses) {
    Pair pair;
    const Bytes bytes = pattern(2 * klNetStreamBuf::kAreaSize + 12345);
    const std::string big(bytes.begin(), bytes.end());
    Task write([w = pair.writer, near = pair.near, big] {
        klNetStdOStream out(*w);
        out << big;
        out.close();
        out << "second section" << std::flush;
        out.close();
        *w << klNetStream::flush;
        w->putValue(std::uint32_t(klNetStreamBuf::kAreaSize + 1));  // a length no writer makes
        *w << klNetStream::flush;
        near->shutdown();
    });
    klNetStdIStream in(*pair.reader);
    EXPECT_EQ(big, std::string(std::istreambuf_iterator<char>(in), {}));  // up to the marker
    std::string word;
    EXPECT_TRUE(in >> word);  // reading on starts the next section
    EXPECT_EQ("second", word);
    // Back to the start of the chunk, the only seek that moves data; a stored 0 reads as invalid.
    EXPECT_EQ(-1, in.seekg(0, std::ios::beg).tellg());
    EXPECT_TRUE(std::getline(in, word));
    EXPECT_EQ("second section", word);
    EXPECT_TRUE(in.eof());
    EXPECT_EQ(17, in.seekg(17, std::ios::beg).tellg());
    EXPECT_EQ(-1, in.seekg(0, std::ios::end).tellg());
    in.clear();
    in.exceptions(std::ios::badbit);
    KL_EXPECT_THROW_TEXT(in >> word, klNetError, "Datastream out of sync");
    in.clear();
    EXPECT_FALSE(in >> word);  // closed connection: end-of-file, no exception
    EXPECT_TRUE(in.eof());
    ASSERT_TRUE(write.finishedWithin(kBound));
}
