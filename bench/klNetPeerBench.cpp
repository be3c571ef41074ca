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
// Each ZeroMQ end has a context (and so an I/O thread) of its own, as two processes would.
//
// Sealed beside plain: the same three workloads over links sealed with a farm key (klNetFarmSealer:
// AES-256-GCM where the processor has AES instructions, else ChaCha20-Poly1305), against ZeroMQ
// with CURVE on both ends. Their figures come from the same rounds as the plain ones.
//
// Two settings, each with every workload on all five contenders in each round, rounds
// interleaved, each figure the median of the rounds:
//   warm   one process for all rounds, after a warm-up that has grown the buffer pool to 1200
//          buffers held at once (so that it holds far more free buffers than the caches of the
//          processor: a pool that hands out the buffer let go longest ago misses on every one)
//   fresh  every measurement in a process of its own, started for it
// Usage: klNetPeerBench [rounds (default 5)] [scale (default 1.0)]; --help.
#include "klBenchSealing.h"
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

// A connected link pair, sealed when asked.
LinkPair linkPair(bool sealed) {
    LinkPair links;
    if (sealed) {
        sealLinks(*links.client, *links.server);
    }
    return links;
}

// Two streams over one link pair: rank 1 sends to rank 2.
struct StreamPair {
    LinkPair links;
    klNetStream master{links.client};
    klNetStream node{links.server};

    explicit StreamPair(bool sealed) : links(linkPair(sealed)) {
        master.setRank(1);
        node.setRank(2);
        master.setSender(klNetLinkSender::create(links.client, {2}));
        node.setSender(klNetLinkSender::create(links.server, {1}));
    }
};

// One context per end: each end has an I/O thread of its own, as in two processes. With curve,
// the receiver is the CURVE server and the sender its client, each with a key pair of its own.
struct ZmqPair {
    void* senderContext = zmq_ctx_new();
    void* receiverContext = zmq_ctx_new();
    void* sender;
    void* receiver;

    ZmqPair(int senderType, int receiverType, bool curve) {
        sender = zmq_socket(senderContext, senderType);
        receiver = zmq_socket(receiverContext, receiverType);
        if (curve) {
            char serverPublic[41], serverSecret[41], clientPublic[41], clientSecret[41];
            require(zmq_curve_keypair(serverPublic, serverSecret) == 0 &&
                        zmq_curve_keypair(clientPublic, clientSecret) == 0,
                    "libzmq has no CURVE");
            const int server = 1;
            require(zmq_setsockopt(receiver, ZMQ_CURVE_SERVER, &server, sizeof(server)) == 0 &&
                        zmq_setsockopt(receiver, ZMQ_CURVE_SECRETKEY, serverSecret, 40) == 0 &&
                        zmq_setsockopt(sender, ZMQ_CURVE_SERVERKEY, serverPublic, 40) == 0 &&
                        zmq_setsockopt(sender, ZMQ_CURVE_PUBLICKEY, clientPublic, 40) == 0 &&
                        zmq_setsockopt(sender, ZMQ_CURVE_SECRETKEY, clientSecret, 40) == 0,
                    "cannot set the CURVE keys");
        }
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
        zmq_ctx_term(senderContext);
        zmq_ctx_term(receiverContext);
    }
    ZmqPair(const ZmqPair&) = delete;
    ZmqPair& operator=(const ZmqPair&) = delete;
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

double bulkZmq(std::size_t total, bool curve) {
    ZmqPair pair(ZMQ_PUSH, ZMQ_PULL, curve);
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

std::vector<double> tripsZmq(int count, bool curve) {
    ZmqPair pair(ZMQ_REQ, ZMQ_REP, curve);
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

double smallStream(long count, bool sealed) {
    const LinkPair links = linkPair(sealed);
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

double smallZmq(long count, bool curve) {
    ZmqPair pair(ZMQ_PUSH, ZMQ_PULL, curve);
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

// ---- one measurement ---------------------------------------------------------------------------

enum Workload { kBulk, kTrip, kSmallMessages, kWorkloads };
// Sealed: klNetBase over sealed links; curve: ZeroMQ with CURVE.
enum Contender { kKl, kPlain, kZmq, kSealed, kCurve, kContenders };
const char* const kWorkloadNames[] = {"bulk", "trip", "small"};
const char* const kContenderNames[] = {"kl", "plain", "zmq", "sealed", "curve"};

struct Sizes {
    std::size_t bulkBytes;
    int trips;
    long smallCount;

    explicit Sizes(double scale)
        : bulkBytes(std::max<std::size_t>(
              kBulkBuffer, std::size_t(double(1ull << 30) * scale) / kBulkBuffer * kBulkBuffer)),
          trips(std::max(100, int(20000 * scale))),
          smallCount(std::max(1000L, long(1000000 * scale))) {}
};

// The connections that the warm setting keeps from round to round.
struct Connections {
    StreamPair streams{false};
    StreamPair sealedStreams{true};
    PlainPair plain;
};

// One workload on one contender: {bytes/s}, {median us, 99th percentile us} or {messages/s}.
std::vector<double> measure(Workload workload, Contender contender, const Sizes& sizes,
                            Connections& connections) {
    const bool sealed = contender == kSealed || contender == kCurve;
    const bool kl = contender == kKl || contender == kSealed;
    const bool zmq = contender == kZmq || contender == kCurve;
    StreamPair& streams = sealed ? connections.sealedStreams : connections.streams;
    switch (workload) {
        case kBulk:
            return {kl    ? bulkStream(streams, sizes.bulkBytes)
                    : zmq ? bulkZmq(sizes.bulkBytes, sealed)
                          : bulkPlain(connections.plain, sizes.bulkBytes)};
        case kTrip: {
            const std::vector<double> trips = kl    ? tripsStream(streams, sizes.trips)
                                              : zmq ? tripsZmq(sizes.trips, sealed)
                                                    : tripsPlain(connections.plain, sizes.trips);
            return {median(trips), percentile(trips, 0.99)};
        }
        default:
            return {kl    ? smallStream(sizes.smallCount, sealed)
                    : zmq ? smallZmq(sizes.smallCount, sealed)
                          : smallPlain(sizes.smallCount)};
    }
}

// The same measurement in a process of its own: this program again, with --one.
std::vector<double> measureFresh(Workload workload, Contender contender, double scale) {
    char self[4096];
    const ssize_t length = ::readlink("/proc/self/exe", self, sizeof(self) - 1);
    require(length > 0, "cannot find this program");
    self[length] = '\0';
    const std::string command = std::string("'") + self + "' --one " + kWorkloadNames[workload] +
                                " " + kContenderNames[contender] + " " + std::to_string(scale);
    FILE* child = ::popen(command.c_str(), "r");
    require(child != nullptr, "cannot start a measuring process");
    std::vector<double> figures;
    for (double value; std::fscanf(child, "%lf", &value) == 1;) {
        figures.push_back(value);
    }
    require(::pclose(child) == 0 && !figures.empty(), "a measuring process failed");
    return figures;
}

// ---- the table ---------------------------------------------------------------------------------

// A row of a table: the first contender's figure against two others.
struct Row {
    const char* figure;
    const char* unit;
    double first, second, third;
};

void printRow(const Row& row) {
    std::printf("| %-28s | %-5s | %10.2f | %10.2f | %10.2f | %8.3f | %8.3f |\n", row.figure,
                row.unit, row.first, row.second, row.third, row.first / row.second,
                row.first / row.third);
}

// Medians over the rounds of every figure of every workload and contender.
struct Figures {
    std::vector<double> values[kWorkloads][kContenders][2];

    void add(Workload workload, Contender contender, const std::vector<double>& figures) {
        for (std::size_t i = 0; i < figures.size() && i < 2; ++i) {
            values[workload][contender][i].push_back(figures[i]);
        }
    }
    double at(Workload workload, Contender contender, int i = 0) const {
        return median(values[workload][contender][i]);
    }
};

// The ratios the targets are set on: the first contender to the second and to the third.
struct Verdicts {
    double bulk, bulkThird, trip, small, smallThird;
};

// The table of the first contender against the second and the third.
Verdicts printTable(const char* title, const Figures& figures, const Contender (&of)[3]) {
    const auto row = [&](const char* figure, const char* unit, Workload workload, int i,
                         double unitScale) {
        return Row{figure, unit, figures.at(workload, of[0], i) / unitScale,
                   figures.at(workload, of[1], i) / unitScale,
                   figures.at(workload, of[2], i) / unitScale};
    };
    const Row rows[] = {
        row("bulk 1 GiB", "GB/s", kBulk, 0, 1e9),
        row("round trip 64 B, median", "us", kTrip, 0, 1),
        row("round trip 64 B, 99th pct", "us", kTrip, 1, 1),
        row("small messages 64 B", "M/s", kSmallMessages, 0, 1e6),
    };
    static const char* const kTitles[] = {"klNetBase", "plain", "ZeroMQ", "sealed", "CURVE"};
    static const char* const kShort[] = {"kl", "plain", "ZeroMQ", "sealed", "CURVE"};
    const std::string second = std::string(kShort[of[0]]) + "/" + kShort[of[1]];
    const std::string third = std::string(kShort[of[0]]) + "/" + kShort[of[2]];
    std::printf("\n%s\n\n", title);
    std::printf("| %-28s | %-5s | %10s | %10s | %10s | %8s | %8s |\n", "figure", "unit",
                kTitles[of[0]], kTitles[of[1]], kTitles[of[2]], second.c_str(), third.c_str());
    std::printf("|%s|%s|%s|%s|%s|%s|%s|\n", std::string(30, '-').c_str(),
                std::string(7, '-').c_str(), std::string(12, '-').c_str(),
                std::string(12, '-').c_str(), std::string(12, '-').c_str(),
                std::string(10, '-').c_str(), std::string(10, '-').c_str());
    for (const Row& r : rows) {
        printRow(r);
    }
    return {rows[0].first / rows[0].second, rows[0].first / rows[0].third,
            rows[1].first / rows[1].second, rows[3].first / rows[3].second,
            rows[3].first / rows[3].third};
}

const char* verdict(bool met) {
    return met ? "PASS" : "MISS";
}

void printTargets(const char* setting, const Verdicts& v) {
    std::printf(
        "%s: bulk >= 0.95 x plain: %.3f %s; round trip <= 1.1 x plain: %.3f %s; small messages "
        ">= 1.2 x ZeroMQ: %.3f %s\n",
        setting, v.bulk, verdict(v.bulk >= 0.95), v.trip, verdict(v.trip <= 1.1), v.smallThird,
        verdict(v.smallThird >= 1.2));
}

void printSealedTargets(const char* setting, const Verdicts& v) {
    std::printf(
        "%s sealed: bulk >= 0.6 x unsealed: %.3f %s, >= 3 x CURVE: %.3f %s; small messages >= "
        "0.8 x unsealed: %.3f %s, >= 2 x CURVE: %.3f %s; round trip <= 1.15 x unsealed: %.3f %s\n",
        setting, v.bulk, verdict(v.bulk >= 0.6), v.bulkThird, verdict(v.bulkThird >= 3), v.small,
        verdict(v.small >= 0.8), v.smallThird, verdict(v.smallThird >= 2), v.trip,
        verdict(v.trip <= 1.15));
}

[[noreturn]] void usageError(const std::string& text) {
    std::exit(klCommandLine::fail("klNetPeerBench", text));
}

// A number from text within [low, high], or a usage error.
double numberIn(const char* text, double low, double high) {
    char* end = nullptr;
    const double value = std::strtod(text, &end);
    if (end == text || *end != '\0' || !(value >= low && value <= high)) {
        usageError(std::string("bad number '") + text + "'");
    }
    return value;
}

int indexOf(const char* const* names, int count, const std::string& name) {
    for (int i = 0; i < count; ++i) {
        if (name == names[i]) {
            return i;
        }
    }
    usageError("unknown name '" + name + "'");
}

}  // namespace

int main(int argc, char** argv) {
    if (argc > 1 && std::strcmp(argv[1], "--one") == 0) {  // the fresh setting's child
        if (argc != 5) {
            usageError("--one needs a workload, a contender and a scale");
        }
        const auto workload = Workload(indexOf(kWorkloadNames, kWorkloads, argv[2]));
        const auto contender = Contender(indexOf(kContenderNames, kContenders, argv[3]));
        Connections connections;
        for (double value :
             measure(workload, contender, Sizes(numberIn(argv[4], 0.001, 100)), connections)) {
            std::printf("%.9g\n", value);
        }
        return 0;
    }
    const std::vector<double> args = numericArguments(
        argc, argv,
        "The stream against plain sockets and ZeroMQ over loopback: bulk, round trip and small "
        "messages, the median of interleaved rounds, with the pool grown by a warm-up in one "
        "process and in a fresh process for every measurement; the same over links sealed with a "
        "farm key against ZeroMQ with CURVE.",
        {{"ROUNDS", "rounds (default 5)", klCommandLine::integer(1, 1000)},
         {"SCALE", "scales the amount of data of every workload (default 1.0)",
          klCommandLine::number(0.001, 100)}},
        "in both settings, bulk at least 0.95 of plain sockets, round trip at most 1.1 of plain "
        "sockets, small messages at least 1.2 times ZeroMQ; sealed bulk at least 0.6 of unsealed "
        "and 3 times ZeroMQ CURVE, sealed small messages at least 0.8 of unsealed and 2 times "
        "ZeroMQ CURVE, sealed round trip at most 1.15 of unsealed.");
    const int rounds = args.empty() ? 5 : int(args[0]);
    const double scale = args.size() > 1 ? args[1] : 1.0;
    const Sizes sizes(scale);

    Figures warm, fresh;
    {
        // The warm-up: 1200 buffers held at once, then let go.
        std::vector<std::shared_ptr<klNetBuffer>> held;
        klNetBufferPool::popMany(1200, held);
    }
    Connections connections;
    for (int round = 0; round < rounds; ++round) {
        for (int w = 0; w < kWorkloads; ++w) {
            for (int c = 0; c < kContenders; ++c) {
                warm.add(Workload(w), Contender(c),
                         measure(Workload(w), Contender(c), sizes, connections));
                fresh.add(Workload(w), Contender(c),
                          measureFresh(Workload(w), Contender(c), scale));
            }
        }
        std::fprintf(stderr, "round %d of %d done\n", round + 1, rounds);
    }

    std::printf("median of %d interleaved rounds, loopback, both ends in one process, %u cores\n",
                rounds, std::thread::hardware_concurrency());
    const Contender plainTable[] = {kKl, kPlain, kZmq};
    const Contender sealedTable[] = {kSealed, kKl, kCurve};
    const Verdicts warmVerdicts =
        printTable("warm: one process, buffer pool grown to 1200 buffers first", warm, plainTable);
    const Verdicts freshVerdicts =
        printTable("fresh: a new process for every measurement", fresh, plainTable);
    const Verdicts warmSealed = printTable(
        "warm, sealed: farm-key links against unsealed ones and ZeroMQ CURVE", warm, sealedTable);
    const Verdicts freshSealed = printTable(
        "fresh, sealed: farm-key links against unsealed ones and ZeroMQ CURVE", fresh, sealedTable);
    std::printf("\ntargets\n");
    printTargets("warm ", warmVerdicts);
    printTargets("fresh", freshVerdicts);
    printSealedTargets("warm ", warmSealed);
    printSealedTargets("fresh", freshSealed);
    return 0;
}
