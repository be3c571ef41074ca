// KALDClusterService: the cluster service daemon of a render node.
//
// Runs klNetService on a thread of its own while the main thread runs the Qt event loop that the
// service relies on (finished request threads are deleted there; started servers' output arrives
// there). Once the port is bound it prints "listening on port N" on standard output. SIGTERM,
// SIGINT and a stop-service request end it; it then stops its servers and exits 0. A port that
// cannot be listened on ends it with status 1, a bad command line with status 2.
#include <klNetBase/core/klNetError.h>
#include <klNetBase/core/klNetOptions.h>
#include <klNetBase/service/klNetPeerFilter.h>
#include <klNetBase/service/klNetService.h>
#include <klNetBase/service/klNetUtils.h>

#include <klNetBase/codecs/klNetFarmKey.h>
#include <klNetBase/codecs/klNetFarmSealer.h>
#include "klCommandLine.h"
#include "klEndOfInputWatcher.h"
#include "klLog.h"
#include "klMetricsEndpoint.h"
#include "klSignalWatcher.h"
#include "klVersionInfo.h"

#include <QCoreApplication>

#include <arpa/inet.h>
#include <fcntl.h>
#include <unistd.h>

#include <atomic>
#include <cerrno>
#include <cmath>
#include <cstdio>
#include <cstdlib>
#include <functional>
#include <memory>
#include <optional>
#include <stdexcept>
#include <string>
#include <thread>
#include <vector>

namespace {

const char* const kProgram = "KALDClusterService";

struct Options {
    int port = klNetOptions::getDefaultServicePort();
    std::string listen;  // one address, empty for every address
    bool stopOnStdinClose = false;
    std::string logFile;
    std::string keyFile;
    klLog::Level logLevel = klLog::Level::info;
    std::string metrics;  // HOST:PORT, empty when off
    std::string serviceArgument;
    bool console = true;
    std::vector<std::string> allowed;
    int maxServers = 16;
    int maxRequests = 64;
    double requestTimeout = klNetOptions::getConnectionTimeout();
    double handshakeTimeout = 2.0;
    std::vector<std::string> relayRanges;
    int maxRelays = 16;
    double relayIdleTimeout = 300.0;
    double idleExit = 60.0;
    std::vector<std::string> serverEnvironment;

    klNetPeerFilter peerFilter;
    klNetPeerFilter relayTargets;
};

// Accepts an address range as klNetPeerFilter reads it.
CLI::Validator addressRange() {
    return CLI::Validator(
        [](std::string& text) -> std::string {
            try {
                klNetPeerFilter().allow(text);
                return {};
            } catch (const klNetError&) {
                return "'" + text + "' is not an address range (ADDRESS or ADDRESS/BITS)";
            }
        },
        "", "range");
}

// A numeric IPv4 or IPv6 address, as --listen takes it ("[::1]" is taken as "::1").
CLI::Validator numericAddress() {
    return CLI::Validator(
        [](std::string& text) -> std::string {
            if (text.size() > 2 && text.front() == '[' && text.back() == ']') {
                text = text.substr(1, text.size() - 2);
            }
            unsigned char bytes[16];
            if (::inet_pton(AF_INET, text.c_str(), bytes) == 1 ||
                ::inet_pton(AF_INET6, text.c_str(), bytes) == 1) {
                return {};
            }
            return "'" + text + "' is not a numeric IPv4 or IPv6 address";
        },
        "", "address");
}

// "PORT" or "ADDRESS:PORT" as civetweb takes it: a bare port listens on loopback only.
std::string metricsAddress(const std::string& text) {
    const std::size_t colon = text.rfind(':');
    const std::string port = colon == std::string::npos ? text : text.substr(colon + 1);
    const std::string host = colon == std::string::npos ? "127.0.0.1" : text.substr(0, colon);
    const bool numeric = !port.empty() && port.size() <= 5 &&
                         port.find_first_not_of("0123456789") == std::string::npos &&
                         std::stol(port) <= 65535;
    return numeric && !host.empty() ? host + ":" + port : std::string();
}

std::string joined(const std::vector<std::string>& texts) {
    std::string all;
    for (const std::string& text : texts) {
        all += (all.empty() ? "" : ", ") + text;
    }
    return all;
}

// Fills options from the command line; an exit status when the program ends here (help, version,
// a bad command line, all said already).
std::optional<int> parseOptions(int argc, char** argv, Options& options) {
    klCommandLine cli(kProgram,
                      "Cluster service of a render node: starts, stops and reports render servers "
                      "for clients. Prints \"listening on port N\" once it listens; SIGTERM or "
                      "SIGINT stop it (and, with --stop-on-stdin-close, the end of standard "
                      "input). Exit status: 0 after a stop, 1 if it cannot listen or read its key, "
                      "2 for a bad command line.");
    CLI::App& app = cli.app();
    app.add_option("--port", options.port,
                   "TCP port to listen on (default 8889; 0: chosen by the system)")
        ->type_name("N")
        ->check(klCommandLine::integer(0, 65535));
    app.add_option("--listen", options.listen,
                   "listen on this one local address only, IPv4 or IPv6 (e.g. 127.0.0.1, ::1; "
                   "default: every address, IPv4 and IPv6)")
        ->type_name("ADDRESS")
        ->check(numericAddress());
    app.add_option("--log-file", options.logFile,
                   "append diagnostics to PATH instead of standard error")
        ->type_name("PATH")
        ->check(CLI::Validator(
            [](std::string& text) { return text.empty() ? "needs a path" : std::string(); }, ""));
    std::string level = "info";
    app.add_option("--log-level", level, "error, warning, info (default) or debug (every request)")
        ->type_name("LEVEL")
        ->check(CLI::Validator(
            [](std::string& text) -> std::string {
                klLog::Level parsed;
                return klLog::parseLevel(text, parsed)
                           ? std::string()
                           : "'" + text + "' is not error, warning, info or debug";
            },
            ""));
    app.add_option("--metrics", options.metrics,
                   "serve Prometheus metrics at /metrics and the running servers as JSON at "
                   "/servers over HTTP (default: off; a bare port listens on 127.0.0.1)")
        ->type_name("[ADDRESS:]PORT")
        ->transform(CLI::Validator(
            [](std::string& text) -> std::string {
                const std::string address = metricsAddress(text);
                if (address.empty()) {
                    return "'" + text + "' is not [ADDRESS:]PORT";
                }
                text = address;
                return {};
            },
            ""));
    app.add_option("--key-file", options.keyFile,
                   "the farm key: serve only clients that prove they hold it, over sealed "
                   "connections (default: none, every connection in the clear). '-' reads the "
                   "32 bytes of the key from standard input (a pipe, not a terminal) before "
                   "anything else, so that a key made for one run is never in a file, on a "
                   "command line or in the environment")
        ->type_name("PATH");
    app.add_flag("--stop-on-stdin-close", options.stopOnStdinClose,
                 "stop as on SIGTERM (servers stopped, exit 0) once standard input ends or "
                 "fails: a program that starts the service with a pipe on its standard input and "
                 "holds the write end takes the service with it however it ends; input is read "
                 "and dropped (after the key of --key-file -)");
    app.add_option("--service-argument", options.serviceArgument,
                   "passed to every render server started")
        ->type_name("TEXT");
    bool noConsole = false;
    app.add_flag("--no-console", noConsole,
                 "do not copy render servers' output to standard output (it is discarded)");
    app.add_option("--allow", options.allowed,
                   "accept requests only from this address range (repeatable; default: every "
                   "peer)")
        ->type_name("CIDR")
        ->allow_extra_args(false)
        ->check(addressRange());
    app.add_option("--max-servers", options.maxServers,
                   "most render servers running at once (default 16; 0: no limit)")
        ->type_name("N")
        ->check(klCommandLine::integer(0, 1000000));
    app.add_option("--max-requests", options.maxRequests,
                   "most requests served at once; further clients wait their turn (default 64)")
        ->type_name("N")
        ->check(klCommandLine::integer(1, 1000000));
    app.add_option("--request-timeout", options.requestTimeout,
                   "seconds a client has for its whole request (default 10)")
        ->type_name("S")
        ->check(klCommandLine::number(0, 86400, true));
    app.add_option("--handshake-timeout", options.handshakeTimeout,
                   "seconds a connection has for its greeting and, with a farm key, its proof of "
                   "the key; until then it holds no request place (default 2)")
        ->type_name("S")
        ->check(klCommandLine::number(0, 3600, true));
    app.add_option("--relay-to", options.relayRanges,
                   "allow relay requests to this address range (repeatable; default: relaying is "
                   "off)")
        ->type_name("CIDR")
        ->allow_extra_args(false)
        ->check(addressRange());
    app.add_option("--max-relays", options.maxRelays, "most relays open at once (default 16)")
        ->type_name("N")
        ->check(klCommandLine::integer(1, 1000000));
    app.add_option("--relay-idle-timeout", options.relayIdleTimeout,
                   "seconds after which a relay that carries nothing is closed (default 300)")
        ->type_name("S")
        ->check(klCommandLine::number(0, 1e9, true));
    app.add_option("--idle-exit", options.idleExit,
                   "a render server that has had no client for S seconds ends by itself "
                   "(default 60; 0: servers run until stopped). Passed to servers as "
                   "KALD_IDLE_EXIT")
        ->type_name("S")
        ->check(klCommandLine::number(0, 1e9));
    app.add_option("--server-env", options.serverEnvironment,
                   "give render servers this environment variable: NAME=VALUE, or NAME for the "
                   "service's own value (repeatable; servers get nothing else of the service's "
                   "environment but PATH, HOME, LANG, LC_*, TZ and KLNET_LOG_LEVEL, and "
                   "XDG_RUNTIME_DIR)")
        ->type_name("NAME[=VALUE]")
        ->allow_extra_args(false)
        ->check(CLI::Validator(
            [](std::string& text) -> std::string {
                return klNetUtils::isEnvironmentName(text.substr(0, text.find('=')))
                           ? std::string()
                           : "'" + text + "' is not NAME or NAME=VALUE";
            },
            ""));
    if (const std::optional<int> done = cli.parse(argc, argv)) {
        return done;
    }
    klLog::parseLevel(level, options.logLevel);
    options.console = !noConsole;
    for (const std::string& range : options.allowed) {
        options.peerFilter.allow(range);
    }
    for (const std::string& range : options.relayRanges) {
        options.relayTargets.allow(range);
    }
    return std::nullopt;
}

// A descriptor, closed by its owner.
class Descriptor {
public:
    explicit Descriptor(int fd = -1) : m_fd(fd) {}
    ~Descriptor() {
        if (m_fd >= 0) {
            ::close(m_fd);
        }
    }
    Descriptor(const Descriptor&) = delete;
    Descriptor& operator=(const Descriptor&) = delete;
    int get() const { return m_fd; }

private:
    int m_fd;
};

// Runs the service's accept loop on a thread of its own and quits the application's event loop
// when the loop ends, whichever way. The destructor stops the service and joins the thread; only
// then is failure (why run() failed, empty after a stop) ready to be read.
class ServiceThread {
public:
    ServiceThread(klNetService& service, QCoreApplication& application, std::string& failure)
        : m_service(service), m_thread([&service, &application, &failure] {
              try {
                  service.run();
              } catch (const std::exception& e) {
                  failure = e.what();
              }
              // Queued, so that it also works when the loop has not started yet.
              QMetaObject::invokeMethod(
                  &application, [] { QCoreApplication::quit(); }, Qt::QueuedConnection);
          }) {}
    ~ServiceThread() {
        m_service.stop();
        m_thread.join();
    }
    ServiceThread(const ServiceThread&) = delete;
    ServiceThread& operator=(const ServiceThread&) = delete;

private:
    klNetService& m_service;
    std::thread m_thread;
};

// Serves until stopped; returns why the service failed, empty after a stop.
std::string runService(int argc, char** argv, const Options& options) {
    QCoreApplication application(argc, argv);
    // Qt's own warnings (a program that cannot be started, say) go to the log like every line.
    qInstallMessageHandler([](QtMsgType type, const QMessageLogContext&, const QString& text) {
        klLog::write(
            type == QtDebugMsg || type == QtInfoMsg ? klLog::Level::debug : klLog::Level::warning,
            "%s\n", text.toLocal8Bit().constData());
    });

    klNetService service(options.port, options.serviceArgument);
    service.setConsole(options.console);
    service.setPeerFilter(options.peerFilter);
    service.setMaxServers(options.maxServers);
    service.setMaxRequests(options.maxRequests);
    service.setRequestTimeout(options.requestTimeout);
    service.setHandshakeTimeout(options.handshakeTimeout);
    service.setRelayTargets(options.relayTargets);
    if (options.keyFile == "-") {
        if (::isatty(STDIN_FILENO) == 1) {
            throw std::runtime_error("--key-file -: standard input is a terminal, not a pipe");
        }
        service.setLinkSealer(std::make_shared<klNetFarmSealer>(
            klNetFarmKey::readFrom(STDIN_FILENO, "Standard input")));
    } else if (!options.keyFile.empty()) {
        service.setLinkSealer(
            std::make_shared<klNetFarmSealer>(klNetFarmKey::load(options.keyFile)));
    }
    service.setListenAddress(options.listen);
    // Clients wait on these connections (the render servers' pixels come over them): a client
    // that is gone without a word must not keep its servers busy for long.
    service.setKeepAlive(klSocketKeepAlive::deadPeerWithin15s());
    service.setMaxRelays(options.maxRelays);
    service.setRelayIdleTimeout(options.relayIdleTimeout);
    service.setIdleExit(options.idleExit);
    service.setServerEnvironment(options.serverEnvironment);
    std::unique_ptr<klMetricsEndpoint> metrics;
    if (!options.metrics.empty()) {
        metrics = std::make_unique<klMetricsEndpoint>(service, options.metrics);
    }
    service.setListeningHandler([&options, &metrics](int port) {
        klLog::info("%s %s listening on port %d of %s\n", kProgram,
                    klVersionInfo::the().getVersionString().c_str(), port,
                    options.listen.empty() ? "every address" : options.listen.c_str());
        if (options.peerFilter.isEmpty()) {
            klLog::info("No --allow given: requests from every peer are accepted\n");
        } else {
            klLog::info("Accepting requests from %s only\n", joined(options.allowed).c_str());
        }
        if (!options.keyFile.empty()) {
            klLog::info("Sealed: serving only clients that hold the farm key of %s\n",
                        options.keyFile == "-" ? "standard input" : options.keyFile.c_str());
        }
        if (!options.relayTargets.isEmpty()) {
            klLog::info("Relaying to %s only\n", joined(options.relayRanges).c_str());
        }
        std::printf("listening on port %d\n", port);
        if (metrics) {
            const std::string host = options.metrics.substr(0, options.metrics.rfind(':'));
            klLog::info("Metrics at http://%s:%d/metrics, servers at /servers\n", host.c_str(),
                        metrics->port());
            std::printf("metrics on port %d\n", metrics->port());
        }
        std::fflush(stdout);
    });

    std::string failure;
    {
        klSignalWatcher signalWatcher([&service](int signal) {
            klLog::info("Signal %d received: stopping\n", signal);
            service.stop();
        });
        std::unique_ptr<klEndOfInputWatcher> inputWatcher;
        if (options.stopOnStdinClose) {
            inputWatcher = std::make_unique<klEndOfInputWatcher>(STDIN_FILENO, [&service] {
                klLog::info("Standard input closed: stopping\n");
                service.stop();
            });
        }
        ServiceThread serviceThread(service, application, failure);
        QCoreApplication::exec();
    }
    // Request threads delete themselves through the event loop: let the last of them go.
    QCoreApplication::sendPostedEvents();
    QCoreApplication::sendPostedEvents(nullptr, QEvent::DeferredDelete);

    if (failure.empty()) {
        klLog::info("Stopped\n");
    }
    return failure;
}

}  // namespace

int main(int argc, char** argv) {
    Options options;
    if (const std::optional<int> done = parseOptions(argc, argv, options)) {
        return *done;
    }
    klLog::setLevel(options.logLevel);
    // The caller's standard error, kept for the last word when --log-file takes standard error
    // over.
    const Descriptor callerStderr(::fcntl(STDERR_FILENO, F_DUPFD_CLOEXEC, 3));
    bool logging = false;
    std::string failure;
    try {
        if (!options.logFile.empty()) {
            klLog::setFile(options.logFile);
            logging = true;
        }
        failure = runService(argc, argv, options);
    } catch (const std::exception& e) {
        failure = e.what();
    }
    if (failure.empty()) {
        return 0;
    }
    if (logging) {
        klLog::error("%s\n", failure.c_str());
    }
    ::dprintf(callerStderr.get() >= 0 ? callerStderr.get() : STDERR_FILENO, "%s: %s\n", kProgram,
              failure.c_str());
    return 1;
}
