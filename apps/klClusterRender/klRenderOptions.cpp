#include "klRenderOptions.h"

#include "klPngFile.h"
#include "klSlurmJob.h"

#include <klNetBase/core/klNetOptions.h>

#include <klCommandLine.h>
#include <klRenderProtocol.h>

#include <algorithm>
#include <cstdlib>
#include <fstream>
#include <optional>
#include <regex>

namespace {

constexpr int kMaxServers = 256;
constexpr std::size_t kMaxNodes = 128;

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

void addNodesFromFile(const std::string& path, klRenderOptions& options) {
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

}  // namespace

klRenderOptions klRenderOptions::parse(int argc, char** argv) {
    klRenderOptions options;
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
                       "render servers to start in all (default 2; with --nodes or --slurm one per "
                       "node; at least one per node)")
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
    // Checked before any service or server starts: a frame that cannot be written is not worth
    // rendering.
    if (const std::optional<std::string> why = klPngUnwritable(options.output)) {
        usageError("--output: cannot write '" + options.output + "': " + *why);
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

void klRenderOptions::settleServers(std::size_t nodes) {
    if (nodes > kMaxNodes) {
        usageError("more than " + std::to_string(kMaxNodes) + " nodes");
    }
    if (nodes > 0) {
        if (!serversGiven) {
            servers = int(nodes);  // every server renders on all of its node's cores
        } else if (std::size_t(servers) < nodes) {
            usageError("--servers " + std::to_string(servers) + " leaves nodes without work (" +
                       std::to_string(nodes) + " nodes)");
        }
    }
    if (std::uint32_t(servers) > height) {
        usageError("more servers than rows");
    }
}
