#include "klMetricsEndpoint.h"

#include <klNetBase/service/klNetService.h>

#include <klLog.h>

#include <klVersionInfo.h>

#include <nlohmann/json.hpp>

#include "klProcessMetrics.h"

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

// One histogram's lines after its help and type, with a label of its own when it has one.
void histogram(std::ostringstream& out, const char* name, const std::string& label,
               const klNetService::Histogram& values) {
    const std::string prefix = label.empty() ? "{" : "{" + label + ",";
    for (std::size_t i = 0; i < values.kBounds.size(); ++i) {
        out << name << "_bucket" << prefix << "le=\"" << values.kBounds[i] << "\"} "
            << values.buckets[i] << '\n';
    }
    out << name << "_bucket" << prefix << "le=\"+Inf\"} " << values.count << '\n'
        << name << "_sum" << (label.empty() ? "" : "{" + label + "}") << ' ' << values.sum << '\n'
        << name << "_count" << (label.empty() ? "" : "{" + label + "}") << ' ' << values.count
        << '\n';
}

// A label value as the text format writes it.
std::string labelValue(const std::string& text) {
    std::string out;
    for (const char c : text) {
        out += c == '\\' ? "\\\\" : c == '"' ? "\\\"" : c == '\n' ? "\\n" : std::string(1, c);
    }
    return out;
}

}  // namespace

klMetricsEndpoint::klMetricsEndpoint(klNetService& service, const std::string& address,
                                     Readiness readiness) {
    const auto text = [](int status, std::string body) {
        return klHttpListener::Answer{status, "text/plain; charset=utf-8", std::move(body)};
    };
    std::map<std::string, klHttpListener::Handler> handlers{
        {"/metrics",
         [&service] {
             return klHttpListener::Answer{200, "text/plain; version=0.0.4; charset=utf-8",
                                           metricsText(service)};
         }},
        {"/servers",
         [&service] {
             return klHttpListener::Answer{200, "application/json", serversJson(service)};
         }},
        {"/healthz", [text] { return text(200, "ok\n"); }},
        {"/ready",
         [text, readiness = std::move(readiness)] {
             const std::string why = readiness ? readiness() : std::string();
             return why.empty() ? text(200, "ready\n") : text(503, "not ready: " + why + "\n");
         }},
    };
    try {
        m_listener = std::make_unique<klHttpListener>(address, std::move(handlers));
    } catch (const std::exception& e) {
        throw std::runtime_error(std::string("metrics endpoint: ") + e.what());
    }
}

klMetricsEndpoint::~klMetricsEndpoint() = default;

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
          "server-limit", "relay-disabled", "relay-target", "relay-limit", "draining"}) {
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
    const struct {
        const char* name;
        const char* help;
        std::uint64_t value;
    } gauges[] = {
        {"klnet_requests_in_flight", "Requests accepted and not yet answered and closed.",
         std::uint64_t(metrics.requestsInFlight)},
        {"klnet_requests_waiting",
         "Connections that wait for a request slot, their handshake done.",
         std::uint64_t(metrics.requestsWaiting)},
        {"klnet_draining",
         "1 while the service drains: it starts no servers and stops once none "
         "is left.",
         metrics.draining ? 1u : 0u},
    };
    for (const auto& gauge : gauges) {
        family(out, gauge.name, "gauge", gauge.help);
        out << gauge.name << ' ' << gauge.value << '\n';
    }
    family(out, "klnet_server_exits_total", "counter",
           "Render servers ended, by how: exited (with any status) or killed by a signal.");
    out << "klnet_server_exits_total{outcome=\"exited\"} " << metrics.serversExited << '\n'
        << "klnet_server_exits_total{outcome=\"killed\"} " << metrics.serversKilled << '\n';
    family(out, "klnet_request_duration_seconds", "histogram",
           "Time from a request's accept to its end, by command.");
    for (std::uint32_t command = 0; command < metrics.durations.size(); ++command) {
        histogram(out, "klnet_request_duration_seconds",
                  std::string("command=\"") + klNetService::commandName(command) + "\"",
                  metrics.durations[command]);
    }
    family(out, "klnet_server_start_duration_seconds", "histogram",
           "Time from a server's launch until it took its client's connection.");
    histogram(out, "klnet_server_start_duration_seconds", "", metrics.startLatency);
    family(out, "klnet_build_info", "gauge", "The service's version, as a label; always 1.");
    out << "klnet_build_info{version=\"" << labelValue(klVersionInfo::the().getVersionString())
        << "\"} 1\n";
    out << klProcessMetrics::read().text();
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
    return nlohmann::json{{"servers", list}, {"draining", service.isDraining()}}.dump(
               -1, ' ', false, nlohmann::json::error_handler_t::replace) +
           "\n";
}
