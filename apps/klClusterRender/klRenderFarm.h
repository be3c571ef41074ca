// klRenderFarm: the services of a render run and the booking id its servers are started with: a
// loopback service of our own (KALDClusterService beside this program), the services of --nodes,
// or one service on every node of a Slurm allocation, started as one job step (klSlurmStep) and
// sealed with a key made for this run alone. stopServers() stops the servers on every node: after
// a failure quietly on the failed node, whose service may be gone.
//
// A start and the stop share a lock: a start is never left behind by a stop running at the same
// time, and a stop waits for the starts under way.
//
// Thread safety: startServer() and stopServers() from any thread (the signal watcher stops the
// servers of an interrupted run); the rest on the main thread.
#pragma once

#include "klNodeFailure.h"
#include "klRenderOptions.h"
#include "klSlurmJob.h"
#include "klSlurmStep.h"

#include <klLocalService.h>
#include <klServiceClient.h>

#include <cstddef>
#include <memory>
#include <optional>
#include <shared_mutex>
#include <string>
#include <vector>

class klNetFarmKey;

class klRenderFarm {
public:
    // Starts the services of the run (job: the Slurm allocation, with --slurm); throws
    // std::runtime_error when they cannot be started or the key cannot be read.
    klRenderFarm(const klRenderOptions& options, const klSlurmJob* job);

    klRenderFarm(const klRenderFarm&) = delete;
    klRenderFarm& operator=(const klRenderFarm&) = delete;

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
    std::optional<klNodeFailure> stepFailure(double seconds) const;

    // Starts a server of the booking on a node, unless the servers have been stopped already
    // (then throws): a start is never left behind by a stop running at the same time. Starts run
    // at once; a stop waits for those under way.
    klServiceClient::StartResult startServer(std::size_t node,
                                             const klServiceClient::StartRequest& request);

    // Once per run; later calls do nothing (once the first has done its work). failed: the node
    // that failed, after a failure (with --slurm every failure ends the step at once, which takes
    // every server along).
    void stopServers(bool afterFailure, std::optional<std::size_t> failed = std::nullopt);

    // Stops the service of our own or ends the Slurm step, if there is one.
    void stopServices();

private:
    struct Node {
        klServiceClient client;
        std::string label;
        std::string slurmName;
    };

    void startLocal(const klRenderOptions& options);
    // One service on every node, each on a port of the system's choosing (nodes may share a
    // machine), each reading the run's key from its standard input and stopping when that closes.
    void startStep(const klRenderOptions& options, const klSlurmJob& job, const klNetFarmKey& key);

    // Set up by the constructor.
    std::string m_bookingId;
    std::optional<klLocalService> m_local;
    std::unique_ptr<klSlurmStep> m_step;
    double m_servicesSeconds = 0.0;
    std::vector<Node> m_nodes;

    // Shared by starts under way, held alone by the stop.
    std::shared_mutex m_bookingLock;
    bool m_serversStopped = false;  // guarded by m_bookingLock
};
