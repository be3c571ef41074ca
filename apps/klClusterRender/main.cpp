// klClusterRender: renders one frame on render servers that cluster services start.
//
// Without --nodes it starts a KALDClusterService of its own on a loopback port (the one found
// beside this program), asks it for render servers, gives each server a band of the frame's rows,
// draws a progress bar while the pixels arrive, writes the frame as a PNG, prints a report, stops
// the servers by their booking id and stops the service. With --nodes it uses the services given
// instead, starting servers on them in turn, and leaves the services running.
#include <klNetBase/klNetBase.h>
#include <klNetBase/service/klNetServiceStatus.h>

#include <klLocalService.h>
#include <klRenderProtocol.h>
#include <klServiceClient.h>
#include <klVersionInfo.h>

#include <getopt.h>
#include <png.h>
#include <signal.h>
#include <unistd.h>

#include <atomic>
#include <chrono>
#include <cinttypes>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <future>
#include <memory>
#include <optional>
#include <sstream>
#include <string>
#include <thread>
#include <vector>

namespace {

using Clock = std::chrono::steady_clock;

constexpr double kServiceStopSeconds = 30.0;

double secondsSince(Clock::time_point start) {
    return std::chrono::duration<double>(Clock::now() - start).count();
}

struct Options {
    std::uint32_t width = 1920;
    std::uint32_t height = 1080;
    std::uint32_t iterations = 500;
    int servers = 2;
    std::string output = "frame.png";
    std::vector<std::pair<std::string, int>> nodes;
};

[[noreturn]] void usageError(const std::string& text) {
    std::fprintf(stderr, "klClusterRender: %s (see --help)\n", text.c_str());
    std::exit(2);
}

void printHelp() {
    std::printf(
        "Usage: klClusterRender [options]\n"
        "Renders one frame of the Mandelbrot set on render servers started by cluster services\n"
        "and writes it as a PNG.\n\n"
        "  --width N          frame width in pixels (default 1920)\n"
        "  --height N         frame height in pixels (default 1080)\n"
        "  --iterations N     most iterations per pixel (default 500)\n"
        "  --servers N        render servers to start (default 2)\n"
        "  --output PATH      PNG file to write (default frame.png)\n"
        "  --nodes LIST       services to use, host[:port] separated by commas (default: start\n"
        "                     a service on a loopback port and stop it afterwards)\n"
        "  --help             this text\n");
}

std::uint32_t positive(const char* name, const char* text, std::uint32_t max) {
    char* end = nullptr;
    const unsigned long value = std::strtoul(text, &end, 10);
    if (*text == '\0' || *end != '\0' || text[0] == '-' || value == 0 || value > max) {
        usageError(std::string("--") + name + " takes a number from 1 to " +
                   std::to_string(max) + ", not '" + text + "'");
    }
    return std::uint32_t(value);
}

Options parseOptions(int argc, char** argv) {
    static const option longOptions[] = {
        {"width", required_argument, nullptr, 'w'},   {"height", required_argument, nullptr, 'h'},
        {"iterations", required_argument, nullptr, 'i'},
        {"servers", required_argument, nullptr, 's'}, {"output", required_argument, nullptr, 'o'},
        {"nodes", required_argument, nullptr, 'n'},   {"help", no_argument, nullptr, 'H'},
        {nullptr, 0, nullptr, 0}};
    Options options;
    opterr = 0;
    int c;
    while ((c = ::getopt_long(argc, argv, "", longOptions, nullptr)) != -1) {
        switch (c) {
            case 'w': options.width = positive("width", optarg, 65536); break;
            case 'h': options.height = positive("height", optarg, 65536); break;
            case 'i': options.iterations = positive("iterations", optarg, 100000); break;
            case 's': options.servers = int(positive("servers", optarg, 64)); break;
            case 'o': options.output = optarg; break;
            case 'n': {
                std::stringstream list(optarg);
                std::string node;
                while (std::getline(list, node, ',')) {
                    if (node.empty()) {
                        usageError("--nodes has an empty entry");
                    }
                    std::string host;
                    int port = 0;
                    klSocketAddress::splitServerAndPort(node, host, port,
                                                        klNetOptions::getDefaultServicePort());
                    options.nodes.emplace_back(host, port);
                }
                break;
            }
            case 'H': printHelp(); std::exit(0);
            default:
                usageError(optopt != 0 ? std::string("unknown option or missing value for '-") +
                                             char(optopt) + "'"
                                       : std::string("unknown option '") + argv[optind - 1] + "'");
        }
    }
    if (optind < argc) {
        usageError(std::string("unexpected argument '") + argv[optind] + "'");
    }
    if (std::uint64_t(options.width) * options.height > klRenderRequest::kMaxPixels) {
        usageError("a frame of more than 67108864 pixels");
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
                        std::string(std::size_t(filled), '#').c_str(), fraction * 100,
                        rate / 1e6);
            if (done == m_total) {
                std::printf("\n");
            }
        } else if (int(fraction * 10) != m_lastTenth) {
            m_lastTenth = int(fraction * 10);
            std::printf("  rendering %3d%%  %7.2f Mpixel/s\n", m_lastTenth * 10, rate / 1e6);
        }
        std::fflush(stdout);
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

struct Server {
    const klServiceClient* service;
    klServiceClient::StartResult started;
    klRenderRequest band;
};

std::string joined(const std::vector<std::string>& texts) {
    std::string all;
    for (const auto& text : texts) {
        all += (all.empty() ? "" : ", ") + (text.empty() ? std::string("(none)") : text);
    }
    return all.empty() ? "-" : all;
}

int render(const Options& options) {
    std::optional<klLocalService> local;
    std::vector<klServiceClient> services;
    if (options.nodes.empty()) {
        std::printf("Starting a cluster service on loopback ...\n");
        local.emplace();
        services.emplace_back("127.0.0.1", local->port());
        std::printf("  KALDClusterService listening on 127.0.0.1:%d\n", local->port());
    } else {
        for (const auto& [host, port] : options.nodes) {
            services.emplace_back(host, port);
        }
    }
    const std::string bookingId = "klClusterRender-" + std::to_string(::getpid());
    const auto stopAll = [&] {
        for (const auto& service : services) {
            try {
                service.stopBooking(bookingId);
            } catch (const std::exception& e) {
                std::fprintf(stderr, "klClusterRender: stopping servers on %s: %s\n",
                             service.getHost().c_str(), e.what());
            }
        }
    };

    std::vector<Server> servers;
    try {
        klServiceClient::StartRequest startRequest;
        startRequest.bookingId = bookingId;
        const klRenderRequest frame =
            [&] {
                klRenderRequest r = klRenderRequest::defaultFrame(options.width, options.height);
                r.maxIterations = options.iterations;
                return r;
            }();
        for (int i = 0; i < options.servers; ++i) {
            const klServiceClient& service = services[std::size_t(i) % services.size()];
            klRenderRequest band = frame;
            band.y0 = std::uint32_t(std::uint64_t(frame.imageHeight) * unsigned(i) /
                                    unsigned(options.servers));
            band.height = std::uint32_t(std::uint64_t(frame.imageHeight) * unsigned(i + 1) /
                                        unsigned(options.servers)) -
                          band.y0;
            servers.push_back({&service, service.startServer(startRequest), band});
            std::printf("  server %" PRIu32 " started on %s:%d for rows %" PRIu32 "-%" PRIu32
                        "\n",
                        servers.back().started.serverId, service.getHost().c_str(),
                        service.getPort(), band.y0, band.y0 + band.height - 1);
        }
        const klNetServiceStatus status = services.front().status();

        const std::uint64_t pixels = std::uint64_t(options.width) * options.height;
        std::vector<std::uint8_t> frameRgb(pixels * 3);
        std::atomic<std::uint64_t> pixelsDone{0};
        std::vector<std::future<std::uint64_t>> bands;
        const auto start = Clock::now();
        for (Server& server : servers) {
            bands.push_back(std::async(std::launch::async, [&server, &pixelsDone, &frameRgb,
                                                            &options] {
                std::size_t rowsSeen = 0;
                const auto rgb = klRenderClient::render(
                    *server.started.stream, server.band, [&](std::size_t rows) {
                        pixelsDone += std::uint64_t(rows - rowsSeen) * options.width;
                        rowsSeen = rows;
                    });
                std::memcpy(frameRgb.data() + std::size_t(server.band.y0) * options.width * 3,
                            rgb.data(), rgb.size());
                return server.started.stream->getRecevedBytes();
            }));
        }
        ProgressBar bar(pixels);
        for (bool done = false; !done;) {
            done = true;
            for (auto& band : bands) {
                done = done && band.wait_for(std::chrono::milliseconds(50)) ==
                                   std::future_status::ready;
            }
            bar.show(done ? pixels : pixelsDone.load(), secondsSince(start));
        }
        std::uint64_t bytes = 0;
        for (auto& band : bands) {
            bytes += band.get();
        }
        const double seconds = secondsSince(start);
        writePng(options.output, options.width, options.height, frameRgb);

        std::printf("\nFrame %" PRIu32 "x%" PRIu32 " written to %s\n", options.width,
                    options.height, options.output.c_str());
        std::printf("  servers          %zu (booking id %s)\n", servers.size(), bookingId.c_str());
        std::printf("  service          version %s, %d servers running, bookings: %s\n",
                    status.getVersion().c_str(), status.getNumberOfClusterServers(),
                    joined(status.getBookingIds()).c_str());
        std::printf("  node memory      %.1f GiB free\n",
                    double(servers.front().started.freeMemory) / double(1ull << 30));
        std::printf("  time             %.3f s\n", seconds);
        std::printf("  pixels/s         %.2f M\n", double(pixels) / seconds / 1e6);
        std::printf("  bytes received   %" PRIu64 " (%.1f MB/s)\n", bytes,
                    double(bytes) / seconds / 1e6);
    } catch (...) {
        servers.clear();
        stopAll();
        throw;
    }
    servers.clear();
    stopAll();
    std::printf("Servers stopped (booking id %s)\n", bookingId.c_str());
    if (local) {
        services.front().stopService();
        if (!local->waitForExit(kServiceStopSeconds)) {
            throw std::runtime_error("the cluster service did not stop");
        }
        std::printf("Cluster service stopped\n");
    }
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
