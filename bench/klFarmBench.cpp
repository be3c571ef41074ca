// klFarmBench: the transport across the shaped links of a farm (scripts/farm.sh), both ends in one
// process, each end's sockets made inside its own network namespace. Run by scripts/farm-bench.sh,
// which makes the farm, runs iperf3 beside it and removes the farm again.
//
//   klFarmBench stripe [--sealed] CLIENT_NS NODE_NS ADDR[,ADDR...] [MIB] [ROUNDS]
//       bulk stream data from the client to the node over one link per address, through a
//       balanced sender of buffered senders (one per link); the receiver polls every link,
//       unbundles and re-sorts. Prints the median throughput in Gbit/s of payload. --sealed
//       seals every link with a farm key first.
//   klFarmBench rtt CLIENT_NS NODE_NS ADDR [TRIPS]
//       a 64-byte message answered with a result, against plain TCP echoing 24 + 64 bytes, over
//       the one link; prints median and 99th percentile in microseconds.
#include "klBenchSealing.h"
#include "klBenchSupport.h"

#include <klNetNamespace.h>

#include <klNetBase/recv/klNetMultiLinkReceiver.h>
#include <klNetBase/recv/klNetSortReceiver.h>
#include <klNetBase/recv/klNetUnbundleReceiver.h>
#include <klNetBase/send/klNetBalancedSender.h>
#include <klNetBase/send/klNetBufferedSender.h>
#include <klNetBase/send/klNetLinkSender.h>

#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <string>
#include <thread>
#include <vector>

using namespace klbench;

namespace {

constexpr std::size_t kSmall = 64;
constexpr std::size_t kHeader = 24;

// One connection per address, made from the client namespace to a listener in the node
// namespace: the near ends (client) and the far ends (node), in address order; sealed with a farm
// key when asked.
struct Links {
    std::vector<std::shared_ptr<klNetLink>> nears;
    std::vector<std::shared_ptr<klNetLink>> fars;
    // The first connection's descriptors, for the plain-socket baseline.
    int nearDescriptor = -1;
    int farDescriptor = -1;

    Links(const std::string& clientNs, const std::string& nodeNs,
          const std::vector<std::string>& addresses, bool sealed = false) {
        std::unique_ptr<klBoundSocketLink> listener;
        {
            klNetNamespace inside(nodeNs);
            listener = std::make_unique<klBoundSocketLink>(0);
        }
        for (const auto& address : addresses) {
            std::shared_ptr<klSocketLink> near;
            {
                klNetNamespace inside(clientNs);
                near = std::make_shared<klSocketLink>(
                    klSocketAddress(address, listener->getAddress().getPort()), 10.0);
            }
            auto far = std::make_shared<klSocketLink>(*listener);
            if (sealed) {
                sealLinks(*near, *far);
            }
            if (nears.empty()) {
                nearDescriptor = near->getDescriptor();
                farDescriptor = far->getDescriptor();
            }
            nears.push_back(near);
            fars.push_back(far);
        }
    }
};

std::vector<std::string> split(const std::string& list) {
    std::vector<std::string> parts;
    for (std::size_t begin = 0; begin <= list.size();) {
        const std::size_t end = std::min(list.find(',', begin), list.size());
        if (end == begin) {
            std::exit(klCommandLine::fail("klFarmBench", "empty address in '" + list + "'"));
        }
        parts.push_back(list.substr(begin, end - begin));
        begin = end + 1;
    }
    return parts;
}

int stripe(const std::string& clientNs, const std::string& nodeNs,
           const std::vector<std::string>& addresses, std::uint64_t bytes, int rounds,
           bool sealed) {
    Links links(clientNs, nodeNs, addresses, sealed);
    std::vector<std::shared_ptr<klNetSender>> perLink;
    for (const auto& near : links.nears) {
        perLink.push_back(klNetBufferedSender::create(klNetLinkSender::create(near), 0));
    }
    klNetStream sending;
    sending.setSender(klNetBalancedSender::create(perLink));
    klNetStream receiving;
    receiving.setReceiver(klNetSortReceiver::create(
        klNetUnbundleReceiver::create(klNetMultiLinkReceiver::create(links.fars))));

    constexpr std::size_t kChunk = 1 << 20;
    std::vector<unsigned char> out(kChunk, 0x5A), in(kChunk);
    std::vector<double> rates;
    // Round 0 warms up: the buffer pool grows to what the links hold in flight, and TCP opens
    // its windows.
    for (int round = 0; round <= rounds; ++round) {
        const auto start = Clock::now();
        std::thread reader([&] {
            for (std::uint64_t done = 0; done < bytes; done += kChunk) {
                receiving.getBytes(in.data(), kChunk);
            }
        });
        for (std::uint64_t done = 0; done < bytes; done += kChunk) {
            sending.putBytes(out.data(), kChunk);
        }
        sending.flush();
        reader.join();
        const double rate = double(bytes) * 8 / secondsSince(start) / 1e9;
        if (round > 0) {
            rates.push_back(rate);
        }
        std::fprintf(stderr, "  %zu link(s), %s %d of %d: %.3f Gbit/s\n", addresses.size(),
                     round == 0 ? "warm-up" : "round", round, rounds, rate);
    }
    sending.waitAllDataTransfered();
    std::printf("%.3f\n", median(rates));
    sending.shutdown();
    receiving.shutdown();
    return 0;
}

std::vector<double> tripsStream(Links& links, int count) {
    klNetStream master(links.nears[0]);
    klNetStream node(links.fars[0]);
    master.setRank(1);
    node.setRank(2);
    std::thread server([&] {
        for (int i = 0; i < count; ++i) {
            klNetMessage request;
            node.recvMessage(request);
            node.sendSuccess() << klNetStream::flush;
        }
    });
    std::vector<unsigned char> payload(kSmall, 0x44);
    std::vector<double> trips;
    for (int i = 0; i < count; ++i) {
        const auto start = Clock::now();
        klNetMessage request;
        request.putBytes(payload.data(), payload.size());
        master.sendMessage(request, 2);
        master.recvResult();
        trips.push_back(secondsSince(start) * 1e6);
    }
    server.join();
    return trips;
}

std::vector<double> tripsPlain(Links& links, int count) {
    const int client = links.nearDescriptor;
    const int server = links.farDescriptor;
    const std::size_t frame = kHeader + kSmall;
    std::thread echo([&] {
        std::vector<unsigned char> in(frame);
        for (int i = 0; i < count; ++i) {
            recvAll(server, in.data(), frame);
            sendAll(server, in.data(), frame);
        }
    });
    std::vector<unsigned char> out(frame, 0x44), in(frame);
    std::vector<double> trips;
    for (int i = 0; i < count; ++i) {
        const auto start = Clock::now();
        sendAll(client, out.data(), frame);
        recvAll(client, in.data(), frame);
        trips.push_back(secondsSince(start) * 1e6);
    }
    echo.join();
    return trips;
}

int roundTrip(const std::string& clientNs, const std::string& nodeNs, const std::string& address,
              int trips) {
    // Each on a connection of its own, made the same way.
    Links forStream(clientNs, nodeNs, {address});
    Links forPlain(clientNs, nodeNs, {address});
    std::vector<double> kl, plain;
    // Interleaved in five parts, so that both see the same conditions.
    for (int part = 0; part < 5; ++part) {
        const auto a = tripsStream(forStream, trips / 5);
        const auto b = tripsPlain(forPlain, trips / 5);
        kl.insert(kl.end(), a.begin(), a.end());
        plain.insert(plain.end(), b.begin(), b.end());
    }
    std::printf("%.1f %.1f %.1f %.1f\n", median(kl), percentile(kl, 0.99), median(plain),
                percentile(plain, 0.99));
    return 0;
}

}  // namespace

int main(int argc, char** argv) {
    klCommandLine cli("klFarmBench",
                      "Measures the transport between two network namespaces of a farm (needs "
                      "root); scripts/farm-bench.sh makes the farm, runs this and prints the "
                      "figures against their targets.");
    CLI::App& app = cli.app();
    app.require_subcommand(1);
    std::string clientNs, nodeNs, addresses;
    long mib = 256, rounds = 3, trips = 5000;
    bool sealed = false;
    const auto namespaces = [&](CLI::App* mode) {
        mode->add_option("CLIENT_NS", clientNs, "the client's network namespace")
            ->required()
            ->type_name("");
        mode->add_option("NODE_NS", nodeNs, "the node's network namespace")
            ->required()
            ->type_name("");
    };
    CLI::App* stripeMode = app.add_subcommand(
        "stripe",
        "bulk stream data from the client to the node over one link per address, through a "
        "balanced sender of buffered senders; prints the median throughput in Gbit/s");
    stripeMode->add_flag("--sealed", sealed, "seal every link with a farm key first");
    namespaces(stripeMode);
    stripeMode->add_option("ADDR", addresses, "the node's addresses, one per link, comma-separated")
        ->required()
        ->type_name("");
    stripeMode->add_option("MIB", mib, "MiB per round (default 256)")
        ->type_name("")
        ->check(klCommandLine::integer(1, 1 << 20));
    stripeMode->add_option("ROUNDS", rounds, "rounds (default 3)")
        ->type_name("")
        ->check(klCommandLine::integer(1, 100));
    CLI::App* rttMode = app.add_subcommand(
        "rtt",
        "a 64-byte message answered with a result against plain TCP echoing 24 + 64 bytes, over "
        "one link; prints the median and 99th percentile of each, in microseconds");
    namespaces(rttMode);
    rttMode->add_option("ADDR", addresses, "the node's address")->required()->type_name("");
    rttMode->add_option("TRIPS", trips, "round trips (default 5000)")
        ->type_name("")
        ->check(klCommandLine::integer(5, 10000000));
    app.footer(
        "Targets (farm-bench.sh): two links at least 1.8 times one link; round trips are "
        "reported against plain TCP.");
    if (const std::optional<int> done = cli.parse(argc, argv)) {
        return *done;
    }
    try {
        if (stripeMode->parsed()) {
            return stripe(clientNs, nodeNs, split(addresses), std::uint64_t(mib) << 20, int(rounds),
                          sealed);
        }
        return roundTrip(clientNs, nodeNs, addresses, int(trips));
    } catch (const std::exception& e) {
        std::fprintf(stderr, "klFarmBench: %s\n", e.what());
        return 1;
    }
}
