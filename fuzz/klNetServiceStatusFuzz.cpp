// Fuzz target: the status record as a client reads it from a service.
//
// Input: one byte choosing the buffer cut length (1 to 256 payload bytes per buffer), then the
// serialised record. Reading must end in a record or in klNetError (a count above the limit, or
// the bytes ran out), and allocate nothing sized by a count before the data for it has arrived.
// A record read whole must give its typed values and write out a record that reads back. (Texts
// are written up to their first zero byte but read whole, so a record with zero bytes in its texts
// need not come back the same.)
#include "klFuzzSupport.h"

#include <string>

namespace {

std::vector<std::shared_ptr<klNetBuffer>> written(const klNetServiceStatus& status) {
    klNetMessage writer;
    status.putValue(writer);
    return writer.takeSendBuffers();
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
    klfuzz::Input input(data, size);
    const std::size_t piece = std::size_t(input.u8()) + 1;
    const std::vector<std::uint8_t> payload = input.rest();
    klNetMessage reader;
    reader.setRecvBuffers(klfuzz::cutIntoBuffers(payload.data(), payload.size(), piece));
    klNetServiceStatus status;
    try {
        status.getValue(reader);
    } catch (const klNetError&) {
        return 0;  // refused or truncated
    }
    status.getIsRunning();
    status.getNumberOfClusterServers();
    status.getCPUUsage();
    status.getFreeMemory();
    status.getVersion();
    status.getBookingIds();

    klNetMessage again;
    again.setRecvBuffers(written(status));
    klNetServiceStatus copy;
    try {
        copy.getValue(again);
    } catch (const klNetError& e) {
        std::fprintf(stderr, "fuzz harness: a written status record does not read: %s\n", e.what());
        std::abort();
    }
    return 0;
}
