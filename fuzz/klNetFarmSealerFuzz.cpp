// Fuzz target: what a peer sends to a sealed link, in the handshake and after it.
//
// Input: one byte of settings, then the peer's bytes, through a real socket.
//   bit 0 clear: the accepting side of the handshake, as a keyed service answering to
//                "node1:8889" runs it after the sealed greeting: the peer's opening (magic,
//                random, flags, the length-prefixed name it dialed) and its two proofs. It must
//                end in a klNetError (another magic, a name that is empty or not a host's, a
//                proof that does not hold, the peer closing): a proof cannot be guessed.
//   bit 0 set:   a link sealed with fixed keys (bit 1: AES-256-GCM where the processor has it,
//                else ChaCha20-Poly1305) receives frames until the bytes run out. Every receive
//                must end in a whole buffer that authenticated, or in klNetError: never a crash,
//                an overrun, a hang or a buffer delivered from a frame that did not open.
#include "klFuzzSupport.h"

#include <klNetBase/codecs/klNetFarmKey.h>
#include <klNetBase/codecs/klNetFarmSealer.h>
#include <klNetBase/link/klNetNodeNames.h>

namespace {

using klfuzz::check;

// The state of a seal with fixed keys, as a hand-off would carry it: version 1, AES or not, the
// two keys, both frame numbers 0.
std::string fixedSealState(bool aes) {
    std::string state(2 + 32 + 32 + 16, '\0');
    state[0] = 1;
    state[1] = aes ? 1 : 0;
    std::fill(state.begin() + 2, state.begin() + 66, '\x5a');
    return state;
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
    static const bool ready = (klNetFarmSealer::enableHandOff(), true);
    (void)ready;
    klfuzz::Input input(data, size);
    const std::uint8_t settings = input.u8();

    klfuzz::DescriptorCheck descriptors;
    klfuzz::SocketFeeder peer(klfuzz::SocketFeeder::kUnix, input.rest());
    auto link = std::make_shared<klSocketLink>(peer.takeNear());
    if ((settings & 1) == 0) {
        std::array<std::uint8_t, klNetFarmKey::kSize> bytes{};
        bytes.fill(7);
        try {
            klNetNodeNames names;
            names.add("node1", 8889);
            klNetFarmSealer(klNetFarmKey(bytes)).accept(*link, names);
            check(false, "a handshake without the key sealed the link");
        } catch (const klNetError&) {
        }
        return 0;
    }
    std::unique_ptr<klNetLinkSeal> seal;
    try {
        seal = klNetLinkSeal::restore(fixedSealState((settings & 2) != 0));
    } catch (const klNetError&) {
        return 0;  // no AES on this processor
    }
    link->setSeal(std::move(seal));
    try {
        for (;;) {
            std::shared_ptr<klNetBuffer> buffer;
            link->recv(buffer);
            check(buffer->getDataSize() <= klNetBuffer::getCapacity(),
                  "received a buffer larger than its payload area");
        }
    } catch (const klNetError&) {
    }
    return 0;
}
