// klClusterRender: renders one frame on render servers that cluster services start.
//
// Without --nodes it starts a KALDClusterService of its own on a loopback port (the one found
// beside this program), asks it for render servers, gives each server a band of the frame's rows,
// draws a progress bar while the pixels arrive, writes the frame as a PNG, prints a report, stops
// the servers by their booking id and stops the service. With --nodes (or --nodes-file) it uses the
// services given instead, one server on each node unless --servers asks for more, taken in turn,
// and leaves the services running.
//
// A node that fails mid-frame (its server or service dies, its connection breaks) ends the run at
// once with one line naming the node: the servers of the other nodes are stopped by the booking id
// and the connections to them are shut, so nothing waits for pixels that will never come.
#include <klNetBase/klNetBase.h>
#include <klNetBase/service/klNetServiceStatus.h>

#include <klCommandLine.h>
#include <klLocalService.h>
#include <klRenderProtocol.h>
#include <klServiceClient.h>

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
#include <string>
#include <thread>
#include <vector>

namespace {

using Clock = std::chrono::steady_clock;

constexpr double kServiceStopSeconds = 30.0;
// Stopping servers after a failure must not wait long for a node that is gone.
constexpr double kStopConnectSeconds = 5.0;

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
                       "render servers to start (default 2; with nodes one per node, and at "
                       "least one per node)")
            ->type_name("N")
            ->check(klCommandLine::integer(1, 64));
    app.add_option("--output", options.output, "PNG file to write (default frame.png)")
        ->type_name("PATH");
    std::vector<std::string> lists, files;
    app.add_option("--key-file", options.keyFile,
                   "the farm key: seal every connection with it (and give it to the loopback "
                   "service without --nodes)")
        ->type_name("PATH");
    app.add_option("--nodes", lists,
                   "services to use, host[:port] separated by commas (repeatable); the frame "
                   "is split over all of them")
        ->type_name("LIST")
        ->allow_extra_args(false);
    app.add_option("--nodes-file", files,
                   "services to use, one host[:port] a line ('#' starts a comment; repeatable)")
        ->type_name("FILE")
        ->allow_extra_args(false);
    app.footer(
        "A progress bar is drawn on a terminal; into a file or pipe a line is written every "
        "tenth of the frame.\n\n"
        "Exit status: 0 done, 1 the render failed (one line on standard error, naming the node "
        "that failed), 2 bad command line.");
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
    if (!options.nodes.empty()) {
        if (options.nodes.size() > 64) {
            usageError("more than 64 nodes");
        }
        if (!options.serversGiven) {
            options.servers = int(options.nodes.size());
        } else if (std::size_t(options.servers) < options.nodes.size()) {
            usageError("--servers " + std::to_string(options.servers) +
                       " leaves nodes without work (" + std::to_string(options.nodes.size()) +
                       " nodes)");
        }
    }
    if (std::uint32_t(options.servers) > options.height) {
        usageError("more servers than rows");
    }
    return options;
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
std::string nodeName(const klServiceClient& service) {
    const std::string& host = service.getHost();
    return (host.find(':') != std::string::npos ? "[" + host + "]" : host) + ":" +
           std::to_string(service.getPort());
}

std::string joined(const std::vector<std::string>& texts) {
    std::string all;
    for (const auto& text : texts) {
        all += (all.empty() ? "" : ", ") + (text.empty() ? std::string("(none)") : text);
    }
    return all.empty() ? "-" : all;
}

// A failure of one node: the text names it.
class NodeFailure : public std::runtime_error {
public:
    NodeFailure(const klServiceClient& service, const std::string& text)
        : std::runtime_error(text), m_service(&service) {}
    const klServiceClient& service() const { return *m_service; }

private:
    const klServiceClient* m_service;
};

// One render server at work on a band of rows.
struct Server {
    const klServiceClient* service;
    klServiceClient::StartResult started;
    klRenderRequest band;
};

// The first band to fail, as told by the band threads; later failures (the other bands, cut off
// when the servers are stopped) are not kept.
class FirstFailure {
public:
    // Thread-safe.
    void set(const klServiceClient& service, const std::string& cause) {
        std::lock_guard<std::mutex> lock(m_mutex);
        if (m_service == nullptr) {
            m_service = &service;
            m_text = "node " + nodeName(service) + " failed mid-frame: " + cause;
            m_failed.store(true);
        }
    }
    bool failed() const { return m_failed.load(); }
    // Once failed() is true: the node that failed and the error naming it.
    const klServiceClient* service() const {
        std::lock_guard<std::mutex> lock(m_mutex);
        return m_service;
    }
    std::string text() const {
        std::lock_guard<std::mutex> lock(m_mutex);
        return m_text;
    }

private:
    mutable std::mutex m_mutex;
    std::atomic<bool> m_failed{false};
    // Guarded by m_mutex.
    const klServiceClient* m_service = nullptr;
    std::string m_text;
};

// The services of the run and the booking id its servers are started with. stopServers() stops
// them on every node: after a failure quietly on the failed node, whose service may be gone.
class Farm {
public:
    explicit Farm(const Options& options)
        : m_bookingId("klClusterRender-" + std::to_string(::getpid())) {
        if (options.nodes.empty()) {
            std::printf("Starting a cluster service on loopback ...\n");
            // A service of this run alone: as many servers as the run asks for.
            // Its log says only what goes wrong: the report below says what was done.
            std::vector<std::string> arguments{"--max-servers", std::to_string(options.servers),
                                               "--log-level", "warning"};
            if (!options.keyFile.empty()) {
                arguments.insert(arguments.end(), {"--key-file", options.keyFile});
            }
            m_local.emplace(arguments);
            m_services.emplace_back("127.0.0.1", m_local->port());
            std::printf("  KALDClusterService listening on 127.0.0.1:%d\n", m_local->port());
        } else {
            for (const auto& [host, port] : options.nodes) {
                m_services.emplace_back(host, port);
            }
        }
        if (!options.keyFile.empty()) {
            const auto sealer =
                std::make_shared<klNetFarmSealer>(klNetFarmKey::load(options.keyFile));
            for (klServiceClient& service : m_services) {
                service.setSealer(sealer);
            }
        }
    }

    const std::string& bookingId() const { return m_bookingId; }
    const std::vector<klServiceClient>& services() const { return m_services; }

    // Once per run; later calls do nothing.
    void stopServers(const klServiceClient* failed = nullptr) {
        if (m_serversStopped) {
            return;
        }
        m_serversStopped = true;
        for (const klServiceClient& configured : m_services) {
            klServiceClient service = configured;
            service.setConnectTimeout(kStopConnectSeconds);
            try {
                service.stopBooking(m_bookingId);
            } catch (const std::exception& e) {
                if (&configured != failed) {
                    std::fprintf(stderr, "klClusterRender: stopping servers on %s: %s\n",
                                 nodeName(service).c_str(), e.what());
                }
            }
        }
    }

    // Stops the service of our own, if there is one.
    void stopLocalService() {
        if (!m_local) {
            return;
        }
        m_services.front().stopService();
        if (!m_local->waitForExit(kServiceStopSeconds)) {
            throw std::runtime_error("the cluster service did not stop");
        }
        std::printf("Cluster service stopped\n");
    }

private:
    std::string m_bookingId;
    std::optional<klLocalService> m_local;
    std::vector<klServiceClient> m_services;
    bool m_serversStopped = false;
};

// Server i gets rows [H * i / n, H * (i + 1) / n) and runs on node i modulo the node count.
std::vector<Server> startServers(const Options& options, const Farm& farm,
                                 const klRenderRequest& frame) {
    klServiceClient::StartRequest request;
    request.bookingId = farm.bookingId();
    std::vector<Server> servers;
    for (int i = 0; i < options.servers; ++i) {
        const klServiceClient& service = farm.services()[std::size_t(i) % farm.services().size()];
        klRenderRequest band = frame;
        band.y0 = std::uint32_t(std::uint64_t(frame.imageHeight) * unsigned(i) /
                                unsigned(options.servers));
        band.height = std::uint32_t(std::uint64_t(frame.imageHeight) * unsigned(i + 1) /
                                    unsigned(options.servers)) -
                      band.y0;
        try {
            servers.push_back({&service, service.startServer(request), band});
        } catch (const std::exception& e) {
            throw NodeFailure(service, "node " + nodeName(service) +
                                           ": cannot start a render server: " + e.what());
        }
        std::printf("  server %" PRIu32 " started on %s for rows %" PRIu32 "-%" PRIu32 "\n",
                    servers.back().started.serverId, nodeName(service).c_str(), band.y0,
                    band.y0 + band.height - 1);
    }
    return servers;
}

// Renders every band on its server, each on a thread of its own, into frameRgb. The first band
// that fails ends the frame: every server is stopped and every connection shut, the threads are
// joined and the failure is thrown, naming its node. Returns the bytes received.
std::uint64_t renderBands(const Options& options, Farm& farm, std::vector<Server>& servers,
                          std::vector<std::uint8_t>& frameRgb) {
    const std::uint64_t pixels = std::uint64_t(options.width) * options.height;
    std::atomic<std::uint64_t> pixelsDone{0};
    FirstFailure failure;
    std::vector<std::future<std::uint64_t>> bands;
    const auto start = Clock::now();
    for (Server& server : servers) {
        bands.push_back(std::async(std::launch::async, [&] {
            try {
                std::size_t rowsSeen = 0;
                const auto rgb = klRenderClient::render(
                    *server.started.stream, server.band, [&](std::size_t rows) {
                        pixelsDone += std::uint64_t(rows - rowsSeen) * options.width;
                        rowsSeen = rows;
                    });
                std::memcpy(frameRgb.data() + std::size_t(server.band.y0) * options.width * 3,
                            rgb.data(), rgb.size());
                return server.started.stream->getRecevedBytes();
            } catch (const std::exception& e) {
                failure.set(*server.service, e.what());
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
        if (!failure.failed()) {
            bar.show(done ? pixels : pixelsDone.load(), secondsSince(start));
        }
    }
    if (failure.failed()) {
        bar.abandon();
        farm.stopServers(failure.service());
        // Whatever a stopped server still had on the way is of no use: end every wait now.
        for (Server& server : servers) {
            server.started.stream->shutdown();
        }
    }
    std::uint64_t bytes = 0;
    for (auto& band : bands) {
        bytes += band.get();
    }
    if (failure.failed()) {
        throw NodeFailure(*failure.service(), failure.text());
    }
    return bytes;
}

int render(const Options& options) {
    Farm farm(options);
    std::vector<Server> servers;
    try {
        klRenderRequest frame = klRenderRequest::defaultFrame(options.width, options.height);
        frame.maxIterations = options.iterations;
        const auto startBegin = Clock::now();
        servers = startServers(options, farm, frame);
        const double startSeconds = secondsSince(startBegin);
        const klServiceClient& first = farm.services().front();
        klNetServiceStatus status;
        try {
            status = first.status();
        } catch (const std::exception& e) {
            throw NodeFailure(first, "node " + nodeName(first) + ": no status: " + e.what());
        }

        const std::uint64_t pixels = std::uint64_t(options.width) * options.height;
        std::vector<std::uint8_t> frameRgb(pixels * 3);
        const auto start = Clock::now();
        const std::uint64_t bytes = renderBands(options, farm, servers, frameRgb);
        const double seconds = secondsSince(start);
        writePng(options.output, options.width, options.height, frameRgb);

        std::printf("\nFrame %" PRIu32 "x%" PRIu32 " written to %s\n", options.width,
                    options.height, options.output.c_str());
        std::printf("  servers          %zu on %zu node(s) (booking id %s)\n", servers.size(),
                    farm.services().size(), farm.bookingId().c_str());
        std::printf("  start            %zu servers in %.3f s\n", servers.size(), startSeconds);
        std::printf("  service          version %s, %d servers running, bookings: %s\n",
                    status.getVersion().c_str(), status.getNumberOfClusterServers(),
                    joined(status.getBookingIds()).c_str());
        std::printf("  node memory      %.1f GiB free\n",
                    double(servers.front().started.freeMemory) / double(1ull << 30));
        std::printf("  time             %.3f s\n", seconds);
        std::printf("  pixels/s         %.2f M\n", double(pixels) / seconds / 1e6);
        std::printf("  bytes received   %" PRIu64 " (%.1f MB/s)\n", bytes,
                    double(bytes) / seconds / 1e6);
    } catch (const NodeFailure& e) {
        // The failed node's service may be gone: not worth a word when it cannot stop anything.
        servers.clear();
        farm.stopServers(&e.service());
        throw;
    } catch (...) {
        servers.clear();
        farm.stopServers();
        throw;
    }
    servers.clear();
    farm.stopServers();
    std::printf("Servers stopped (booking id %s)\n", farm.bookingId().c_str());
    farm.stopLocalService();
    return 0;
}

}  // namespace

int main(int argc, char** argv) {
    const Options options = parseOptions(argc, argv);
    ::signal(SIGPIPE, SIG_IGN);
    try {
        return render(options);
    } catch (const std::exception& e) {
        std::fprintf(stderr, "klClusterRender: %s\n", e.what());
        return 1;
    }
}
