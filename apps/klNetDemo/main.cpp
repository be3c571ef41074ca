// klNetDemo: writes typed values and a whole message through the serializer, shows the buffers
// they were cut into, reads everything back and checks it.
#include <klNetBase/klNetBase.h>

#include "klVersionInfo.h"

#include <cstdint>
#include <cstdio>
#include <numeric>
#include <string>
#include <vector>

namespace {

void printBuffer(std::size_t index, const klNetBuffer& buffer) {
    std::printf("  buffer %zu: type %d, dataSize %zu, message id %zu, %zu of %zu\n", index,
                int(buffer.getType()), buffer.getDataSize(), buffer.getMessageId(), index + 1,
                buffer.getMessageBufferCount());
}

bool check(bool ok, const char* what) {
    std::printf("  %-44s %s\n", what, ok ? "ok" : "MISMATCH");
    return ok;
}

}  // namespace

int main() {
    std::printf("klNetBase %s demo\n\n", klVersionInfo::the().getVersionString().c_str());

    // A message of mixed values, large enough to be cut into several buffers.
    std::vector<std::int32_t> samples(100000);
    std::iota(samples.begin(), samples.end(), -50000);
    klNetInterfaceOptions options;
    options.setIbDevice("mlx5_0");
    options.setImageChannels(8);
    options.setEncrypted(true);

    klNetMessage message;
    message << std::uint16_t(8889) << 3.25 << true << std::string("render node 7") << samples;
    options.putValue(message);
    message.putValue("end");

    std::vector<std::shared_ptr<klNetBuffer>> buffers = message.takeSendBuffers();
    std::size_t total = 0;
    for (const auto& buffer : buffers) {
        total += buffer->getDataSize();
    }
    std::printf("wrote a message of %zu bytes in %zu buffers of at most %d bytes:\n", total,
                buffers.size(), klNetOptions::getStreamBufferSize());
    for (std::size_t i = 0; i < buffers.size(); ++i) {
        printBuffer(i, *buffers[i]);
    }

    klNetMessage reader;
    reader.setRecvBuffers(buffers);
    std::printf("\nread it back (%zu bytes to read):\n", reader.getMessageSize());
    std::uint16_t port = 0;
    double scale = 0;
    bool flag = false;
    std::string name;
    std::vector<std::int32_t> samplesRead;
    klNetInterfaceOptions optionsRead;
    std::string end;
    reader >> port >> scale >> flag >> name >> samplesRead;
    optionsRead.getValue(reader);
    reader >> end;

    bool ok = true;
    ok &= check(port == 8889 && scale == 3.25 && flag, "fixed-width values");
    ok &= check(name == "render node 7", "string \"render node 7\"");
    ok &= check(samplesRead == samples, "100000 samples across buffer boundaries");
    ok &= check(optionsRead.getIbDevice() == "mlx5_0" && optionsRead.getImageChannels() == 8 &&
                    optionsRead.getEncrypted(),
                "interface options");
    ok &= check(end == "end", "closing text");

    try {
        reader.getValue(port);
        ok &= check(false, "reading past the end is refused");
    } catch (const klNetError& error) {
        std::printf("  reading past the end: %s\n", error.what());
    }

    std::printf("\n%s\n", ok ? "everything read back as written" : "DEMO FAILED");
    return ok ? 0 : 1;
}
