#include <support/klNetSocketTestSupport.h>

#include <gtest/gtest.h>

#include <queue>

using kltest::Bytes;
using kltest::wireOf;

namespace {

// Shows what the base hands a concrete send, and answers recv with a prepared buffer.
class FakeLink final : public klNetLink {
public:
    void send(const std::shared_ptr<klNetBuffer>& buffer) override { sent = encryptBuffer(buffer); }
    void recv(std::shared_ptr<klNetBuffer>& buffer) override { buffer = next; }
    void shutdown() override {}
    unsigned int getRecvHandle() override { return 0; }
    void checkAlive() override {}
    std::shared_ptr<klNetBuffer> sent, next;
};

// XOR with a key that depends on the position in the ciphered region, so that a region that
// starts or ends at the wrong byte shows. Records the lengths it was given.
class XorCipher final : public klNetCipherBase {
public:
    static unsigned char key(std::uint64_t i) { return static_cast<unsigned char>(i * 31 + 7); }
    void encrypt(void* to, const void* from, std::uint64_t length) override {
        apply(to, from, length, encrypted);
    }
    void decrypt(void* to, const void* from, std::uint64_t length) override {
        apply(to, from, length, decrypted);
    }
    std::vector<std::uint64_t> encrypted, decrypted;

private:
    static void apply(void* to, const void* from, std::uint64_t length,
                      std::vector<std::uint64_t>& lengths) {
        lengths.push_back(length);
        for (std::uint64_t i = 0; i < length; ++i) {
            static_cast<unsigned char*>(to)[i] =
                static_cast<const unsigned char*>(from)[i] ^ key(i);
        }
    }
};

std::shared_ptr<klNetBuffer> headerAndPayload(std::size_t size) {
    auto buffer = kltest::bufferWith(kltest::pattern(size));
    std::memcpy(buffer->getBuffer() + 4,
                kltest::hex("44332211 6655 02 07 BBAA9988 FFEEDDCC 0201 0403").data(), 20);
    return buffer;
}

}  // namespace

TEST(klNetLink, BaseDefaultsReceiveOneBufferAndRefuseATimeout) {
    FakeLink link;
    EXPECT_EQ(0u, link.getId());
    EXPECT_EQ(0u, link.getRemoteId());
    EXPECT_EQ(-1, link.getNodeAffinity());
    EXPECT_TRUE(link.isReadable());
    EXPECT_EQ("unknown", link.getLinkName());
    KL_EXPECT_THROW_TEXT(link.setRecvTimeout(0.0), klNetError, "Unable to set recv timeout");
    KL_EXPECT_THROW_TEXT(link.setRecvTimeout(2.5), klNetError, "Unable to set recv timeout");

    std::queue<std::shared_ptr<klNetBuffer>> queue;
    queue.push(nullptr);
    link.next = klNetBufferPool::pop();
    link.recvAvailable(queue);
    ASSERT_EQ(2u, queue.size());
    EXPECT_EQ(link.next, queue.back());
}

TEST(klNetLink, SharedPtrSharesOwnershipAndCopiesKeepIdentifiersAndCipher) {
    auto owner = std::make_shared<FakeLink>();
    owner->setId(7);
    owner->setRemoteId(9);
    owner->setNodeAffinity(1);
    const std::shared_ptr<klNetLink> shared = owner->getSharedPtr();
    EXPECT_EQ(owner.get(), shared.get());
    EXPECT_EQ(2, owner.use_count());
    FakeLink unowned;
    EXPECT_THROW(unowned.getSharedPtr(), std::bad_weak_ptr);

    const auto buffer = headerAndPayload(10);
    owner->send(buffer);
    EXPECT_EQ(buffer, owner->sent) << "without a cipher the caller's own buffer goes out";

    owner->setCipher(std::make_shared<XorCipher>());
    FakeLink copy(*owner);
    unowned = *owner;
    for (FakeLink* link : {&copy, &unowned}) {
        EXPECT_EQ(7u, link->getId());
        EXPECT_EQ(9u, link->getRemoteId());
        EXPECT_EQ(1, link->getNodeAffinity());
        EXPECT_THROW(link->getSharedPtr(), std::bad_weak_ptr);
        link->send(buffer);
        EXPECT_EQ(buffer->getBuffer()[4] ^ XorCipher::key(0), link->sent->getBuffer()[4]);
    }
}

TEST(klNetLink, CipherCoversHeaderBytesFourOnAndThePayloadWithTheSizeInClear) {
    kltest::RawPeer peer;
    auto cipher = std::make_shared<XorCipher>();
    peer.link.setCipher(cipher);
    for (std::size_t size : {300u, 0u}) {
        const auto buffer = headerAndPayload(size);
        const Bytes clear = wireOf(*buffer);
        peer.link.send(buffer);
        EXPECT_EQ(clear, wireOf(*buffer)) << "the caller's buffer was changed";
        const Bytes wire = kltest::readExactly(peer.raw, 24 + size);
        ASSERT_EQ(clear.size(), wire.size());
        for (std::size_t i = 0; i < wire.size(); ++i) {
            const unsigned char expected = i < 4 ? clear[i] : clear[i] ^ XorCipher::key(i - 4);
            ASSERT_EQ(expected, wire[i]) << "byte " << i << " of a " << size << "-byte payload";
        }
        EXPECT_EQ(20 + size, cipher->encrypted.back());

        // Echoed back, the bytes are framed by the clear size and deciphered in place.
        kltest::writeAll(peer.raw, wire);
        std::shared_ptr<klNetBuffer> received;
        peer.link.recv(received);
        EXPECT_EQ(clear, wireOf(*received));
        EXPECT_EQ(20 + size, cipher->decrypted.back());
    }
}
