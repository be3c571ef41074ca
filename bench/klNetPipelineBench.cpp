// Small-message rate over loopback, both ends in one process.
//
//   link sender      64-byte buffers written one by one through a klNetLinkSender
//   buffered sender  the same through a klNetBufferedSender, which packs them into bundles
//   plain sockets    one 88-byte frame (header + payload) per send() on a raw socket
//
// The receiving thread counts buffers (splitting bundles) until all have arrived. Also: the buffer
// pool's get and release of one buffer on one thread and on two threads at once (nanoseconds per
// pair on each thread), and the parallel copy against memcpy for 64 MiB. Rounds are interleaved;
// each figure is the median. Usage: klNetPipelineBench [rounds (default 5)]
#include "klBenchSupport.h"

#include <sys/socket.h>
#include <unistd.h>

#include <algorithm>
#include <atomic>
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

// Nanoseconds per get-and-release pair of the process-wide pool on each of threads threads, all
// running at once.
double poolPairNs(int threads, long pairs) {
    std::atomic<int> ready{0};
    std::atomic<bool> go{false};
    std::vector<double> seconds(std::size_t(threads), 0.0);
    std::vector<std::thread> workers;
    for (int t = 0; t < threads; ++t) {
        workers.emplace_back([&, t] {
            for (int i = 0; i < 1000; ++i) {  // this thread's first buffers are made untimed
                klNetBufferPool::pop().reset();
            }
            ++ready;
            while (!go.load()) {
                std::this_thread::yield();
            }
            const Clock::time_point start = Clock::now();
            for (long i = 0; i < pairs; ++i) {
                std::shared_ptr<klNetBuffer> buffer = klNetBufferPool::pop();
                buffer->setSequence(std::size_t(i));  // touches the buffer, as a user would
            }
            seconds[std::size_t(t)] = secondsSince(start);
        });
    }
    while (ready.load() < threads) {
        std::this_thread::yield();
    }
    go = true;
    for (auto& worker : workers) {
        worker.join();
    }
    return *std::max_element(seconds.begin(), seconds.end()) * 1e9 / double(pairs);
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
    const std::vector<double> args = numericArguments(
        argc, argv,
        "Small-message rate of the link and buffered senders against plain sockets over "
        "loopback, the buffer pool's get and release on one and two threads, and the parallel "
        "copy; the median of interleaved rounds.",
        {{"ROUNDS", "rounds (default 5)", klCommandLine::integer(1, 1000)}},
        "the buffered sender at least 5 times the link sender and 2 times plain sockets.");
    const int rounds = args.empty() ? 5 : int(args[0]);
    const long bufferedCount = 1000000;
    const long oneByOneCount = 200000;

    LinkPair linkPair;
    LinkPair bufferedPair;
    LinkPair plainPair;
    const std::shared_ptr<klNetSender> linkSender = klNetLinkSender::create(linkPair.client, {1});
    const std::shared_ptr<klNetSender> bufferedSender =
        klNetSender::createBundle({bufferedPair.client}, true, {1});

    std::vector<double> link, buffered, plain, copy, parallel, poolOne, poolTwo;
    std::vector<char> from(64 << 20, 1), to(64 << 20, 0);
    for (int round = 0; round < rounds; ++round) {
        link.push_back(senderRate(linkSender, linkPair, oneByOneCount));
        buffered.push_back(senderRate(bufferedSender, bufferedPair, bufferedCount));
        plain.push_back(plainRate(plainPair, oneByOneCount));
        copy.push_back(copyRate(false, from, to));
        parallel.push_back(copyRate(true, from, to));
        poolOne.push_back(poolPairNs(1, 2000000));
        poolTwo.push_back(poolPairNs(2, 2000000));
        std::fprintf(stderr, "round %d of %d done\n", round + 1, rounds);
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
        "buffer pool get+release: %.1f ns per pair on 1 thread, %.1f ns per pair on each "
        "of 2 threads\n",
        median(poolOne), median(poolTwo));
    std::printf(
        "64 MiB copy: memcpy %.2f GB/s, klNetMem::parallelCopy %.2f GB/s (%u hardware "
        "threads)\n",
        median(copy) / 1e9, median(parallel) / 1e9, std::thread::hardware_concurrency());
    return 0;
}
