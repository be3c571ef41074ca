#include "klServiceOptions.h"

#include <klNetBase/core/klNetError.h>
#include <klNetBase/core/klNetOptions.h>
#include <klNetBase/link/klNetNodeNames.h>
#include <klNetBase/service/klNetUtils.h>

#include "klCommandLine.h"

#include <arpa/inet.h>
#include <unistd.h>

#include <cstdio>
#include <functional>
#include <memory>
#include <sstream>

namespace {

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

bool isNumericAddress(const std::string& text) {
    unsigned char bytes[16];
    return ::inet_pton(AF_INET, text.c_str(), bytes) == 1 ||
           ::inet_pton(AF_INET6, text.c_str(), bytes) == 1;
}

// A numeric IPv4 or IPv6 address, as --listen takes it ("[::1]" is taken as "::1").
CLI::Validator numericAddress() {
    return CLI::Validator(
        [](std::string& text) -> std::string {
            if (text.size() > 2 && text.front() == '[' && text.back() == ']') {
                text = text.substr(1, text.size() - 2);
            }
            return isNumericAddress(text) ? std::string()
                                          : "'" + text + "' is not a numeric IPv4 or IPv6 address";
        },
        "", "address");
}

// "PORT", "IPV4:PORT" or "[IPV6]:PORT" as "HOST:PORT" (a bare port listens on loopback only);
// empty when the text is none of them.
std::string metricsAddress(const std::string& text) {
    const std::size_t colon = text.rfind(':');
    const std::string port = colon == std::string::npos ? text : text.substr(colon + 1);
    std::string host = colon == std::string::npos ? "127.0.0.1" : text.substr(0, colon);
    const bool numericPort = !port.empty() && port.size() <= 5 &&
                             port.find_first_not_of("0123456789") == std::string::npos &&
                             std::stol(port) <= 65535;
    bool numericHost = false;
    if (host.size() > 2 && host.front() == '[' && host.back() == ']') {
        const std::string inner = host.substr(1, host.size() - 2);
        unsigned char bytes[16];
        numericHost = ::inet_pton(AF_INET6, inner.c_str(), bytes) == 1;
    } else {
        unsigned char bytes[4];
        numericHost = ::inet_pton(AF_INET, host.c_str(), bytes) == 1;
    }
    return numericPort && numericHost ? host + ":" + port : std::string();
}

std::string joined(const std::vector<std::string>& texts) {
    std::string all;
    for (const std::string& text : texts) {
        all += (all.empty() ? "" : ", ") + text;
    }
    return all.empty() ? "(none)" : all;
}

std::string number(double value) {
    std::ostringstream text;
    text << value;
    return text.str();
}

// Builds the command line of the daemon into cli, bound to options; run(cli) parses it. What run
// returns is passed on.
template <class Result>
Result withCommandLine(klServiceOptions& options,
                       const std::function<Result(klCommandLine&, std::string& level,
                                                  bool& noConsole, CLI::Option* config)>& run) {
    options = klServiceOptions();
    options.port = klNetOptions::getDefaultServicePort();
    options.requestTimeout = klNetOptions::getConnectionTimeout();
    klCommandLine cli(
        klServiceOptions::kProgram,
        "Cluster service of a render node: starts, stops and reports render servers for "
        "clients. Prints \"listening on port N\" once it listens. SIGTERM drains it (no new "
        "servers; it stops once those running have ended, or after --drain-timeout), a second "
        "SIGTERM or SIGINT stops it at once, servers and all; SIGHUP reloads the configuration "
        "and reopens the log file. Options may also be set in the configuration file (--config; "
        "the command line wins). Exit status: 0 after a stop, 1 if it cannot listen or read its "
        "key, 2 for a bad command line or configuration.");
    CLI::App& app = cli.app();
    CLI::Option* config =
        app.set_config("--config", klServiceOptions::kDefaultConfigFile,
                       "read options from PATH, one 'name = value' per line (default "
                       "/etc/klnetbase/service.conf when it exists; \"\": none)")
            ->type_name("PATH")
            ->check(CLI::Validator(
                // The default is looked at too; CLI11 reads it only when it exists.
                [](std::string& text) -> std::string {
                    return text.empty() || text == klServiceOptions::kDefaultConfigFile ||
                                   ::access(text.c_str(), R_OK) == 0
                               ? std::string()
                               : "cannot read '" + text + "'";
                },
                ""));
    app.allow_config_extras(CLI::config_extras_mode::error);
    app.add_flag("--check-config", options.checkConfig,
                 "check the command line, the configuration file and the key file, print "
                 "whether they are good and exit (0: good, 2: not)");
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
                   "append diagnostics to PATH instead of standard error (reopened on SIGHUP)")
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
                   "serve Prometheus metrics at /metrics, the running servers as JSON at "
                   "/servers, liveness at /healthz and readiness at /ready over HTTP (default: "
                   "off; a bare port listens on 127.0.0.1; an IPv6 address in brackets)")
        ->type_name("[ADDRESS:]PORT")
        ->transform(CLI::Validator(
            [](std::string& text) -> std::string {
                const std::string address = metricsAddress(text);
                if (address.empty()) {
                    return "'" + text + "' is not [ADDRESS:]PORT (a numeric address, IPv6 in " +
                           "brackets)";
                }
                text = address;
                return {};
            },
            ""));
    app.add_option("--key-file", options.keyFile,
                   "the farm key: serve only clients that prove they hold it, over sealed "
                   "connections (default: none, every connection in the clear; read again on "
                   "SIGHUP). '-' reads the 32 bytes of the key from standard input (a pipe, not "
                   "a terminal) before anything else, so that a key made for one run is never in "
                   "a file, on a command line or in the environment")
        ->type_name("PATH");
    app.add_option("--node-name", options.nodeNameTexts,
                   "with --key-file: a further name sealed clients may dial to reach this "
                   "service, as HOST or HOST:PORT (repeatable; a port defaults to the one "
                   "listened on), for a forward or alias a site runs on purpose. The service "
                   "answers besides to its host name, its Slurm node name and its addresses (with "
                   "--listen: that address only); a client that dialed another name is refused, "
                   "so that a connection carried to another node or port runs nothing")
        ->type_name("NAME[:PORT]")
        ->allow_extra_args(false)
        ->check(CLI::Validator(
            [](std::string& text) -> std::string {
                std::string host;
                int port = 0;
                return klNetNodeNames::parse(text, host, port);
            },
            ""));
    app.add_flag("--stop-on-stdin-close", options.stopOnStdinClose,
                 "stop as on stop-service (servers stopped, exit 0) once standard input ends or "
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
    app.add_option("--drain-timeout", options.drainTimeout,
                   "seconds a drain (SIGTERM, klnetctl drain) waits for the servers running "
                   "before it stops them as stop-service does (default 300; 0: SIGTERM stops at "
                   "once, and klnetctl drain waits without limit)")
        ->type_name("S")
        ->check(klCommandLine::number(0, 1e9));
    return run(cli, level, noConsole, config);
}

// What the command line gave beyond the bound values.
void finish(klServiceOptions& options, const std::string& level, bool noConsole,
            CLI::Option* config) {
    klLog::parseLevel(level, options.logLevel);
    options.console = !noConsole;
    for (const std::string& range : options.allowed) {
        options.peerFilter.allow(range);
    }
    for (const std::string& range : options.relayRanges) {
        options.relayTargets.allow(range);
    }
    for (const std::string& text : options.nodeNameTexts) {
        std::string host;
        int port = 0;
        klNetNodeNames::parse(text, host, port);
        options.nodeNames.add(host, port);
    }
    options.configFile = config->count() > 0 ? config->as<std::string>() : std::string();
}

}  // namespace

std::optional<int> klServiceOptions::parse(const std::vector<std::string>& args,
                                           klServiceOptions& options) {
    return withCommandLine<std::optional<int>>(
        options, [&](klCommandLine& cli, std::string& level, bool& noConsole, CLI::Option* config) {
            if (const std::optional<int> done = cli.parse(args)) {
                return done;
            }
            finish(options, level, noConsole, config);
            return std::optional<int>();
        });
}

std::string klServiceOptions::read(const std::vector<std::string>& args,
                                   klServiceOptions& options) {
    return withCommandLine<std::string>(
        options, [&](klCommandLine& cli, std::string& level, bool& noConsole, CLI::Option* config) {
            std::string complaint = cli.check(args);
            if (complaint.empty()) {
                finish(options, level, noConsole, config);
            }
            return complaint;
        });
}

std::vector<klServiceOptions::Setting> klServiceOptions::settings() const {
    // Values given to servers may be secrets: the log shows their names only.
    std::vector<std::string> variables;
    for (const std::string& entry : serverEnvironment) {
        variables.push_back(entry.substr(0, entry.find('=')));
    }
    return {
        {"config", configFile.empty() ? "(none)" : configFile, true},
        {"port", std::to_string(port), false},
        {"listen", listen.empty() ? "(every address)" : listen, false},
        {"metrics", metrics.empty() ? "(off)" : metrics, false},
        {"service-argument", serviceArgument, false},
        {"no-console", console ? "false" : "true", false},
        {"stop-on-stdin-close", stopOnStdinClose ? "true" : "false", false},
        {"node-name", joined(nodeNameTexts), false},
        {"log-file", logFile.empty() ? "(standard error)" : logFile, true},
        {"log-level", klLog::levelName(logLevel), true},
        {"key-file", keyFile.empty() ? "(none)" : keyFile, keyFile != "-"},
        {"allow", joined(allowed), true},
        {"max-servers", std::to_string(maxServers), true},
        {"max-requests", std::to_string(maxRequests), true},
        {"request-timeout", number(requestTimeout), true},
        {"handshake-timeout", number(handshakeTimeout), false},
        {"relay-to", joined(relayRanges), true},
        {"max-relays", std::to_string(maxRelays), true},
        {"relay-idle-timeout", number(relayIdleTimeout), true},
        {"idle-exit", number(idleExit), true},
        {"server-env", joined(variables), true, joined(serverEnvironment)},
        {"drain-timeout", number(drainTimeout), true},
    };
}
