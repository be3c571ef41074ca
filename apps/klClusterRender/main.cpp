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
#include <klNetBase/klNetBase.h>
#include <klNetBase/service/klNetServiceStatus.h>

#include <klCommandLine.h>
#include <klLocalService.h>
#include <klPlatform.h>
#include <klRenderProtocol.h>
#include <klServiceClient.h>
#include <klSignalWatcher.h>

#include <klNetBase/core/klConnectionTimeout.h>

#include "klSlurmJob.h"
#include "klSlurmStep.h"

#include <klNetBase/codecs/klNetFarmKey.h>
#include <klNetBase/codecs/klNetFarmSealer.h>

#include <png.h>
#include <signal.h>
#include <unistd.h>

#include <atomic>
#include <chrono>
#include <cinttypes>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <fstream>
#include <future>
#include <memory>
#include <mutex>
#include <optional>
#include <regex>
#include <shared_mutex>
#include <string>
#include <thread>
#include <vector>

namespace {

using Clock = std::chrono::steady_clock;

constexpr double kServiceStopSeconds = 30.0;
// Stopping servers after a failure must not wait long for a node that is gone.
constexpr double kStopConnectSeconds = 5.0;
// srun may have to wait for the step's resources and start a task on every node.
constexpr double kStepStartSeconds = 60.0;
// A step whose input has closed ends as its services stop their servers.
constexpr double kStepEndSeconds = 10.0;
// After a failure the step is ended at once: its services get little time to stop.
constexpr double kStepAbortSeconds = 3.0;
// A band that fails in a Slurm step is usually the echo of a task that ended: srun's word on which
// task it was is waited for this long, as it names the node that failed first.
constexpr double kStepReportSeconds = 1.0;
constexpr int kServersPerSlurmNode = 2;
constexpr int kMaxServers = 256;
constexpr std::size_t kMaxNodes = 128;

// When the program started, for the report's time to the first pixels.
const Clock::time_point kProgramStart = Clock::now();

double secondsSince(Clock::time_point start) {
    return std::chrono::duration<double>(Clock::now() - start).count();
}

struct Options {
    std::uint32_t width = 1920;
    std::uint32_t height = 1080;
    std::uint32_t iterations = 500;
    int servers = 2;
    bool serversGiven = false;
    std::string output = "frame.png";
    std::vector<std::pair<std::string, int>> nodes;
    std::string keyFile;
    double stallTimeout = 10.0;
    bool slurm = false;
};

[[noreturn]] void usageError(const std::string& text) {
    std::exit(klCommandLine::fail("klClusterRender", text));
}

// host, host:port, [v6] or [v6]:port, or a bare IPv6 address; the port defaults to the service's.
std::pair<std::string, int> parseNode(const std::string& text, const std::string& where) {
    static const std::regex form(R"(^(?:\[([^\[\]]+)\]|([^:\[\]\s]+))(?::([0-9]{1,5}))?$)");
    std::smatch match;
    if (std::regex_match(text, match, form)) {
        const int port =
            match[3].matched ? std::stoi(match[3].str()) : klNetOptions::getDefaultServicePort();
        if (port < 1 || port > 65535) {
            usageError(where + ": port of '" + text + "' is not 1 to 65535");
        }
        return {match[1].matched ? match[1].str() : match[2].str(), port};
    }
    if (text.find(':') != text.rfind(':') && text.find_first_of("[] \t") == std::string::npos) {
        return {text, klNetOptions::getDefaultServicePort()};
    }
    usageError(where + ": '" + text + "' is not host[:port]");
}

void addNodesFromFile(const std::string& path, Options& options) {
    std::ifstream file(path);
    if (!file) {
        usageError("--nodes-file: cannot read '" + path + "'");
    }
    std::string line;
    for (int number = 1; std::getline(file, line); ++number) {
        line.erase(std::min(line.find('#'), line.size()));
        line.erase(0, std::min(line.find_first_not_of(" \t\r"), line.size()));
        line.erase(line.find_last_not_of(" \t\r") + 1);
        if (!line.empty()) {
            options.nodes.push_back(parseNode(line, path + ":" + std::to_string(number)));
        }
    }
    if (file.bad()) {
        usageError("--nodes-file: cannot read '" + path + "'");
    }
}

Options parseOptions(int argc, char** argv) {
    Options options;
    klCommandLine cli("klClusterRender",
                      "Renders one frame of the Mandelbrot set on render servers started by "
                      "cluster services and writes it as a PNG. Without --nodes it starts a "
                      "cluster service of its own on a loopback port and stops it afterwards.");
    CLI::App& app = cli.app();
    app.add_option("--width", options.width, "frame width in pixels (default 1920)")
        ->type_name("N")
        ->check(klCommandLine::integer(1, 65536));
    app.add_option("--height", options.height, "frame height in pixels (default 1080)")
        ->type_name("N")
        ->check(klCommandLine::integer(1, 65536));
    app.add_option("--iterations", options.iterations, "most iterations per pixel (default 500)")
        ->type_name("N")
        ->check(klCommandLine::integer(1, 100000));
    const CLI::Option* servers =
        app.add_option("--servers", options.servers,
                       "render servers to start in all (default 2; with --nodes one per node, "
                       "with --slurm two per node; at least one per node)")
            ->type_name("N")
            ->check(klCommandLine::integer(1, kMaxServers));
    app.add_option("--output", options.output, "PNG file to write (default frame.png)")
        ->type_name("PATH");
    std::vector<std::string> lists, files;
    app.add_option("--key-file", options.keyFile,
                   "the farm key of the services of --nodes: seal every connection with it "
                   "(without --nodes the service of our own uses a key made for the run)")
        ->type_name("PATH");
    app.add_option("--stall-timeout", options.stallTimeout,
                   "a server that sends no pixels for this many seconds has failed (default 10; "
                   "0: wait for ever); raise it for rows that take longer to render")
        ->type_name("SECONDS")
        ->check(klCommandLine::number(0, 86400));
    app.add_option("--nodes", lists,
                   "services to use, host[:port] separated by commas (repeatable); the frame "
                   "is split over all of them")
        ->type_name("LIST")
        ->allow_extra_args(false);
    app.add_option("--nodes-file", files,
                   "services to use, one host[:port] a line ('#' starts a comment; repeatable)")
        ->type_name("FILE")
        ->allow_extra_args(false);
    app.add_flag("--slurm", options.slurm,
                 "inside a Slurm allocation (salloc, sbatch): start a cluster service on every "
                 "node of the allocation as one job step, seal every connection with a key made "
                 "for this run alone, and end the step when done");
    app.footer(
        "A progress bar is drawn on a terminal; into a file or pipe a line is written every "
        "tenth of the frame.\n\n"
        "SIGINT or SIGTERM stop the servers on every node and the service of our own (or the "
        "Slurm step); a second signal ends the program at once.\n\n"
        "Exit status: 0 done, 1 the render failed (one line on standard error, naming the node "
        "that failed), 2 bad command line, 130 SIGINT, 143 SIGTERM.");
    if (const std::optional<int> done = cli.parse(argc, argv)) {
        std::exit(*done);
    }
    options.serversGiven = servers->count() > 0;
    for (const std::string& list : lists) {
        for (std::size_t begin = 0;;) {
            const std::size_t end = std::min(list.find(',', begin), list.size());
            if (end == begin) {
                usageError("--nodes has an empty entry");
            }
            options.nodes.push_back(parseNode(list.substr(begin, end - begin), "--nodes"));
            if (end == list.size()) {
                break;
            }
            begin = end + 1;
        }
    }
    for (const std::string& file : files) {
        addNodesFromFile(file, options);
    }
    if (std::uint64_t(options.width) * options.height > klRenderRequest::kMaxPixels) {
        usageError("a frame of more than 67108864 pixels");
    }
    if (options.slurm) {
        if (!options.nodes.empty()) {
            usageError(
                "--slurm takes the nodes of the allocation: not with --nodes or "
                "--nodes-file");
        }
        if (!options.keyFile.empty()) {
            usageError("--slurm makes a key of its own: not with --key-file");
        }
        if (!klSlurmJob::inAllocation()) {
            usageError(
                "--slurm needs a Slurm allocation: run it under salloc or in an sbatch "
                "script");
        }
    }
    return options;
}

// Settles the server count once the node count is known (the --slurm nodes only show then).
void settleServers(Options& options, std::size_t nodes) {
    if (nodes > kMaxNodes) {
        usageError("more than " + std::to_string(kMaxNodes) + " nodes");
    }
    if (nodes > 0) {
        if (!options.serversGiven) {
            options.servers = int(
                std::min(nodes * (options.slurm ? kServersPerSlurmNode : 1), kMaxServers + 0ul));
        } else if (std::size_t(options.servers) < nodes) {
            usageError("--servers " + std::to_string(options.servers) +
                       " leaves nodes without work (" + std::to_string(nodes) + " nodes)");
        }
    }
    if (std::uint32_t(options.servers) > options.height) {
        usageError("more servers than rows");
    }
}

// One line redrawn on a terminal; a line every tenth otherwise.
class ProgressBar {
public:
    explicit ProgressBar(std::uint64_t total)
        : m_total(total), m_terminal(::isatty(STDOUT_FILENO) == 1) {}
    void show(std::uint64_t done, double seconds) {
        const double fraction = m_total > 0 ? double(done) / double(m_total) : 1.0;
        const double rate = seconds > 0 ? double(done) / seconds : 0.0;
        if (m_terminal) {
            const int filled = int(fraction * 40);
            std::printf("\r  rendering [%-40s] %5.1f%%  %7.2f Mpixel/s",
                        std::string(std::size_t(filled), '#').c_str(), fraction * 100, rate / 1e6);
            if (done == m_total) {
                std::printf("\n");
            }
        } else if (int(fraction * 10) != m_lastTenth) {
            m_lastTenth = int(fraction * 10);
            std::printf("  rendering %3d%%  %7.2f Mpixel/s\n", m_lastTenth * 10, rate / 1e6);
        }
        std::fflush(stdout);
    }
    // Ends a bar left unfinished, so that what follows starts on a line of its own.
    void abandon() {
        if (m_terminal) {
            std::printf("\n");
            std::fflush(stdout);
        }
    }

private:
    std::uint64_t m_total;
    bool m_terminal;
    int m_lastTenth = -1;
};

void writePng(const std::string& path, std::uint32_t width, std::uint32_t height,
              const std::vector<std::uint8_t>& rgb) {
    png_image image{};
    image.version = PNG_IMAGE_VERSION;
    image.width = width;
    image.height = height;
    image.format = PNG_FORMAT_RGB;
    if (png_image_write_to_file(&image, path.c_str(), 0, rgb.data(), 0, nullptr) == 0) {
        throw std::runtime_error("cannot write " + path + ": " + image.message);
    }
}

// "host:port", with brackets around an IPv6 address.
std::string address(const std::string& host, int port) {
    return (host.find(':') != std::string::npos ? "[" + host + "]" : host) + ":" +
           std::to_string(port);
}

std::string joined(const std::vector<std::string>& texts) {
    std::string all;
    for (const auto& text : texts) {
        all += (all.empty() ? "" : ", ") + (text.empty() ? std::string("(none)") : text);
    }
    return all.empty() ? "-" : all;
}

// A failure of the run; node is the node that failed, when one did.
class NodeFailure : public std::runtime_error {
public:
    // reported: the text is on standard error already.
    NodeFailure(std::optional<std::size_t> node, const std::string& text, bool reported = false)
        : std::runtime_error(text), m_node(node), m_reported(reported) {}
    std::optional<std::size_t> node() const { return m_node; }
    bool reported() const { return m_reported; }

private:
    std::optional<std::size_t> m_node;
    bool m_reported;
};

// One render server at work on a band of rows.
struct Server {
    std::size_t node;
    klServiceClient::StartResult started;
    klRenderRequest band;
};

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
    NodeFailure get() const {
        std::lock_guard<std::mutex> lock(m_mutex);
        return NodeFailure(m_node, m_text);
    }

private:
    mutable std::mutex m_mutex;
    std::atomic<bool> m_failed{false};
    // Guarded by m_mutex.
    std::optional<std::size_t> m_node;
    std::string m_text;
};

// The services of the run and the booking id its servers are started with: a loopback service
// of our own, the services given, or one service on every node of a Slurm allocation, started as
// one job step. stopServers() stops the servers on every node: after a failure quietly on the
// failed node, whose service may be gone.
// Thread safety: startServer() and stopServers() from any thread (the signal watcher stops the
// servers of an interrupted run); the rest on the main thread.
class Farm {
public:
    Farm(const Options& options, const klSlurmJob* job)
        : m_bookingId("klClusterRender-" + std::to_string(::getpid())) {
        std::shared_ptr<klNetLinkSealer> sealer;
        if (job != nullptr) {
            const klNetFarmKey key = klNetFarmKey::random();
            sealer = std::make_shared<klNetFarmSealer>(key);
            startStep(options, *job, key);
        } else if (options.nodes.empty()) {
            startLocal(options);
            sealer = m_local->sealer();
        } else {
            if (!options.keyFile.empty()) {
                sealer = std::make_shared<klNetFarmSealer>(klNetFarmKey::load(options.keyFile));
            }
            for (const auto& [host, port] : options.nodes) {
                m_nodes.push_back({klServiceClient(host, port), address(host, port), ""});
            }
        }
        for (Node& node : m_nodes) {
            node.client.setSealer(sealer);
        }
    }

    const std::string& bookingId() const { return m_bookingId; }
    std::size_t size() const { return m_nodes.size(); }
    const klServiceClient& service(std::size_t node) const { return m_nodes[node].client; }
    // "host:port"; for a Slurm node "NAME (host:port)".
    const std::string& label(std::size_t node) const { return m_nodes[node].label; }
    bool slurm() const { return m_step != nullptr; }
    // With --slurm: "JOB.STEP" and the time its services took to listen.
    std::string stepId() const { return m_step ? m_step->step() : std::string(); }
    double servicesSeconds() const { return m_servicesSeconds; }

    // With --slurm, once the step or one of its tasks has ended: the failure of the run it is,
    // naming the node when srun named one; waits up to seconds for it.
    std::optional<NodeFailure> stepFailure(double seconds) const {
        if (!m_step) {
            return std::nullopt;
        }
        const std::optional<klSlurmStep::Failure> failure = m_step->failure(seconds);
        if (!failure) {
            return std::nullopt;
        }
        for (std::size_t node = 0; node < m_nodes.size(); ++node) {
            if (m_nodes[node].slurmName == failure->node) {
                return NodeFailure(node,
                                   "node " + label(node) + " failed mid-frame: " + failure->text);
            }
        }
        return NodeFailure(std::nullopt,
                           "the Slurm step " + stepId() + " ended mid-frame: " + failure->text);
    }

    // Starts a server of the booking on a node, unless the servers have been stopped already
    // (then throws): a start is never left behind by a stop running at the same time. Starts run
    // at once; a stop waits for those under way.
    klServiceClient::StartResult startServer(std::size_t node,
                                             const klServiceClient::StartRequest& request) {
        std::shared_lock<std::shared_mutex> lock(m_bookingLock);
        if (m_serversStopped) {
            throw std::runtime_error("the servers were stopped");
        }
        return m_nodes[node].client.startServer(request);
    }

    // Once per run; later calls do nothing (once the first has done its work). failed: the node
    // that failed, after a failure (with --slurm every failure ends the step at once, which takes
    // every server along).
    void stopServers(bool afterFailure, std::optional<std::size_t> failed = std::nullopt) {
        std::unique_lock<std::shared_mutex> lock(m_bookingLock);
        if (m_serversStopped) {
            return;
        }
        m_serversStopped = true;
        if (m_step && afterFailure) {
            m_step->end(kStepAbortSeconds);
            return;
        }
        std::vector<std::future<void>> stops;
        for (std::size_t node = 0; node < m_nodes.size(); ++node) {
            stops.push_back(std::async(std::launch::async, [this, node, failed] {
                klServiceClient service = m_nodes[node].client;
                service.setConnectTimeout(kStopConnectSeconds);
                try {
                    service.stopBooking(m_bookingId);
                } catch (const std::exception& e) {
                    if (node != failed) {
                        std::fprintf(stderr, "klClusterRender: stopping servers on %s: %s\n",
                                     label(node).c_str(), e.what());
                    }
                }
            }));
        }
        for (auto& stop : stops) {
            stop.get();
        }
    }

    // Stops the service of our own or ends the Slurm step, if there is one.
    void stopServices() {
        if (m_step) {
            const bool byItself = m_step->end(kStepEndSeconds);
            std::printf("Cluster services stopped (Slurm step %s ended%s)\n", stepId().c_str(),
                        byItself ? "" : " after SIGTERM");
            return;
        }
        if (!m_local) {
            return;
        }
        m_nodes.front().client.stopService();
        if (!m_local->waitForExit(kServiceStopSeconds)) {
            throw std::runtime_error("the cluster service did not stop");
        }
        std::printf("Cluster service stopped\n");
    }

private:
    struct Node {
        klServiceClient client;
        std::string label;
        std::string slurmName;
    };

    void startLocal(const Options& options) {
        std::printf("Starting a cluster service on loopback ...\n");
        // A service of this run alone: as many servers as the run asks for.
        // Its log says only what goes wrong: the report below says what was done.
        m_local.emplace(std::vector<std::string>{"--max-servers", std::to_string(options.servers),
                                                 "--log-level", "warning"});
        const std::string label = address(klLocalService::host(), m_local->port());
        m_nodes.push_back({klServiceClient(klLocalService::host(), m_local->port()), label, ""});
        std::printf("  KALDClusterService listening on %s\n", label.c_str());
    }

    // One service on every node, each on a port of the system's choosing (nodes may share a
    // machine), each reading the run's key from its standard input and stopping when that closes.
    void startStep(const Options& options, const klSlurmJob& job, const klNetFarmKey& key) {
        const auto begin = Clock::now();
        std::printf("Starting cluster services on the %zu node(s) of Slurm job %s: %s ...\n",
                    job.nodes().size(), job.id().c_str(), joined(job.names()).c_str());
        const std::size_t perNode =
            (std::size_t(options.servers) + job.nodes().size() - 1) / job.nodes().size();
        const std::vector<std::string> command{klPlatform::getBinDir() + "/KALDClusterService",
                                               "--port",
                                               "0",
                                               "--no-console",
                                               "--max-servers",
                                               std::to_string(perNode),
                                               "--log-level",
                                               "warning",
                                               "--key-file",
                                               "-",
                                               "--stop-on-stdin-close"};
        m_step = std::make_unique<klSlurmStep>(
            job.names(), std::vector<std::string>{"--job-name=KALDClusterService"}, command,
            key.data(), klNetFarmKey::kSize);
        const std::vector<klSlurmOutput::Task> tasks = m_step->waitForTasks(kStepStartSeconds);
        // Every rank names a node of the allocation, each a different one: all are there.
        for (const klSlurmJob::Node& node : job.nodes()) {
            const auto task = std::find_if(tasks.begin(), tasks.end(), [&node](const auto& task) {
                return task.node == node.name;
            });
            m_nodes.push_back({klServiceClient(node.address, task->port),
                               node.name + " (" + address(node.address, task->port) + ")",
                               node.name});
            std::printf("  KALDClusterService on %s\n", m_nodes.back().label.c_str());
        }
        m_servicesSeconds = secondsSince(begin);
        std::printf("  Slurm step %s: %zu services listening after %.2f s\n", stepId().c_str(),
                    m_nodes.size(), m_servicesSeconds);
    }

    std::string m_bookingId;
    std::optional<klLocalService> m_local;
    std::unique_ptr<klSlurmStep> m_step;
    double m_servicesSeconds = 0.0;
    std::vector<Node> m_nodes;
    // Shared by starts under way, held alone by the stop.
    std::shared_mutex m_bookingLock;
    bool m_serversStopped = false;  // guarded by m_bookingLock
};

// The end of the process, whoever brings it: main with its last word, or the signal watcher after
// an interrupted run's clean-up, which keeps it until it exits.
std::mutex g_ending;
// Set by the signal watcher before it stops the servers: the failures that follow are its doing.
std::atomic<bool> g_interrupted{false};
// The run's farm while it exists, for the signal watcher.
std::mutex g_farmLock;
Farm* g_farm = nullptr;  // guarded by g_farmLock

// Makes a farm known to the signal watcher for its lifetime.
class FarmRegistration {
public:
    explicit FarmRegistration(Farm& farm) {
        std::lock_guard<std::mutex> lock(g_farmLock);
        g_farm = &farm;
    }
    ~FarmRegistration() {
        std::lock_guard<std::mutex> lock(g_farmLock);
        g_farm = nullptr;
    }
    FarmRegistration(const FarmRegistration&) = delete;
    FarmRegistration& operator=(const FarmRegistration&) = delete;
};

// On the signal watcher's thread: stops the servers of the run (with --slurm: ends the step) and
// ends the process with 128 + the signal. The service of our own stops as the process ends (its
// input pipe closes).
void interrupt(int signal) {
    std::unique_lock<std::mutex> ending(g_ending, std::try_to_lock);
    if (!ending.owns_lock()) {
        return;  // main is saying its last word: the run is over already
    }
    g_interrupted = true;
    if (::isatty(STDOUT_FILENO) == 1) {
        std::printf("\n");  // past a progress bar
    }
    std::fflush(stdout);
    std::fprintf(stderr, "klClusterRender: interrupted by %s: stopping the servers\n",
                 signal == SIGINT ? "SIGINT" : "SIGTERM");
    {
        std::lock_guard<std::mutex> lock(g_farmLock);
        if (g_farm != nullptr) {
            g_farm->stopServers(true);
        }
    }
    std::fflush(stdout);
    std::fflush(stderr);
    std::_Exit(128 + signal);
}

// Server i gets rows [H * i / n, H * (i + 1) / n) and runs on node i modulo the node count. Every
// start request goes out at once, each on a thread of its own; all are waited for, so that a
// failure leaves no start on the way.
std::vector<Server> startServers(const Options& options, Farm& farm, const klRenderRequest& frame) {
    klServiceClient::StartRequest request;
    request.bookingId = farm.bookingId();
    std::vector<Server> servers(std::size_t(options.servers));
    std::vector<std::future<klServiceClient::StartResult>> starts;
    for (int i = 0; i < options.servers; ++i) {
        Server& server = servers[std::size_t(i)];
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
    std::optional<NodeFailure> failure;
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
    for (const Server& server : servers) {
        std::printf("  server %" PRIu32 " started on %s for rows %" PRIu32 "-%" PRIu32 "\n",
                    server.started.serverId, farm.label(server.node).c_str(), server.band.y0,
                    server.band.y0 + server.band.height - 1);
    }
    return servers;
}

// What renderBands() measured.
struct BandsResult {
    std::uint64_t bytes = 0;
    // From the first band's request to the first rows back.
    double firstRowsSeconds = 0.0;
};

// Renders every band on its server, each on a thread of its own, into frameRgb. The first band
// that fails, or the end of the Slurm step, ends the frame: every server is stopped and every
// connection shut, the threads are joined and the failure is thrown, naming its node.
BandsResult renderBands(const Options& options, Farm& farm, std::vector<Server>& servers,
                        std::vector<std::uint8_t>& frameRgb) {
    const std::uint64_t pixels = std::uint64_t(options.width) * options.height;
    std::atomic<std::uint64_t> pixelsDone{0};
    std::atomic<std::int64_t> firstRowsMicros{-1};
    FirstFailure failure;
    std::vector<std::future<std::uint64_t>> bands;
    const auto start = Clock::now();
    for (Server& server : servers) {
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
                                       Clock::now() - start)
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
    ProgressBar bar(pixels);
    for (bool done = false; !done && !failure.failed();) {
        done = true;
        for (auto& band : bands) {
            done =
                done && band.wait_for(std::chrono::milliseconds(50)) == std::future_status::ready;
        }
        if (!done) {
            if (const std::optional<NodeFailure> ended = farm.stepFailure(0.0)) {
                failure.set(ended->node(), ended->what());
            }
        }
        if (!failure.failed()) {
            bar.show(done ? pixels : pixelsDone.load(), secondsSince(start));
        }
    }
    if (failure.failed()) {
        bar.abandon();
        // A band cut off in a Slurm step is most often the echo of a task that ended (its
        // service and servers go with it): srun names that task's node.
        if (const std::optional<NodeFailure> ended = farm.stepFailure(kStepReportSeconds);
            ended && ended->node()) {
            failure.set(ended->node(), ended->what(), true);
        }
        // Said at once: stopping the servers takes a while when one of them hangs. (Not when
        // the failure is the interrupt's doing.)
        if (!g_interrupted.load()) {
            std::fprintf(stderr, "klClusterRender: %s\n", failure.get().what());
        }
        farm.stopServers(true, failure.get().node());
        // Whatever a stopped server still had on the way is of no use: end every wait now.
        for (Server& server : servers) {
            server.started.stream->shutdown();
        }
    }
    BandsResult result;
    for (auto& band : bands) {
        result.bytes += band.get();
    }
    if (failure.failed()) {
        const NodeFailure failed = failure.get();
        throw NodeFailure(failed.node(), failed.what(), true);
    }
    result.firstRowsSeconds = double(firstRowsMicros.load()) / 1e6;
    return result;
}

int render(const Options& options, const klSlurmJob* job) {
    Farm farm(options, job);
    const FarmRegistration registration(farm);
    std::vector<Server> servers;
    try {
        klRenderRequest frame = klRenderRequest::defaultFrame(options.width, options.height);
        frame.maxIterations = options.iterations;
        const auto startBegin = Clock::now();
        servers = startServers(options, farm, frame);
        const double startSeconds = secondsSince(startBegin);
        klNetServiceStatus status;
        try {
            status = farm.service(0).status();
        } catch (const std::exception& e) {
            throw NodeFailure(0, "node " + farm.label(0) + ": no status: " + e.what());
        }

        const std::uint64_t pixels = std::uint64_t(options.width) * options.height;
        std::vector<std::uint8_t> frameRgb(pixels * 3);
        const auto start = Clock::now();
        const double sinceProgramStart = secondsSince(kProgramStart);
        const BandsResult bands = renderBands(options, farm, servers, frameRgb);
        const double seconds = secondsSince(start);
        writePng(options.output, options.width, options.height, frameRgb);

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
                    joined(status.getBookingIds()).c_str());
        std::printf("  node memory      %.1f GiB free\n",
                    double(servers.front().started.freeMemory) / double(1ull << 30));
        std::printf("  time             %.3f s\n", seconds);
        std::printf("  pixels/s         %.2f M\n", double(pixels) / seconds / 1e6);
        std::printf("  bytes received   %" PRIu64 " (%.1f MB/s)\n", bands.bytes,
                    double(bands.bytes) / seconds / 1e6);
    } catch (const NodeFailure& e) {
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
    Options options = parseOptions(argc, argv);
    ::signal(SIGPIPE, SIG_IGN);
    const klSignalWatcher signals(interrupt, true);
    std::string failure;
    bool failed = false;
    try {
        std::optional<klSlurmJob> job;
        if (options.slurm) {
            job = klSlurmJob::current();
        }
        settleServers(options, job ? job->nodes().size() : options.nodes.size());
        render(options, job ? &*job : nullptr);
    } catch (const NodeFailure& e) {
        failed = true;
        failure = e.reported() ? "" : e.what();
    } catch (const std::exception& e) {
        failed = true;
        failure = e.what();
    }
    // After an interrupt this waits for the watcher, which ends the process.
    const std::lock_guard<std::mutex> ending(g_ending);
    if (!failure.empty()) {
        std::fprintf(stderr, "klClusterRender: %s\n", failure.c_str());
    }
    return failed ? 1 : 0;
}
