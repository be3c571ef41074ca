// Fuzz target: a stream reading whatever sequence of buffers a peer sends.
//
// Input: a byte of settings (bit 0: this stream is the master, rank 1, else rank 2; bits 1-2: the
// number of peers the master's sender reaches; bit 3: a sort receiver re-orders multicast buffers;
// bit 4: an unbundling receiver splits bundles), a byte giving the length of a plan (1 to 16
// bytes), the plan, then the buffers the receiver yields, in the normal framing. Types, sequence
// numbers, sources, message ids and buffer counts are the input's. The plan names the reads the
// application makes, in turn, until the buffers run out: whole messages (reassembled by source
// and message id), stream data, results and sync points. Each read must end in a value or in
// klNetError: never a crash or a read outside a buffer.
#include "klFuzzSupport.h"

#include <set>
#include <string>

namespace {

void readOnce(klNetStream& stream, std::uint8_t step) {
    switch (step % 8) {
        case 0: {
            klNetMessage message;
            stream.recvMessage(message);
            std::int32_t value = 0;
            std::string text;
            message >> value >> text;
            break;
        }
        case 1: {
            klNetMessage message;
            if (stream.tryRecvMessage(message)) {
                std::uint64_t value = 0;
                message >> value;
            }
            break;
        }
        case 2: {
            std::uint32_t value = 0;
            stream >> value;
            break;
        }
        case 3:
            stream.recvResult();
            break;
        case 4:
            stream.waitSync();
            break;
        case 5: {
            std::string text;
            stream >> text;
            break;
        }
        case 6:
            stream.getInputReference(std::size_t(step >> 3) + 1);
            break;
        default: {
            std::vector<std::int32_t> values;
            stream >> values;
            break;
        }
    }
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
    klfuzz::Input input(data, size);
    const std::uint8_t settings = input.u8();
    const std::vector<std::uint8_t> plan = input.bytes(std::size_t(input.u8() % 16) + 1);
    if (plan.empty()) {
        return 0;
    }

    auto link = std::make_shared<klfuzz::ScriptLink>(klfuzz::framesFrom(input));
    klNetStream stream(link);
    const bool master = (settings & 1) != 0;
    stream.setRank(master ? 1 : 2);
    std::set<unsigned int> peers;
    for (unsigned int peer = 2; peer < 2 + ((settings >> 1) & 3u); ++peer) {
        peers.insert(peer);
    }
    stream.setSender(klNetLinkSender::create(link, peers));
    std::shared_ptr<klNetReceiver> receiver = klNetLinkReceiver::create(link);
    if ((settings & 8) != 0) {
        receiver = klNetSortReceiver::create(receiver);
    }
    if ((settings & 16) != 0) {
        receiver = klNetUnbundleReceiver::create(receiver);
    }
    stream.setReceiver(receiver);

    // Every read takes at least one byte or buffer, or fails, so this ends by the bound; only a
    // master without peers has sync points that take nothing.
    for (std::size_t step = 0; step <= size; ++step) {
        try {
            if (!stream.isReadable()) {
                break;  // every buffer has been read
            }
            readOnce(stream, plan[step % plan.size()]);
        } catch (const klConnectionClosed&) {
            break;  // every buffer has been read
        } catch (const klNetError&) {
            // Out of sync, a remote exception, a duplicate sync reply: the stream stays usable.
        }
    }
    return 0;
}
