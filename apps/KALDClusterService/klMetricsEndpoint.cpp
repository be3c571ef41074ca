#include "klMetricsEndpoint.h"

#include <klNetBase/service/klNetService.h>

#include <klLog.h>

#include <civetweb.h>
#include <nlohmann/json.hpp>

#include <ctime>
#include <sstream>
#include <stdexcept>

namespace {

using Metrics = klNetService::Metrics;

const char* const kOutcomeNames[] = {"succeeded", "failed", "timed-out"};

// One family's help and type lines.
void family(std::ostringstream& out, const char* name, const char* type, const char* help) {
    out << "# HELP " << name << ' ' << help << "\n# TYPE " << name << ' ' << type << '\n';
}

std::string isoTime(std::chrono::system_clock::time_point time) {
    const std::time_t seconds = std::chrono::system_clock::to_time_t(time);
    std::tm utc{};
    gmtime_r(&seconds, &utc);
    char text[32];
    std::strftime(text, sizeof(text), "%Y-%m-%dT%H:%M:%SZ", &utc);
    return text;
}

int answer(mg_connection* connection, const char* type, const std::string& body) {
    mg_printf(connection,
              "HTTP/1.1 200 OK\r\nContent-Type: %s\r\nContent-Length: %zu\r\n"
              "Cache-Control: no-store\r\nConnection: close\r\n\r\n",
              type, body.size());
    mg_write(connection, body.data(), body.size());
    return 200;
}

int serveMetrics(mg_connection* connection, void* service) {
    return answer(connection, "text/plain; version=0.0.4; charset=utf-8",
                  klMetricsEndpoint::metricsText(*static_cast<klNetService*>(service)));
}

int serveServers(mg_connection* connection, void* service) {
    return answer(connection, "application/json",
                  klMetricsEndpoint::serversJson(*static_cast<klNetService*>(service)));
}

// civetweb's own messages: while starting, on the starting thread, the reason it cannot; later
// on its threads, what went wrong with a request.
thread_local std::string* t_startFailure = nullptr;

int logMessage(const mg_connection*, const char* message) {
    if (t_startFailure != nullptr) {
        *t_startFailure = message;
    } else {
        klLog::warning("Metrics endpoint: %s\n", message);
    }
    return 1;
}

}  // namespace

klMetricsEndpoint::klMetricsEndpoint(klNetService& service, const std::string& address)
    : m_service(service) {
    mg_init_library(0);
    // Few threads and short time-outs: a monitoring endpoint, not a web server.
    const char* options[] = {
        "listening_ports", address.c_str(),     "num_threads", "2",    "request_timeout_ms",
        "10000",           "enable_keep_alive", "no",          nullptr};
    mg_callbacks callbacks{};
    callbacks.log_message = &logMessage;
    std::string failure = "unknown reason";
    t_startFailure = &failure;
    m_context = mg_start(&callbacks, nullptr, options);
    t_startFailure = nullptr;
    if (m_context == nullptr) {
        mg_exit_library();
        throw std::runtime_error("cannot serve metrics on " + address + ": " + failure);
    }
    mg_set_request_handler(m_context, "/metrics$", &serveMetrics, &m_service);
    mg_set_request_handler(m_context, "/servers$", &serveServers, &m_service);
    mg_server_port ports[1]{};
    if (mg_get_server_ports(m_context, 1, ports) == 1) {
        m_port = ports[0].port;
    }
}

klMetricsEndpoint::~klMetricsEndpoint() {
    mg_stop(m_context);
    mg_exit_library();
}

std::string klMetricsEndpoint::metricsText(klNetService& service) {
    const Metrics metrics = service.metrics();
    std::ostringstream out;
    family(out, "klnet_requests_total", "counter", "Requests served, by command and outcome.");
    for (std::uint32_t command = 0; command < metrics.requests.size(); ++command) {
        for (int outcome = 0; outcome < klNetService::kOutcomes; ++outcome) {
            out << "klnet_requests_total{command=\"" << klNetService::commandName(command)
                << "\",outcome=\"" << kOutcomeNames[outcome] << "\"} "
                << metrics.requests[command][outcome] << '\n';
        }
    }
    family(out, "klnet_refusals_total", "counter", "Requests and connections refused, by reason.");
    for (const char* reason :
         {"peer", "unsealed", "key", "handshake-timeout", "handshake-limit", "version",
          "server-limit", "relay-disabled", "relay-target", "relay-limit"}) {
        const auto found = metrics.refusals.find(reason);
        out << "klnet_refusals_total{reason=\"" << reason << "\"} "
            << (found == metrics.refusals.end() ? 0 : found->second) << '\n';
    }
    const struct {
        const char* name;
        const char* type;
        const char* help;
        std::uint64_t value;
    } single[] = {
        {"klnet_servers_running", "gauge", "Render servers running.",
         std::uint64_t(metrics.serversRunning)},
        {"klnet_servers_started_total", "counter", "Render servers started.",
         std::uint64_t(metrics.serversStarted)},
        {"klnet_handoffs_total", "counter", "Client connections handed to servers.",
         std::uint64_t(metrics.handOffs)},
        {"klnet_relays_open", "gauge", "Relays open.", std::uint64_t(metrics.relaysOpen)},
        {"klnet_relays_total", "counter", "Relays opened.", metrics.relaysOpened},
        {"klnet_relayed_bytes_total", "counter", "Bytes relayed, both ways.",
         std::uint64_t(metrics.bytesRelayed)},
    };
    for (const auto& metric : single) {
        family(out, metric.name, metric.type, metric.help);
        out << metric.name << ' ' << metric.value << '\n';
    }
    family(out, "klnet_request_duration_seconds", "histogram",
           "Time from a request's accept to its end.");
    for (std::size_t i = 0; i < Metrics::kLatencyBounds.size(); ++i) {
        out << "klnet_request_duration_seconds_bucket{le=\"" << Metrics::kLatencyBounds[i] << "\"} "
            << metrics.latencyBuckets[i] << '\n';
    }
    out << "klnet_request_duration_seconds_bucket{le=\"+Inf\"} " << metrics.latencyCount << '\n'
        << "klnet_request_duration_seconds_sum " << metrics.latencySum << '\n'
        << "klnet_request_duration_seconds_count " << metrics.latencyCount << '\n';
    return out.str();
}

std::string klMetricsEndpoint::serversJson(klNetService& service) {
    nlohmann::json list = nlohmann::json::array();
    for (const klNetService::ServerInfo& server : service.servers()) {
        list.push_back({{"serverId", server.id},
                        {"bookingId", server.bookingId},
                        {"pid", server.processId},
                        {"client", server.client},
                        {"started", isoTime(server.started)},
                        {"state", server.stopping ? "stopping" : "running"}});
    }
    // Booking ids are a client's bytes: whatever is not UTF-8 is replaced, not refused.
    return nlohmann::json{{"servers", list}}.dump(-1, ' ', false,
                                                  nlohmann::json::error_handler_t::replace) +
           "\n";
}
