// The cluster service under load, over loopback: status requests per second from 1 and from 50
// clients at once, to a service without a farm key and to one with a key (sealed clients), bursts
// of clients beyond the service's request limit (every one must be served), the time from a start
// request to the first pixels of a newly started render server, and the cost of handing one socket
// through a socket pipe.
//
//   klServiceBench [seconds per load figure, default 3] [start rounds, default 10]
#include "klBenchSupport.h"

#include <klLocalService.h>
#include <klRenderProtocol.h>
#include <klServiceClient.h>

#include <klNetBase/link/klSocketPipe.h>

#include <sys/socket.h>
#include <unistd.h>

#include <atomic>
#include <cstdio>
#include <cstdlib>
#include <memory>
#include <string>
#include <thread>
#include <utility>
#include <vector>

namespace {

using klbench::Clock;
using klbench::secondsSince;

// Status requests per second from clients threads, each asking again as soon as it has an answer.
double statusRate(const klServiceClient& service, int clients, double seconds) {
    std::atomic<long> answered{0};
    std::atomic<bool> failed{false};
    const auto start = Clock::now();
    std::vector<std::thread> threads;
    for (int i = 0; i < clients; ++i) {
        threads.emplace_back([&] {
            try {
                while (secondsSince(start) < seconds) {
                    service.status();
                    ++answered;
                }
            } catch (const std::exception& e) {
                std::fprintf(stderr, "status request failed: %s\n", e.what());
                failed = true;
            }
        });
    }
    for (auto& thread : threads) {
        thread.join();
    }
    klbench::require(!failed, "a status request failed");
    return double(answered) / secondsSince(start);
}

// Status requests per second without and with the farm key, measured in turn in four cycles of
// without, with, with, without (an eighth of the time each), so that both meet the same
// conditions: the load of the machine as it changes, the connections in TIME_WAIT that pile up.
std::pair<double, double> statusRates(const klServiceClient& plain, const klServiceClient& keyed,
                                      int clients, double seconds) {
    constexpr int kCycles = 4;
    const double slice = seconds / (2 * kCycles);
    double plainSum = 0, keyedSum = 0;
    for (int cycle = 0; cycle < kCycles; ++cycle) {
        plainSum += statusRate(plain, clients, slice);
        keyedSum += statusRate(keyed, clients, slice);
        keyedSum += statusRate(keyed, clients, slice);
        plainSum += statusRate(plain, clients, slice);
    }
    return {plainSum / (2 * kCycles), keyedSum / (2 * kCycles)};
}

// A burst: clients threads at once share requests status requests. Returns the seconds until
// the last was answered and counts those that failed (the target is none).
double burst(const klServiceClient& service, int clients, int requests, int& failures) {
    std::atomic<int> next{0};
    std::atomic<int> failed{0};
    const auto start = Clock::now();
    std::vector<std::thread> threads;
    for (int i = 0; i < clients; ++i) {
        threads.emplace_back([&] {
            while (next++ < requests) {
                try {
                    service.status();
                } catch (const std::exception& e) {
                    std::fprintf(stderr, "status request failed: %s\n", e.what());
                    ++failed;
                }
            }
        });
    }
    for (auto& thread : threads) {
        thread.join();
    }
    failures = failed;
    return secondsSince(start);
}

// Seconds from sending a start request to the first band of pixels from the started server.
double startToFirstPixel(const klServiceClient& service) {
    klRenderRequest row = klRenderRequest::defaultFrame(256, 256);
    row.y0 = 128;
    row.height = 1;
    const auto start = Clock::now();
    const klServiceClient::StartResult started = service.startServer({});
    double firstPixel = -1;
    klRenderClient::render(*started.stream, row, [&](std::size_t) {
        if (firstPixel < 0) {
            firstPixel = secondsSince(start);
        }
    });
    service.stopServer(started.serverId);
    return firstPixel;
}

// Microseconds per socket handed from the service side of a pipe to a server thread, each send
// waiting for the server's acknowledgement as the service does.
double handOffMicroseconds(int sockets) {
    klSocketPipe service;
    std::thread server([name = service.getName(), sockets] {
        klSocketPipe pipe(name);
        for (int i = 0; i < sockets; ++i) {
            ::close(pipe.recvSocket(10.0));
        }
    });
    int pair[2];
    klbench::require(::socketpair(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC, 0, pair) == 0, "socketpair");
    service.sendSocket(pair[0], 10.0);  // the first send also waits for the server to open
    const auto start = Clock::now();
    for (int i = 1; i < sockets; ++i) {
        service.sendSocket(pair[0], 10.0);
    }
    const double elapsed = secondsSince(start);
    server.join();
    ::close(pair[0]);
    ::close(pair[1]);
    return elapsed / (sockets - 1) * 1e6;
}

// Our own targets: a node answers a farm's monitoring and schedulers without delay, a client has
// its first pixels within a tenth of a second of asking for a server, and a hand-off costs little
// next to the start of the server itself.
constexpr const char* kTargets =
    "status requests at least 500/s from 1 client and 1000/s from 50, with a farm key at least "
    "0.8 of those without, no request of a burst fails, start to first pixel at most 100 ms "
    "(median), a socket hand-off at most 50 us.";

// A row of the figures' table; the last column says whether the figure met its target (none:
// blank).
void row(const char* figure, int decimals, double value, const char* target, bool met) {
    std::printf("| %-31s | %10.*f | %-8s | %-4s |\n", figure, decimals, value, target,
                target[0] == '\0' ? ""
                : met             ? "PASS"
                                  : "MISS");
}

}  // namespace

int main(int argc, char** argv) {
    const std::vector<double> args = klbench::numericArguments(
        argc, argv,
        "A cluster service started on a loopback port: status requests per second (1 and 50 "
        "clients, without and with a farm key), bursts beyond the request limit, the time from a "
        "start request to the first pixels of the started render server, and the cost of handing "
        "a socket through a socket pipe.",
        {{"SECONDS", "seconds per load figure (default 3)", klCommandLine::number(0, 3600, true)},
         {"ROUNDS", "start rounds (default 10)", klCommandLine::integer(1, 1000)}},
        kTargets);
    const double seconds = args.size() > 0 ? args[0] : 3.0;
    const int rounds = args.size() > 1 ? int(args[1]) : 10;
    try {
        klLocalService local({"--max-requests", "128"}, klLocalService::Sealing::none);
        const klServiceClient service("127.0.0.1", local.port());
        // The same service with a farm key, and a client that seals with it.
        klLocalService keyedLocal({"--max-requests", "128"});
        klServiceClient keyed("127.0.0.1", keyedLocal.port());
        keyed.setSealer(keyedLocal.sealer());

        std::printf("status requests without and with a farm key, 1 client ...\n");
        const auto [one, keyedOne] = statusRates(service, keyed, 1, seconds);
        std::printf("status requests without and with a farm key, 50 clients ...\n");
        const auto [fifty, keyedFifty] = statusRates(service, keyed, 50, seconds);
        keyed.stopService();
        keyedLocal.waitForExit(30.0);
        // Bursts against a service with the default request limit (64).
        int burstFailures[2] = {0, 0};
        double burstSeconds[2] = {0, 0};
        {
            klLocalService defaults({}, klLocalService::Sealing::none);
            const klServiceClient fresh("127.0.0.1", defaults.port());
            std::printf("burst of 30 clients, 100 requests ...\n");
            burstSeconds[0] = burst(fresh, 30, 100, burstFailures[0]);
            std::printf("burst of 200 clients, 1000 requests ...\n");
            burstSeconds[1] = burst(fresh, 200, 1000, burstFailures[1]);
            fresh.stopService();
            defaults.waitForExit(30.0);
        }
        std::vector<double> latencies;
        for (int i = 0; i < rounds; ++i) {
            klbench::progressLine(stdout, "start to first pixel, round " + std::to_string(i + 1) +
                                              " of " + std::to_string(rounds));
            latencies.push_back(startToFirstPixel(service));
        }
        klbench::progressLine(stdout, "\n");
        std::printf("socket hand-off ...\n");
        const double handOff = handOffMicroseconds(2000);
        const double medianMs = klbench::median(latencies) * 1e3;
        std::printf(
            "\n| figure                          | value      | target   |      |\n"
            "|---------------------------------|------------|----------|------|\n");
        row("status requests/s, 1 client", 0, one, ">= 500", one >= 500);
        row("status requests/s, 50 clients", 0, fifty, ">= 1000", fifty >= 1000);
        row("keyed status/s, 1 client", 0, keyedOne, "", true);
        row("keyed / without key, 1 client", 3, keyedOne / one, ">= 0.8", keyedOne >= 0.8 * one);
        row("keyed status/s, 50 clients", 0, keyedFifty, "", true);
        row("keyed / without key, 50 clients", 3, keyedFifty / fifty, ">= 0.8",
            keyedFifty >= 0.8 * fifty);
        row("burst 30 x 100, failed", 0, burstFailures[0], "0", burstFailures[0] == 0);
        row("burst 30 x 100, ms", 1, burstSeconds[0] * 1e3, "", true);
        row("burst 200 x 1000, failed", 0, burstFailures[1], "0", burstFailures[1] == 0);
        row("burst 200 x 1000, ms", 1, burstSeconds[1] * 1e3, "", true);
        row("start to first pixel, median ms", 1, medianMs, "<= 100", medianMs <= 100);
        row("start to first pixel, max ms", 1, klbench::percentile(latencies, 1.0) * 1e3, "", true);
        row("socket hand-off, us per socket", 1, handOff, "<= 50", handOff <= 50);
        service.stopService();
        local.waitForExit(30.0);
    } catch (const std::exception& e) {
        std::fprintf(stderr, "klServiceBench: %s\n", e.what());
        return 1;
    }
    return 0;
}
