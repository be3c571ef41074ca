// Fuzz target: buffers as a socket link receives them from a peer, in both framings.
//
// Input: one byte of settings (bit 0: compatibility framing with the 20-byte header; bit 1: a
// cipher on the link), then the bytes the peer sends. They travel through a real socket into a
// klSocketLink, which receives buffers until the peer's bytes run out. Whatever the bytes, every
// receive must end in a whole buffer whose size fits its payload area, or in klNetError (the peer
// closing is klConnectionClosed): never a crash, an overrun or a hang.
#include "klFuzzSupport.h"

namespace {

using klfuzz::check;

// A cipher that changes every byte, so that deciphering runs over exactly the received length.
class XorCipher final : public klNetCipherBase {
public:
    void encrypt(void* destination, const void* source, std::uint64_t length) override {
        apply(destination, source, length);
    }
    void decrypt(void* destination, const void* source, std::uint64_t length) override {
        apply(destination, source, length);
    }

private:
    static void apply(void* destination, const void* source, std::uint64_t length) {
        auto* to = static_cast<unsigned char*>(destination);
        const auto* from = static_cast<const unsigned char*>(source);
        for (std::uint64_t i = 0; i < length; ++i) {
            to[i] = from[i] ^ 0x5A;
        }
    }
};

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
    klfuzz::Input input(data, size);
    const std::uint8_t settings = input.u8();
    const bool compatibility = (settings & 1) != 0;

    klfuzz::DescriptorCheck descriptors;
    klfuzz::SocketFeeder peer(klfuzz::SocketFeeder::kUnix, input.rest());
    auto link = std::make_shared<klSocketLink>(peer.takeNear());
    link->setCompatibilityMode(compatibility);
    const bool ciphered = (settings & 2) != 0;
    if (ciphered) {
        link->setCipher(std::make_shared<XorCipher>());
    }
    try {
        for (;;) {
            std::shared_ptr<klNetBuffer> buffer;
            link->recv(buffer);
            check(buffer->getDataSize() <= klNetBuffer::getCapacity(),
                  "received a buffer larger than its payload area");
            // Deciphering runs over header bytes 20..23 too, so only clear text shows the zeros.
            if (compatibility && !ciphered) {
                check(buffer->getMessageId() == 0 && buffer->getMessageBufferCount() == 0,
                      "compatibility framing left header bytes 20..23 set");
            }
        }
    } catch (const klNetError&) {
        // The peer's bytes ran out (klConnectionClosed) or were refused.
    }
    return 0;
}
