// klNetStream in one process over in-memory chains: how it stamps what it sends, delivers to its
// own rank, reads the byte stream, reassembles messages, carries results and sync points, counts
// bytes, and what it reports when a chain is missing or a buffer of the wrong type arrives.
#include <support/klNetPipelineSupport.h>

using namespace kltest;

namespace {

const char* const kClosed = "Connection closed";

// A stream over a recording sender and a scripted receiver.
struct TestStream : klNetStream {
    explicit TestStream(int rank, const std::set<unsigned int>& destinations = {},
                        const Buffers& script = {})
        : out(std::make_shared<ProbeSender>(destinations)),
          in(std::make_shared<ScriptedReceiver>(script)) {
        setSender(out);
        setReceiver(in);
        setRank(rank);
    }
    std::shared_ptr<ProbeSender> out;
    std::shared_ptr<ScriptedReceiver> in;
};

std::shared_ptr<klNetBuffer> syncFrom(int rank, int value) {
    TestStream peer(rank);
    peer.sendSync(value);
    EXPECT_EQ(1u, peer.out->sent().size());
    return peer.out->sent().at(0);
}

// Header bytes 8 to 20 of each buffer: sequence, type, compression, source, destination.
std::vector<Bytes> stampsOf(const Buffers& buffers) {
    std::vector<Bytes> stamps;
    for (const auto& buffer : buffers) {
        stamps.emplace_back(buffer->getBuffer() + 8, buffer->getBuffer() + 20);
    }
    return stamps;
}

}  // namespace

TEST(klNetStream, StampsRankAndNumbersMulticastAndDirectedBuffersApartKeepingItsOwnLocal) {
    dirtyFreeBuffers();
    TestStream stream(3, {2, 4});
    const auto sendTo = [&stream](int destination,
                                  klNetBufferSendMode mode = klNetSendModeDefault) {
        klNetMessage message;
        message << std::uint8_t(destination);
        stream.sendMessage(message, destination, mode);
    };
    stream << std::uint16_t(0xBEEF);  // byte-stream data, left in the stream's own buffer
    sendTo(0);
    sendTo(2, klNetSendModeSecondStage);
    sendTo(3);  // its own rank: to its own receiver, numbered as directed
    sendTo(4);
    EXPECT_EQ(3u, stream.out->sent().size());  // sending a message does not flush the byte stream
    stream << klNetStream::flush;
    ASSERT_EQ(1u, stream.in->script.size());
    Buffers all = stream.out->sent();
    all.push_back(stream.in->script[0]);
    EXPECT_EQ((std::vector<Bytes>{
                  hex("0000 01 00 03000000 00000000"), hex("0000 01 00 03000000 02000000"),
                  hex("0200 01 00 03000000 04000000"), hex("0100 00 00 03000000 00000000"),
                  hex("0100 01 00 03000000 03000000")}),
              stampsOf(all));
    EXPECT_EQ(klNetSendModeSecondStage, all.at(1)->getSendMode());
    EXPECT_EQ(hex("EFBE"), payloadOf(*all.at(3)));
    EXPECT_EQ(4 * 25u + 26u, stream.getSentBytes());  // wire bytes, the local buffer's too
    klNetMessage received;
    stream.recvMessage(received);
    EXPECT_EQ(hex("03"), readBytes(received, 1));
    EXPECT_EQ(25u, stream.getRecevedBytes());
    stream.resetStatistics();
    EXPECT_EQ(0u, stream.getSentBytes() + stream.getRecevedBytes());
    EXPECT_EQ(1, stream.out->resets);

    // A new sender restarts both counters and drops what was written but not yet flushed.
    auto second = std::make_shared<ProbeSender>(std::set<unsigned int>{2});
    stream << std::uint8_t(0xDD);
    stream.setSender(second);
    stream.flush();
    EXPECT_TRUE(second->sent().empty());
    sendTo(2);
    stream << std::uint8_t(0x09) << klNetStream::flush;
    EXPECT_EQ((std::vector<Bytes>{hex("0000 01 00 03000000 02000000"),
                                  hex("0000 00 00 03000000 00000000")}),
              stampsOf(second->sent()));
    EXPECT_EQ(hex("09"), payloadOf(*second->sent().at(1)));
}

namespace {

constexpr std::size_t kWhole = 131072;

std::vector<std::size_t> sizesOf(const Buffers& buffers) {
    std::vector<std::size_t> sizes;
    for (const auto& buffer : buffers) {
        sizes.push_back(buffer->getDataSize());
    }
    return sizes;
}

// Throws instead of taking the first `failures` buffers.
struct FailingSender : ProbeSender {
    void send(const Buffer& buffer) override {
        if (failures > 0) {
            --failures;
            throw klConnectionClosed();
        }
        ProbeSender::send(buffer);
    }
    int failures = 0;
};

}  // namespace

// A buffer filled exactly stays current until the next write or flush, so that clearing the send
// buffer can still drop it, whether the bytes came in pieces or in one write of whole buffers.
TEST(klNetStream, WritesSendOnlyTheBuffersTheyHaveFilledAndGoneBeyond) {
    const struct Row {
        std::vector<std::size_t> writes;
        bool clear;  // clearSendBuffer() before the flush
        std::vector<std::size_t> sentByWrites, sentByFlush;
    } rows[] = {
        {{kWhole}, false, {}, {kWhole}},
        {{5, kWhole - 5}, true, {}, {}},
        {{2 * kWhole}, true, {kWhole}, {kWhole}},
        {{300000}, false, {kWhole, kWhole}, {kWhole, kWhole, 37856}},
        {{3, 2 * kWhole + 1}, false, {kWhole, kWhole}, {kWhole, kWhole, 4}},
    };
    const Bytes data = pattern(4 * kWhole);
    for (const Row& row : rows) {
        SCOPED_TRACE(testing::PrintToString(row.writes));
        TestStream stream(2, {1});
        std::size_t done = 0;
        for (const std::size_t size : row.writes) {
            stream.putBytes(data.data() + done, size);
            done += size;
        }
        EXPECT_EQ(row.sentByWrites, sizesOf(stream.out->sent()));
        if (row.clear) {
            stream.clearSendBuffer();
        }
        stream.flush();
        const Buffers sent = stream.out->sent();
        EXPECT_EQ(row.sentByFlush, sizesOf(sent));
        const Bytes payload = concatPayloads(sent);
        EXPECT_TRUE(std::equal(payload.begin(), payload.end(), data.begin()));
    }
}

// A send that fails leaves the bytes written in the stream's buffer: the next flush sends them.
TEST(klNetStream, AFailedSendKeepsItsBytesForTheNextFlush) {
    const struct Row {
        std::size_t size;
        const char *written, *flushed;  // how the write and the first flush ended
        std::size_t resent;
    } rows[] = {
        {3, "returned", "closed", 3},
        // The bytes behind the buffer that failed were never taken.
        {kWhole + 5, "closed", "returned", kWhole},
    };
    const Bytes data = pattern(2 * kWhole);
    for (const Row& row : rows) {
        SCOPED_TRACE(row.size);
        TestStream stream(2, {1});
        auto sender = std::make_shared<FailingSender>();
        stream.setSender(sender);
        sender->failures = 1;
        EXPECT_EQ(row.written, outcome([&] { stream.putBytes(data.data(), row.size); }));
        EXPECT_EQ(row.flushed, outcome([&] { stream.flush(); }));
        stream.flush();
        ASSERT_EQ(std::vector<std::size_t>{row.resent}, sizesOf(sender->sent()));
        EXPECT_EQ(Bytes(data.begin(), data.begin() + std::ptrdiff_t(row.resent)),
                  payloadOf(*sender->sent()[0]));
    }
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

    // The mirror case: stream data where a message is expected.
    klNetMessage message;
    KL_EXPECT_THROW_TEXT(stream.recvMessage(message), klNetError,
                         "Stream out of sync. Wrong message type");
    stream.recvMessage(message);
    EXPECT_EQ(hex("BB"), readBytes(message, 1));
    EXPECT_EQ(25u + 26u + 25u + 25u, stream.getRecevedBytes());
}

TEST(klNetStream, ReassemblesMessagesByTheLow16BitsOfSourceAndTheMessageId) {
    const Bytes data = pattern(12);
    TestStream peer(4);
    klNetMessage sent(4);
    sent.putBytes(data.data(), data.size());
    peer.sendMessage(sent, 2);
    const Buffers parts = peer.out->sent();
    ASSERT_EQ(3u, parts.size());
    TestStream stream(2, {4}, {parts[2], parts[0], parts[1]});
    klNetMessage message;
    EXPECT_FALSE(stream.tryRecvMessage(message));
    EXPECT_FALSE(stream.tryRecvMessage(message));
    ASSERT_TRUE(stream.tryRecvMessage(message));
    Bytes read = readBytes(message, 1);  // the first buffer's header shows once it is read
    EXPECT_EQ(4u, message.getSource());
    const Bytes rest = readBytes(message, data.size() - 1);
    read.insert(read.end(), rest.begin(), rest.end());
    EXPECT_EQ(data, read);
    EXPECT_FALSE(stream.tryRecvMessage(message));  // nothing readable: no receive is tried
    EXPECT_EQ(3, stream.in->calls);

    // The completed message left the collection, so its parts collect afresh. Parts of messages
    // from several sources interleave; 0x10002 and 2 agree in their low 16 bits and meet.
    const auto part = [](unsigned source, unsigned sequence, unsigned char byte) {
        return makeBuffer(Bytes{byte}, klNetMessageTypeMessage, source, 1, sequence, 77, 2);
    };
    stream.in->script = {parts[1],         part(5, 1, 0xB1),       parts[0],
                         part(3, 0, 0xA0), part(5, 0, 0xB0),       parts[2],
                         part(3, 1, 0xA1), part(0x10002, 0, 0xC0), part(2, 1, 0xD1)};
    std::vector<Bytes> completed;
    while (!stream.in->script.empty()) {
        stream.recvMessage(message);
        completed.push_back(readBytes(message));
    }
    EXPECT_EQ((std::vector<Bytes>{hex("B0 B1"), data, hex("A0 A1"), hex("C0 D1")}), completed);
}

TEST(klNetStream, ResultsTravelAsOneByteAndRemoteTextsComeBackAsklNetError) {
    TestStream callee(2, {1});
    callee.sendSuccess().sendException(std::runtime_error("disk full")) << klNetStream::flush;
    callee.sendException(std::invalid_argument("")) << klNetStream::flush;
    ASSERT_EQ(2u, callee.out->sent().size());
    EXPECT_EQ(hex("01 00 0A000000 6469736B2066756C6C 00"),  // "disk full" and its zero byte
              payloadOf(*callee.out->sent()[0]));
    EXPECT_EQ(hex("00 01000000 00"), payloadOf(*callee.out->sent()[1]));

    TestStream caller(1, {2}, callee.out->sent());
    EXPECT_EQ(&caller, &caller.recvResult());
    KL_EXPECT_THROW_TEXT(caller.recvResult(), klNetError, "disk full");
    KL_EXPECT_THROW_TEXT(caller.recvResult(), klNetError, "");

    klNetMessage message;  // the flush manipulator flushes streams only
    message << std::uint8_t(1);
    KL_EXPECT_THROW_TEXT(message << klNetStream::flush, klNetError,
                         "Unable to flush this type of stream");
}

TEST(klNetStream, SyncGoesFromTheMasterToAllAndBackOncePerDestination) {
    const auto fromMaster = syncFrom(1, 42), fromNode = syncFrom(3, -2);
    EXPECT_EQ((std::vector<Bytes>{hex("0000 01 00 01000000 00000000"),
                                  hex("0000 01 00 03000000 01000000")}),
              stampsOf({fromMaster, fromNode}));
    EXPECT_EQ(hex("2A000000"), payloadOf(*fromMaster));
    EXPECT_EQ(hex("FEFFFFFF"), payloadOf(*fromNode));
    TestStream node(3, {1}, {fromMaster});
    EXPECT_EQ(42, node.waitSync());

    TestStream alone(1, {}, {syncFrom(2, 5)});  // a master without destinations waits for nobody
    EXPECT_EQ(0, alone.waitSync());
    EXPECT_EQ(0, alone.in->calls);
    // One reply per destination, in any order; the value is that of the last.
    TestStream master(1, {2, 3}, {syncFrom(3, 30), syncFrom(2, 20)});
    EXPECT_EQ(20, master.waitSync());
    EXPECT_EQ(2, master.in->calls);
    TestStream confused(1, {2, 3}, {syncFrom(2, 20), syncFrom(2, 21)});
    KL_EXPECT_THROW_TEXT(confused.waitSync(), klNetError,
                         "Synchronisation error: multiple responses from 2");
}

TEST(klNetStream, WithoutItsChainAStreamThrowsConnectionClosedAndShutdownReachesBothLinks) {
    klNetStream stream;
    stream.setRank(1);
    EXPECT_EQ(0, stream.waitSync());  // a master without a sender waits for nobody
    stream.setRank(2);
    stream.setReceiver(std::make_shared<ScriptedReceiver>());
    klNetMessage message;
    std::uint8_t byte = 1;
    message << byte;
    KL_EXPECT_THROW_TEXT(stream << byte << klNetStream::flush, klConnectionClosed, kClosed);
    KL_EXPECT_THROW_TEXT(stream.sendMessage(message, 1), klConnectionClosed, kClosed);
    stream.setReceiver(nullptr);
    stream.setSender(std::make_shared<ProbeSender>());
    KL_EXPECT_THROW_TEXT(stream >> byte, klConnectionClosed, kClosed);
    KL_EXPECT_THROW_TEXT(stream.recvMessage(message), klConnectionClosed, kClosed);

    auto outLink = std::make_shared<TestLink>();
    auto inLink = std::make_shared<TestLink>();
    stream.setSender(klNetLinkSender::create(outLink));
    stream.setReceiver(klNetSortReceiver::create(klNetLinkReceiver::create(inLink)));
    klNetInterfaceOptions options;
    EXPECT_EQ(outLink, klSocketLink::create(stream, options, false));  // the sender's first link
    stream.shutdown();
    EXPECT_EQ(1, outLink->shutdowns);
    EXPECT_EQ(1, inLink->shutdowns);
    EXPECT_TRUE(stream.getSender() && stream.getReceiver());  // the chains stay set
}

TEST(klNetStream, WaitingForDataEndsWithAbortedWhenTheUserAbortsAndOnceDataIsThere) {
    TestStream stream(2);
    klNetProgress::abort();
    EXPECT_EQ("Aborted", outcome([&] { stream.waitReadableOrAbort(); }));
    klNetProgress::reset();
    Task user([] { klNetProgress::abort(); });  // before or while the stream waits
    EXPECT_EQ("Aborted", outcome([&] { stream.waitReadableOrAbort(); }));
    ASSERT_TRUE(user.finishedWithin(kBound));
    klNetProgress::reset();
    stream.in->script.push_back(bufferWith({1}));
    EXPECT_EQ("returned", outcome([&] { stream.waitReadableOrAbort(); }));
}
