// klClusterRender: renders one frame on render servers that cluster services start.
//
// Without --nodes it starts a KALDClusterService of its own on a loopback port (the one found
// beside this program), asks it for render servers, gives each server a band of the frame's rows,
// draws a progress bar while the pixels arrive, writes the frame as a PNG, prints a report, stops
// the servers by their booking id and stops the service. With --nodes (or --nodes-file) it uses the
// services given instead, one server on each node unless --servers asks for more, taken in turn,
// and leaves the services running. With --slurm, inside a Slurm allocation, it starts one service
// on every node of the allocation as one job step (klSlurmStep), seals every connection with a key
// made for this run alone, which the services read from their standard input, and ends the step
// when done.
//
// The servers are started all at once, one request each, so a farm of many servers is ready in
// about the time of the slowest start rather than of all starts in a row.
//
// A node that fails mid-frame (its server or service dies, its connection breaks, its Slurm task
// ends) ends the run at once with one line naming the node: the servers of the other nodes are
// stopped by the booking id (with --slurm: the step is ended) and the connections to them are
// shut, so nothing waits for pixels that will never come. A server that sends nothing for
// --stall-timeout seconds (frozen, or its node cut off) counts as failed; every connection has
// keep-alive, so a node gone without a word is noticed within about 15 s.
//
// SIGINT and SIGTERM stop the servers on every node and the service of our own (or the Slurm
// step), then end the program with 130 or 143; a second signal ends it at once. Even SIGKILL
// leaves no service of our own behind: it ends with the pipe on its standard input.
#include "klFrameBands.h"
#include "klNodeFailure.h"
#include "klPngFile.h"
#include "klRenderClock.h"
#include "klRenderFarm.h"
#include "klRenderOptions.h"
#include "klSlurmJob.h"
#include "klTextList.h"

#include <klNetBase/service/klNetServiceStatus.h>

#include <klRenderProtocol.h>
#include <klSignalWatcher.h>

#include <signal.h>
#include <unistd.h>

#include <atomic>
#include <cinttypes>
#include <cstdio>
#include <cstdlib>
#include <mutex>
#include <optional>
#include <string>
#include <vector>

namespace {

// When the program started, for the report's time to the first pixels.
const klRenderClock::time_point kProgramStart = klRenderClock::now();

// What the signal watcher needs of the run: the farm whose servers it stops, the flag that tells
// the run the failures that follow are its doing, and the end of the process, whoever brings it.
// Thread safety: onSignal() on the signal watcher's thread, the rest on the main thread.
class Interrupt {
public:
    // Makes a farm known to the signal watcher for its lifetime.
    class Registration {
    public:
        Registration(Interrupt& interrupt, klRenderFarm& farm) : m_interrupt(interrupt) {
            std::lock_guard<std::mutex> lock(m_interrupt.m_farmLock);
            m_interrupt.m_farm = &farm;
        }
        ~Registration() {
            std::lock_guard<std::mutex> lock(m_interrupt.m_farmLock);
            m_interrupt.m_farm = nullptr;
        }
        Registration(const Registration&) = delete;
        Registration& operator=(const Registration&) = delete;

    private:
        Interrupt& m_interrupt;
    };

    // Set by the signal watcher before it stops the servers: the failures that follow are its
    // doing.
    const std::atomic<bool>& interrupted() const { return m_interrupted; }

    // On the signal watcher's thread: stops the servers of the run (with --slurm: ends the step)
    // and ends the process with 128 + the signal. The service of our own stops as the process
    // ends (its input pipe closes).
    void onSignal(int signal) {
        std::unique_lock<std::mutex> ending(m_ending, std::try_to_lock);
        if (!ending.owns_lock()) {
            return;  // main is saying its last word: the run is over already
        }
        m_interrupted = true;
        if (::isatty(STDOUT_FILENO) == 1) {
            std::printf("\n");  // past a progress bar
        }
        std::fflush(stdout);
        std::fprintf(stderr, "klClusterRender: interrupted by %s: stopping the servers\n",
                     signal == SIGINT ? "SIGINT" : "SIGTERM");
        {
            std::lock_guard<std::mutex> lock(m_farmLock);
            if (m_farm != nullptr) {
                m_farm->stopServers(true);
            }
        }
        std::fflush(stdout);
        std::fflush(stderr);
        std::_Exit(128 + signal);
    }

    // Held by main while it says its last word. After an interrupt this waits for the watcher,
    // which ends the process.
    std::unique_lock<std::mutex> lastWord() { return std::unique_lock<std::mutex>(m_ending); }

private:
    // The end of the process, whoever brings it: main with its last word, or the signal watcher
    // after an interrupted run's clean-up, which keeps it until it exits.
    std::mutex m_ending;
    std::atomic<bool> m_interrupted{false};
    // The run's farm while it exists.
    std::mutex m_farmLock;
    klRenderFarm* m_farm = nullptr;  // guarded by m_farmLock
};

int render(const klRenderOptions& options, const klSlurmJob* job, Interrupt& interrupt) {
    klRenderFarm farm(options, job);
    const Interrupt::Registration registration(interrupt, farm);
    std::vector<klBandServer> servers;
    try {
        klRenderRequest frame = klRenderRequest::defaultFrame(options.width, options.height);
        frame.maxIterations = options.iterations;
        const auto startBegin = klRenderClock::now();
        servers = klStartBandServers(options, farm, frame);
        const double startSeconds = klSecondsSince(startBegin);
        klNetServiceStatus status;
        try {
            status = farm.service(0).status();
        } catch (const std::exception& e) {
            throw klNodeFailure(0, "node " + farm.label(0) + ": no status: " + e.what());
        }

        const std::uint64_t pixels = std::uint64_t(options.width) * options.height;
        std::vector<std::uint8_t> frameRgb(pixels * 3);
        const auto start = klRenderClock::now();
        const double sinceProgramStart = klSecondsSince(kProgramStart);
        const klBandsResult bands =
            klRenderBands(options, farm, servers, frameRgb, interrupt.interrupted());
        const double seconds = klSecondsSince(start);
        klWritePng(options.output, options.width, options.height, frameRgb);

        std::printf("\nFrame %" PRIu32 "x%" PRIu32 " written to %s\n", options.width,
                    options.height, options.output.c_str());
        std::printf("  servers          %zu on %zu node(s) (booking id %s)\n", servers.size(),
                    farm.size(), farm.bookingId().c_str());
        if (farm.slurm()) {
            std::printf("  slurm            job %s, step %s, services listening in %.3f s\n",
                        job->id().c_str(), farm.stepId().c_str(), farm.servicesSeconds());
        }
        std::printf("  start            %zu servers in %.3f s\n", servers.size(), startSeconds);
        std::printf("  first pixels     %.3f s after the program started\n",
                    sinceProgramStart + bands.firstRowsSeconds);
        std::printf("  service          version %s, %d servers running, bookings: %s\n",
                    status.getVersion().c_str(), status.getNumberOfClusterServers(),
                    klJoined(status.getBookingIds()).c_str());
        std::printf("  node memory      %.1f GiB free\n",
                    double(servers.front().started.freeMemory) / double(1ull << 30));
        std::printf("  time             %.3f s\n", seconds);
        std::printf("  pixels/s         %.2f M\n", double(pixels) / seconds / 1e6);
        std::printf("  bytes received   %" PRIu64 " (%.1f MB/s)\n", bands.bytes,
                    double(bands.bytes) / seconds / 1e6);
    } catch (const klNodeFailure& e) {
        // The failed node's service may be gone: not worth a word when it cannot stop anything.
        servers.clear();
        farm.stopServers(true, e.node());
        throw;
    } catch (...) {
        servers.clear();
        farm.stopServers(true);
        throw;
    }
    servers.clear();
    farm.stopServers(false);
    std::printf("Servers stopped (booking id %s)\n", farm.bookingId().c_str());
    farm.stopServices();
    return 0;
}

}  // namespace

int main(int argc, char** argv) {
    klRenderOptions options = klRenderOptions::parse(argc, argv);
    ::signal(SIGPIPE, SIG_IGN);
    // Outlives the watcher, which calls it.
    Interrupt interrupt;
    const klSignalWatcher signals([&interrupt](int signal) { interrupt.onSignal(signal); }, true);
    std::string failure;
    bool failed = false;
    try {
        std::optional<klSlurmJob> job;
        if (options.slurm) {
            job = klSlurmJob::current();
        }
        options.settleServers(job ? job->nodes().size() : options.nodes.size());
        render(options, job ? &*job : nullptr, interrupt);
    } catch (const klNodeFailure& e) {
        failed = true;
        failure = e.reported() ? "" : e.what();
    } catch (const std::exception& e) {
        failed = true;
        failure = e.what();
    }
    const std::unique_lock<std::mutex> ending = interrupt.lastWord();
    if (!failure.empty()) {
        std::fprintf(stderr, "klClusterRender: %s\n", failure.c_str());
    }
    return failed ? 1 : 0;
}
