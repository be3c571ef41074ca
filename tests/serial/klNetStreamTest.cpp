// klNetStream in one process over in-memory chains: how it stamps what it sends, delivers to its
// own rank, reads the byte stream, reassembles messages, carries results and sync points, counts
// bytes, and what it reports when a chain is missing or a buffer of the wrong type arrives.
#include <support/klNetStreamTestStages.h>

#include <gtest/gtest.h>

#include <cstdint>
#include <memory>
#include <set>
#include <stdexcept>
#include <thread>

using kltest::Buffers;
using kltest::Bytes;
using kltest::hex;
using kltest::makeBuffer;
using kltest::payloadOf;
using kltest::RecordingSender;
using kltest::ScriptedReceiver;

namespace {

// A stream over a recording sender and a scripted receiver, with the message step opened up.
class TestStream : public klNetStream {
public:
    explicit TestStream(int rank, const std::set<unsigned int>& destinations = {},
                        const Buffers& script = {})
        : out(std::make_shared<RecordingSender>(destinations)),
          in(std::make_shared<ScriptedReceiver>(script)) {
        setSender(out);
        setReceiver(in);
        setRank(rank);
    }
    using klNetStream::recvMessagePart;

    std::shared_ptr<RecordingSender> out;
    std::shared_ptr<ScriptedReceiver> in;
};

// What a stream of the given rank sends for a message of data to destination.
Buffers sentFor(int rank, int destination, const Bytes& data, int threshold) {
    TestStream peer(rank);
    klNetMessage message(threshold);
    message.putBytes(data.data(), data.size());
    peer.sendMessage(message, destination);
    return peer.out->sent;
}

Buffers syncFrom(int rank, int value) {
    TestStream peer(rank);
    peer.sendSync(value);
    return peer.out->sent;
}

std::uint64_t field(const std::shared_ptr<klNetBuffer>& buffer, std::size_t offset,
                    std::size_t width) {
    return kltest::readLE(buffer->getBuffer(), offset, width);
}

Bytes headerPart(const std::shared_ptr<klNetBuffer>& buffer, std::size_t from, std::size_t to) {
    return Bytes(buffer->getBuffer() + from, buffer->getBuffer() + to);
}

Bytes read(klNetSerializer& serializer, std::size_t n) {
    Bytes bytes(n);
    serializer.getBytes(bytes.data(), n);
    return bytes;
}

}  // namespace

TEST(klNetStream, StampsRankAndNumbersMulticastAndDirectedBuffersApart) {
    kltest::dirtyFreeBuffers();
    TestStream stream(3, {2, 4});
    const auto sendTo = [&stream](int destination,
                                  klNetBufferSendMode mode = klNetSendModeDefault) {
        klNetMessage message;
        message << std::uint8_t(0x40 + destination);
        stream.sendMessage(message, destination, mode);
    };
    stream << std::uint16_t(0xBEEF);  // byte-stream data, left in the stream's own buffer
    sendTo(0);
    sendTo(2, klNetSendModeSecondStage);
    sendTo(4);
    sendTo(0);
    EXPECT_EQ(4u, stream.out->sent.size());  // sending a message does not flush the byte stream
    stream << klNetStream::flush;
    const Buffers& sent = stream.out->sent;
    ASSERT_EQ(5u, sent.size());
    const unsigned destinations[] = {0, 2, 4, 0, 0};
    const unsigned sequences[] = {0, 0, 1, 1, 2};
    for (std::size_t i = 0; i < sent.size(); ++i) {
        SCOPED_TRACE(i);
        EXPECT_EQ(3u, field(sent[i], 12, 4));
        EXPECT_EQ(destinations[i], field(sent[i], 16, 4));
        EXPECT_EQ(sequences[i], field(sent[i], 8, 2));
    }
    // The directed message buffer: sizes, sequence, type, compression, source, destination, and
    // after the message id its buffer count; the send mode stays local.
    EXPECT_EQ(hex("01000000 01000000 0000 01 00 03000000 02000000"), headerPart(sent[1], 0, 20));
    EXPECT_EQ(hex("0100"), headerPart(sent[1], 22, 24));
    EXPECT_EQ(klNetSendModeSecondStage, sent[1]->getSendMode());
    EXPECT_EQ(hex("02000000 02000000 0200 00 00 03000000 00000000"), headerPart(sent[4], 0, 20));
    EXPECT_EQ(hex("EFBE"), payloadOf(*sent[4]));

    // A new sender restarts both counters and drops what was written but not yet flushed.
    auto second = std::make_shared<RecordingSender>(std::set<unsigned int>{2});
    stream << std::uint8_t(0xDD);
    stream.setSender(second);
    stream.flush();
    EXPECT_TRUE(second->sent.empty());
    sendTo(2);
    sendTo(0);
    stream << std::uint8_t(0x09) << klNetStream::flush;
    ASSERT_EQ(3u, second->sent.size());
    EXPECT_EQ(0u, field(second->sent[0], 8, 2));
    EXPECT_EQ(0u, field(second->sent[1], 8, 2));
    EXPECT_EQ(1u, field(second->sent[2], 8, 2));
    EXPECT_EQ(hex("09"), payloadOf(*second->sent[2]));
}

TEST(klNetStream, DeliversBuffersForItsOwnRankToItsOwnReceiver) {
    TestStream stream(2, {1, 3});
    klNetMessage toSelf;
    toSelf << std::uint16_t(0x1234);
    stream.sendMessage(toSelf, 2);
    EXPECT_TRUE(stream.out->sent.empty());
    ASSERT_EQ(1u, stream.in->added.size());
    const auto local = stream.in->added[0];
    EXPECT_EQ(hex("0000 01 00 02000000 02000000"), headerPart(local, 8, 20));  // sequence 0
    EXPECT_EQ(26u, stream.getSentBytes());

    klNetMessage toPeer;
    toPeer << std::uint8_t(1);
    stream.sendMessage(toPeer, 3);
    ASSERT_EQ(1u, stream.out->sent.size());
    EXPECT_EQ(1u, field(stream.out->sent[0], 8, 2));  // the local buffer took directed number 0
    EXPECT_EQ(26u + 25u, stream.getSentBytes());

    klNetMessage received;
    stream.recvMessage(received);
    EXPECT_EQ(hex("3412"), read(received, 2));
    EXPECT_EQ(26u, stream.getRecevedBytes());
}

TEST(klNetStream, ReadsDropABufferOfTheWrongTypeAndGoOn) {
    TestStream stream(2, {4},
                      {makeBuffer(hex("01"), klNetMessageTypeStream, 4, 0, 0),
                       makeBuffer(hex("02 03"), klNetMessageTypeStream, 4, 0, 1),
                       makeBuffer(hex("AA"), klNetMessageTypeMessage, 7, 9, 0, 5, 1),
                       makeBuffer(hex("04"), klNetMessageTypeStream, 4, 0, 2),
                       makeBuffer(hex("05"), klNetMessageTypeStream, 4, 0, 3),
                       makeBuffer(hex("BB"), klNetMessageTypeMessage, 4, 2, 0, 6, 1)});
    std::uint16_t straddling = 0;
    std::uint8_t byte = 0;
    stream >> straddling >> byte;
    EXPECT_EQ(0x0201, straddling);
    EXPECT_EQ(3, byte);
    KL_EXPECT_THROW_TEXT(stream >> byte, klNetError,
                         "Stream out of sync. Stream expected at 2 from 7 to 9");
    stream >> byte;
    EXPECT_EQ(4, byte);
    EXPECT_EQ(25u + 26u + 25u, stream.getRecevedBytes());

    // The mirror case: stream data where a message is expected.
    klNetMessage message;
    KL_EXPECT_THROW_TEXT(stream.recvMessage(message), klNetError,
                         "Stream out of sync. Wrong message type");
    stream.recvMessage(message);
    EXPECT_EQ(hex("BB"), read(message, 1));
    EXPECT_EQ(25u + 26u + 25u + 25u, stream.getRecevedBytes());
    EXPECT_EQ(6, stream.in->calls);
}

TEST(klNetStream, ReassemblesAMessageArrivingOutOfOrderOnce) {
    const Bytes data = kltest::pattern(12);
    const Buffers parts = sentFor(4, 2, data, 4);
    ASSERT_EQ(3u, parts.size());
    TestStream stream(2, {4}, {parts[2], parts[0], parts[1]});
    klNetMessage message;
    EXPECT_FALSE(stream.tryRecvMessage(message));
    EXPECT_FALSE(stream.tryRecvMessage(message));
    ASSERT_TRUE(stream.tryRecvMessage(message));
    EXPECT_EQ(4u, message.getSource());
    EXPECT_EQ(data, read(message, 12));
    KL_EXPECT_THROW_TEXT(read(message, 1), klNetError,
                         "klNetMessage: try to read beyond buffer end.");
    EXPECT_EQ(3u * 28u, stream.getRecevedBytes());

    // Nothing readable: no receive is tried.
    EXPECT_FALSE(stream.tryRecvMessage(message));
    EXPECT_EQ(3, stream.in->calls);

    // The completed message left the collection: the same parts collect afresh.
    stream.in->script = {parts[1], parts[0], parts[2]};
    klNetMessage again;
    EXPECT_FALSE(stream.recvMessagePart(again));
    EXPECT_FALSE(stream.recvMessagePart(again));
    ASSERT_TRUE(stream.recvMessagePart(again));
    EXPECT_EQ(data, read(again, 12));
}

TEST(klNetStream, CollectsPartsByTheLow16BitsOfSourceAndTheMessageId) {
    const auto part = [](unsigned source, unsigned sequence, unsigned char byte) {
        return makeBuffer(Bytes{byte}, klNetMessageTypeMessage, source, 1, sequence, 77, 2);
    };
    TestStream stream(1, {2, 3, 5},
                      {part(5, 1, 0xB1), part(3, 0, 0xA0), part(5, 0, 0xB0), part(3, 1, 0xA1),
                       part(0x10002, 0, 0xC0), part(2, 1, 0xD1)});
    klNetMessage first, second, mixed;
    EXPECT_FALSE(stream.recvMessagePart(first));
    EXPECT_FALSE(stream.recvMessagePart(first));
    ASSERT_TRUE(stream.recvMessagePart(first));
    EXPECT_EQ(5u, first.getSource());
    EXPECT_EQ(hex("B0 B1"), read(first, 2));
    ASSERT_TRUE(stream.recvMessagePart(second));
    EXPECT_EQ(3u, second.getSource());
    EXPECT_EQ(hex("A0 A1"), read(second, 2));
    // 0x10002 and 2 agree in their low 16 bits, so their parts meet under one key.
    EXPECT_FALSE(stream.recvMessagePart(mixed));
    ASSERT_TRUE(stream.recvMessagePart(mixed));
    EXPECT_EQ(hex("C0 D1"), read(mixed, 2));
}

TEST(klNetStream, ResultsTravelAsOneByteAndRemoteTextsComeBackAsklNetError) {
    TestStream callee(2, {1});
    callee.sendSuccess().sendException(std::runtime_error("disk full")) << klNetStream::flush;
    callee.sendException(std::invalid_argument("")) << klNetStream::flush;
    ASSERT_EQ(2u, callee.out->sent.size());
    EXPECT_EQ(hex("01 00 0A000000 6469736B2066756C6C 00"),  // "disk full" and its zero byte
              payloadOf(*callee.out->sent[0]));
    EXPECT_EQ(hex("00 01000000 00"), payloadOf(*callee.out->sent[1]));

    TestStream caller(1, {2}, callee.out->sent);
    EXPECT_EQ(&caller, &caller.recvResult());
    KL_EXPECT_THROW_TEXT(caller.recvResult(), klNetError, "disk full");
    KL_EXPECT_THROW_TEXT(caller.recvResult(), klNetError, "");

    // The flush manipulator flushes streams only.
    klNetMessage message;
    message << std::uint8_t(1);
    KL_EXPECT_THROW_TEXT(message << klNetStream::flush, klNetError,
                         "Unable to flush this type of stream");
}

TEST(klNetStream, SyncGoesFromTheMasterToAllAndBackOncePerDestination) {
    const Buffers fromMaster = syncFrom(1, 42);
    ASSERT_EQ(1u, fromMaster.size());
    EXPECT_EQ(hex("04000000 04000000 0000 01 00 01000000 00000000"),
              headerPart(fromMaster[0], 0, 20));
    EXPECT_EQ(hex("0100"), headerPart(fromMaster[0], 22, 24));
    EXPECT_EQ(hex("2A000000"), payloadOf(*fromMaster[0]));
    const Buffers fromNode = syncFrom(3, -2);
    ASSERT_EQ(1u, fromNode.size());
    EXPECT_EQ(1u, field(fromNode[0], 16, 4));
    EXPECT_EQ(hex("FEFFFFFF"), payloadOf(*fromNode[0]));

    TestStream node(3, {1}, fromMaster);
    EXPECT_EQ(42, node.waitSync());

    // A master without destinations waits for nobody.
    TestStream alone(1, {}, syncFrom(2, 5));
    EXPECT_EQ(0, alone.waitSync());
    EXPECT_EQ(0, alone.in->calls);
    klNetStream bare;
    bare.setRank(1);
    EXPECT_EQ(0, bare.waitSync());

    // One reply per destination, in any order; the value is that of the last.
    TestStream master(1, {2, 3}, {syncFrom(3, 30).at(0), syncFrom(2, 20).at(0)});
    EXPECT_EQ(20, master.waitSync());
    EXPECT_EQ(2, master.in->calls);
    TestStream confused(1, {2, 3}, {syncFrom(2, 20).at(0), syncFrom(2, 21).at(0)});
    KL_EXPECT_THROW_TEXT(confused.waitSync(), klNetError,
                         "Synchronisation error: multiple responses from 2");
}

TEST(klNetStream, CountsWireBytesBothWaysUntilReset) {
    TestStream stream(1, {2},
                      {makeBuffer(Bytes(3, 1), klNetMessageTypeStream, 2, 0, 0),
                       makeBuffer(Bytes(5, 2), klNetMessageTypeStream, 2, 0, 1)});
    stream.putBytes(Bytes(10, 7).data(), 10);
    stream.flush();
    EXPECT_EQ(34u, stream.getSentBytes());
    klNetMessage message;
    message.putBytes(Bytes(100, 9).data(), 100);
    stream.sendMessage(message, 2);
    EXPECT_EQ(34u + 124u, stream.getSentBytes());
    EXPECT_EQ(Bytes({1, 1, 1, 2, 2, 2, 2, 2}), read(stream, 8));
    EXPECT_EQ(27u + 29u, stream.getRecevedBytes());

    stream.resetStatistics();
    EXPECT_EQ(0u, stream.getSentBytes());
    EXPECT_EQ(0u, stream.getRecevedBytes());
    EXPECT_EQ(1, stream.out->resets);
    stream << std::uint8_t(1) << klNetStream::flush;
    EXPECT_EQ(25u, stream.getSentBytes());
}

TEST(klNetStream, ShutdownReachesTheLinksOfBothChains) {
    auto outLink = std::make_shared<kltest::CountingLink>();
    auto inLink = std::make_shared<kltest::CountingLink>();
    klNetStream stream;
    stream.setSender(klNetLinkSender::create(outLink));
    stream.setReceiver(klNetSortReceiver::create(klNetLinkReceiver::create(inLink)));
    EXPECT_EQ(outLink, stream.getFirstLink());
    stream.shutdown();
    EXPECT_EQ(1, outLink->shutdowns);
    EXPECT_EQ(1, inLink->shutdowns);
    EXPECT_NE(nullptr, stream.getSender());
    EXPECT_NE(nullptr, stream.getReceiver());
}

TEST(klNetStream, SocketLinkCreateHandsBackTheStreamsFirstLink) {
    klBoundSocketLink listener(0);
    const int port = listener.getAddress().getPort();
    std::shared_ptr<klSocketLink> server;
    std::thread accepting([&] { server = std::make_shared<klSocketLink>(listener); });
    auto client = std::make_shared<klSocketLink>(klSocketAddress("127.0.0.1", port), 5.0);
    accepting.join();
    klNetStream near(client), far(server);
    klNetInterfaceOptions options;
    EXPECT_EQ(client, klSocketLink::create(near, options, false));
    EXPECT_EQ(server, klSocketLink::create(far, options, true));
}

TEST(klNetStream, SendingOrReceivingWithoutItsChainThrowsConnectionClosed) {
    klNetStream sendOnly, receiveOnly;
    sendOnly.setRank(2);
    receiveOnly.setRank(2);
    sendOnly.setSender(std::make_shared<RecordingSender>(std::set<unsigned int>{1}));
    auto in = std::make_shared<ScriptedReceiver>(
        Buffers{makeBuffer(hex("01"), klNetMessageTypeStream, 1, 0, 0)});
    receiveOnly.setReceiver(in);
    klNetMessage message;
    std::uint8_t byte = 1;
    message << byte;
    KL_EXPECT_THROW_TEXT(receiveOnly << byte << klNetStream::flush, klConnectionClosed,
                         "Connection closed");
    KL_EXPECT_THROW_TEXT(receiveOnly.sendMessage(message, 1), klConnectionClosed,
                         "Connection closed");
    KL_EXPECT_THROW_TEXT(receiveOnly.sendSync(1), klConnectionClosed, "Connection closed");
    EXPECT_EQ(0, in->calls);
    KL_EXPECT_THROW_TEXT(sendOnly >> byte, klConnectionClosed, "Connection closed");
    KL_EXPECT_THROW_TEXT(sendOnly.recvMessage(message), klConnectionClosed, "Connection closed");
    KL_EXPECT_THROW_TEXT(sendOnly.recvResult(), klConnectionClosed, "Connection closed");
    KL_EXPECT_THROW_TEXT(sendOnly.waitSync(), klConnectionClosed, "Connection closed");
}
