// Pieces the benchmarks share: the command line, progress on a terminal, timing, medians, connected
// loopback pairs and plain-socket I/O for the baselines.
#pragma once

#include <klNetBase/klNetBase.h>

#include "klCommandLine.h"

#include <sys/socket.h>
#include <unistd.h>

#include <algorithm>
#include <chrono>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <memory>
#include <optional>
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

// One number a benchmark takes on its command line, in its place: "ROUNDS".
struct NumericArgument {
    const char* name;
    const char* description;  // for --help, with the default
    CLI::Validator check;     // klCommandLine::integer() or number()
};

// The name a benchmark was started by, for its messages.
inline std::string programName(const char* path) {
    const char* slash = std::strrchr(path, '/');
    return slash != nullptr ? slash + 1 : path;
}

// The command line of a benchmark that takes only numbers, each optional, in the order given:
// returns those given. --help (the description, the arguments and the targets the benchmark
// measures against), --version and a bad command line end the program, with the conventions of
// every program (klCommandLine).
inline std::vector<double> numericArguments(int argc, char** argv, const char* description,
                                            const std::vector<NumericArgument>& arguments,
                                            const char* targets) {
    klCommandLine cli(programName(argv[0]), description);
    std::vector<double> values(arguments.size());
    std::vector<CLI::Option*> options;
    for (std::size_t i = 0; i < arguments.size(); ++i) {
        options.push_back(cli.app()
                              .add_option(arguments[i].name, values[i], arguments[i].description)
                              ->type_name("")
                              ->check(arguments[i].check));
    }
    cli.app().footer(std::string("Targets: ") + targets);
    if (const std::optional<int> done = cli.parse(argc, argv)) {
        std::exit(*done);
    }
    std::size_t given = 0;
    while (given < options.size() && options[given]->count() > 0) {
        ++given;
    }
    values.resize(given);
    return values;
}

// Writes "\rtext" for a line redrawn in place, on a terminal only: into a file or pipe nothing.
inline void progressLine(FILE* terminal, const std::string& text) {
    if (::isatty(::fileno(terminal)) == 1) {
        std::fprintf(terminal, "\r%s", text.c_str());
        std::fflush(terminal);
    }
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
