// Fuzz target: the messages of the socket hand-off pipe, as each side reads them from the other.
//
// Input: one byte of settings (bit 0 clear: this process is the service and the input plays the
// server it started; set: this process is the server and the input plays the service), then the
// packets the other side sends, each as a length byte, a byte whose low two bits give the number
// of descriptors attached to the packet, and the packet's bytes. After the last packet the other
// side stops sending. The side under test then makes up to two hand-offs (the service passes a
// socket, the server waits for one): each must end in a socket or in klNetError, never a crash or
// a hang, and no descriptor the other side sent along may stay open.
#include "klFuzzSupport.h"

#include <sys/un.h>

#include <string>

namespace {

constexpr int kMaxPackets = 32;
constexpr double kTimeout = 5.0;

struct Packet {
    std::vector<std::uint8_t> bytes;
    int descriptors = 0;
};

std::vector<Packet> packetsFrom(klfuzz::Input& input) {
    std::vector<Packet> packets;
    while (!input.empty() && packets.size() < kMaxPackets) {
        Packet packet;
        const std::size_t length = input.u8();
        packet.descriptors = input.u8() & 3;
        packet.bytes = input.bytes(length);
        packets.push_back(std::move(packet));
    }
    return packets;
}

// Sends the packets with the descriptors they carry (copies of /dev/null), then stops sending.
void sendPackets(int fd, const std::vector<Packet>& packets) {
    for (const Packet& packet : packets) {
        iovec data{const_cast<std::uint8_t*>(packet.bytes.data()), packet.bytes.size()};
        alignas(cmsghdr) char control[CMSG_SPACE(sizeof(int) * 3)] = {};
        msghdr message{};
        message.msg_iov = &data;
        message.msg_iovlen = 1;
        std::vector<int> attached;
        if (packet.descriptors > 0) {
            for (int i = 0; i < packet.descriptors; ++i) {
                attached.push_back(::open("/dev/null", O_RDONLY | O_CLOEXEC));
            }
            message.msg_control = control;
            message.msg_controllen = CMSG_SPACE(sizeof(int) * attached.size());
            cmsghdr* rights = CMSG_FIRSTHDR(&message);
            rights->cmsg_level = SOL_SOCKET;
            rights->cmsg_type = SCM_RIGHTS;
            rights->cmsg_len = CMSG_LEN(sizeof(int) * attached.size());
            std::memcpy(CMSG_DATA(rights), attached.data(), sizeof(int) * attached.size());
        }
        const ssize_t sent = ::sendmsg(fd, &message, MSG_NOSIGNAL | MSG_DONTWAIT);
        for (const int copy : attached) {
            ::close(copy);  // the copies in flight belong to the receiver now
        }
        if (sent < 0) {
            break;  // the side under test has closed
        }
    }
    ::shutdown(fd, SHUT_WR);
}

// The socket every hand-off passes: a fixed descriptor number, so that the acknowledgement a
// server must send back (that number) is the same in every run.
int handOffSocket() {
    static const int fd = [] {
        const int devNull = ::open("/dev/null", O_RDONLY | O_CLOEXEC);
        const int fixed = ::fcntl(devNull, F_DUPFD_CLOEXEC, 700);
        ::close(devNull);
        if (fixed < 0) {
            klfuzz::fail("hand-off descriptor");
        }
        return fixed;
    }();
    return fd;
}

// This process is the service; the input is the server at the other end of the pipe.
void serviceSide(const std::vector<Packet>& packets) {
    klSocketPipe pipe;
    sockaddr_un address{};
    address.sun_family = AF_UNIX;
    std::strncpy(address.sun_path, pipe.getName().c_str(), sizeof(address.sun_path) - 1);
    const int server = ::socket(AF_UNIX, SOCK_SEQPACKET | SOCK_CLOEXEC, 0);
    if (server < 0 ||
        ::connect(server, reinterpret_cast<sockaddr*>(&address), sizeof(address)) != 0) {
        klfuzz::fail("connect to the pipe");
    }
    sendPackets(server, packets);
    // A failed hand-off drops the server's connection, and the next one would wait out its time
    // for another server to open the pipe: only a successful one is followed by a second.
    try {
        for (int handOff = 0; handOff < 2; ++handOff) {
            pipe.sendSocket(handOffSocket(), kTimeout);
        }
    } catch (const klNetError&) {
    }
    // Copies of the socket that reached the server are closed with its end of the pipe.
    ::close(server);
}

// The listening socket of the service's pipe below.
int& listener() {
    static int fd = -1;
    return fd;
}

// A listening pipe of a service, for the whole run.
const std::string& servicePipeName() {
    static const std::string name = [] {
        const std::string path = "/tmp/klSocketPipeFuzz-" + std::to_string(::getpid());
        sockaddr_un address{};
        address.sun_family = AF_UNIX;
        std::strncpy(address.sun_path, path.c_str(), sizeof(address.sun_path) - 1);
        ::unlink(path.c_str());
        const int fd = ::socket(AF_UNIX, SOCK_SEQPACKET | SOCK_CLOEXEC, 0);
        if (fd < 0 || ::bind(fd, reinterpret_cast<sockaddr*>(&address), sizeof(address)) != 0 ||
            ::listen(fd, 4) != 0) {
            klfuzz::fail("service pipe");
        }
        std::atexit([] { ::unlink(servicePipeName().c_str()); });
        listener() = fd;
        return path;
    }();
    return name;
}

// This process is the server; the input is the service at the other end of the pipe.
void serverSide(const std::vector<Packet>& packets) {
    klSocketPipe pipe(servicePipeName());
    const int service = ::accept4(listener(), nullptr, nullptr, SOCK_CLOEXEC);
    if (service < 0) {
        klfuzz::fail("accept the server");
    }
    sendPackets(service, packets);
    for (int handOff = 0; handOff < 2; ++handOff) {
        try {
            ::close(pipe.recvSocket(kTimeout));
        } catch (const klNetError&) {
        }
    }
    ::close(service);
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
    handOffSocket();
    servicePipeName();
    klfuzz::Input input(data, size);
    const bool server = (input.u8() & 1) != 0;
    const std::vector<Packet> packets = packetsFrom(input);

    klfuzz::DescriptorCheck descriptors;
    if (server) {
        serverSide(packets);
    } else {
        serviceSide(packets);
    }
    return 0;
}
