// The LZ4 and Zstandard compressors: what they compress, the exact refusal of broken payloads from
// a peer, and a round trip through the compressing and decompressing stages over a socket link.
#include <support/klNetPipelineSupport.h>
#include <support/klNetSocketTestSupport.h>

#include <klNetBase/codecs/klNetCodecs.h>
#include <klNetBase/recv/klNetDecompressReceiver.h>
#include <klNetBase/send/klNetCompressSender.h>

#include <functional>
#include <random>

using kltest::Buffer;
using kltest::Bytes;

namespace {

struct Codec {
    const char* label;
    const char* name;
    klNetCompression method;
    std::function<std::shared_ptr<klNetBlockCompressor>()> make;
};

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
    for (auto& byte : bytes) {
        byte = static_cast<unsigned char>(random());
    }
    return bytes;
}

// A buffer as a stream hands it on: every header field set, nothing compressed yet.
Buffer stamped(const Bytes& payload, klNetMessageType type, std::size_t sequence) {
    Buffer buffer = kltest::bufferWith(payload);
    buffer->setCompression(klNetCompressionNone, payload.size());
    buffer->setType(type);
    buffer->setSequence(sequence);
    buffer->setSource(7);
    buffer->setDestination(0);
    buffer->setMessageId(0x1234);
    buffer->setMessageBufferCount(5);
    buffer->setSendMode(klNetSendModeSecondStage);
    return buffer;
}

// Both compression settings select the codec's method for the length of a test.
class klNetCompressorTest : public ::testing::TestWithParam<Codec> {
protected:
    void SetUp() override {
        klNetOptions::setDataCompression(GetParam().method);
        klNetOptions::setImageCompression(GetParam().method);
    }
    void TearDown() override {
        klNetOptions::setDataCompression(klNetCompression(-1));
        klNetOptions::setImageCompression(klNetCompression(-1));
    }
    std::shared_ptr<klNetBlockCompressor> compressor = GetParam().make();
};

TEST_P(klNetCompressorTest, CompressesOnlyWhatShrinksAndRestoresEveryByte) {
    const std::size_t threshold = std::size_t(klNetOptions::getCompressionThreshold());
    const Buffer image = stamped(imageBytes(131072, 1), klNetMessageTypeImage, 9);
    const Bytes header = kltest::headerOf(*image);

    const Buffer packed = compressor->compress(image);
    ASSERT_NE(image, packed);
    EXPECT_EQ(GetParam().method, packed->getCompression());
    EXPECT_EQ(131072u, packed->getOriginalDataSize());
    EXPECT_LT(packed->getDataSize(), 131072u / 2);
    EXPECT_EQ(klNetSendModeSecondStage, packed->getSendMode());
    EXPECT_EQ(kltest::payloadOf(*image), imageBytes(131072, 1)) << "the input is left alone";
    // Apart from the two sizes and the method, the header travels as it was.
    Bytes expected = header;
    Bytes actual = kltest::headerOf(*packed);
    for (Bytes* bytes : {&expected, &actual}) {
        std::fill_n(bytes->begin(), 8, 0);
        bytes->at(11) = 0;
    }
    EXPECT_EQ(expected, actual);

    const Buffer restored = compressor->decompress(packed);
    EXPECT_EQ(header, kltest::headerOf(*restored));
    EXPECT_EQ(kltest::payloadOf(*image), kltest::payloadOf(*restored));
    EXPECT_EQ(klNetSendModeSecondStage, restored->getSendMode());

    // Each of these goes as it is, the very same buffer; an incompressible start stands for the
    // whole payload.
    Bytes randomHead = randomBytes(4096, 8);
    randomHead.resize(131072, 0);
    const Buffer small = stamped(imageBytes(threshold - 1, 5), klNetMessageTypeStream, 0);
    Buffer bundle = stamped(imageBytes(65536, 2), klNetMessageTypeBundle, 0);
    Buffer compressed = stamped(imageBytes(65536, 3), klNetMessageTypeImage, 0);
    compressed->setCompression(GetParam().method, 65536);
    const Buffer asIs[] = {
        stamped(randomBytes(131072, 4), klNetMessageTypeStream, 0),
        stamped(randomHead, klNetMessageTypeStream, 0),
        small,
        bundle,
        compressed,
    };
    for (const Buffer& buffer : asIs) {
        EXPECT_EQ(buffer, compressor->compress(buffer)) << buffer->getDataSize();
    }
    EXPECT_TRUE(compressor->isCompressible(image));
    EXPECT_FALSE(compressor->isCompressible(small));
    EXPECT_FALSE(compressor->isCompressible(bundle));
    const Buffer plain = stamped(imageBytes(100, 6), klNetMessageTypeStream, 0);
    EXPECT_EQ(plain, compressor->decompress(plain));
}

TEST_P(klNetCompressorTest, RefusesABrokenPayloadWithItsReason) {
    const std::string name = GetParam().name;
    const klNetCompression other = klNetCompression(GetParam().method == 2 ? 3 : 2);
    struct Case {
        const char* what;
        std::function<void(klNetBuffer&)> breakIt;
        std::function<std::string(const klNetBuffer&)> text;
    };
    auto corrupt = [name](const klNetBuffer& buffer) {
        return "Corrupt " + name + " payload: " + std::to_string(buffer.getDataSize()) +
               " bytes do not decode to " + std::to_string(buffer.getOriginalDataSize()) + " bytes";
    };
    const Case cases[] = {
        {"truncated", [](klNetBuffer& b) { b.setDataSize(b.getDataSize() - 3); }, corrupt},
        {"cut to nothing", [](klNetBuffer& b) { b.setDataSize(0); }, corrupt},
        {"overwritten", [](klNetBuffer& b) { std::fill_n(b.getData(), b.getDataSize(), 0xFF); },
         corrupt},
        {"original size one more",
         [](klNetBuffer& b) { b.setCompression(b.getCompression(), b.getOriginalDataSize() + 1); },
         corrupt},
        {"original size one less",
         [](klNetBuffer& b) { b.setCompression(b.getCompression(), b.getOriginalDataSize() - 1); },
         corrupt},
        {"original size beyond a buffer",
         [](klNetBuffer& b) { b.setCompression(b.getCompression(), 131603); },
         [name](const klNetBuffer&) {
             return name +
                    " payload claims 131603 original bytes, more than a buffer holds "
                    "(131602)";
         }},
        {"payload beyond a buffer", [](klNetBuffer& b) { b.setDataSize(1u << 31); },
         [name](const klNetBuffer&) {
             return name + " payload of 2147483648 bytes is more than a buffer holds (131602)";
         }},
        {"another method", [other](klNetBuffer& b) { b.setCompression(other, 131072); },
         [name, other](const klNetBuffer&) {
             return name + " compressor cannot decode compression method " +
                    std::to_string(int(other));
         }},
    };
    for (const Case& c : cases) {
        SCOPED_TRACE(c.what);
        const Buffer packed =
            compressor->compress(stamped(imageBytes(131072, 7), klNetMessageTypeImage, 0));
        ASSERT_EQ(GetParam().method, packed->getCompression());
        c.breakIt(*packed);
        KL_EXPECT_THROW_TEXT(compressor->decompress(packed), klNetError, c.text(*packed));
    }
}

// Compressible, incompressible and small buffers of both types through the stages on their
// worker threads, back in order behind a sort stage: every header and payload byte as sent, and
// the sender counts exactly the bytes that the compressor's output puts on the wire.
TEST_P(klNetCompressorTest, RoundTripThroughTheStagesOverASocketLink) {
    constexpr int kBuffers = 400;
    auto [near, far] = kltest::connectedPair();
    far->setRecvTimeout(20.0);
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
        ASSERT_EQ(kltest::headerOf(*expected), kltest::headerOf(*got));
        ASSERT_EQ(kltest::payloadOf(*expected), kltest::payloadOf(*got));
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

}  // namespace
