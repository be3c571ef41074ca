// Fuzz target: interface options as a peer sends them.
//
// Input: one byte choosing the buffer cut length (1 to 256 payload bytes per buffer), then the
// bytes of one or more serialised records, read back one after the other until the bytes run out.
// Reading must end in a record or in klNetError ("klNetMessage: try to read beyond buffer end."),
// and a record read back must write out as the bytes it was read from, up to the first zero of
// the device text.
#include "klFuzzSupport.h"

#include <string>

namespace {

// The bytes a record writes.
std::vector<std::uint8_t> bytesOf(const klNetInterfaceOptions& options) {
    klNetMessage writer;
    options.putValue(writer);
    std::vector<std::uint8_t> bytes;
    for (const auto& buffer : writer.takeSendBuffers()) {
        bytes.insert(bytes.end(), buffer->getData(), buffer->getData() + buffer->getDataSize());
    }
    return bytes;
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
    klfuzz::Input input(data, size);
    const std::size_t piece = std::size_t(input.u8()) + 1;
    const std::vector<std::uint8_t> payload = input.rest();
    klNetMessage reader;
    reader.setRecvBuffers(klfuzz::cutIntoBuffers(payload.data(), payload.size(), piece));
    try {
        for (int i = 0; i < 64; ++i) {
            klNetInterfaceOptions options;
            options.getValue(reader);
            // A record read back and written again reads back the same.
            const std::vector<std::uint8_t> written = bytesOf(options);
            klNetMessage again;
            again.setRecvBuffers(klfuzz::cutIntoBuffers(written.data(), written.size(), piece));
            klNetInterfaceOptions copy;
            copy.getValue(again);
            if (bytesOf(copy) != written || copy.getIbDevice() != options.getIbDevice().c_str()) {
                std::fprintf(stderr, "fuzz harness: options do not survive a second round\n");
                std::abort();
            }
        }
    } catch (const klNetError&) {
        // The bytes ran out inside a record.
    }
    return 0;
}
