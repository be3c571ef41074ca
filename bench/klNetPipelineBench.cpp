// Small-message rate over loopback, both ends in one process.
//
//   link sender      64-byte buffers written one by one through a klNetLinkSender
//   buffered sender  the same through a klNetBufferedSender, which packs them into bundles
//   plain sockets    one 88-byte frame (header + payload) per send() on a raw socket
//
// The receiving thread counts buffers (splitting bundles) until all have arrived. Rounds are
// interleaved; each figure is the median. Also: the parallel copy against memcpy for 64 MiB.
#include "klBenchSupport.h"

#include <sys/socket.h>
#include <unistd.h>

#include <algorithm>
#include <chrono>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <memory>
#include <stdexcept>
#include <thread>
#include <vector>

namespace {

using namespace klbench;

constexpr std::size_t kPayload = 64;

std::shared_ptr<klNetBuffer> smallBuffer() {
    std::shared_ptr<klNetBuffer> buffer = filledBuffer(kPayload, 0x42);
    buffer->setDestination(1);
    return buffer;
}

// Receives until count buffers have arrived, splitting bundles; returns when done.
void countBuffers(klNetReceiver& receiver, long count) {
    long seen = 0;
    std::queue<std::shared_ptr<klNetBuffer>> parts;
    std::shared_ptr<klNetBuffer> buffer;
    while (seen < count) {
        receiver.recv(buffer);
        if (buffer->getType() == klNetMessageTypeBundle) {
            buffer->split(parts);
            seen += long(parts.size());
            parts = {};
        } else {
            ++seen;
        }
    }
}

// Buffers per second through a sender over one socket link.
double senderRate(const std::shared_ptr<klNetSender>& sender, LinkPair& pair, long count) {
    klNetLinkReceiver receiver(pair.server);
    const std::shared_ptr<klNetBuffer> buffer = smallBuffer();
    const Clock::time_point start = Clock::now();
    std::thread counter([&] { countBuffers(receiver, count); });
    for (long i = 0; i < count; ++i) {
        sender->send(buffer);
    }
    sender->waitAllDataTransfered();
    counter.join();
    return double(count) / secondsSince(start);
}

double plainRate(LinkPair& pair, long count) {
    const int out = pair.client->getDescriptor();
    const int in = pair.server->getDescriptor();
    const std::shared_ptr<klNetBuffer> buffer = smallBuffer();
    const std::size_t frame = buffer->getBufferSize();
    const Clock::time_point start = Clock::now();
    std::thread counter([&] {
        // Reads whatever has arrived in large blocks and counts whole frames.
        std::vector<char> block(1 << 18);
        std::size_t bytes = 0;
        const std::size_t total = frame * std::size_t(count);
        while (bytes < total) {
            const ssize_t got = ::recv(in, block.data(), block.size(), 0);
            if (got <= 0) {
                throw std::runtime_error("plain recv failed");
            }
            bytes += std::size_t(got);
        }
    });
    for (long i = 0; i < count; ++i) {
        if (::send(out, buffer->getBuffer(), frame, MSG_NOSIGNAL) != ssize_t(frame)) {
            throw std::runtime_error("plain send failed");
        }
    }
    counter.join();
    return double(count) / secondsSince(start);
}

double copyRate(bool parallel, std::vector<char>& from, std::vector<char>& to) {
    const Clock::time_point start = Clock::now();
    for (int i = 0; i < 8; ++i) {
        if (parallel) {
            klNetMem::parallelCopy(to.data(), from.data(), from.size());
        } else {
            std::memcpy(to.data(), from.data(), from.size());
        }
    }
    return 8.0 * double(from.size()) / secondsSince(start);
}

}  // namespace

int main(int argc, char** argv) {
    const int rounds = argc > 1 ? std::max(1, std::atoi(argv[1])) : 5;
    const long bufferedCount = 1000000;
    const long oneByOneCount = 200000;

    LinkPair linkPair;
    LinkPair bufferedPair;
    LinkPair plainPair;
    const std::shared_ptr<klNetSender> linkSender = klNetLinkSender::create(linkPair.client, {1});
    const std::shared_ptr<klNetSender> bufferedSender =
        klNetSender::createBundle({bufferedPair.client}, true, {1});

    std::vector<double> link, buffered, plain, copy, parallel;
    std::vector<char> from(64 << 20, 1), to(64 << 20, 0);
    for (int round = 0; round < rounds; ++round) {
        link.push_back(senderRate(linkSender, linkPair, oneByOneCount));
        buffered.push_back(senderRate(bufferedSender, bufferedPair, bufferedCount));
        plain.push_back(plainRate(plainPair, oneByOneCount));
        copy.push_back(copyRate(false, from, to));
        parallel.push_back(copyRate(true, from, to));
    }

    const double linkRate = median(link), bufferedRate = median(buffered);
    const double plainRateValue = median(plain);
    std::printf("median of %d interleaved rounds, 64-byte buffers over loopback\n", rounds);
    std::printf("%-34s %14s\n", "figure", "buffers/s");
    std::printf("%-34s %14.0f\n", "link sender, one by one", linkRate);
    std::printf("%-34s %14.0f\n", "buffered sender, bundled", bufferedRate);
    std::printf("%-34s %14.0f\n", "plain sockets, one frame per send", plainRateValue);
    std::printf("buffered / link sender   %6.2f   target >= 5   %s\n", bufferedRate / linkRate,
                bufferedRate / linkRate >= 5 ? "PASS" : "MISS");
    std::printf("buffered / plain sockets %6.2f   target >= 2   %s\n",
                bufferedRate / plainRateValue,
                bufferedRate / plainRateValue >= 2 ? "PASS" : "MISS");
    std::printf(
        "64 MiB copy: memcpy %.2f GB/s, klNetMem::parallelCopy %.2f GB/s (%u hardware "
        "threads)\n",
        median(copy) / 1e9, median(parallel) / 1e9, std::thread::hardware_concurrency());
    return 0;
}
