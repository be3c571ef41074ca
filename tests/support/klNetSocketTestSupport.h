// Helpers for the link tests: plain loopback sockets for the other end of a link, bounded reads,
// the process's open descriptors, and which system call another thread is blocked in.
#pragma once

#include <support/klNetTestSupport.h>

#include <arpa/inet.h>
#include <dirent.h>
#include <sys/socket.h>
#include <sys/syscall.h>
#include <unistd.h>

#include <algorithm>
#include <chrono>
#include <fstream>
#include <functional>
#include <future>
#include <set>
#include <string>
#include <thread>

#ifndef SYS_poll  // architectures that only have ppoll
#define SYS_poll SYS_ppoll
#endif

namespace kltest {

using Clock = std::chrono::steady_clock;

inline Bytes operator+(Bytes left, const Bytes& right) {
    left.insert(left.end(), right.begin(), right.end());
    return left;
}

// The bytes that travel for buffer: header and payload.
inline Bytes wireOf(const klNetBuffer& buffer) {
    return Bytes(buffer.getBuffer(), buffer.getBuffer() + buffer.getBufferSize());
}

// How fn ended: "returned", "closed", "timeout", or the text of any other exception.
inline std::string outcome(const std::function<void()>& fn) {
    try {
        fn();
        return "returned";
    } catch (const klConnectionClosed&) {
        return "closed";
    } catch (const klConnectionTimeout&) {
        return "timeout";
    } catch (const std::exception& error) {
        return error.what();
    }
}

// A plain socket on 127.0.0.1: bound to an ephemeral port (returned in port) and listening when
// backlog >= 0, or, with connectTo, a client of that port.
inline int rawSocket(int& port, int backlog = -1, int connectTo = 0) {
    const int fd = ::socket(AF_INET, SOCK_STREAM | SOCK_CLOEXEC, 0);
    sockaddr_in address{};
    address.sin_family = AF_INET;
    address.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
    address.sin_port = htons(std::uint16_t(connectTo));
    socklen_t length = sizeof(address);
    auto* raw = reinterpret_cast<sockaddr*>(&address);
    EXPECT_EQ(0, connectTo != 0 ? ::connect(fd, raw, length) : ::bind(fd, raw, length));
    EXPECT_EQ(0, backlog < 0 ? 0 : ::listen(fd, backlog));
    ::getsockname(fd, raw, &length);
    port = ntohs(address.sin_port);
    return fd;
}

inline int rawConnect(int port) {
    int local = 0;
    return rawSocket(local, -1, port);
}

inline void writeAll(int fd, const Bytes& bytes) {
    for (std::size_t done = 0; done < bytes.size();) {
        const ssize_t n = ::send(fd, bytes.data() + done, bytes.size() - done, MSG_NOSIGNAL);
        ASSERT_GT(n, 0) << "raw write failed";
        done += std::size_t(n);
    }
}

// n bytes, or fewer when the peer closes or ten seconds pass without a byte.
inline Bytes readExactly(int fd, std::size_t n) {
    const timeval limit{10, 0};
    ::setsockopt(fd, SOL_SOCKET, SO_RCVTIMEO, &limit, sizeof(limit));
    Bytes bytes(n);
    std::size_t done = 0;
    for (ssize_t got = 1; done < n && got > 0; done += std::size_t(std::max<ssize_t>(got, 0))) {
        got = ::recv(fd, &bytes[done], n - done, 0);
    }
    bytes.resize(done);
    return bytes;
}

inline std::set<int> openDescriptors() {
    std::set<int> fds;
    DIR* dir = ::opendir("/proc/self/fd");
    while (const dirent* entry = ::readdir(dir)) {
        if (entry->d_name[0] != '.') {
            fds.insert(std::stoi(entry->d_name));
        }
    }
    fds.erase(::dirfd(dir));
    ::closedir(dir);
    return fds;
}

// Runs body on a thread of its own and waits, at most ten seconds, until that thread is blocked
// in one of the system calls. The future holds body's outcome().
inline std::future<std::string> startBlocked(std::function<void()> body,
                                             std::initializer_list<long> syscalls) {
    auto started = std::make_shared<std::promise<long>>();
    auto ended = std::async(std::launch::async, [started, body] {
        started->set_value(::syscall(SYS_gettid));
        return outcome(body);
    });
    const std::string path = "/proc/self/task/" + std::to_string(started->get_future().get());
    bool blocked = false;
    for (auto deadline = Clock::now() + std::chrono::seconds(10);
         !blocked && Clock::now() < deadline;
         std::this_thread::sleep_for(std::chrono::milliseconds(2))) {
        std::ifstream file(path + "/syscall");
        long number = -1;
        blocked = (file >> number) &&
                  std::find(syscalls.begin(), syscalls.end(), number) != syscalls.end();
    }
    EXPECT_TRUE(blocked) << "the thread did not block where expected";
    return ended;
}

// A link accepted from a plain client socket (raw). A receive that waits ten seconds fails.
struct RawPeer {
    RawPeer() { link.setRecvTimeout(10.0); }
    klBoundSocketLink listener{0};
    int raw = rawConnect(listener.getAddress().getPort());
    klSocketLink link{listener};
    ~RawPeer() { ::close(raw); }
};

// Both ends of one connection made by the library.
struct LinkPair {
    explicit LinkPair(const char* host = "127.0.0.1") : host(host) {}
    const char* host;
    klBoundSocketLink listener{0};
    klSocketLink connected{klSocketAddress(host, std::to_string(listener.getAddress().getPort())),
                           5.0};
    klSocketLink accepted{listener};
};

}  // namespace kltest
