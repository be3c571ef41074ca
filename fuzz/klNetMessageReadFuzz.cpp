// Fuzz target: reading typed values from a message whose bytes come from a peer.
//
// The input is cut into buffers (the first byte chooses the cut length), installed in a reading
// message, and read back as a sequence of values chosen by the input itself. Whatever the bytes,
// reading must end in a value or in klNetError: never a crash, an out-of-bounds access or an
// allocation sized by an untrusted length.
#include "klFuzzSupport.h"

#include <string>

namespace {

void readValues(klNetMessage& reader, const std::uint8_t* plan, std::size_t planSize) {
    for (std::size_t i = 0; i < planSize; ++i) {
        switch (plan[i] % 8) {
            case 0: {
                std::string text;
                reader >> text;
                break;
            }
            case 1: {
                std::vector<std::int32_t> values;
                reader >> values;
                break;
            }
            case 2: {
                std::vector<std::string> texts;
                reader >> texts;
                break;
            }
            case 3: {
                klNetInterfaceOptions options;
                options.getValue(reader);
                break;
            }
            case 4: {
                std::uint64_t value;
                reader >> value;
                break;
            }
            case 5: {
                bool flag;
                reader >> flag;
                break;
            }
            case 6:
                reader.getInputReference(plan[i] / 8);
                break;
            default: {
                std::vector<bool> flags;
                reader >> flags;
                break;
            }
        }
    }
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
    if (size < 2) {
        return 0;
    }
    // Byte 0: buffer cut length (1..256); byte 1: how many plan bytes follow.
    const std::size_t piece = std::size_t(data[0]) + 1;
    const std::size_t planSize = std::min<std::size_t>(data[1], size - 2);
    const std::uint8_t* plan = data + 2;
    const std::uint8_t* payload = plan + planSize;
    const std::size_t payloadSize = size - 2 - planSize;

    klNetMessage reader;
    reader.setRecvBuffers(klfuzz::cutIntoBuffers(payload, payloadSize, piece));
    try {
        readValues(reader, plan, planSize);
    } catch (const klNetError&) {
        // Running out of data or a bad reference is the expected end of a hostile input.
    }
    return 0;
}
