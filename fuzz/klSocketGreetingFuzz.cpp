// Fuzz target: the 4-byte greeting of a socket link, on both sides, and the buffers that follow it
// in the framing the greeting selected.
//
// Input: one byte of settings (bit 0 set: this side accepted the connection and checks the
// client's greeting with checkForHPCNetSocket; clear: this side connected, sends its greeting and
// checks the answer), then the bytes the peer sends, over a real loopback TCP connection. A
// greeting other than the two known values must leave the accepting side without a link (and the
// bytes unread) or make the connecting side fail with "Unexpected respnse from server"; after an
// accepted greeting, buffers are received until the peer's bytes run out.
#include "klFuzzSupport.h"

namespace {

void receiveAll(klSocketLink& link) {
    for (;;) {
        std::shared_ptr<klNetBuffer> buffer;
        link.recv(buffer);
        if (buffer->getDataSize() > klNetBuffer::getCapacity()) {
            std::fprintf(stderr, "fuzz harness: received a buffer larger than its payload area\n");
            std::abort();
        }
    }
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
    klfuzz::Input input(data, size);
    const bool accepting = (input.u8() & 1) != 0;
    // Fewer than 4 greeting bytes keep the accepting side waiting out its 2-second limit: a
    // matter of time, not of parsing.
    if (accepting && input.remaining() < 4) {
        return 0;
    }

    klfuzz::SocketFeeder::loopbackListener();
    klfuzz::DescriptorCheck descriptors;
    klfuzz::SocketFeeder peer(klfuzz::SocketFeeder::kTcp, input.rest());
    try {
        if (accepting) {
            const int descriptor = peer.takeNear();
            std::unique_ptr<klSocketLink> link = klSocketLink::checkForHPCNetSocket(descriptor);
            if (!link) {
                // Not a link peer: the descriptor stays the caller's.
                ::close(descriptor);
                return 0;
            }
            receiveAll(*link);
        } else {
            klSocketLink link(peer.takeNear());
            link.signalHPCNetSocket();
            receiveAll(link);
        }
    } catch (const klNetError&) {
        // A wrong answer, a refused size, or the peer's bytes ran out.
    }
    return 0;
}
