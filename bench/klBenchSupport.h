// Pieces the socket benchmarks share: timing, medians, connected loopback pairs and plain-socket
// I/O for the baselines.
#pragma once

#include <klNetBase/klNetBase.h>

#include <sys/socket.h>
#include <unistd.h>

#include <algorithm>
#include <chrono>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <memory>
#include <stdexcept>
#include <string>
#include <thread>
#include <vector>

namespace klbench {

using Clock = std::chrono::steady_clock;

inline double secondsSince(Clock::time_point start) {
    return std::chrono::duration<double>(Clock::now() - start).count();
}

inline double percentile(std::vector<double> values, double fraction) {
    std::sort(values.begin(), values.end());
    return values[std::min(values.size() - 1, std::size_t(fraction * double(values.size())))];
}

inline double median(const std::vector<double>& values) {
    return percentile(values, 0.5);
}

// The positional numbers of a benchmark's command line (at most `most` of them, each at least
// `least`). --help prints `usage` and exits; anything else is a one-line error and exit status 2.
inline std::vector<double> numericArguments(int argc, char** argv, const char* usage,
                                            std::size_t most, double least) {
    const char* const name = std::strrchr(argv[0], '/') ? std::strrchr(argv[0], '/') + 1 : argv[0];
    std::vector<double> values;
    for (int i = 1; i < argc; ++i) {
        const std::string arg = argv[i];
        if (arg == "--help") {
            std::printf("usage: %s %s", name, usage);
            std::exit(0);
        }
        char* end = nullptr;
        const double value = std::strtod(argv[i], &end);
        if (arg.empty() || *end != '\0' || !(value >= least) || values.size() == most) {
            std::fprintf(stderr, "%s: %s argument '%s' (see --help)\n", name,
                         arg[0] == '-' && !(value >= least) ? "unknown" : "bad", argv[i]);
            std::exit(2);
        }
        values.push_back(value);
    }
    return values;
}

inline void require(bool ok, const char* what) {
    if (!ok) {
        throw std::runtime_error(what);
    }
}

// A connected pair of socket links over 127.0.0.1.
struct LinkPair {
    std::shared_ptr<klSocketLink> client;
    std::shared_ptr<klSocketLink> server;

    LinkPair() {
        klBoundSocketLink listener(0);
        const int port = listener.getAddress().getPort();
        std::thread acceptor([&] { server = std::make_shared<klSocketLink>(listener); });
        client = std::make_shared<klSocketLink>(klSocketAddress("127.0.0.1", port), 5.0);
        acceptor.join();
    }
};

// Raw descriptors taken from a link pair, so that the baseline runs with the same socket options.
struct PlainPair {
    int client;
    int server;

    PlainPair() {
        LinkPair links;
        client = links.client->takeDescriptor();
        server = links.server->takeDescriptor();
    }
    ~PlainPair() {
        ::close(client);
        ::close(server);
    }
    PlainPair(const PlainPair&) = delete;
    PlainPair& operator=(const PlainPair&) = delete;
};

inline void sendAll(int fd, const void* data, std::size_t length) {
    const char* next = static_cast<const char*>(data);
    while (length > 0) {
        const ssize_t sent = ::send(fd, next, length, MSG_NOSIGNAL);
        require(sent > 0, "plain send failed");
        next += sent;
        length -= std::size_t(sent);
    }
}

inline void recvAll(int fd, void* data, std::size_t length) {
    char* next = static_cast<char*>(data);
    while (length > 0) {
        const ssize_t got = ::recv(fd, next, length, 0);
        require(got > 0, "plain recv failed");
        next += got;
        length -= std::size_t(got);
    }
}

// A buffer of the given payload, filled and stamped as a serializer would hand it on.
inline std::shared_ptr<klNetBuffer> filledBuffer(std::size_t payload, unsigned char fill) {
    std::shared_ptr<klNetBuffer> buffer = klNetBufferPool::pop();
    std::fill(buffer->getData(), buffer->getData() + payload, fill);
    buffer->setDataSize(payload);
    buffer->setCompression(klNetCompressionNone, payload);
    buffer->setType(klNetMessageTypeStream);
    return buffer;
}

}  // namespace klbench
