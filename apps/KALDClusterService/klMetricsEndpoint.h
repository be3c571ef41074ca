// klMetricsEndpoint: the cluster service daemon's HTTP endpoint for the farm's monitoring.
//
//   GET /metrics   the service's metrics in Prometheus' text format (klnet_* families, and the
//                  process_* families of this process)
//   GET /servers   the servers running here as JSON, and whether the service drains:
//                  {"servers":[{"serverId":1,"bookingId":"b1","pid":4242,"client":"10.1.0.7",
//                               "started":"2026-11-25T15:00:00Z","state":"running"}],
//                   "draining":false}
//                  (state "running" or "stopping")
//   GET /healthz   liveness: 200 "ok" while the process serves HTTP at all
//   GET /ready     readiness: 200 "ready" when the service takes new work, else 503 and the reason
//                  ("not ready: draining")
// Anything else is answered 404. The endpoint only reads: it starts, stops and changes nothing.
// It is served by klHttpListener, on two threads of its own.
//
// Thread safety: constructed and destroyed on one thread; the service it reads must outlive it,
// and the readiness check must be callable from any thread.
#pragma once

#include "klHttpListener.h"

#include <functional>
#include <memory>
#include <string>

class klNetService;

class klMetricsEndpoint {
public:
    // Why the service does not take new work now, or "" when it does.
    using Readiness = std::function<std::string()>;

    // Listens on address "HOST:PORT" (HOST an IPv4 address or a bracketed IPv6 one, PORT 0 for
    // one the system chooses). Failure throws std::runtime_error with the reason.
    klMetricsEndpoint(klNetService& service, const std::string& address, Readiness readiness);
    ~klMetricsEndpoint();
    klMetricsEndpoint(const klMetricsEndpoint&) = delete;
    klMetricsEndpoint& operator=(const klMetricsEndpoint&) = delete;

    // The port listened on.
    int port() const { return m_listener->port(); }

    // The bodies of the two answers, as they are served.
    static std::string metricsText(klNetService& service);
    static std::string serversJson(klNetService& service);

private:
    std::unique_ptr<klHttpListener> m_listener;
};
