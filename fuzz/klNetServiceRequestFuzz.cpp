// Fuzz target: a request as the cluster service reads it from a client.
//
// Input: the bytes a client sends after its greeting: buffers in the normal framing whose stream
// data is the 4-byte command code and the command's fields. They reach the service's real request
// handling through a loopback TCP connection, on a request thread of the service as any accepted
// client's would. Servers it is asked to start run inside this process and take the handed-over
// client socket at once, so no program is started. The service must answer with a result or an
// exception text, or drop a client that went away, and never crash, hang or allocate by an
// untrusted length.
//
// A request to relay to another host (command 4) would resolve and connect to whatever host the
// input names: it is read only as far as the service reads it before doing so (the host and port
// fields, and the split of the host text into server and port).
#include "klFuzzSupport.h"

#include <QCoreApplication>

#include <string>

namespace {

// A render server reduced to taking its client's socket and letting it go.
void takeSocket(const std::string& pipeName) {
    klSocketPipe pipe(pipeName);
    klSocketLink client(pipe, 10.0);
}

// The command code as the service's stream will read it: the first four payload bytes of the
// leading stream-data buffers; none when another type or a refused size comes first.
std::uint32_t commandOf(const std::uint8_t* data, std::size_t size) {
    klfuzz::Input input(data, size);
    std::vector<std::uint8_t> code;
    while (code.size() < 4 && input.remaining() >= klNetBuffer::getHeaderSize()) {
        klNetHeader header;
        std::memcpy(&header, input.position(), sizeof(header));
        input.bytes(sizeof(header));
        if (header.type != klNetMessageTypeStream || header.dataSize > klNetBuffer::getCapacity()) {
            break;
        }
        for (const std::uint8_t byte : input.bytes(header.dataSize)) {
            code.push_back(byte);
        }
    }
    if (code.size() < 4) {
        return 0;
    }
    std::uint32_t command;
    std::memcpy(&command, code.data(), sizeof(command));
    return command;
}

void readRelay(const std::uint8_t* data, std::size_t size) {
    klfuzz::Input input(data, size);
    auto link = std::make_shared<klfuzz::ScriptLink>(klfuzz::framesFrom(input));
    klNetStream stream(link);
    try {
        std::uint32_t command = 0;
        std::uint32_t port = 0;
        std::string host;
        stream >> command >> host >> port;
        std::string server;
        int splitPort = 0;
        klSocketAddress::splitServerAndPort(host, server, splitPort, int(port));
    } catch (const std::exception&) {
        // As the service: any failure is answered as the request's exception.
    }
}

void setUpOnce() {
    static int argc = 1;
    static char name[] = "klNetServiceRequestFuzz";
    static char* argv[] = {name, nullptr};
    static QCoreApplication application(argc, argv);
    klNetServerProcess::setInProcess(true, takeSocket);
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
    static const bool ready = (setUpOnce(), true);
    (void)ready;
    if (commandOf(data, size) == klNetService::kConnectService) {
        readRelay(data, size);
        return 0;
    }

    klfuzz::SocketFeeder::loopbackListener();
    klfuzz::DescriptorCheck descriptors;
    klfuzz::SocketFeeder client(klfuzz::SocketFeeder::kTcp,
                                std::vector<std::uint8_t>(data, data + size));
    // The client's writer included: it is joined only as the input ends.
    const int threads = klfuzz::entriesOf("/proc/self/task");
    {
        klNetService service(0, "");
        service.setConsole(false);
        auto link = std::make_unique<klSocketLink>(client.takeNear());
        service.handleExternalRequest(link.release());
        // The service's destructor waits for the request to finish.
    }
    // The finished request thread, which holds the service's end of the connection, is deleted
    // by the application's event loop: run what it would have run.
    QCoreApplication::sendPostedEvents();
    QCoreApplication::sendPostedEvents(nullptr, QEvent::DeferredDelete);
    klfuzz::awaitThreadCount(threads);
    return 0;
}
