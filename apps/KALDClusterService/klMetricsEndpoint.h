// klMetricsEndpoint: the cluster service daemon's HTTP endpoint for the farm's monitoring.
//
//   GET /metrics   the service's metrics in Prometheus' text format (klnet_* families)
//   GET /servers   the servers running here as JSON:
//                  {"servers":[{"serverId":1,"bookingId":"b1","pid":4242,"client":"10.1.0.7",
//                               "started":"2026-11-25T15:00:00Z","state":"running"}]}
//                  (state "running" or "stopping")
// Anything else is answered 404. The endpoint only reads: it starts, stops and changes nothing.
// It is served by civetweb on threads of its own, serving one connection at a time per thread.
//
// Thread safety: constructed and destroyed on one thread; the service it reads must outlive it.
#pragma once

#include <string>

class klNetService;
struct mg_context;

class klMetricsEndpoint {
public:
    // Listens on address "HOST:PORT" (HOST an IPv4 address or a bracketed IPv6 one, PORT 0 for
    // one the system chooses). Failure throws std::runtime_error with civetweb's reason.
    klMetricsEndpoint(klNetService& service, const std::string& address);
    // Stops listening and waits for requests in progress.
    ~klMetricsEndpoint();
    klMetricsEndpoint(const klMetricsEndpoint&) = delete;
    klMetricsEndpoint& operator=(const klMetricsEndpoint&) = delete;

    // The port listened on.
    int port() const { return m_port; }

    // The bodies of the two answers, as they are served.
    static std::string metricsText(klNetService& service);
    static std::string serversJson(klNetService& service);

private:
    klNetService& m_service;
    mg_context* m_context = nullptr;
    int m_port = 0;
};
