// klNetStream's putBytes and getBytes of whole buffers straight from and into the caller's memory:
// the same bytes and order as through pool buffers, in every framing, and the same checks.
#include <support/klNetSocketTestSupport.h>

using namespace kltest;

namespace {

constexpr std::size_t kWhole = 131072;

// Flips every byte it ciphers: enough to show that both ends went through the cipher.
struct FlipCipher final : klNetCipherBase {
    void encrypt(void* to, const void* from, std::uint64_t n) override { flip(to, from, n); }
    void decrypt(void* to, const void* from, std::uint64_t n) override { flip(to, from, n); }
    static void flip(void* to, const void* from, std::uint64_t n) {
        for (std::uint64_t i = 0; i < n; ++i) {
            static_cast<unsigned char*>(to)[i] = ~static_cast<const unsigned char*>(from)[i];
        }
    }
};

enum class Framing { Normal, Compatibility, Ciphered };

void PrintTo(Framing framing, std::ostream* os) {
    *os << (framing == Framing::Normal ? "normal" : framing == Framing::Ciphered ? "ciphered"
                                                                                 : "compatibility");
}

// Two streams over the ends of a local socket pair: rank 7 writes, rank 2 reads.
struct StreamPair {
    explicit StreamPair(Framing framing) {
        int ends[2];
        EXPECT_EQ(0, ::socketpair(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC, 0, ends));
        auto near = std::make_shared<klSocketLink>(ends[0]);
        auto far = std::make_shared<klSocketLink>(ends[1]);
        far->setRecvTimeout(10.0);
        for (const auto& link : {near, far}) {
            link->setCompatibilityMode(framing == Framing::Compatibility);
            if (framing == Framing::Ciphered) {
                link->setCipher(std::make_shared<FlipCipher>());
            }
        }
        writer = std::make_unique<klNetStream>(near);
        reader = std::make_unique<klNetStream>(far);
        writer->setRank(7);
        reader->setRank(2);
    }
    std::unique_ptr<klNetStream> writer;
    std::unique_ptr<klNetStream> reader;
};

class klNetWholeBuffer : public testing::TestWithParam<Framing> {};

}  // namespace

TEST_P(klNetWholeBuffer, WritesAndReadsOfAnySizeCarryTheSameBytesAndRefuseAMessageInTheData) {
    StreamPair pair(GetParam());
    const Bytes data = pattern(3 * kWhole + 20);
    std::thread writing([&] {
        // A partly filled buffer, whole buffers behind it, a write ending at a buffer's end,
        // then a message where the reader expects data, then data again.
        const std::size_t sizes[] = {5, 2 * kWhole + 3, kWhole, 12};
        std::size_t done = 0;
        for (std::size_t size : sizes) {
            pair.writer->putBytes(data.data() + done, size);
            done += size;
        }
        pair.writer->flush();
        klNetMessage message;
        message << std::uint8_t(1);
        pair.writer->sendMessage(message, 0);
        pair.writer->putBytes(data.data(), kWhole);
        pair.writer->flush();
    });
    // Reads that end inside buffers, span several and take whole ones straight in.
    Bytes got = readBytes(*pair.reader, 3);
    for (std::size_t size : {2 * kWhole + 1, kWhole + 16}) {
        const Bytes more = readBytes(*pair.reader, size);
        got.insert(got.end(), more.begin(), more.end());
    }
    EXPECT_EQ(data, got);
    KL_EXPECT_THROW_TEXT(readBytes(*pair.reader, kWhole), klNetError,
                         "Stream out of sync. Stream expected at 2 from 7 to 0");
    EXPECT_EQ(Bytes(data.begin(), data.begin() + kWhole), readBytes(*pair.reader, kWhole));
    writing.join();
    const std::uint64_t wire = 5 * 24 + 4 * kWhole + 20;  // the message is not stream data
    EXPECT_EQ(wire + 25, pair.writer->getSentBytes());
    EXPECT_EQ(wire, pair.reader->getRecevedBytes());
}

INSTANTIATE_TEST_SUITE_P(Framings, klNetWholeBuffer,
                         testing::Values(Framing::Normal, Framing::Compatibility,
                                         Framing::Ciphered));

TEST(klNetWholeBuffer, AWholeBufferGoesOutInOneWriteWithItsHeaderStampedAsAFlushWould) {
    dirtyFreeBuffers();  // a header field left over from a pool buffer would show
    RawPeer peer(SOCK_SEQPACKET);  // keeps the boundaries of the writes
    std::shared_ptr<klSocketLink> link(std::shared_ptr<klSocketLink>(), &peer.link);
    klNetStream stream(link);
    stream.setRank(7);
    const Bytes data = pattern(kWhole + 1);  // one byte more: the whole buffer goes out at once
    std::thread writing([&] { stream.putBytes(data.data(), data.size()); });
    Bytes expected = hex("00000200 00000200 0000 00 00 07000000 00000000 0000 0000");
    expected.insert(expected.end(), data.begin(), data.end() - 1);
    EXPECT_EQ(expected, readExactly(peer.raw, 2 * kWhole));
    writing.join();
}
