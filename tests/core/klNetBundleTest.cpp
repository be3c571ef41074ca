#include <support/klNetPipelineSupport.h>

#include <gtest/gtest.h>

#include <initializer_list>

using kltest::Bytes;
using kltest::hex;
using Buffer = std::shared_ptr<klNetBuffer>;

namespace {

// A buffer with every header field set from tag, so a restored header can be compared whole.
Buffer stamped(std::size_t size, unsigned int destination, unsigned int tag) {
    auto buffer = kltest::taggedBuffer(size, destination, static_cast<unsigned char>(tag));
    buffer->setType(tag % 2 != 0 ? klNetMessageTypeMessage : klNetMessageTypeImage);
    buffer->setCompression(klNetCompression(tag % 3), size + tag);
    buffer->setSequence(0x100 + tag);
    buffer->setSource(0x1000 + tag);
    buffer->setMessageId(0x200 + tag);
    buffer->setMessageBufferCount(tag);
    return buffer;
}

Bytes wireOf(const klNetBuffer& buffer) {
    return Bytes(buffer.getBuffer(), buffer.getBuffer() + buffer.getBufferSize());
}

// Every buffer tryBundle makes of the given queue, in order.
std::vector<Buffer> drain(std::initializer_list<Buffer> buffers) {
    std::queue<Buffer> queue;
    for (const auto& buffer : buffers) {
        queue.push(buffer);
    }
    std::vector<Buffer> outs;
    for (Buffer out; klNetBuffer::tryBundle(queue, out);) {
        outs.push_back(out);
    }
    return outs;
}

// The wire images of the records of a bundle.
std::vector<Bytes> recordsOf(const klNetBuffer& bundle) {
    EXPECT_EQ(klNetMessageTypeBundle, bundle.getType());
    std::queue<Buffer> restored;
    bundle.split(restored);
    std::vector<Bytes> records;
    for (; !restored.empty(); restored.pop()) {
        records.push_back(wireOf(*restored.front()));
    }
    return records;
}

}  // namespace

TEST(klNetBundle, TryBundleTakesOnlyTheConsecutiveRunForTheFirstDestination) {
    std::queue<Buffer> empty;
    Buffer out = kltest::bufferWith({1});
    const Buffer before = out;
    EXPECT_FALSE(klNetBuffer::tryBundle(empty, out));
    EXPECT_EQ(before, out);

    const Buffer a = stamped(10, 2, 1), b = stamped(11, 2, 2), c = stamped(12, 3, 3),
                 d = stamped(13, 2, 4), zero = stamped(0, 2, 5);
    EXPECT_EQ(std::vector<Buffer>{a}, drain({a}));

    auto outs = drain({a, b, c, d});  // 2, 2, 3, 2: the run ends at 3, the last 2 stays apart
    ASSERT_EQ(3u, outs.size());
    EXPECT_EQ((std::vector<Bytes>{wireOf(*a), wireOf(*b)}), recordsOf(*outs[0]));
    EXPECT_EQ(c, outs[1]);
    EXPECT_EQ(d, outs[2]);

    // Empty buffers are never packed and end a run, in front and behind.
    EXPECT_EQ((std::vector<Buffer>{a, zero, b}), drain({a, zero, b}));
    EXPECT_EQ((std::vector<Buffer>{zero, a}), drain({zero, a}));
}

TEST(klNetBundle, ABundleHeadsWithTheFirstHeaderAndCarriesWholeWireImages) {
    kltest::dirtyFreeBuffers();  // the bundle's pool buffer must have every field reset
    const Buffer a = stamped(3, 2, 1), b = stamped(2, 2, 2);
    const auto outs = drain({a, b});
    ASSERT_EQ(1u, outs.size());
    EXPECT_EQ(hex("35000000 00000000 0000 03 00 01100000 02000000 0102 0100"
                  "03000000 04000000 0101 01 01 01100000 02000000 0102 0100 01070E"
                  "02000000 04000000 0201 02 02 02100000 02000000 0202 0200 0207"),
              wireOf(*outs[0]));

    std::queue<Buffer> restored;
    outs[0]->split(restored);
    ASSERT_EQ(2u, restored.size());
    EXPECT_EQ(wireOf(*a), wireOf(*restored.front()));
    EXPECT_NE(a, restored.front());
    restored.pop();
    EXPECT_EQ(wireOf(*b), wireOf(*restored.front()));
}

TEST(klNetBundle, ABundleIsPackedFlatWhereverItStandsInTheRun) {
    const Buffer a = stamped(100, 4, 1), b = stamped(200, 4, 2), c = stamped(300, 4, 3);
    const auto inner = drain({b, c});
    ASSERT_EQ(1u, inner.size());

    auto outs = drain({a, inner[0]});
    ASSERT_EQ(1u, outs.size());
    EXPECT_EQ(3 * 24 + 600u, outs[0]->getDataSize());
    EXPECT_EQ((std::vector<Bytes>{wireOf(*a), wireOf(*b), wireOf(*c)}), recordsOf(*outs[0]));

    outs = drain({inner[0], a});
    ASSERT_EQ(1u, outs.size());
    EXPECT_EQ(b->getSource(), outs[0]->getSource());
    EXPECT_EQ((std::vector<Bytes>{wireOf(*b), wireOf(*c), wireOf(*a)}), recordsOf(*outs[0]));
}

// Payload sizes queued in order (the first two already bundled when firstIsBundle), and whether
// one tryBundle packs all of them or stops before the last.
struct RoomCase {
    const char* name;
    bool firstIsBundle;
    std::vector<std::size_t> sizes;
    bool packsAll;
};

class klNetBundleRoom : public ::testing::TestWithParam<RoomCase> {};

TEST_P(klNetBundleRoom, PacksOnlyWhileTheRunStaysBelowTheCapacity) {
    const RoomCase& room = GetParam();
    std::vector<Buffer> buffers;
    for (std::size_t i = 0; i < room.sizes.size(); ++i) {
        buffers.push_back(stamped(room.sizes[i], 1, unsigned(i)));
    }
    std::queue<Buffer> queue;
    std::size_t i = 0;
    if (room.firstIsBundle) {
        queue.push(drain({buffers[0], buffers[1]}).at(0));
        i = 2;
    }
    for (; i < buffers.size(); ++i) {
        queue.push(buffers[i]);
    }
    const Buffer first = queue.front();
    Buffer out;
    ASSERT_TRUE(klNetBuffer::tryBundle(queue, out));
    std::vector<Bytes> expected;
    for (std::size_t k = 0; k + (room.packsAll ? 0 : 1) < buffers.size(); ++k) {
        expected.push_back(wireOf(*buffers[k]));
    }
    if (!room.packsAll && expected.size() == (room.firstIsBundle ? 2u : 1u)) {
        EXPECT_EQ(first, out);  // nothing joined: the front buffer itself
    }
    EXPECT_EQ(expected, out->getType() == klNetMessageTypeBundle
                            ? recordsOf(*out)
                            : std::vector<Bytes>{wireOf(*out)});
    EXPECT_EQ(room.packsAll ? 0u : 1u, queue.size());
}

INSTANTIATE_TEST_SUITE_P(
    Sizes, klNetBundleRoom,
    ::testing::Values(RoomCase{"TwoOf65000", false, {65000, 65000}, true},
                      RoomCase{"TwoOf65800", false, {65800, 65800}, false},
                      RoomCase{"PairOneBelowTheCapacity", false, {65000, 66553}, true},
                      RoomCase{"PairAtTheCapacity", false, {65000, 66554}, false},
                      RoomCase{"ThirdOneBelowTheCapacity", false, {40000, 40000, 51529}, true},
                      RoomCase{"ThirdAtTheCapacity", false, {40000, 40000, 51530}, false},
                      // A bundle in front still counts its own 24 header bytes.
                      RoomCase{"AfterABundleBelow", true, {30000, 30000, 71505}, true},
                      RoomCase{"AfterABundleStricter", true, {30000, 30000, 71506}, false}),
    [](const auto& info) { return std::string(info.param.name); });

TEST(klNetBundle, IsSequenceLessComparesPlainUnsigned16BitNumbers) {
    const Buffer low = kltest::bufferWith({}), high = kltest::bufferWith({});
    low->setSequence(0);
    high->setSequence(65535);
    EXPECT_TRUE(low->isSequenceLess(high));
    EXPECT_FALSE(high->isSequenceLess(low));  // no wrap-around
    EXPECT_FALSE(low->isSequenceLess(low));
    high->setSequence(1);
    EXPECT_TRUE(low->isSequenceLess(high));
}

// A bundle crafted by hand: records chained from offset 0 with the given declared sizes, the
// bundle's own dataSize, and the payload sizes split must restore.
struct CraftedCase {
    const char* name;
    std::uint32_t bundleSize;
    std::vector<std::uint32_t> declared;
    std::vector<std::size_t> restored;
};

class klNetBundleSplit : public ::testing::TestWithParam<CraftedCase> {};

// Run under AddressSanitizer: the crafted buffer is a heap object of its own, so any read or write
// past its payload area lands in a red zone.
TEST_P(klNetBundleSplit, StaysInsideTheBufferWhateverTheSizesSay) {
    const CraftedCase& crafted = GetParam();
    constexpr std::size_t kCapacity = klNetBuffer::kCapacity;
    auto bundle = std::make_unique<klNetBuffer>();
    const Bytes filler = kltest::pattern(kCapacity);
    std::copy(filler.begin(), filler.end(), bundle->getData());
    std::vector<std::size_t> starts;
    for (std::size_t at = 0, i = 0; i < crafted.declared.size(); ++i) {
        klNetHeader header{
            crafted.declared[i], 7, std::uint16_t(i), 1, 0, 0x600 + unsigned(i), 9, 0, 0};
        std::memcpy(bundle->getData() + at, &header, std::min(sizeof(header), kCapacity - at));
        starts.push_back(at);
        at += 24 + std::size_t(crafted.declared[i]);
    }
    bundle->setType(klNetMessageTypeBundle);
    bundle->setDataSize(crafted.bundleSize);

    std::queue<Buffer> out;
    bundle->split(out);
    ASSERT_EQ(crafted.restored.size(), out.size());
    for (std::size_t i = 0; i < crafted.restored.size(); ++i, out.pop()) {
        const klNetBuffer& record = *out.front();
        const unsigned char* payload = bundle->getData() + starts[i] + 24;
        EXPECT_EQ(crafted.restored[i], record.getDataSize()) << "record " << i;
        EXPECT_EQ(0x600 + i, record.getSource());
        EXPECT_EQ(7u, record.getOriginalDataSize());
        EXPECT_EQ(Bytes(payload, payload + crafted.restored[i]), kltest::payloadOf(record));
    }
}

constexpr std::uint32_t kCap = klNetBuffer::kCapacity;
INSTANTIATE_TEST_SUITE_P(
    Crafted, klNetBundleSplit,
    ::testing::Values(
        CraftedCase{"WellFormedAndFull", kCap, {1000, kCap - 1048}, {1000, kCap - 1048}},
        CraftedCase{
            "HugeBundleSizeLastRecordPastTheEdge", 0xFFFFFFFF, {kCap - 64, 5000}, {kCap - 64, 16}},
        CraftedCase{"BundleSizeBeyondTheCapacity", kCap + 5000, {kCap - 24}, {kCap - 24}},
        CraftedCase{"PartialHeaderAtTheEdgeIsDropped", 0x7FFFFFFF, {kCap - 34, 3}, {kCap - 34}},
        CraftedCase{"RecordSizeAllOnes", kCap, {0xFFFFFFFF}, {kCap - 24}},
        CraftedCase{"EmptyBundle", 0, {5}, {}}),
    [](const auto& info) { return std::string(info.param.name); });

// A record whose size runs past the bundle's own end, but not past the payload area, is still
// copied as its header says.
TEST(klNetBundle, ARecordPastTheBundlesEndIsCopiedAsItsHeaderSaysWithinThePayloadArea) {
    const Buffer a = stamped(10, 1, 1), b = stamped(20, 1, 2);
    const auto outs = drain({a, b});
    ASSERT_EQ(1u, outs.size());
    outs[0]->setDataSize(24 + 10 + 24 + 5);
    std::queue<Buffer> restored;
    outs[0]->split(restored);
    ASSERT_EQ(2u, restored.size());
    restored.pop();
    EXPECT_EQ(20u, restored.front()->getDataSize()) << "cut at the bundle's end, not the edge";
    EXPECT_EQ(kltest::payloadOf(*b), kltest::payloadOf(*restored.front()));
}
