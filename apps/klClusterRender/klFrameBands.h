// klFrameBands: a frame split into bands of rows, one band on each render server of the farm:
// starting the servers, all at once, and rendering the bands, each on a thread of its own, into
// the frame.
//
// The first failure ends the frame at once: a server that cannot start, a band that breaks off, a
// server that sends nothing for the stall time-out, or (with --slurm) the end of the step or of
// one of its tasks. Whatever fails is thrown as a klNodeFailure naming its node.
//
// Thread safety: klStartBandServers() and klRenderBands() on the main thread; the threads they
// start are joined before they return.
#pragma once

#include "klNodeFailure.h"
#include "klRenderFarm.h"
#include "klRenderOptions.h"

#include <klRenderProtocol.h>
#include <klServiceClient.h>

#include <atomic>
#include <cstddef>
#include <cstdint>
#include <vector>

// One render server at work on a band of rows.
struct klBandServer {
    std::size_t node;
    klServiceClient::StartResult started;
    klRenderRequest band;
};

// Server i gets rows [H * i / n, H * (i + 1) / n) and runs on node i modulo the node count. Every
// start request goes out at once, each on a thread of its own; all are waited for, so that a
// failure leaves no start on the way.
std::vector<klBandServer> klStartBandServers(const klRenderOptions& options, klRenderFarm& farm,
                                             const klRenderRequest& frame);

// What klRenderBands() measured.
struct klBandsResult {
    std::uint64_t bytes = 0;
    // From the first band's request to the first rows back.
    double firstRowsSeconds = 0.0;
};

// Renders every band on its server, each on a thread of its own, into frameRgb. The first band
// that fails, or the end of the Slurm step, ends the frame: every server is stopped and every
// connection shut, the threads are joined and the failure is thrown, naming its node. The failure
// is said on standard error at once, unless interrupted is set (the failure is then the signal
// watcher's doing: it stopped the servers).
klBandsResult klRenderBands(const klRenderOptions& options, klRenderFarm& farm,
                            std::vector<klBandServer>& servers, std::vector<std::uint8_t>& frameRgb,
                            const std::atomic<bool>& interrupted);
