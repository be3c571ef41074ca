// The compressing sender and the decompressing receiver with the LZ4 and Zstandard compressors:
// which buffers are compressed and on which thread, the exact refusal of broken payloads from a
// peer, errors on the stages' workers, and round trips through the stages over a socket link.
#include <support/klNetPipelineSupport.h>
#include <support/klNetProcessTestSupport.h>

#include <klNetBase/codecs/klNetCodecs.h>
#include <klNetBase/recv/klNetDecompressReceiver.h>
#include <klNetBase/send/klNetCompressSender.h>

#include <random>

using namespace kltest;

namespace {

// Sets the process-wide compression settings; the defaults come back after it.
struct Settings {
    Settings(int data, int image) { set(data, image); }
    ~Settings() { set(-1, -1); }
    static void set(int data, int image) {
        klNetOptions::setDataCompression(klNetCompression(data));
        klNetOptions::setImageCompression(klNetCompression(image));
    }
};

// A real codec behind a hook that runs first in compress() and may throw.
struct Hooked : klNetCompressorBase {
    using klNetCompressorBase::getRequestedCompression;
    Buffer compress(const Buffer& in) override {
        if (hook)
            hook(in);
        return lz4->compress(in);
    }
    Buffer decompress(const Buffer& in) override { return lz4->decompress(in); }
    bool isCompressible(const Buffer& in) override { return lz4->isCompressible(in); }
    std::shared_ptr<klNetBlockCompressor> lz4 = klNetLz4Compressor::create();
    std::function<void(const Buffer&)> hook;
};

struct Codec {
    const char* label;
    const char* name;
    klNetCompression method;
    std::function<std::shared_ptr<klNetBlockCompressor>()> make;
};

// Names the case in test names and failures.
void PrintTo(const Codec& codec, std::ostream* os) {
    *os << codec.label;
}

const Codec kCodecs[] = {
    {"Lz4", "LZ4", klNetCompression(2), [] { return klNetLz4Compressor::create(); }},
    {"Zstd", "Zstandard", klNetCompression(3), [] { return klNetZstdCompressor::create(); }},
    {"ZstdFast", "Zstandard", klNetCompression(3), [] { return klNetZstdCompressor::create(-5); }},
};

// Rows of 4-byte pixels: a smooth gradient with sparse noise, as rendered images look.
Bytes imageBytes(std::size_t size, unsigned seed) {
    std::mt19937 random(seed);
    Bytes bytes(size);
    for (std::size_t i = 0; i < size; ++i) {
        const std::size_t pixel = i / 4;
        bytes[i] = static_cast<unsigned char>((pixel % 1024) / 5 + (i % 4) * 40 +
                                              (random() % 16 == 0 ? random() % 3 : 0));
    }
    return bytes;
}

Bytes randomBytes(std::size_t size, unsigned seed) {
    std::mt19937 random(seed);
    Bytes bytes(size);
    std::generate(bytes.begin(), bytes.end(), std::ref(random));
    return bytes;
}

// A buffer as a stream hands it on: every header field set, nothing compressed yet.
Buffer stamped(const Bytes& payload, klNetMessageType type, std::size_t sequence = 0) {
    Buffer buffer = makeBuffer(payload, type, 7, 0, unsigned(sequence), 0x1234, 5);
    buffer->setSendMode(klNetSendModeSecondStage);
    return buffer;
}

}  // namespace

TEST(klNetCompressorBase, DecidesByHeaderAndTheSettingOfTheBuffersType) {
    const struct Row {
        klNetMessageType type;
        int compression, original, data, image;
        bool should;
        int requested;
    } rows[] = {
        {klNetMessageTypeStream, 0, 100, 2, 0, true, 2},
        {klNetMessageTypeMessage, 0, 50, 3, 0, true, 3},  // original below data size is fine
        {klNetMessageTypeMessage, 0, 100, 0, 4, false, 0},
        {klNetMessageTypeImage, 0, 100, 0, 4, true, 4},
        {klNetMessageTypeImage, 0, 100, 2, 0, false, 0},
        {klNetMessageTypeBundle, 0, 100, 2, 2, false, 2},
        {klNetMessageTypeStream, 2, 100, 2, 2, false, 2},  // compressed already
        {klNetMessageTypeStream, 0, 101, 2, 2, false, 2},  // shrunk already
    };
    Hooked codec;
    for (const Row& row : rows) {
        Settings settings(row.data, row.image);
        Buffer buffer = taggedBuffer(100, 1);
        buffer->setType(row.type);
        buffer->setCompression(klNetCompression(row.compression), row.original);
        EXPECT_EQ(row.should, codec.shouldCompress(buffer)) << &row - rows;
        EXPECT_EQ(row.requested, codec.getRequestedCompression(buffer)) << &row - rows;
    }
}

TEST(klNetCompressSender, BuffersNotToCompressGoOutOnTheCallersThreadCountedAndStartNoWorker) {
    Settings settings(0, 0);
    auto probe = std::make_shared<ProbeSender>(std::set<unsigned int>{1});
    std::vector<std::thread::id> callers;
    probe->recorder->hook = [&](const Buffer&) { callers.push_back(std::this_thread::get_id()); };
    const std::size_t threads = procEntries(::getpid(), "task");
    auto sender = klNetCompressSender::create(std::make_shared<Hooked>(), probe);
    sender->send(stamped(imageBytes(10000, 1), klNetMessageTypeStream));
    sender->send(stamped({}, klNetMessageTypeStream));
    EXPECT_EQ(10024u + 24u, sender->getCompressedBytes());
    {
        Settings compressing(2, 2);  // still bypassing: compressed already, bundle
        Buffer done = stamped(imageBytes(5000, 2), klNetMessageTypeStream);
        done->setCompression(klNetCompression(2), 8000);
        sender->send(done);
        sender->send(stamped(imageBytes(6000, 3), klNetMessageTypeBundle));
    }
    EXPECT_EQ(threads, procEntries(::getpid(), "task"))
        << "a worker started without anything to compress";
    EXPECT_EQ(std::vector<std::thread::id>(4, std::this_thread::get_id()), callers);
    EXPECT_EQ(10048u + 5024u + 6024u, sender->getCompressedBytes());
    sender->resetStatistics();
    EXPECT_EQ(0u, sender->getCompressedBytes());
    EXPECT_EQ(0, probe->resets) << "children are not reset";
}

TEST(klNetCompressSender, AnEmptyBufferToCompressQueuesAndStopsTheWorkerThatTakesIt) {
    Settings settings(2, 0);
    auto gate = std::make_shared<Gate>();
    auto codec = std::make_shared<Hooked>();
    codec->hook = [gate](const Buffer&) { gate->pass(); };
    auto probe = std::make_shared<ProbeSender>(std::set<unsigned int>{1});
    auto sender = klNetCompressSender::create(codec, probe);
    sender->send(stamped(Bytes(8000, 1), klNetMessageTypeStream));
    EXPECT_TRUE(gate->waitArrived());
    sender->send(stamped({}, klNetMessageTypeStream));
    EXPECT_TRUE(probe->sent().empty()) << "the empty buffer overtook the one being compressed";
    gate->open();
    EXPECT_EQ("returned", drained(sender));
    ASSERT_EQ(1u, probe->sent().size());
    EXPECT_NE(0u, probe->sent()[0]->getDataSize());
    EXPECT_TRUE(releasedWithin(std::move(sender)));
}

TEST(klNetCompressSender, ACompressorErrorIsRethrownOnTheCallersThreadByEveryLaterCall) {
    Settings settings(2, 0);
    auto codec = std::make_shared<Hooked>();
    codec->hook = [](const Buffer& buffer) {
        if (buffer->getData()[0] == 7)
            throw klNetError("codec broke on 7");
    };
    auto probe = std::make_shared<ProbeSender>(std::set<unsigned int>{1});
    auto sender = klNetCompressSender::create(codec, probe);
    for (unsigned char first : {1, 2, 7}) {  // the failing one last: no send can meet its error
        sender->send(stamped(Bytes(8000, first), klNetMessageTypeStream));
    }
    EXPECT_EQ("codec broke on 7", drained(sender));
    KL_EXPECT_THROW_TEXT(sender->send(stamped({1}, klNetMessageTypeImage)), klNetError,
                         "codec broke on 7");
    EXPECT_EQ("codec broke on 7", drained(sender));
    EXPECT_GE(2u, probe->recorder->taken().size());
    EXPECT_TRUE(releasedWithin(std::move(sender)));
}

TEST(klNetDecompressReceiver, DeliversRestoredAndInjectedBuffersThenTheLinksErrorWithoutHanging) {
    Settings settings(2, 0);
    auto [near, far] = connectedPair();
    auto codec = klNetLz4Compressor::create();
    std::vector<std::shared_ptr<klNetReceiver>> children{klNetLinkReceiver::create(far)};
    auto receiver = klNetDecompressReceiver::create(codec, children);
    EXPECT_FALSE(receiver->isReadable());
    Buffer got;

    // Injected: compressed on the way in only with image method 4, and only when compressible.
    const std::size_t threshold = std::size_t(klNetOptions::getCompressionThreshold());
    for (const auto& [image, size, arrivesCompressed] :
         {std::tuple{4, threshold, true}, std::tuple{4, threshold - 1, false},
          std::tuple{2, threshold, false}}) {
        Settings injecting(2, image);
        const Buffer local = stamped(imageBytes(size, 1), klNetMessageTypeImage);
        receiver->addToRecvQueue(local);
        receiver->recv(got);
        EXPECT_EQ(arrivesCompressed, got->getCompression() == 2) << image << " " << size;
        EXPECT_EQ(arrivesCompressed, got != local);
    }

    // A corrupt payload fails the worker that takes it; what arrived around it still comes
    // through restored. Then the link's end surfaces, and keeps surfacing rather than leaving the
    // reader waiting.
    const Buffer plain = stamped(imageBytes(6000, 5), klNetMessageTypeStream);
    Buffer corrupt = codec->compress(plain);
    corrupt->setDataSize(3);
    for (const Buffer& buffer : {codec->compress(plain), corrupt, plain})
        near->send(buffer);
    ASSERT_TRUE(waitUntil([&] { return receiver->isReadable(); }));
    Task read([receiver, near = near, plain] {
        const auto next = [&] {
            return outcome([&] {
                Buffer buffer;
                receiver->recv(buffer);
                if (wireOf(*buffer) != wireOf(*plain))
                    throw std::logic_error("wrong buffer");
            });
        };
        std::vector<std::string> outcomes{next(), next(), next()};
        std::sort(outcomes.begin(), outcomes.end());
        EXPECT_EQ(
            (std::vector<std::string>{"Corrupt LZ4 payload: 3 bytes do not decode to 6000 bytes",
                                      "returned", "returned"}),
            outcomes);
        near->shutdown();
        EXPECT_EQ("closed", next());
        EXPECT_EQ("closed", next());
    });
    ASSERT_TRUE(read.finishedWithin(kBound));
    read.get();
    EXPECT_TRUE(releasedWithin(std::move(receiver)));
}

// Both compression settings select the codec's method for the length of a test.
class klNetCompressorTest : public ::testing::TestWithParam<Codec> {
protected:
    Settings settings{GetParam().method, GetParam().method};
    std::shared_ptr<klNetBlockCompressor> compressor = GetParam().make();
};

TEST_P(klNetCompressorTest, CompressesOnlyWhatShrinksAndRestoresEveryByte) {
    const std::size_t threshold = std::size_t(klNetOptions::getCompressionThreshold());
    const Buffer image = stamped(imageBytes(131072, 1), klNetMessageTypeImage, 9);
    const Bytes header = headerOf(*image);

    const Buffer packed = compressor->compress(image);
    ASSERT_NE(image, packed);
    EXPECT_EQ(GetParam().method, packed->getCompression());
    EXPECT_EQ(131072u, packed->getOriginalDataSize());
    EXPECT_LT(packed->getDataSize(), 131072u / 2);
    EXPECT_EQ(klNetSendModeSecondStage, packed->getSendMode());
    EXPECT_EQ(payloadOf(*image), imageBytes(131072, 1)) << "the input is left alone";
    // Apart from the two sizes and the method, the header travels as it was.
    Bytes others = headerOf(*packed);
    std::copy_n(header.begin(), 8, others.begin());
    others[11] = header[11];
    EXPECT_EQ(header, others);

    const Buffer restored = compressor->decompress(packed);
    EXPECT_EQ(header, headerOf(*restored));
    EXPECT_EQ(payloadOf(*image), payloadOf(*restored));
    EXPECT_EQ(klNetSendModeSecondStage, restored->getSendMode());

    // Each of these goes as it is, the very same buffer; an incompressible start stands for the
    // whole payload.
    Bytes randomHead = randomBytes(4096, 8);
    randomHead.resize(131072, 0);
    const Buffer small = stamped(imageBytes(threshold - 1, 5), klNetMessageTypeStream);
    Buffer bundle = stamped(imageBytes(65536, 2), klNetMessageTypeBundle);
    Buffer compressed = stamped(imageBytes(65536, 3), klNetMessageTypeImage);
    compressed->setCompression(GetParam().method, 65536);
    const Buffer asIs[] = {stamped(randomBytes(131072, 4), klNetMessageTypeStream),
                           stamped(randomHead, klNetMessageTypeStream), small, bundle, compressed};
    for (const Buffer& buffer : asIs) {
        EXPECT_EQ(buffer, compressor->compress(buffer)) << buffer->getDataSize();
    }
    EXPECT_TRUE(compressor->isCompressible(image));
    EXPECT_FALSE(compressor->isCompressible(small));
    EXPECT_FALSE(compressor->isCompressible(bundle));
    const Buffer plain = stamped(imageBytes(100, 6), klNetMessageTypeStream);
    EXPECT_EQ(plain, compressor->decompress(plain));
}

TEST_P(klNetCompressorTest, RefusesABrokenPayloadWithItsReason) {
    const std::string name = GetParam().name;
    const klNetCompression other = klNetCompression(GetParam().method == 2 ? 3 : 2);
    // An empty text stands for the corrupt payload's, which names both sizes as they stand.
    const std::pair<std::function<void(klNetBuffer&)>, std::string> cases[] = {
        {[](klNetBuffer& b) { b.setDataSize(b.getDataSize() - 3); }, ""},
        {[](klNetBuffer& b) { b.setDataSize(0); }, ""},
        {[](klNetBuffer& b) { std::fill_n(b.getData(), b.getDataSize(), 0xFF); }, ""},
        {[](klNetBuffer& b) { b.setCompression(b.getCompression(), 131073); }, ""},
        {[](klNetBuffer& b) { b.setCompression(b.getCompression(), 131071); }, ""},
        {[](klNetBuffer& b) { b.setCompression(b.getCompression(), 131603); },
         name + " payload claims 131603 original bytes, more than a buffer holds (131602)"},
        {[](klNetBuffer& b) { b.setDataSize(1u << 31); },
         name + " payload of 2147483648 bytes is more than a buffer holds (131602)"},
        {[other](klNetBuffer& b) { b.setCompression(other, 131072); },
         name + " compressor cannot decode compression method " + std::to_string(int(other))},
    };
    for (const auto& [breakIt, text] : cases) {
        const Buffer packed =
            compressor->compress(stamped(imageBytes(131072, 7), klNetMessageTypeImage));
        ASSERT_EQ(GetParam().method, packed->getCompression());
        breakIt(*packed);
        KL_EXPECT_THROW_TEXT(
            compressor->decompress(packed), klNetError,
            !text.empty() ? text
                          : "Corrupt " + name + " payload: " +
                                std::to_string(packed->getDataSize()) + " bytes do not decode to " +
                                std::to_string(packed->getOriginalDataSize()) + " bytes");
    }
}

// Compressible, incompressible and small buffers of both types through the stages on their
// worker threads, back in order behind a sort stage: every header and payload byte as sent, and
// the sender counts exactly the bytes that the compressor's output puts on the wire.
TEST_P(klNetCompressorTest, RoundTripThroughTheStagesOverASocketLink) {
    constexpr int kBuffers = 400;  // well past the queue's 256
    auto [near, far] = connectedPair();
    std::vector<Buffer> sent;
    std::uint64_t wireBytes = 0;
    for (int i = 0; i < kBuffers; ++i) {
        const unsigned seed = unsigned(i) + 100;
        const Bytes payload = i % 4 == 0   ? randomBytes(131072, seed)
                              : i % 4 == 1 ? imageBytes(1000 + std::size_t(i) * 37, seed)
                                           : imageBytes(131072 - std::size_t(i), seed);
        sent.push_back(stamped(payload, i % 2 ? klNetMessageTypeImage : klNetMessageTypeStream,
                               std::size_t(i)));
        wireBytes += compressor->compress(sent.back())->getBufferSize();
    }

    std::vector<std::shared_ptr<klNetReceiver>> children{klNetLinkReceiver::create(far)};
    auto receiver =
        klNetSortReceiver::create(klNetDecompressReceiver::create(compressor, children));
    auto sender = klNetCompressSender::create(
        compressor, klNetLockedSender::create(klNetLinkSender::create(near)));
    for (const Buffer& buffer : sent) {
        sender->send(buffer);
    }
    sender->waitAllDataTransfered();
    EXPECT_EQ(wireBytes, sender->getCompressedBytes());
    EXPECT_LT(wireBytes, std::uint64_t(kBuffers) * 131072 * 6 / 10);

    for (const Buffer& expected : sent) {
        Buffer got;
        ASSERT_NO_THROW(receiver->recv(got));
        ASSERT_EQ(headerOf(*expected), headerOf(*got));
        ASSERT_EQ(payloadOf(*expected), payloadOf(*got));
    }
}

INSTANTIATE_TEST_SUITE_P(Codecs, klNetCompressorTest, ::testing::ValuesIn(kCodecs),
                         [](const auto& info) { return std::string(info.param.label); });

TEST(klNetZstdCompressorLevel, RefusesALevelOutOfRange) {
    KL_EXPECT_THROW_TEXT(klNetZstdCompressor(23), klNetError,
                         "Zstandard level 23 is out of range -131072..22");
    klNetZstdCompressor compressor(5);
    KL_EXPECT_THROW_TEXT(compressor.setLevel(-200000), klNetError,
                         "Zstandard level -200000 is out of range -131072..22");
    EXPECT_EQ(5, compressor.getLevel());
}
