// Core types: the buffer record and its wire header, bundling and splitting, the buffer pool,
// interface options and their wire form, and error texts.
#include <support/klNetPipelineSupport.h>

#include <cerrno>
#include <fstream>
#include <sstream>
#include <thread>

using namespace kltest;

namespace {

// A buffer with every header field set from tag, so a restored header can be compared whole.
Buffer stamped(std::size_t size, unsigned int destination, unsigned int tag) {
    const auto type = tag % 2 != 0 ? klNetMessageTypeMessage : klNetMessageTypeImage;
    auto buffer = makeBuffer(payloadOf(*taggedBuffer(size, 0, static_cast<unsigned char>(tag))),
                             type, 0x1000 + tag, destination, 0x100 + tag, 0x200 + tag, tag);
    buffer->setCompression(klNetCompression(tag % 3), size + tag);
    return buffer;
}

// Every buffer tryBundle makes of the given queue, in order.
Buffers drain(std::initializer_list<Buffer> buffers) {
    std::queue<Buffer> queue(buffers);
    Buffers outs;
    for (Buffer out; klNetBuffer::tryBundle(queue, out);) {
        outs.push_back(out);
    }
    return outs;
}

// The wire images of the records of a bundle.
std::vector<Bytes> recordsOf(const Buffer& bundle) {
    std::queue<Buffer> records;
    bundle->split(records);
    std::vector<Bytes> wires;
    for (; !records.empty(); records.pop()) {
        wires.push_back(wireOf(*records.front()));
    }
    return wires;
}

}  // namespace

TEST(klNetBuffer, HeaderFieldsSitAtTheirWireOffsetsAndSettersTruncateToTheFieldWidth) {
    auto buffer = std::make_unique<klNetBuffer>();
    EXPECT_EQ(Bytes(24, 0), headerOf(*buffer));
    EXPECT_TRUE(buffer->isMulticast());

    // Every value has one bit more than its field holds.
    buffer->setDataSize(0x1'FFFF'FFF0);
    buffer->setCompression(klNetCompression(0x5A), 0x1'5566'7788);
    buffer->setSequence(0x1'99AA);
    buffer->setType(klNetMessageTypeImage);
    buffer->setSource(0x1'0102'0304);
    buffer->setDestination(0x1'0506'0708);
    buffer->setMessageId(0x1'BBCC);
    buffer->setMessageBufferCount(0x1'DDEE);
    buffer->setSendMode(klNetSendModeSecondStage);  // local only: never in the header
    EXPECT_EQ(hex("F0FFFFFF 88776655 AA99 02 5A 04030201 08070605 CCBB EEDD"), headerOf(*buffer));
    EXPECT_EQ(0x1'0000'0008u, buffer->getBufferSize());       // no 32-bit wrap
    EXPECT_EQ(0xFFFFFFF0u, buffer->getCompressedDataSize());  // compressed: dataSize
    EXPECT_FALSE(buffer->isMulticast());
    buffer->setDestination(0x1'0000'0000);
    EXPECT_TRUE(buffer->isMulticast());
    buffer->setCompression(klNetCompressionNone, 300);  // uncompressed: originalDataSize
    EXPECT_EQ(300u, buffer->getCompressedDataSize());

    // Sequence order is plain unsigned 16-bit order, without wrap-around.
    const Buffer low = bufferWith({}), high = bufferWith({});
    low->setSequence(0);
    high->setSequence(65535);
    EXPECT_TRUE(low->isSequenceLess(high) && !high->isSequenceLess(low));
    EXPECT_FALSE(low->isSequenceLess(low));
}

TEST(klNetBundle, TryBundleTakesOnlyTheConsecutiveRunForTheFirstDestination) {
    const Buffer a = stamped(10, 2, 1), b = stamped(11, 2, 2), c = stamped(12, 3, 3),
                 d = stamped(13, 2, 4), zero = stamped(0, 2, 5);
    std::queue<Buffer> empty;
    Buffer out = a;
    EXPECT_FALSE(klNetBuffer::tryBundle(empty, out));
    EXPECT_EQ(a, out);
    const auto outs = drain({a, b, c, d});  // 2, 2, 3, 2: the run ends at 3, the last 2 stays apart
    ASSERT_EQ(3u, outs.size());
    EXPECT_EQ((std::vector<Bytes>{wireOf(*a), wireOf(*b)}), recordsOf(outs[0]));
    EXPECT_EQ((Buffers{c, d}), Buffers(outs.begin() + 1, outs.end()));
    // Empty buffers are never packed and end a run, in front and behind.
    EXPECT_EQ((Buffers{a, zero, b}), drain({a, zero, b}));
    EXPECT_EQ((Buffers{zero, a}), drain({zero, a}));
}

TEST(klNetBundle, ABundleHeadsWithTheFirstHeaderAndPacksWireImagesAndOtherBundlesFlat) {
    dirtyFreeBuffers();  // the bundle's pool buffer must have every field reset
    const Buffer a = stamped(3, 2, 1), b = stamped(2, 2, 2), c = stamped(300, 2, 3);
    const Buffer ab = drain({a, b}).at(0);
    EXPECT_EQ(hex("35000000 00000000 0000 03 00 01100000 02000000 0102 0100"
                  "03000000 04000000 0101 01 01 01100000 02000000 0102 0100 01070E"
                  "02000000 04000000 0201 02 02 02100000 02000000 0202 0200 0207"),
              wireOf(*ab));
    const Buffer abc = drain({ab, c}).at(0), cab = drain({c, ab}).at(0);
    EXPECT_EQ(3 * 24 + 305u, abc->getDataSize());
    EXPECT_EQ(a->getSource(), abc->getSource());
    EXPECT_EQ((std::vector<Bytes>{wireOf(*a), wireOf(*b), wireOf(*c)}), recordsOf(abc));
    EXPECT_EQ((std::vector<Bytes>{wireOf(*c), wireOf(*a), wireOf(*b)}), recordsOf(cab));
}

TEST(klNetBundle, PacksOnlyWhileTheRunStaysBelowTheCapacity) {
    const auto takesAll = [](std::initializer_list<Buffer> buffers) {
        std::queue<Buffer> queue(buffers);
        Buffer out;
        return klNetBuffer::tryBundle(queue, out) && queue.empty();
    };
    const auto sized = [](std::size_t size) { return stamped(size, 1, 0); };
    EXPECT_TRUE(takesAll({sized(65000), sized(66553)}));
    EXPECT_FALSE(takesAll({sized(65000), sized(66554)}));
    EXPECT_TRUE(takesAll({sized(40000), sized(40000), sized(51529)}));
    EXPECT_FALSE(takesAll({sized(40000), sized(40000), sized(51530)}));
    // A bundle in front still counts its own 24 header bytes.
    const Buffer bundle = drain({sized(30000), sized(30000)}).at(0);
    EXPECT_TRUE(takesAll({bundle, sized(71505)}));
    EXPECT_FALSE(takesAll({bundle, sized(71506)}));
}

// Run under AddressSanitizer: each crafted bundle is a heap object of its own, so any read or
// write past its payload area lands in a red zone.
TEST(klNetBundle, SplitStaysInsideTheBufferWhateverTheSizesSay) {
    constexpr std::uint32_t kCap = klNetBuffer::kCapacity;
    const struct {
        std::uint32_t bundleSize;
        std::vector<std::uint32_t> declared;  // records chained from offset 0
        std::vector<std::size_t> restored;
    } cases[] = {{kCap, {1000, kCap - 1048}, {1000, kCap - 1048}},  // well formed and full
                 {0xFFFFFFFF, {kCap - 64, 5000}, {kCap - 64, 16}},  // last record past the edge
                 {kCap + 5000, {kCap - 24}, {kCap - 24}},           // bundle size past the area
                 {0x7FFFFFFF, {kCap - 34, 3}, {kCap - 34}},         // partial header: dropped
                 {kCap, {0xFFFFFFFF}, {kCap - 24}},                 // record size all ones
                 {0, {5}, {}},                                      // empty bundle
                 {24 + 10 + 24 + 5, {10, 20}, {10, 20}}};  // past the bundle's end, not the area
    for (const auto& crafted : cases) {
        auto bundle = std::make_unique<klNetBuffer>();
        const Bytes filler = pattern(kCap);
        std::copy(filler.begin(), filler.end(), bundle->getData());
        std::vector<std::size_t> starts;
        for (std::size_t at = 0, i = 0; i < crafted.declared.size(); ++i) {
            klNetHeader header{crafted.declared[i], 7, 0, 1, 0, 0x600 + unsigned(i), 9, 0, 0};
            std::memcpy(bundle->getData() + at, &header, std::min(sizeof(header), kCap - at));
            starts.push_back(at);
            at += 24 + std::size_t(crafted.declared[i]);
        }
        bundle->setType(klNetMessageTypeBundle);
        bundle->setDataSize(crafted.bundleSize);
        std::queue<Buffer> out;
        bundle->split(out);
        ASSERT_EQ(crafted.restored.size(), out.size()) << crafted.bundleSize;
        for (std::size_t i = 0; i < crafted.restored.size(); ++i, out.pop()) {
            const unsigned char* payload = bundle->getData() + starts[i] + 24;
            EXPECT_EQ(0x600 + i, out.front()->getSource());
            EXPECT_EQ(Bytes(payload, payload + crafted.restored[i]), payloadOf(*out.front()));
        }
    }
}

TEST(klNetBufferPool, CreatesZeroedBuffersOnReusedMemoryAndHandsReleasedOnesBackInOrderAsTheyAre) {
    constexpr std::size_t kRecordSize = klNetBuffer::getHeaderSize() + klNetBuffer::getCapacity();
    {  // Leaves freed, dirty buffer memory behind for the allocator to hand out again.
        klNetBufferPool dirty;
        Buffers held;
        dirty.getMany(4, held);
        for (const auto& buffer : held) {
            std::memset(buffer->getBuffer(), 0xA5, kRecordSize);
            buffer->setSendMode(klNetSendModeSecondStage);
        }
    }
    klNetBufferPool pool;
    Buffers out;
    for (const int none : {-3, 0}) {
        pool.getMany(none, out);
    }
    pool.getMany(3, out);  // held at once, so every one is newly created
    ASSERT_EQ(3u, out.size());
    for (const auto& buffer : out) {
        const unsigned char* bytes = buffer->getBuffer();
        EXPECT_TRUE(
            std::all_of(bytes, bytes + kRecordSize, [](unsigned char b) { return b == 0; }));
        EXPECT_EQ(klNetSendModeDefault, buffer->getSendMode());
    }
    const std::vector<klNetBuffer*> raw = {out[0].get(), out[1].get(), out[2].get()};
    out[1]->setDataSize(17);
    out[1]->setSendMode(klNetSendModeFirstStage);
    for (const int i : {1, 2, 0}) {
        out[i].reset();
    }
    pool.getMany(2, out);  // appends
    EXPECT_EQ(raw[1], out[3].get());
    EXPECT_EQ(raw[2], out[4].get());
    EXPECT_EQ(17u, out[3]->getDataSize());  // nothing is reset on the way back
    EXPECT_EQ(klNetSendModeFirstStage, out[3]->getSendMode());
    out[4].reset();  // to the back, behind the one released before
    EXPECT_EQ(raw[0], pool.get().get());
    EXPECT_EQ(raw[2], pool.get().get());
}

TEST(klNetBufferPool, ConcurrentUsersNeverShareABuffer) {
    std::atomic<int> shared{0};
    std::vector<std::thread> threads;
    for (unsigned char id = 1; id <= 6; ++id) {
        threads.emplace_back([&shared, id] {
            for (int round = 0; round < 4000; ++round) {
                Buffers held;  // released at the end of the round, racing with the others
                klNetBufferPool::popMany(1 + (round + id) % 3, held);
                for (const auto& buffer : held) {
                    buffer->getData()[0] = id;
                }
                std::this_thread::yield();
                for (const auto& buffer : held) {
                    shared += buffer->getData()[0] != id;
                }
            }
        });
    }
    for (auto& thread : threads) {
        thread.join();
    }
    EXPECT_EQ(0, shared);
}

namespace {

klNetInterfaceOptions make(int node, const std::string& device, int port, int sync, int image,
                           int lowLatency, bool encrypted) {
    klNetInterfaceOptions options;
    options.setNodeAffinity(node);
    options.setIbDevice(device);
    options.setIbPort(port);
    options.setSyncChannels(sync);
    options.setImageChannels(image);
    options.setLowLatencyChannels(lowLatency);
    options.setEncrypted(encrypted);
    return options;
}

// "node/device/port/sync/image/lowLatency/encrypted"
std::string fields(const klNetInterfaceOptions& o) {
    std::ostringstream text;
    text << o.getNodeAffinity() << '/' << o.getIbDevice() << '/' << o.getIbPort() << '/'
         << o.getSyncChannels() << '/' << o.getImageChannels() << '/' << o.getLowLatencyChannels()
         << '/' << o.getEncrypted();
    return text.str();
}

// Every field is overwritten by what is read.
klNetInterfaceOptions deserialise(const Bytes& wire) {
    return readRecord(wire, make(9, "stale", 9, 9, 9, 9, true));
}

}  // namespace

TEST(klNetOptions, NegativeCompressionSettingSelectsTheDefault) {
    for (const int setting : {0, 3, -5, -1}) {  // ends as the process started
        klNetOptions::setDataCompression(klNetCompression(setting));
        klNetOptions::setImageCompression(klNetCompression(setting));
        EXPECT_EQ(setting < 0 ? 2 : setting, klNetOptions::getDataCompression());
        EXPECT_EQ(setting < 0 ? 0 : setting, klNetOptions::getImageCompression());
    }
}

TEST(klNetInterfaceOptions, ChannelsFallBackToDefaultsWhenNotPositive) {
    const auto channels = [](const klNetInterfaceOptions& o) {
        return std::vector<int>{
            o.getChannels(klNodeConnectionSync), o.getChannels(klNodeConnectionImage),
            o.getChannels(klNodeConnectionLowLatency), o.getChannels(klNodeConnectionType(0)),
            o.getChannels(klNodeConnectionType(7))};
    };
    EXPECT_EQ((std::vector<int>{1, 4, 9, 4, 4}), channels(make(-1, "", -1, 0, -1, 9, false)));
    EXPECT_EQ((std::vector<int>{2, 3, 6, 4, 4}), channels(make(-1, "", -1, 2, 3, 0, false)));
}

TEST(klNetInterfaceOptions, AddMergesWhatTheOtherSetsWithItsAsymmetries) {
    auto base = make(3, "mlx5_0", 2, 5, 6, 7, true);
    base.add(make(-1, "", -1, 0, -1, -1, false));  // sets nothing; encryption is never switched off
    EXPECT_EQ("3/mlx5_0/2/5/6/7/1", fields(base));
    base.add(make(0, "", 0, -1, -1, 8, false));     // 0 is a set node and port
    EXPECT_EQ("0/mlx5_0/0/5/8/7/1", fields(base));  // low latency lands in the image channels
    base.add(make(-1, "ib1", -1, 12, 10, 8, false));
    EXPECT_EQ("0/ib1/0/12/8/7/1", fields(base));  // and wins over the image count
    klNetInterfaceOptions plain;
    plain.add(base);
    EXPECT_EQ("0/ib1/0/12/7/-1/1", fields(plain));
}

TEST(klNetInterfaceOptions, WireFormIsPinnedAndReadsBack) {
    const Bytes defaults = hex("FFFFFFFF 01000000 00 FFFFFFFF FFFFFFFF FFFFFFFF FFFFFFFF 00");
    EXPECT_EQ(defaults, wireOfRecord(klNetInterfaceOptions()));
    EXPECT_EQ("-1//-1/-1/-1/-1/0", fields(deserialise(defaults)));
    // The device travels up to its first zero byte.
    const Bytes wire = wireOfRecord(make(1, std::string("ib0\0tail", 8), 0x0102, 2, 3, 4, true));
    EXPECT_EQ(hex("01000000 04000000 69623000 02010000 02000000 03000000 04000000 01"), wire);
    EXPECT_EQ("1/ib0/258/2/3/4/1", fields(deserialise(wire)));
    // A zero length is an empty device with no bytes; any non-zero flag byte is true.
    EXPECT_EQ("5//6/7/8/9/1",
              fields(deserialise(hex("05000000 00000000 06000000 07000000 08000000 09000000 02"))));
}

TEST(klNetError, TextsAreExactAndErrorStringsAreNumberColonSystemText) {
    errno = ECONNREFUSED;
    EXPECT_EQ("111:Connection refused", klNetError::getLastErrorString());
    errno = 0;
    EXPECT_EQ("", klNetError::getLastErrorString());
    EXPECT_EQ("104:Connection reset by peer", klNetError::getErrorString(ECONNRESET));
    // Numbers without a system text keep the number and the colon alone, printed unsigned.
    EXPECT_EQ("4294967295:", klNetError::getErrorString(-1));
    EXPECT_EQ("4000:", klNetError::getErrorString(4000));

    // A two-way string stream gives its text too; a stream of another kind gives none.
    std::stringstream twoWay;
    twoWay << "Unable to connect to " << 8889;
    EXPECT_STREQ("Unable to connect to 8889", klNetError(twoWay).what());
    EXPECT_STREQ("", klNetError(std::ofstream()).what());
    KL_EXPECT_THROW_TEXT(throw klConnectionClosed(), klNetError, "Connection closed");
    KL_EXPECT_THROW_TEXT(
        throw klConnectionTimeout(), klNetError,
        "recv error: Connected party did not properly respond after a period of time.");
}
