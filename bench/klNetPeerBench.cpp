// The transport against its peers, over loopback with both ends in one process on two threads:
//
//   bulk            1 GiB of byte-stream data in 131072-byte buffers: klNetStream over one
//                   klSocketLink / plain sockets (writev of header and payload, read header then
//                   payload) / ZeroMQ PUSH-PULL with 131072-byte messages
//   round trip      a 64-byte message answered with a result: sendMessage + sendSuccess +
//                   recvResult / plain ping-pong of 88-byte frames / ZeroMQ REQ-REP of 64 bytes
//   small messages  one million 64-byte messages one way: klNetStream through a buffered sender
//                   (bundling) into an unbundling receiver / ZeroMQ PUSH-PULL / plain sockets, one
//                   88-byte frame per send
//
// Every workload runs on all three in each round, rounds interleaved; each figure is the median of
// the rounds. Usage: klNetPeerBench [rounds (default 5)] [scale (default 1.0)]
#include "klBenchSupport.h"

#include <zmq.h>

#include <sys/socket.h>
#include <sys/uio.h>
#include <unistd.h>

#include <algorithm>
#include <chrono>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <functional>
#include <memory>
#include <stdexcept>
#include <string>
#include <thread>
#include <vector>

namespace {

using namespace klbench;

constexpr std::size_t kBulkBuffer = 131072;
constexpr std::size_t kSmall = 64;
constexpr std::size_t kHeader = 24;

// ---- connections ------------------------------------------------------------------------------

// Two streams over one link pair: rank 1 sends to rank 2.
struct StreamPair {
    LinkPair links;
    klNetStream master{links.client};
    klNetStream node{links.server};

    StreamPair() {
        master.setRank(1);
        node.setRank(2);
        master.setSender(klNetLinkSender::create(links.client, {2}));
        node.setSender(klNetLinkSender::create(links.server, {1}));
    }
};

struct ZmqPair {
    void* context = zmq_ctx_new();
    void* sender;
    void* receiver;

    ZmqPair(int senderType, int receiverType) {
        sender = zmq_socket(context, senderType);
        receiver = zmq_socket(context, receiverType);
        require(zmq_bind(receiver, "tcp://127.0.0.1:*") == 0, "zmq_bind failed");
        char endpoint[256];
        std::size_t size = sizeof(endpoint);
        zmq_getsockopt(receiver, ZMQ_LAST_ENDPOINT, endpoint, &size);
        require(zmq_connect(sender, endpoint) == 0, "zmq_connect failed");
    }
    ~ZmqPair() {
        const int linger = 0;
        zmq_setsockopt(sender, ZMQ_LINGER, &linger, sizeof(linger));
        zmq_setsockopt(receiver, ZMQ_LINGER, &linger, sizeof(linger));
        zmq_close(sender);
        zmq_close(receiver);
        zmq_ctx_term(context);
    }
};

// ---- bulk: bytes per second --------------------------------------------------------------------

double bulkStream(StreamPair& pair, std::size_t total) {
    std::vector<unsigned char> out(kBulkBuffer, 0x33);
    const Clock::time_point start = Clock::now();
    std::thread reader([&] {
        std::vector<unsigned char> in(kBulkBuffer);
        for (std::size_t done = 0; done < total; done += kBulkBuffer) {
            pair.node.getBytes(in.data(), kBulkBuffer);
        }
    });
    for (std::size_t done = 0; done < total; done += kBulkBuffer) {
        pair.master.putBytes(out.data(), kBulkBuffer);
    }
    pair.master.flush();
    reader.join();
    return double(total) / secondsSince(start);
}

double bulkPlain(PlainPair& pair, std::size_t total) {
    std::vector<unsigned char> payload(kBulkBuffer, 0x33);
    unsigned char header[kHeader] = {};
    const std::uint32_t size = kBulkBuffer;
    std::memcpy(header, &size, sizeof(size));
    const Clock::time_point start = Clock::now();
    std::thread reader([&] {
        std::vector<unsigned char> in(kHeader + klNetBuffer::getCapacity());
        for (std::size_t done = 0; done < total; done += kBulkBuffer) {
            recvAll(pair.server, in.data(), kHeader);
            std::uint32_t length;
            std::memcpy(&length, in.data(), sizeof(length));
            recvAll(pair.server, in.data() + kHeader, length);
        }
    });
    for (std::size_t done = 0; done < total; done += kBulkBuffer) {
        iovec parts[2] = {{header, kHeader}, {payload.data(), kBulkBuffer}};
        std::size_t left = kHeader + kBulkBuffer;
        int first = 0;
        while (left > 0) {
            const ssize_t sent = ::writev(pair.client, parts + first, 2 - first);
            require(sent > 0, "writev failed");
            left -= std::size_t(sent);
            // Advance over what went out; a partial write is rare on a blocking socket.
            for (std::size_t n = std::size_t(sent); n > 0 && first < 2;) {
                const std::size_t step = std::min(n, parts[first].iov_len);
                parts[first].iov_base = static_cast<char*>(parts[first].iov_base) + step;
                parts[first].iov_len -= step;
                n -= step;
                if (parts[first].iov_len == 0) {
                    ++first;
                }
            }
        }
    }
    reader.join();
    return double(total) / secondsSince(start);
}

double bulkZmq(std::size_t total) {
    ZmqPair pair(ZMQ_PUSH, ZMQ_PULL);
    std::vector<unsigned char> out(kBulkBuffer, 0x33);
    const Clock::time_point start = Clock::now();
    std::thread reader([&] {
        std::vector<unsigned char> in(kBulkBuffer);
        for (std::size_t done = 0; done < total; done += kBulkBuffer) {
            require(zmq_recv(pair.receiver, in.data(), in.size(), 0) == int(kBulkBuffer),
                    "zmq_recv failed");
        }
    });
    for (std::size_t done = 0; done < total; done += kBulkBuffer) {
        require(zmq_send(pair.sender, out.data(), out.size(), 0) == int(kBulkBuffer),
                "zmq_send failed");
    }
    reader.join();
    return double(total) / secondsSince(start);
}

// ---- round trip: microseconds per trip ----------------------------------------------------------

std::vector<double> tripsStream(StreamPair& pair, int count) {
    std::thread server([&] {
        for (int i = 0; i < count; ++i) {
            klNetMessage request;
            pair.node.recvMessage(request);
            pair.node.sendSuccess() << klNetStream::flush;
        }
    });
    std::vector<unsigned char> payload(kSmall, 0x44);
    std::vector<double> trips;
    for (int i = 0; i < count; ++i) {
        const Clock::time_point start = Clock::now();
        klNetMessage request;
        request.putBytes(payload.data(), payload.size());
        pair.master.sendMessage(request, 2);
        pair.master.recvResult();
        trips.push_back(secondsSince(start) * 1e6);
    }
    server.join();
    return trips;
}

std::vector<double> tripsPlain(PlainPair& pair, int count) {
    const std::size_t frame = kHeader + kSmall;
    std::thread server([&] {
        std::vector<unsigned char> in(frame);
        for (int i = 0; i < count; ++i) {
            recvAll(pair.server, in.data(), kHeader);
            recvAll(pair.server, in.data() + kHeader, kSmall);
            sendAll(pair.server, in.data(), frame);
        }
    });
    std::vector<unsigned char> out(frame, 0x44), in(frame);
    const std::uint32_t size = kSmall;
    std::memcpy(out.data(), &size, sizeof(size));
    std::vector<double> trips;
    for (int i = 0; i < count; ++i) {
        const Clock::time_point start = Clock::now();
        sendAll(pair.client, out.data(), frame);
        recvAll(pair.client, in.data(), kHeader);
        recvAll(pair.client, in.data() + kHeader, kSmall);
        trips.push_back(secondsSince(start) * 1e6);
    }
    server.join();
    return trips;
}

std::vector<double> tripsZmq(int count) {
    ZmqPair pair(ZMQ_REQ, ZMQ_REP);
    std::thread server([&] {
        unsigned char in[kSmall];
        for (int i = 0; i < count; ++i) {
            require(zmq_recv(pair.receiver, in, sizeof(in), 0) == int(kSmall), "zmq_recv failed");
            require(zmq_send(pair.receiver, in, sizeof(in), 0) == int(kSmall), "zmq_send failed");
        }
    });
    unsigned char out[kSmall] = {}, in[kSmall];
    std::vector<double> trips;
    for (int i = 0; i < count; ++i) {
        const Clock::time_point start = Clock::now();
        require(zmq_send(pair.sender, out, sizeof(out), 0) == int(kSmall), "zmq_send failed");
        require(zmq_recv(pair.sender, in, sizeof(in), 0) == int(kSmall), "zmq_recv failed");
        trips.push_back(secondsSince(start) * 1e6);
    }
    server.join();
    return trips;
}

// ---- small messages: messages per second -------------------------------------------------------

double smallStream(long count) {
    LinkPair links;
    klNetStream master(links.client);
    klNetStream node(links.server);
    master.setRank(1);
    node.setRank(2);
    master.setSender(klNetSender::createBundle({links.client}, true, {2}));
    node.setReceiver(klNetUnbundleReceiver::create(klNetLinkReceiver::create(links.server)));
    std::vector<unsigned char> payload(kSmall, 0x55);
    const Clock::time_point start = Clock::now();
    std::thread reader([&] {
        klNetMessage message;
        for (long i = 0; i < count; ++i) {
            node.recvMessage(message);
        }
    });
    for (long i = 0; i < count; ++i) {
        klNetMessage message;
        message.putBytes(payload.data(), payload.size());
        master.sendMessage(message, 2);
    }
    master.waitAllDataTransfered();
    reader.join();
    const double rate = double(count) / secondsSince(start);
    master.shutdown();
    return rate;
}

double smallZmq(long count) {
    ZmqPair pair(ZMQ_PUSH, ZMQ_PULL);
    const Clock::time_point start = Clock::now();
    std::thread reader([&] {
        unsigned char in[kSmall];
        for (long i = 0; i < count; ++i) {
            require(zmq_recv(pair.receiver, in, sizeof(in), 0) == int(kSmall), "zmq_recv failed");
        }
    });
    unsigned char out[kSmall] = {};
    for (long i = 0; i < count; ++i) {
        require(zmq_send(pair.sender, out, sizeof(out), 0) == int(kSmall), "zmq_send failed");
    }
    reader.join();
    return double(count) / secondsSince(start);
}

double smallPlain(long count) {
    PlainPair pair;
    const std::size_t frame = kHeader + kSmall;
    const Clock::time_point start = Clock::now();
    std::thread reader([&] {
        // Large reads, counting whole frames: the receiving side is not what is measured here.
        std::vector<char> block(1 << 18);
        const std::size_t total = frame * std::size_t(count);
        for (std::size_t bytes = 0; bytes < total;) {
            const ssize_t got = ::recv(pair.server, block.data(), block.size(), 0);
            require(got > 0, "plain recv failed");
            bytes += std::size_t(got);
        }
    });
    std::vector<unsigned char> out(frame, 0x55);
    for (long i = 0; i < count; ++i) {
        require(::send(pair.client, out.data(), frame, MSG_NOSIGNAL) == ssize_t(frame),
                "plain send failed");
    }
    reader.join();
    return double(count) / secondsSince(start);
}

// ---- the table ---------------------------------------------------------------------------------

struct Row {
    const char* figure;
    const char* unit;
    double kl, plain, zmq;
};

void printRow(const Row& row) {
    std::printf("| %-28s | %-5s | %10.2f | %10.2f | %10.2f | %8.3f | %8.3f |\n", row.figure,
                row.unit, row.kl, row.plain, row.zmq, row.kl / row.plain, row.kl / row.zmq);
}

}  // namespace

int main(int argc, char** argv) {
    const int rounds = argc > 1 ? std::max(1, std::atoi(argv[1])) : 5;
    const double scale = argc > 2 ? std::max(0.001, std::atof(argv[2])) : 1.0;
    const std::size_t bulkBytes = std::max<std::size_t>(
        kBulkBuffer, std::size_t(double(1ull << 30) * scale) / kBulkBuffer * kBulkBuffer);
    const int trips = std::max(100, int(20000 * scale));
    const long smallCount = std::max(1000L, long(1000000 * scale));

    StreamPair streams;
    PlainPair plain;
    std::vector<double> bulk[3], tripMedian[3], tripTail[3], small[3];
    for (int round = 0; round < rounds; ++round) {
        bulk[0].push_back(bulkStream(streams, bulkBytes));
        bulk[1].push_back(bulkPlain(plain, bulkBytes));
        bulk[2].push_back(bulkZmq(bulkBytes));
        const std::vector<double> trip[3] = {tripsStream(streams, trips), tripsPlain(plain, trips),
                                             tripsZmq(trips)};
        for (int i = 0; i < 3; ++i) {
            tripMedian[i].push_back(median(trip[i]));
            tripTail[i].push_back(percentile(trip[i], 0.99));
        }
        small[0].push_back(smallStream(smallCount));
        small[1].push_back(smallPlain(smallCount));
        small[2].push_back(smallZmq(smallCount));
        std::fprintf(stderr, "round %d of %d done\n", round + 1, rounds);
    }

    const Row rows[] = {
        {"bulk 1 GiB", "GB/s", median(bulk[0]) / 1e9, median(bulk[1]) / 1e9, median(bulk[2]) / 1e9},
        {"round trip 64 B, median", "us", median(tripMedian[0]), median(tripMedian[1]),
         median(tripMedian[2])},
        {"round trip 64 B, 99th pct", "us", median(tripTail[0]), median(tripTail[1]),
         median(tripTail[2])},
        {"small messages 64 B", "M/s", median(small[0]) / 1e6, median(small[1]) / 1e6,
         median(small[2]) / 1e6},
    };
    std::printf("median of %d interleaved rounds, loopback, both ends in one process, %u cores\n\n",
                rounds, std::thread::hardware_concurrency());
    std::printf("| %-28s | %-5s | %10s | %10s | %10s | %8s | %8s |\n", "figure", "unit",
                "klNetBase", "plain", "ZeroMQ", "kl/plain", "kl/ZeroMQ");
    std::printf("|%s|%s|%s|%s|%s|%s|%s|\n", std::string(30, '-').c_str(),
                std::string(7, '-').c_str(), std::string(12, '-').c_str(),
                std::string(12, '-').c_str(), std::string(12, '-').c_str(),
                std::string(10, '-').c_str(), std::string(10, '-').c_str());
    for (const Row& row : rows) {
        printRow(row);
    }
    const double bulkRatio = rows[0].kl / rows[0].plain;
    const double tripRatio = rows[1].kl / rows[1].plain;
    const double smallRatio = rows[3].kl / rows[3].zmq;
    std::printf(
        "\ntargets: bulk >= 0.95 x plain: %.3f %s; round trip <= 1.1 x plain: %.3f %s; "
        "small messages >= 1.2 x ZeroMQ: %.3f %s\n",
        bulkRatio, bulkRatio >= 0.95 ? "PASS" : "MISS", tripRatio,
        tripRatio <= 1.1 ? "PASS" : "MISS", smallRatio, smallRatio >= 1.2 ? "PASS" : "MISS");
    return 0;
}
