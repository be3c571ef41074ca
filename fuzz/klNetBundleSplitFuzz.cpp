// Fuzz target: splitting bundles that arrive from a peer.
//
// Input: one byte of settings, then either (bit 0 clear) the payload of one bundle, split
// directly, or (bit 0 set) a run of buffers in the normal framing read through an unbundling
// receiver, which splits every bundle among them. Records are trusted only as far as the
// bundle's payload area reaches: every part must fit its own payload area, and a bundle whose
// records exactly fill it must come back as the very same records, in order.
#include "klFuzzSupport.h"

#include <queue>

namespace {

using klfuzz::check;

// True when the records of the payload end exactly at its end.
bool wellFormed(const std::vector<std::uint8_t>& payload) {
    std::size_t position = 0;
    while (position + klNetBuffer::getHeaderSize() <= payload.size()) {
        std::uint32_t size;
        std::memcpy(&size, payload.data() + position, sizeof(size));
        position += klNetBuffer::getHeaderSize() + size;
    }
    return position == payload.size();
}

void splitOne(klfuzz::Input& input) {
    const std::vector<std::uint8_t> payload = input.bytes(klNetBuffer::getCapacity());
    std::shared_ptr<klNetBuffer> bundle = klNetBufferPool::pop();
    bundle->setType(klNetMessageTypeBundle);
    std::copy(payload.begin(), payload.end(), bundle->getData());
    bundle->setDataSize(payload.size());

    std::queue<std::shared_ptr<klNetBuffer>> parts;
    bundle->split(parts);
    // Compared in place: joining the parts into a vector of their own cost this target half of
    // its time in fresh pages of the sanitizer's allocator.
    std::size_t joined = 0;
    bool same = true;
    while (!parts.empty()) {
        const klNetBuffer& part = *parts.front();
        check(part.getDataSize() <= klNetBuffer::getCapacity(),
              "a part is larger than its payload area");
        const std::size_t size = part.getBufferSize();
        same = same && joined + size <= payload.size() &&
               std::memcmp(payload.data() + joined, part.getBuffer(), size) == 0;
        joined += size;
        parts.pop();
    }
    if (wellFormed(payload)) {
        check(same && joined == payload.size(),
              "a well-formed bundle did not split into its records");
    }
}

void unbundleAll(klfuzz::Input& input) {
    auto link = std::make_shared<klfuzz::ScriptLink>(klfuzz::framesFrom(input));
    const std::shared_ptr<klNetReceiver> receiver =
        klNetUnbundleReceiver::create(klNetLinkReceiver::create(link));
    try {
        for (;;) {
            std::shared_ptr<klNetBuffer> buffer;
            receiver->recv(buffer);
            check(buffer->getDataSize() <= klNetBuffer::getCapacity(),
                  "a part is larger than its payload area");
        }
    } catch (const klConnectionClosed&) {
        // Every buffer has been read.
    }
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
    klfuzz::Input input(data, size);
    if ((input.u8() & 1) == 0) {
        splitOne(input);
    } else {
        unbundleAll(input);
    }
    return 0;
}
