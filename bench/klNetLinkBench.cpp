// Link benchmark over loopback, both ends in one process on two threads.
//
//   (a) one-way throughput of 131072-byte buffers through klSocketLink::send/recv
//   (b) round trip of 64-byte buffers: send, echo, receive
//
// The same two workloads run on plain sockets written directly (header and payload in one send;
// header, then payload on receive) in the same run, interleaved round by round; each figure is the
// median of the rounds. Prints both and their ratio against the targets.
#include "klBenchSupport.h"

#include <netinet/in.h>
#include <netinet/tcp.h>
#include <sys/socket.h>
#include <unistd.h>

#include <algorithm>
#include <chrono>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <functional>
#include <memory>
#include <stdexcept>
#include <thread>
#include <vector>

namespace {

using namespace klbench;

constexpr std::size_t kBulkPayload = 131072;
constexpr std::size_t kSmallPayload = 64;

// Returns bytes per second.
double linkThroughput(LinkPair& pair, int count) {
    const std::shared_ptr<klNetBuffer> buffer = filledBuffer(kBulkPayload, 0x5a);
    const Clock::time_point start = Clock::now();
    std::thread receiver([&] {
        std::shared_ptr<klNetBuffer> received;
        for (int i = 0; i < count; ++i) {
            pair.server->recv(received);
        }
    });
    for (int i = 0; i < count; ++i) {
        pair.client->send(buffer);
    }
    receiver.join();
    return double(count) * double(buffer->getBufferSize()) / secondsSince(start);
}

double plainThroughput(PlainPair& pair, int count) {
    const std::shared_ptr<klNetBuffer> buffer = filledBuffer(kBulkPayload, 0x5a);
    const Clock::time_point start = Clock::now();
    std::thread receiver([&] {
        std::vector<unsigned char> frame(klNetBuffer::getHeaderSize() + klNetBuffer::getCapacity());
        for (int i = 0; i < count; ++i) {
            recvAll(pair.server, frame.data(), klNetBuffer::getHeaderSize());
            std::uint32_t size;
            std::memcpy(&size, frame.data(), sizeof(size));
            recvAll(pair.server, frame.data() + klNetBuffer::getHeaderSize(), size);
        }
    });
    for (int i = 0; i < count; ++i) {
        sendAll(pair.client, buffer->getBuffer(), buffer->getBufferSize());
    }
    receiver.join();
    return double(count) * double(buffer->getBufferSize()) / secondsSince(start);
}

// Returns the median round trip in microseconds.
double linkRoundTrip(LinkPair& pair, int count) {
    const std::shared_ptr<klNetBuffer> buffer = filledBuffer(kSmallPayload, 0x5a);
    std::thread echo([&] {
        std::shared_ptr<klNetBuffer> received;
        for (int i = 0; i < count; ++i) {
            pair.server->recv(received);
            pair.server->send(received);
        }
    });
    std::vector<double> trips;
    trips.reserve(std::size_t(count));
    std::shared_ptr<klNetBuffer> answer;
    for (int i = 0; i < count; ++i) {
        const Clock::time_point start = Clock::now();
        pair.client->send(buffer);
        pair.client->recv(answer);
        trips.push_back(secondsSince(start) * 1e6);
    }
    echo.join();
    return median(trips);
}

double plainRoundTrip(PlainPair& pair, int count) {
    const std::shared_ptr<klNetBuffer> buffer = filledBuffer(kSmallPayload, 0x5a);
    const std::size_t frame = buffer->getBufferSize();
    std::thread echo([&] {
        std::vector<unsigned char> received(frame);
        for (int i = 0; i < count; ++i) {
            recvAll(pair.server, received.data(), klNetBuffer::getHeaderSize());
            recvAll(pair.server, received.data() + klNetBuffer::getHeaderSize(), kSmallPayload);
            sendAll(pair.server, received.data(), frame);
        }
    });
    std::vector<double> trips;
    trips.reserve(std::size_t(count));
    std::vector<unsigned char> answer(frame);
    for (int i = 0; i < count; ++i) {
        const Clock::time_point start = Clock::now();
        sendAll(pair.client, buffer->getBuffer(), frame);
        recvAll(pair.client, answer.data(), klNetBuffer::getHeaderSize());
        recvAll(pair.client, answer.data() + klNetBuffer::getHeaderSize(), kSmallPayload);
        trips.push_back(secondsSince(start) * 1e6);
    }
    echo.join();
    return median(trips);
}

void report(const char* figure, double link, double plain, double ratio, const char* target,
            bool met) {
    std::printf("%-24s %12.2f %12.2f %8.3f   %-10s %s\n", figure, link, plain, ratio, target,
                met ? "PASS" : "MISS");
}

}  // namespace

int main(int argc, char** argv) {
    const std::vector<double> args = numericArguments(
        argc, argv,
        "klSocketLink against plain sockets over loopback: throughput of 128 KiB buffers and "
        "round trip of 64 bytes, the median of interleaved rounds.",
        {{"ROUNDS", "rounds (default 7)", klCommandLine::integer(1, 1000)}},
        "throughput at least 0.95 of plain sockets, round trip at most 1.10 of plain sockets.");
    const int rounds = args.empty() ? 7 : int(args[0]);
    const int bulkCount = 8192;  // 1 GiB per round
    const int tripCount = 20000;

    LinkPair links;
    PlainPair plain;
    std::vector<double> linkRate, plainRate, linkTrip, plainTrip;
    for (int round = 0; round < rounds; ++round) {
        linkRate.push_back(linkThroughput(links, bulkCount));
        plainRate.push_back(plainThroughput(plain, bulkCount));
        linkTrip.push_back(linkRoundTrip(links, tripCount));
        plainTrip.push_back(plainRoundTrip(plain, tripCount));
        std::fprintf(stderr, "round %d of %d done\n", round + 1, rounds);
    }

    const double linkGBs = median(linkRate) / 1e9;
    const double plainGBs = median(plainRate) / 1e9;
    const double linkUs = median(linkTrip);
    const double plainUs = median(plainTrip);
    std::printf("median of %d interleaved rounds, loopback, both ends in one process\n", rounds);
    std::printf("%-24s %12s %12s %8s   %-10s\n", "figure", "klSocketLink", "plain", "ratio",
                "target");
    report("throughput (GB/s)", linkGBs, plainGBs, linkGBs / plainGBs, ">= 0.95",
           linkGBs / plainGBs >= 0.95);
    report("round trip 64 B (us)", linkUs, plainUs, linkUs / plainUs, "<= 1.10",
           linkUs / plainUs <= 1.10);
    return 0;
}
