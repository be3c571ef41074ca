#include "klRenderFarm.h"

#include "klRenderClock.h"
#include "klTextList.h"

#include <klPlatform.h>

#include <klNetBase/codecs/klNetFarmKey.h>
#include <klNetBase/codecs/klNetFarmSealer.h>
#include <klNetBase/link/klNetNodeNames.h>

#include <unistd.h>

#include <algorithm>
#include <cstdio>
#include <future>
#include <mutex>
#include <stdexcept>

namespace {

constexpr double kServiceStopSeconds = 30.0;
// Stopping servers after a failure must not wait long for a node that is gone.
constexpr double kStopConnectSeconds = 5.0;
// srun may have to wait for the step's resources and start a task on every node.
constexpr double kStepStartSeconds = 60.0;
// A step whose input has closed ends as its services stop their servers.
constexpr double kStepEndSeconds = 10.0;
// After a failure the step is ended at once: its services get little time to stop.
constexpr double kStepAbortSeconds = 3.0;

// "host:port", with brackets around an IPv6 address.
std::string address(const std::string& host, int port) {
    return (host.find(':') != std::string::npos ? "[" + host + "]" : host) + ":" +
           std::to_string(port);
}

}  // namespace

klRenderFarm::klRenderFarm(const klRenderOptions& options, const klSlurmJob* job)
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

std::optional<klNodeFailure> klRenderFarm::stepFailure(double seconds) const {
    if (!m_step) {
        return std::nullopt;
    }
    const std::optional<klSlurmStep::Failure> failure = m_step->failure(seconds);
    if (!failure) {
        return std::nullopt;
    }
    for (std::size_t node = 0; node < m_nodes.size(); ++node) {
        if (m_nodes[node].slurmName == failure->node) {
            return klNodeFailure(node,
                                 "node " + label(node) + " failed mid-frame: " + failure->text);
        }
    }
    return klNodeFailure(std::nullopt,
                         "the Slurm step " + stepId() + " ended mid-frame: " + failure->text);
}

klServiceClient::StartResult klRenderFarm::startServer(
    std::size_t node, const klServiceClient::StartRequest& request) {
    std::shared_lock<std::shared_mutex> lock(m_bookingLock);
    if (m_serversStopped) {
        throw std::runtime_error("the servers were stopped");
    }
    return m_nodes[node].client.startServer(request);
}

void klRenderFarm::stopServers(bool afterFailure, std::optional<std::size_t> failed) {
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

void klRenderFarm::stopServices() {
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

void klRenderFarm::startLocal(const klRenderOptions& options) {
    std::printf("Starting a cluster service on loopback ...\n");
    // A service of this run alone: as many servers as the run asks for.
    // Its log says only what goes wrong: the report below says what was done.
    m_local.emplace(std::vector<std::string>{"--max-servers", std::to_string(options.servers),
                                             "--log-level", "warning"});
    const std::string label = address(klLocalService::host(), m_local->port());
    m_nodes.push_back({klServiceClient(klLocalService::host(), m_local->port()), label, ""});
    std::printf("  KALDClusterService listening on %s\n", label.c_str());
}

void klRenderFarm::startStep(const klRenderOptions& options, const klSlurmJob& job,
                             const klNetFarmKey& key) {
    const auto begin = klRenderClock::now();
    std::printf("Starting cluster services on the %zu node(s) of Slurm job %s: %s ...\n",
                job.nodes().size(), job.id().c_str(), klJoined(job.names()).c_str());
    const std::size_t perNode =
        (std::size_t(options.servers) + job.nodes().size() - 1) / job.nodes().size();
    const std::vector<std::string> command{klPlatform::getBinDir() + "/KALDClusterService",
                                           "--port", "0", "--no-console", "--max-servers",
                                           std::to_string(perNode), "--log-level", "warning",
                                           "--key-file", "-", "--stop-on-stdin-close",
                                           // scancel's SIGTERM stops it at once, and the node's
                                           // own configuration is not this service's.
                                           "--drain-timeout", "0", "--config", ""};
    m_step = std::make_unique<klSlurmStep>(
        job.names(), std::vector<std::string>{"--job-name=KALDClusterService"}, command, key.data(),
        klNetFarmKey::kSize);
    const std::vector<klSlurmOutput::Task> tasks = m_step->waitForTasks(kStepStartSeconds);
    // Every rank names a node of the allocation, each a different one: all are there.
    for (const klSlurmJob::Node& node : job.nodes()) {
        const auto task = std::find_if(tasks.begin(), tasks.end(), [&node](const auto& task) {
            return task.node == node.name;
        });
        m_nodes.push_back({klServiceClient(node.address, task->port),
                           node.name + " (" + address(node.address, task->port) + ")", node.name});
        // Reached by its address, the service is meant by its Slurm node name.
        m_nodes.back().client.setNodeName(klNetNodeNames::nameOf(node.name, task->port));
        std::printf("  KALDClusterService on %s\n", m_nodes.back().label.c_str());
    }
    m_servicesSeconds = klSecondsSince(begin);
    std::printf("  Slurm step %s: %zu services listening after %.2f s\n", stepId().c_str(),
                m_nodes.size(), m_servicesSeconds);
}
