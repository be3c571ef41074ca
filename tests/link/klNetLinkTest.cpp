#include <support/klNetSocketTestSupport.h>

using namespace kltest;

namespace {

// Shows what the base hands a concrete send.
struct FakeLink final : klNetLink {
    void send(const std::shared_ptr<klNetBuffer>& buffer) override { sent = encryptBuffer(buffer); }
    void recv(std::shared_ptr<klNetBuffer>&) override {}
    void shutdown() override {}
    unsigned int getRecvHandle() override { return 0; }
    void checkAlive() override {}
    std::shared_ptr<klNetBuffer> sent;
};

// XOR with a key that depends on the position in the ciphered region, so that a region that
// starts or ends at the wrong byte, or is ciphered in pieces, shows. Logs its calls.
struct XorCipher final : klNetCipherBase {
    static unsigned char key(std::uint64_t i) { return static_cast<unsigned char>(i * 31 + 7); }
    void encrypt(void* to, const void* from, std::uint64_t n) override { apply('e', to, from, n); }
    void decrypt(void* to, const void* from, std::uint64_t n) override { apply('d', to, from, n); }
    void apply(char what, void* to, const void* from, std::uint64_t n) {
        calls += what + std::to_string(n) + " ";
        for (std::uint64_t i = 0; i < n; ++i) {
            static_cast<unsigned char*>(to)[i] =
                static_cast<const unsigned char*>(from)[i] ^ key(i);
        }
    }
    std::string calls;
};

}  // namespace

TEST(klNetLink, BaseSendsTheCallersBufferRefusesATimeoutAndCopiesKeepIdentifiersAndCipher) {
    FakeLink link;
    KL_EXPECT_THROW_TEXT(link.setRecvTimeout(2.5), klNetError, "Unable to set recv timeout");
    const auto buffer = bufferWith(pattern(10));
    link.send(buffer);
    EXPECT_EQ(buffer, link.sent) << "without a cipher the caller's own buffer goes out";
    link.setId(7);
    link.setRemoteId(9);
    link.setNodeAffinity(1);
    link.setCipher(std::make_shared<XorCipher>());
    FakeLink copy(link), assigned;
    assigned = link;
    for (FakeLink* each : {&copy, &assigned}) {
        EXPECT_EQ(std::make_tuple(7u, 9u, 1),
                  std::make_tuple(each->getId(), each->getRemoteId(), each->getNodeAffinity()));
        each->send(buffer);
        EXPECT_EQ(buffer->getBuffer()[4] ^ XorCipher::key(0), each->sent->getBuffer()[4]);
    }
}

TEST(klNetLink, CipherCoversHeaderBytesFourOnAndThePayloadWithTheSizeInClear) {
    RawPeer peer;
    auto cipher = std::make_shared<XorCipher>();
    peer.link.setCipher(cipher);
    for (std::size_t size : {300u, 0u}) {
        const auto buffer = bufferWith(pattern(size));
        std::memcpy(buffer->getBuffer() + 4, pattern(40).data() + 20, 20);
        const Bytes clear = wireOf(*buffer);
        Bytes ciphered = clear;
        for (std::size_t i = 4; i < ciphered.size(); ++i) {
            ciphered[i] ^= XorCipher::key(i - 4);
        }
        peer.link.send(buffer);
        EXPECT_EQ(clear, wireOf(*buffer)) << "the caller's buffer was changed";
        EXPECT_EQ(ciphered, readExactly(peer.raw, 24 + size)) << size;
        // Echoed back, the bytes are framed by the clear size and deciphered in place.
        writeAll(peer.raw, ciphered);
        std::shared_ptr<klNetBuffer> received;
        peer.link.recv(received);
        EXPECT_EQ(clear, wireOf(*received));
        EXPECT_EQ("e" + std::to_string(20 + size) + " d" + std::to_string(20 + size) + " ",
                  cipher->calls);
        cipher->calls.clear();
    }
}
