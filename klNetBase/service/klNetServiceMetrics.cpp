// klNetService: what the service counts for its metrics, and the snapshot of them.
#include <klNetBase/service/klNetService.h>

#include <klNetBase/link/klBoundSocketLink.h>
#include <klNetBase/service/detail/klNetServiceAdmission.h>
#include <klNetBase/service/detail/klNetServiceInternals.h>

#include <netinet/in.h>
#include <netinet/tcp.h>
#include <sys/socket.h>

void klNetService::Histogram::add(double seconds) {
    for (std::size_t i = 0; i < kBounds.size(); ++i) {
        buckets[i] += seconds <= kBounds[i] ? 1 : 0;
    }
    ++count;
    sum += seconds;
}

void klNetService::countRefusal(const std::string& reason) {
    std::lock_guard<std::mutex> guard(m_metricsLock);
    ++m_metrics.refusals[reason];
}

void klNetService::countHandOff() {
    std::lock_guard<std::mutex> guard(m_metricsLock);
    ++m_metrics.handOffs;
}

void klNetService::countServerEnd(bool killed) {
    std::lock_guard<std::mutex> guard(m_metricsLock);
    ++(killed ? m_metrics.serversKilled : m_metrics.serversExited);
}

void klNetService::countDuration(std::uint32_t command, double seconds) {
    std::lock_guard<std::mutex> guard(m_metricsLock);
    m_metrics.durations[command <= kLastCommand ? command : 0].add(seconds);
}

int klNetService::acceptQueueLength() {
    std::shared_ptr<klBoundSocketLink> listener;
    {
        std::lock_guard<std::mutex> guard(m_listenerLock);
        listener = m_listener;
    }
    if (!listener) {
        return 0;
    }
    // For a listening socket, Linux reports the connections accepted by the system and not yet
    // by the program as its unacknowledged count.
    tcp_info info{};
    socklen_t size = sizeof(info);
    if (::getsockopt(listener->getDescriptor(), IPPROTO_TCP, TCP_INFO, &info, &size) != 0 ||
        info.tcpi_state != TCP_LISTEN) {
        return 0;
    }
    return int(info.tcpi_unacked);
}

klNetService::Metrics klNetService::metrics() {
    const int running = serverCount();
    int waiting = acceptQueueLength();
    int relaysOpen, inFlight;
    {
        std::lock_guard<std::mutex> guard(m_requestLock);
        relaysOpen = m_activeRelays;
        inFlight = m_activeRequests;
        if (m_admission != nullptr) {
            waiting += int(m_admission->waiting());
        }
    }
    std::lock_guard<std::mutex> guard(m_metricsLock);
    Metrics metrics = m_metrics;
    metrics.serversRunning = running;
    metrics.serversStarted = m_lastServerId;
    metrics.relaysOpen = relaysOpen;
    metrics.bytesRelayed = m_bytesRelayed;
    metrics.requestsInFlight = inFlight;
    metrics.requestsWaiting = waiting;
    metrics.draining = m_draining;
    return metrics;
}
