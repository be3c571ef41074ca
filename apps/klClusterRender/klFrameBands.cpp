#include "klFrameBands.h"

#include "klProgressBar.h"
#include "klRenderClock.h"

#include <klNetBase/core/klConnectionTimeout.h>
#include <klNetBase/link/klNetLink.h>
#include <klNetBase/serial/klNetStream.h>

#include <chrono>
#include <cinttypes>
#include <cstdio>
#include <cstring>
#include <future>
#include <mutex>
#include <optional>
#include <string>

namespace {

// A band that fails in a Slurm step is usually the echo of a task that ended: srun's word on which
// task it was is waited for this long, as it names the node that failed first.
constexpr double kStepReportSeconds = 1.0;

// The first failure of the frame, as told by the band threads or the Slurm step; later failures
// (the other bands, cut off when the servers are stopped) are not kept.
class FirstFailure {
public:
    // Thread-safe. replace: this failure wins over an earlier one (srun's word on which task
    // ended names the cause where the bands only saw its echo).
    void set(std::optional<std::size_t> node, const std::string& text, bool replace = false) {
        std::lock_guard<std::mutex> lock(m_mutex);
        if (!m_failed.load() || replace) {
            m_node = node;
            m_text = text;
            m_failed.store(true);
        }
    }
    bool failed() const { return m_failed.load(); }
    // Once failed() is true: the node that failed, if known, and the error naming it.
    klNodeFailure get() const {
        std::lock_guard<std::mutex> lock(m_mutex);
        return klNodeFailure(m_node, m_text);
    }

private:
    mutable std::mutex m_mutex;
    std::atomic<bool> m_failed{false};
    // Guarded by m_mutex.
    std::optional<std::size_t> m_node;
    std::string m_text;
};

}  // namespace

std::vector<klBandServer> klStartBandServers(const klRenderOptions& options, klRenderFarm& farm,
                                             const klRenderRequest& frame) {
    klServiceClient::StartRequest request;
    request.bookingId = farm.bookingId();
    std::vector<klBandServer> servers(std::size_t(options.servers));
    std::vector<std::future<klServiceClient::StartResult>> starts;
    for (int i = 0; i < options.servers; ++i) {
        klBandServer& server = servers[std::size_t(i)];
        server.node = std::size_t(i) % farm.size();
        server.band = frame;
        server.band.y0 = std::uint32_t(std::uint64_t(frame.imageHeight) * unsigned(i) /
                                       unsigned(options.servers));
        server.band.height = std::uint32_t(std::uint64_t(frame.imageHeight) * unsigned(i + 1) /
                                           unsigned(options.servers)) -
                             server.band.y0;
        starts.push_back(std::async(std::launch::async, [&farm, &request, node = server.node] {
            return farm.startServer(node, request);
        }));
    }
    std::optional<klNodeFailure> failure;
    for (std::size_t i = 0; i < servers.size(); ++i) {
        try {
            servers[i].started = starts[i].get();
        } catch (const std::exception& e) {
            if (!failure) {
                const std::size_t node = servers[i].node;
                failure.emplace(node, "node " + farm.label(node) +
                                          ": cannot start a render server: " + e.what());
            }
        }
    }
    if (failure) {
        throw *failure;
    }
    for (const klBandServer& server : servers) {
        std::printf("  server %" PRIu32 " started on %s for rows %" PRIu32 "-%" PRIu32 "\n",
                    server.started.serverId, farm.label(server.node).c_str(), server.band.y0,
                    server.band.y0 + server.band.height - 1);
    }
    return servers;
}

klBandsResult klRenderBands(const klRenderOptions& options, klRenderFarm& farm,
                            std::vector<klBandServer>& servers, std::vector<std::uint8_t>& frameRgb,
                            const std::atomic<bool>& interrupted) {
    const std::uint64_t pixels = std::uint64_t(options.width) * options.height;
    std::atomic<std::uint64_t> pixelsDone{0};
    std::atomic<std::int64_t> firstRowsMicros{-1};
    FirstFailure failure;
    std::vector<std::future<std::uint64_t>> bands;
    const auto start = klRenderClock::now();
    for (klBandServer& server : servers) {
        // From now on a silent server has failed; until now the client's own time-out held.
        server.started.stream->getFirstLink()->setRecvTimeout(options.stallTimeout);
        bands.push_back(std::async(std::launch::async, [&] {
            try {
                std::size_t rowsSeen = 0;
                const auto rgb = klRenderClient::render(
                    *server.started.stream, server.band, [&](std::size_t rows) {
                        std::int64_t unset = -1;
                        firstRowsMicros.compare_exchange_strong(
                            unset, std::chrono::duration_cast<std::chrono::microseconds>(
                                       klRenderClock::now() - start)
                                       .count());
                        pixelsDone += std::uint64_t(rows - rowsSeen) * options.width;
                        rowsSeen = rows;
                    });
                std::memcpy(frameRgb.data() + std::size_t(server.band.y0) * options.width * 3,
                            rgb.data(), rgb.size());
                return server.started.stream->getRecevedBytes();
            } catch (const klConnectionTimeout&) {
                char seconds[32];
                std::snprintf(seconds, sizeof(seconds), "%g", options.stallTimeout);
                failure.set(server.node, "no data from server " +
                                             std::to_string(server.started.serverId) + " on node " +
                                             farm.label(server.node) + " for " + seconds + " s");
                return std::uint64_t(0);
            } catch (const std::exception& e) {
                failure.set(server.node,
                            "node " + farm.label(server.node) + " failed mid-frame: " + e.what());
                return std::uint64_t(0);
            }
        }));
    }
    klProgressBar bar(pixels);
    for (bool done = false; !done && !failure.failed();) {
        done = true;
        for (auto& band : bands) {
            done =
                done && band.wait_for(std::chrono::milliseconds(50)) == std::future_status::ready;
        }
        if (!done) {
            if (const std::optional<klNodeFailure> ended = farm.stepFailure(0.0)) {
                failure.set(ended->node(), ended->what());
            }
        }
        if (!failure.failed()) {
            bar.show(done ? pixels : pixelsDone.load(), klSecondsSince(start));
        }
    }
    if (failure.failed()) {
        bar.abandon();
        // A band cut off in a Slurm step is most often the echo of a task that ended (its
        // service and servers go with it): srun names that task's node.
        if (const std::optional<klNodeFailure> ended = farm.stepFailure(kStepReportSeconds);
            ended && ended->node()) {
            failure.set(ended->node(), ended->what(), true);
        }
        // Said at once: stopping the servers takes a while when one of them hangs. (Not when
        // the failure is the interrupt's doing.)
        if (!interrupted.load()) {
            std::fprintf(stderr, "klClusterRender: %s\n", failure.get().what());
        }
        farm.stopServers(true, failure.get().node());
        // Whatever a stopped server still had on the way is of no use: end every wait now.
        for (klBandServer& server : servers) {
            server.started.stream->shutdown();
        }
    }
    klBandsResult result;
    for (auto& band : bands) {
        result.bytes += band.get();
    }
    if (failure.failed()) {
        const klNodeFailure failed = failure.get();
        throw klNodeFailure(failed.node(), failed.what(), true);
    }
    result.firstRowsSeconds = double(firstRowsMicros.load()) / 1e6;
    return result;
}
