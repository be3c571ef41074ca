// klRenderOptions: the command line of klClusterRender, parsed and checked.
//
// parse() reads the options and the node lists (--nodes, --nodes-file: host, host:port, [v6] or
// [v6]:port, or a bare IPv6 address; the port defaults to the service's). --help and --version
// end the program there; a bad command line ends it with one line naming what is wrong and
// status 2, as every program here does.
//
// Thread safety: a value type; parse() and settleServers() on the main thread (both may end the
// process).
#pragma once

#include <cstddef>
#include <cstdint>
#include <string>
#include <utility>
#include <vector>

struct klRenderOptions {
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

    static klRenderOptions parse(int argc, char** argv);
    // Settles the server count once the node count is known (the --slurm nodes only show then).
    void settleServers(std::size_t nodes);
};
