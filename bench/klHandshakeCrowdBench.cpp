// The cluster service under a crowd of connections that never finish their handshake: how often a
// client that does finish it is answered within a second.
//
// For a service with a farm key and for one without, each started on a loopback port with its
// default request limit (64), a crowd of connections from 127.0.0.1, the client's own address:
// half of them silent, half sending the opening bytes (the sealed greeting to the keyed service,
// the plain one to the other) and then waiting, each connecting again as soon as the service
// closes it. Meanwhile a client asks for the status TRIES times, a sealed one of the keyed
// service and a plain one of the other, and the time of each answer is taken.
//
//   klHandshakeCrowdBench [tries, default 20] [crowd, default 100]
#include "klBenchSupport.h"

#include <klLocalService.h>
#include <klServiceClient.h>

#include <poll.h>
#include <sys/socket.h>

#include <atomic>
#include <cstdint>
#include <cstdio>
#include <memory>
#include <string>
#include <thread>
#include <vector>

namespace {

using klbench::Clock;
using klbench::secondsSince;

constexpr double kAnswerBound = 1.0;

// Connections that connect, maybe send opening bytes, and wait until the service closes them,
// again and again until the crowd is destroyed.
class Crowd {
public:
    Crowd(int port, int size, std::uint32_t greeting) {
        for (int i = 0; i < size; ++i) {
            m_threads.emplace_back(
                [this, port, greeting, silent = i % 2 == 0] { loiter(port, silent, greeting); });
        }
    }
    ~Crowd() {
        m_stop = true;
        for (auto& thread : m_threads) {
            thread.join();
        }
    }
    Crowd(const Crowd&) = delete;
    Crowd& operator=(const Crowd&) = delete;

    long connections() const { return m_connections; }

private:
    void loiter(int port, bool silent, std::uint32_t greeting) {
        const klSocketAddress address("127.0.0.1", port);
        while (!m_stop) {
            try {
                klSocketLink link(address, 10.0);
                ++m_connections;
                if (!silent) {
                    link.send(&greeting, sizeof(greeting));
                }
                // Whatever the service answers is dropped; the connection ends when it closes.
                while (!m_stop) {
                    pollfd wait{link.getDescriptor(), POLLIN | POLLRDHUP, 0};
                    if (::poll(&wait, 1, 100) <= 0) {
                        continue;
                    }
                    char bytes[512];
                    if (::recv(link.getDescriptor(), bytes, sizeof(bytes), MSG_DONTWAIT) <= 0) {
                        break;
                    }
                }
            } catch (const std::exception&) {
                // Refused or reset: connect again.
            }
        }
    }

    std::atomic<bool> m_stop{false};
    std::atomic<long> m_connections{0};
    std::vector<std::thread> m_threads;
};

struct Figure {
    int answered = 0;  // within the bound
    double median = 0;
    double worst = 0;
};

// Status requests, one after the other with a pause between them, each timed from the start of
// its connection to its answer; a failed request counts as not answered.
Figure timeStatus(const klServiceClient& client, int tries) {
    std::vector<double> times;
    Figure figure;
    for (int i = 0; i < tries; ++i) {
        const auto start = Clock::now();
        try {
            client.status();
        } catch (const std::exception& e) {
            std::fprintf(stderr, "status request failed: %s\n", e.what());
        }
        const double seconds = secondsSince(start);
        times.push_back(seconds);
        figure.answered += seconds <= kAnswerBound ? 1 : 0;
        klbench::progressLine(stdout, std::to_string(i + 1) + "/" + std::to_string(tries));
        std::this_thread::sleep_for(std::chrono::milliseconds(250));
    }
    klbench::progressLine(stdout, "");
    figure.median = klbench::median(times);
    figure.worst = klbench::percentile(times, 1.0);
    return figure;
}

constexpr const char* kTargets =
    "at least 19 of 20 status requests answered within 1 s, with and without a farm key, under a "
    "crowd of 100.";

}  // namespace

int main(int argc, char** argv) {
    const std::vector<double> args = klbench::numericArguments(
        argc, argv,
        "A cluster service started on a loopback port, with and without a farm key, under a crowd "
        "of connections from 127.0.0.1 that never finish their handshake (half silent, half "
        "sending the greeting and then waiting, each connecting again once closed): how many "
        "status requests of a client that does finish it are answered within 1 s.",
        {{"TRIES", "status requests per service (default 20)", klCommandLine::integer(1, 1000)},
         {"CROWD", "connections of the crowd (default 100)", klCommandLine::integer(0, 2000)}},
        kTargets);
    const int tries = args.size() > 0 ? int(args[0]) : 20;
    const int crowdSize = args.size() > 1 ? int(args[1]) : 100;
    try {
        std::printf("| %-9s | %-8s | %-8s | %-8s | %-11s | %-4s |\n", "service", "answered",
                    "median s", "worst s", "crowd conn.", "");
        bool met = true;
        for (const bool keyed : {true, false}) {
            klLocalService local(
                {}, keyed ? klLocalService::Sealing::runKey : klLocalService::Sealing::none);
            klServiceClient client(klLocalService::host(), local.port());
            client.setRecvTimeout(30.0);
            client.setSealer(local.sealer());
            Figure figure;
            long connections = 0;
            {
                Crowd crowd(local.port(), crowdSize,
                            keyed ? klSocketLink::kSealedGreeting : klSocketLink::kGreeting);
                // Let the crowd fill the service first.
                std::this_thread::sleep_for(std::chrono::seconds(1));
                figure = timeStatus(client, tries);
                connections = crowd.connections();
            }
            const bool pass = figure.answered * 20 >= tries * 19;
            met = met && pass;
            std::printf("| %-9s | %5d/%-2d | %8.3f | %8.3f | %11ld | %-4s |\n",
                        keyed ? "keyed" : "plain", figure.answered, tries, figure.median,
                        figure.worst, connections, pass ? "PASS" : "MISS");
            std::fflush(stdout);
        }
        std::printf("Target: %s %s\n", kTargets, met ? "Met." : "Missed.");
    } catch (const std::exception& e) {
        std::fprintf(stderr, "%s: %s\n", klbench::programName(argv[0]).c_str(), e.what());
        return 1;
    }
    return 0;
}
