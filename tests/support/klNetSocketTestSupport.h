// Helpers for the tests on real sockets: the raw far end of a link, bounded reads, connected
// loopback links, refusing ports, the process's open descriptors, and which system call another
// thread is blocked in.
#pragma once

#include <support/klNetTestSupport.h>

#include <sys/socket.h>
#include <sys/syscall.h>
#include <unistd.h>

#include <filesystem>
#include <fstream>
#include <set>
#include <utility>

#ifndef SYS_poll  // architectures that only have ppoll
#define SYS_poll SYS_ppoll
#endif

namespace kltest {

inline void writeAll(int fd, const Bytes& bytes) {
    EXPECT_EQ(ssize_t(bytes.size()), ::send(fd, bytes.data(), bytes.size(), MSG_NOSIGNAL));
}

// n bytes, or fewer when the peer closes, ten seconds pass, or a packet socket's message ends.
inline Bytes readExactly(int fd, std::size_t n) {
    const timeval limit{10, 0};
    ::setsockopt(fd, SOL_SOCKET, SO_RCVTIMEO, &limit, sizeof(limit));
    Bytes bytes(n);
    bytes.resize(std::size_t(std::max<ssize_t>(0, ::recv(fd, bytes.data(), n, MSG_WAITALL))));
    return bytes;
}

// Includes the one that listed them, closed by then: the lowest free number, the same each time.
inline std::set<int> openDescriptors() {
    std::set<int> fds;
    for (const auto& entry : std::filesystem::directory_iterator("/proc/self/fd")) {
        fds.insert(std::stoi(entry.path().filename()));
    }
    return fds;
}

// Runs body on a thread of its own and waits, for about ten seconds at most, until that thread is
// blocked in one of the system calls. The future holds body's outcome().
inline std::future<std::string> startBlocked(std::function<void()> body, std::set<long> calls) {
    auto started = std::make_shared<std::promise<long>>();
    auto ended = std::async(std::launch::async, [started, body] {
        started->set_value(::syscall(SYS_gettid));
        return outcome(body);
    });
    const std::string path =
        "/proc/self/task/" + std::to_string(started->get_future().get()) + "/syscall";
    long call = -1;
    for (int i = 0; i < 5000 && calls.count(call) == 0; ++i) {
        std::this_thread::sleep_for(std::chrono::milliseconds(2));
        std::ifstream(path) >> call;
    }
    EXPECT_EQ(1u, calls.count(call)) << "the thread did not block where expected";
    return ended;
}

// A link on one end of a local socket pair, raw the other end. A receive that waits ten seconds
// fails.
struct RawPeer {
    explicit RawPeer(int type = SOCK_STREAM)
        : raw((::socketpair(AF_UNIX, type | SOCK_CLOEXEC, 0, ends), ends[1])) {
        link.setRecvTimeout(10.0);
    }
    ~RawPeer() { ::close(raw); }
    int ends[2] = {-1, -1};
    int raw;
    klSocketLink link{ends[0]};
};

// Two ends of one loopback connection on an ephemeral port: near connected, far accepted. A
// receive on either end that waits recvTimeout seconds fails (0: waits for ever), so that a lost
// buffer fails the test instead of hanging it.
inline std::pair<std::shared_ptr<klSocketLink>, std::shared_ptr<klSocketLink>> connectedPair(
    double recvTimeout = 20.0) {
    klBoundSocketLink listener(0);
    std::shared_ptr<klSocketLink> far;
    std::thread acceptor([&] { far = std::make_shared<klSocketLink>(listener); });
    auto near = std::make_shared<klSocketLink>(
        klSocketAddress("127.0.0.1", listener.getAddress().getPort()), 5.0);
    acceptor.join();
    near->setRecvTimeout(recvTimeout);
    far->setRecvTimeout(recvTimeout);
    return {near, far};
}

// A socket on an ephemeral port of 127.0.0.1, listening with backlog unless it is negative: bound
// alone, the port refuses connections and stays taken while the socket lives.
struct PortSocket {
    explicit PortSocket(int backlog = -1) {
        const klSocketAddress any("127.0.0.1", "0");
        EXPECT_EQ(0, ::bind(socket.getDescriptor(), any.getSockAddr(), any.getSockAddrSize()));
        EXPECT_EQ(0, backlog < 0 ? 0 : ::listen(socket.getDescriptor(), backlog));
        port = socket.getAddress().getPort();
    }
    klSocketLink socket{::socket(AF_INET, SOCK_STREAM | SOCK_CLOEXEC, 0)};
    int port = 0;
};

}  // namespace kltest
