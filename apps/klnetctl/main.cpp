// klnetctl: asks a cluster service for its status, starts and stops render servers, stops the
// service, lists the servers running on a node. One request per run; human-readable output, or
// one JSON object with --json (also for a failure: {"error": "..."}).
// Exit status: 0 done, 1 the request failed (message on standard error), 2 bad command line.
#include "klCommandLine.h"
#include "klServiceClient.h"

#include <klNetBase/codecs/klNetFarmKey.h>
#include <klNetBase/codecs/klNetFarmSealer.h>

#include <klNetBase/core/klConnectionClosed.h>
#include <klNetBase/core/klConnectionTimeout.h>
#include <klNetBase/link/klSealedFrameError.h>
#include <klNetBase/serial/klNetStream.h>

#include <curl/curl.h>
#include <nlohmann/json.hpp>

#include <algorithm>
#include <cinttypes>
#include <cmath>
#include <cstdint>
#include <cstdio>
#include <memory>
#include <optional>
#include <stdexcept>
#include <string>
#include <vector>

namespace {

using Json = nlohmann::ordered_json;

constexpr const char* kProgram = "klnetctl";
constexpr int kDefaultMetricsPort = 8890;
// A server list larger than this is not one.
constexpr std::size_t kMaxAnswerBytes = std::size_t(16) << 20;

struct Options {
    std::string host = "127.0.0.1";
    int port = klServiceClient::defaultPort();
    int metricsPort = kDefaultMetricsPort;
    double timeout = 30.0;
    bool json = false;
    std::string keyFile;
    std::string command;
    klServiceClient::StartRequest start;
    std::uint32_t serverId = 0;
    std::string bookingId;
};

// The command line into options; returns the exit status when the program is done already.
std::optional<int> parseOptions(int argc, char** argv, Options& options) {
    klCommandLine cli(kProgram, "Talks to the cluster service of a render node.");
    CLI::App& app = cli.app();
    app.add_option("--host", options.host,
                   "service host, a name or address (default 127.0.0.1; IPv6 also in brackets)")
        ->type_name("HOST")
        ->transform(CLI::Validator(
            [](std::string& host) -> std::string {
                if (host.size() > 2 && host.front() == '[' && host.back() == ']') {
                    host = host.substr(1, host.size() - 2);
                }
                return host.empty() ? "the host is empty" : "";
            },
            "", "host"));
    app.add_option("--port", options.port, "service port (default 8889)")
        ->type_name("N")
        ->check(klCommandLine::integer(1, 65535));
    app.add_option("--metrics-port", options.metricsPort,
                   "port of the service's HTTP endpoint, for servers (default 8890)")
        ->type_name("N")
        ->check(klCommandLine::integer(1, 65535));
    app.add_option("--timeout", options.timeout,
                   "seconds to wait for the connection and for the answer (default 30)")
        ->type_name("S")
        ->check(klCommandLine::number(0, 86400, true));
    app.add_flag("--json", options.json, "print the answer, or the error, as one JSON object");
    app.add_option("--key-file", options.keyFile,
                   "the farm key: seal every connection with it (the service must hold the same "
                   "key)")
        ->type_name("PATH");
    app.footer(
        "Options may also follow the command. Run 'klnetctl COMMAND --help' for a command's "
        "options.\n\n"
        "Exit status: 0 done, 1 the request failed, 2 bad command line.");

    app.require_subcommand(1);
    app.add_subcommand("status", "the service's version, running servers and their bookings");
    CLI::App* start = app.add_subcommand(
        "start",
        "start a render server; prints its id, the free memory and the number of servers "
        "running. The server keeps running until it is stopped.");
    klServiceClient::StartRequest& request = options.start;
    start
        ->add_option("--server-version", request.version,
                     "version text of the request (default " + request.version +
                         "): the service starts the server of that installation")
        ->type_name("V");
    start->add_option("--booking", request.bookingId, "booking id of the server")->type_name("ID");
    start->add_option("--extra", request.extraArgument, "last argument of the server")
        ->type_name("ARG");
    start->add_flag("--display", request.display, "a server with a display");
    start->add_flag("--stereo", request.stereo, "with --display: a stereo display");
    start->add_flag("-Z", request.firstOption, "server option -Z");
    CLI::Option* second = start->add_flag("-t", request.secondOption, "server option -t");
    start->add_flag("-a", request.thirdOption, "with -t: server option -ta (also as -ta)")
        ->needs(second);
    CLI::App* stopServer = app.add_subcommand("stop-server", "stop the server with this id");
    stopServer->add_option("ID", options.serverId, "server id")
        ->required()
        ->check(klCommandLine::integer(0, UINT32_MAX));
    CLI::App* stopBooking = app.add_subcommand(
        "stop-booking",
        "stop every server started with this booking id; prints how many it stopped (counted "
        "from the service's status before and after)");
    stopBooking->add_option("ID", options.bookingId, "booking id")->required();
    app.add_subcommand("stop-service", "stop the service and all its servers");
    app.add_subcommand("drain",
                       "let the servers running finish, start no new ones, and stop the service "
                       "once none is left");
    CLI::App* keygen = app.add_subcommand(
        "keygen",
        "write a new farm key of 32 random bytes to PATH (mode 0600; an existing file is "
        "never overwritten)");
    keygen->add_option("PATH", options.keyFile, "where the key goes")->required();
    app.add_subcommand("servers",
                       "the servers running on the node, from the service's HTTP endpoint "
                       "(the service must run with --metrics)");

    if (const std::optional<int> done = cli.parse(argc, argv)) {
        return done;
    }
    options.command = app.get_subcommands().front()->get_name();
    return std::nullopt;
}

std::string dumped(const Json& json) {
    // Texts from the service may hold any bytes: what is not UTF-8 becomes U+FFFD, so that the
    // output always parses, and control characters are escaped.
    return json.dump(-1, ' ', false, Json::error_handler_t::replace);
}

void printJson(const Json& json) {
    std::printf("%s\n", dumped(json).c_str());
}

// A text as it stands when it is plain, else as a JSON string literal.
std::string shown(const std::string& text) {
    const std::string literal = dumped(Json(text));
    return !text.empty() && literal.size() == text.size() + 2 ? text : literal;
}

std::string quotedList(const std::vector<std::string>& texts) {
    std::string out;
    for (const auto& text : texts) {
        out += (out.empty() ? "" : ", ") + dumped(Json(text));
    }
    return out;
}

void printStatus(const klNetServiceStatus& status, bool json) {
    const double cpu = status.getCPUUsage();
    if (json) {
        printJson({{"version", status.getVersion()},
                   {"running", status.getIsRunning()},
                   {"serverCount", status.getNumberOfClusterServers()},
                   {"freeMemory", std::uint64_t(status.getFreeMemory())},
                   {"cpuUsage", std::isfinite(cpu) ? Json(cpu) : Json()},
                   {"bookingIds", status.getBookingIds()}});
        return;
    }
    const auto bookings = status.getBookingIds();
    std::printf("version: %s\nrunning: %s\nservers running: %d\nfree memory: %" PRIu64
                " bytes\ncpu usage: %g%%\nbooking ids: %s\n",
                shown(status.getVersion()).c_str(), status.getIsRunning() ? "yes" : "no",
                status.getNumberOfClusterServers(), std::uint64_t(status.getFreeMemory()), cpu,
                bookings.empty() ? "(none)" : quotedList(bookings).c_str());
}

// ---- the server list, from the service's HTTP endpoint ----

// The endpoint could not be reached or did not answer with a server list.
class EndpointError : public std::runtime_error {
public:
    using std::runtime_error::runtime_error;
};

std::size_t collect(char* data, std::size_t size, std::size_t count, void* into) {
    auto& body = *static_cast<std::string*>(into);
    if (body.size() + size * count > kMaxAnswerBytes) {
        return 0;  // ends the transfer with an error
    }
    body.append(data, size * count);
    return size * count;
}

// The body of an HTTP GET answered with status 200.
std::string httpGet(const std::string& url, double timeout) {
    static const CURLcode initialised = curl_global_init(CURL_GLOBAL_DEFAULT);
    const std::unique_ptr<CURL, void (*)(CURL*)> curl(
        initialised == CURLE_OK ? curl_easy_init() : nullptr, curl_easy_cleanup);
    if (!curl) {
        throw EndpointError("cannot set up an HTTP request");
    }
    std::string body;
    char error[CURL_ERROR_SIZE] = "";
    const long milliseconds = std::lround(timeout * 1000.0);
    curl_easy_setopt(curl.get(), CURLOPT_URL, url.c_str());
    curl_easy_setopt(curl.get(), CURLOPT_PROTOCOLS_STR, "http");
    // The node is reached directly: a proxy of the user's environment knows nothing of it.
    curl_easy_setopt(curl.get(), CURLOPT_NOPROXY, "*");
    curl_easy_setopt(curl.get(), CURLOPT_NOSIGNAL, 1L);
    curl_easy_setopt(curl.get(), CURLOPT_CONNECTTIMEOUT_MS, milliseconds);
    curl_easy_setopt(curl.get(), CURLOPT_TIMEOUT_MS, milliseconds);
    curl_easy_setopt(curl.get(), CURLOPT_ERRORBUFFER, error);
    curl_easy_setopt(curl.get(), CURLOPT_WRITEFUNCTION, collect);
    curl_easy_setopt(curl.get(), CURLOPT_WRITEDATA, &body);
    const CURLcode result = curl_easy_perform(curl.get());
    if (result != CURLE_OK) {
        throw EndpointError("cannot get " + url + ": " +
                            (error[0] != '\0' ? error : curl_easy_strerror(result)) +
                            " (the service must run with --metrics for this)");
    }
    long status = 0;
    curl_easy_getinfo(curl.get(), CURLINFO_RESPONSE_CODE, &status);
    if (status != 200) {
        throw EndpointError(url + " answered HTTP " + std::to_string(status) +
                            " (the service must run with --metrics for this)");
    }
    return body;
}

struct ServerEntry {
    std::uint32_t serverId = 0;
    std::string bookingId;
    std::int64_t pid = 0;
    std::string client;
    std::string started;
    std::string state;
};

struct ServerList {
    std::vector<ServerEntry> servers;
    bool draining = false;
};

// {"servers":[{"serverId":1,"bookingId":"b1","pid":4242,"client":"127.0.0.1",
//              "started":"2026-11-25T15:00:00Z","state":"running"}, ...],"draining":false}
// ("draining" may be missing: a service that cannot drain).
ServerList parseServers(const std::string& url, const std::string& body) {
    try {
        const Json answer = Json::parse(body);
        ServerList list;
        list.draining = answer.value("draining", false);
        std::vector<ServerEntry>& servers = list.servers;
        for (const Json& entry : answer.at("servers")) {
            servers.push_back(
                {entry.at("serverId").get<std::uint32_t>(),
                 entry.at("bookingId").get<std::string>(), entry.at("pid").get<std::int64_t>(),
                 entry.at("client").get<std::string>(), entry.at("started").get<std::string>(),
                 entry.at("state").get<std::string>()});
        }
        return list;
    } catch (const Json::exception& e) {
        throw EndpointError(url + " answered no server list: " + e.what());
    }
}

void printServers(const ServerList& answer, bool json) {
    const std::vector<ServerEntry>& servers = answer.servers;
    if (json) {
        Json list = Json::array();
        for (const ServerEntry& s : servers) {
            list.push_back({{"serverId", s.serverId},
                            {"bookingId", s.bookingId},
                            {"pid", s.pid},
                            {"client", s.client},
                            {"started", s.started},
                            {"state", s.state}});
        }
        printJson({{"servers", list}, {"draining", answer.draining}});
        return;
    }
    if (answer.draining) {
        std::printf("service draining: no new servers are started\n");
    }
    if (servers.empty()) {
        std::printf("no servers running\n");
        return;
    }
    const char* const titles[] = {"ID", "BOOKING", "PID", "CLIENT", "STARTED", "STATE"};
    std::vector<std::vector<std::string>> rows{{std::begin(titles), std::end(titles)}};
    for (const ServerEntry& s : servers) {
        rows.push_back({std::to_string(s.serverId), shown(s.bookingId), std::to_string(s.pid),
                        shown(s.client), shown(s.started), shown(s.state)});
    }
    std::vector<std::size_t> widths(rows.front().size(), 0);
    for (const auto& row : rows) {
        for (std::size_t i = 0; i < row.size(); ++i) {
            widths[i] = std::max(widths[i], row[i].size());
        }
    }
    for (const auto& row : rows) {
        std::string line;
        for (std::size_t i = 0; i < row.size(); ++i) {
            line += i + 1 < row.size() ? row[i] + std::string(widths[i] - row[i].size() + 2, ' ')
                                       : row[i];
        }
        std::printf("%s\n", line.c_str());
    }
}

// ---- the commands ----

std::string hostInUrl(const std::string& host) {
    return host.find(':') != std::string::npos ? "[" + host + "]" : host;
}

void run(const klServiceClient& client, const Options& options) {
    const bool json = options.json;
    if (options.command == "status") {
        printStatus(client.status(), json);
    } else if (options.command == "start") {
        const auto result = client.startServer(options.start);
        // Our connection now belongs to the started server; closing it leaves the server
        // running until someone stops it.
        result.stream->shutdown();
        if (json) {
            printJson({{"serverId", result.serverId},
                       {"freeMemory", result.freeMemory},
                       {"serverCount", result.serverCount}});
        } else {
            std::printf("server id: %" PRIu32 "\nfree memory: %" PRIu64
                        " bytes\nservers running: %" PRId32 "\n",
                        result.serverId, result.freeMemory, result.serverCount);
        }
    } else if (options.command == "stop-server") {
        client.stopServer(options.serverId);
        if (json) {
            printJson({{"serverId", options.serverId}, {"stopped", true}});
        } else {
            std::printf("server %" PRIu32 " stopped\n", options.serverId);
        }
    } else if (options.command == "stop-booking") {
        // The answer carries no count: the booking's servers in the status before, less those
        // still in it after, are the ones this request stopped.
        const auto count = [&] {
            const auto ids = client.status().getBookingIds();
            return long(std::count(ids.begin(), ids.end(), options.bookingId));
        };
        const long before = count();
        client.stopBooking(options.bookingId);
        const long stopped = std::max(0L, before - count());
        if (json) {
            printJson({{"bookingId", options.bookingId}, {"stopped", stopped}});
        } else {
            std::printf("%ld server%s of booking %s stopped\n", stopped, stopped == 1 ? "" : "s",
                        dumped(Json(options.bookingId)).c_str());
        }
    } else if (options.command == "drain") {
        client.drain();
        if (json) {
            printJson({{"draining", true}});
        } else {
            std::printf("service draining: no new servers; it stops once the last has ended\n");
        }
    } else if (options.command == "servers") {
        const std::string url = "http://" + hostInUrl(options.host) + ":" +
                                std::to_string(options.metricsPort) + "/servers";
        printServers(parseServers(url, httpGet(url, options.timeout)), json);
    } else {
        client.stopService();
        if (json) {
            printJson({{"stopping", true}});
        } else {
            std::printf("service stopping\n");
        }
    }
}

}  // namespace

int main(int argc, char** argv) {
    Options options;
    if (const std::optional<int> done = parseOptions(argc, argv, options)) {
        return *done;
    }

    const std::string where = hostInUrl(options.host) + ":" + std::to_string(options.port);
    klServiceClient client(options.host, options.port);
    client.setConnectTimeout(options.timeout);
    client.setRecvTimeout(options.timeout);
    try {
        if (options.command == "keygen") {
            klNetFarmKey::generate(options.keyFile);
            std::printf("farm key written to %s (mode 0600): copy it to every node and client\n",
                        options.keyFile.c_str());
            return 0;
        }
        if (!options.keyFile.empty()) {
            client.setSealer(
                std::make_shared<klNetFarmSealer>(klNetFarmKey::load(options.keyFile)));
        }
    } catch (const klNetError& e) {
        std::fprintf(stderr, "%s: %s\n", kProgram, e.what());
        return 1;
    }
    // What went wrong: the line on standard error, and the text of the JSON error object.
    std::string line, error;
    try {
        run(client, options);
        return std::fflush(stdout) == 0 ? 0 : 1;
    } catch (const klServiceConnectError& e) {
        line = error = "cannot connect to " + where + ": " + e.what();
    } catch (const klConnectionTimeout&) {
        char seconds[32];
        std::snprintf(seconds, sizeof(seconds), "%g", options.timeout);
        line = error = "no answer from " + where + " within " + seconds + " s";
    } catch (const klConnectionClosed&) {
        line = error = where + " closed the connection without an answer";
    } catch (const klSealedFrameError& e) {
        line = error = "the answer from " + where + " was tampered with: " + e.what();
    } catch (const klServiceError& e) {
        error = e.what();
        line = "service error: " + error;
    } catch (const std::exception& e) {
        line = error = e.what();
    }
    if (options.json) {
        printJson({{"error", error}});
        std::fflush(stdout);
    }
    std::fprintf(stderr, "%s: %s\n", kProgram, line.c_str());
    return 1;
}
