// The ChaCha20 link cipher: its keystream pinned byte by byte, one keystream per direction, and
// socket links that cipher in both directions at once. (Which bytes of a frame the link ciphers
// is pinned with a stand-in cipher in the link's own test.)
#include <support/klNetPipelineSupport.h>
#include <support/klNetSocketTestSupport.h>

#include <klNetBase/codecs/klNetChaChaCipher.h>

using kltest::Buffer;
using kltest::Bytes;
using kltest::hex;
using Role = klNetChaChaCipher::Role;

namespace {

const Bytes kZeroKey(32, 0);
// ChaCha20 keystream block 0 under the all-zero key for nonces (little-endian) 0, 1 and 2.
const Bytes kStream0 =
    hex("76b8e0ada0f13d90405d6ae55386bd28bdd219b8a08ded1aa836efcc8b770dc7"
        "da41597c5157488d7724e03fb8d84a376a43b8f41518a11cc387b669b2ee6586");
const Bytes kStream1 = hex("ef3fdfd6c61578fbf5cf35bd3dd33b80");
const Bytes kStream2 = hex("d0c5b9b7442870728d812f034c635e81");

std::shared_ptr<klNetChaChaCipher> cipher(Role role, const Bytes& key = kZeroKey,
                                          std::uint64_t session = 0) {
    return klNetChaChaCipher::create(key.data(), key.size(), role, session);
}

Bytes head(const Bytes& bytes, std::size_t n) {
    return Bytes(bytes.begin(), bytes.begin() + std::ptrdiff_t(n));
}

// Zeros enciphered in place in pieces of the given sizes: the keystream the pieces add up to.
Bytes encipheredZeros(klNetChaChaCipher& cipher, const std::vector<std::size_t>& pieces) {
    Bytes bytes;
    for (std::size_t piece : pieces) {
        bytes.resize(bytes.size() + piece);
        unsigned char* at = bytes.data() + bytes.size() - piece;
        cipher.encrypt(at, at, piece);
    }
    return bytes;
}

TEST(klNetChaChaCipher, KeystreamRunsOnAcrossCallsOfAnyLength) {
    const std::vector<std::vector<std::size_t>> piecings = {
        {200}, {1, 63, 64, 72}, {5, 70, 1, 124}, {0, 13, 0, 51, 0, 136}, {130, 70}};
    Bytes whole(200, 0), once(200);
    cipher(Role::Connecting)->encrypt(once.data(), whole.data(), whole.size());
    EXPECT_EQ(kStream0, head(once, 64));
    for (const auto& pieces : piecings) {
        EXPECT_EQ(once, encipheredZeros(*cipher(Role::Connecting), pieces)) << pieces.size();
    }
}

TEST(klNetChaChaCipher, EachDirectionAndSessionHasAKeystreamOfItsOwn) {
    // Nonce session * 2 for what the connecting end sends, session * 2 + 1 for the accepting end.
    EXPECT_EQ(kStream1, head(encipheredZeros(*cipher(Role::Accepting), {16}), 16));
    EXPECT_EQ(kStream2, head(encipheredZeros(*cipher(Role::Connecting, kZeroKey, 1), {16}), 16));

    const Bytes key = kltest::pattern(32);
    auto connecting = cipher(Role::Connecting, key, 5);
    auto accepting = cipher(Role::Accepting, key, 5);
    const Bytes text = kltest::pattern(300);
    for (auto [from, to] : {std::pair(connecting, accepting), std::pair(accepting, connecting)}) {
        Bytes wire(text.size());
        from->encrypt(wire.data(), text.data(), text.size());
        EXPECT_NE(text, wire);
        to->decrypt(wire.data(), wire.data(), wire.size());
        EXPECT_EQ(text, wire);
    }
}

TEST(klNetChaChaCipher, RefusesABadKeyOrSession) {
    const Bytes shortKey(16, 1), longKey(33, 1);
    KL_EXPECT_THROW_TEXT(cipher(Role::Connecting, shortKey), klNetError,
                         "ChaCha20 key must be 32 bytes, not 16");
    KL_EXPECT_THROW_TEXT(cipher(Role::Accepting, longKey), klNetError,
                         "ChaCha20 key must be 32 bytes, not 33");
    KL_EXPECT_THROW_TEXT(cipher(Role::Connecting, kZeroKey, std::uint64_t(1) << 63), klNetError,
                         "ChaCha20 session number must be below 2^63");
}

// Both ends send and receive at the same time, each on a thread of its own while this thread reads
// both ends in turn: every header and payload byte arrives as sent.
TEST(klNetChaChaCipherLink, BothDirectionsAtOnce) {
    constexpr std::size_t kBuffers = 200;
    std::vector<Buffer> buffers;
    for (std::size_t i = 0; i < 2 * kBuffers; ++i) {
        const std::size_t size = i * 613 % 131073;
        buffers.push_back(kltest::makeBuffer(kltest::pattern(size), klNetMessageType(i % 4),
                                             unsigned(i * 5), unsigned(i * 7), unsigned(i),
                                             unsigned(i * 3), unsigned(i)));
        buffers.back()->setCompression(klNetCompression(i % 3), size);
    }
    const Bytes key = kltest::pattern(32);
    const auto links = kltest::connectedPair();
    links.first->setCipher(cipher(Role::Connecting, key, 3));
    links.second->setCipher(cipher(Role::Accepting, key, 3));
    const auto sendAll = [&buffers](std::shared_ptr<klSocketLink> link, std::size_t first) {
        return std::make_unique<kltest::Task>([link, first, buffers] {
            for (std::size_t i = 0; i < kBuffers; ++i) {
                link->send(buffers[first + i]);
            }
        });
    };
    const auto nearSends = sendAll(links.first, 0), farSends = sendAll(links.second, kBuffers);
    for (const auto& [link, first] :
         {std::pair(links.first, kBuffers), std::pair(links.second, std::size_t(0))}) {
        for (std::size_t i = 0; i < kBuffers; ++i) {
            Buffer got;
            link->recv(got);
            ASSERT_EQ(kltest::wireOf(*buffers[first + i]), kltest::wireOf(*got)) << i;
        }
    }
    EXPECT_TRUE(nearSends->finishedWithin(kltest::kBound) &&
                farSends->finishedWithin(kltest::kBound));
}

}  // namespace
