// klnetctl: asks a cluster service for its status, starts and stops render servers, stops the
// service. One request per run; human-readable output, or one JSON object with --json.
// Exit status: 0 done, 1 the request failed (message on standard error), 2 bad command line.
#include "klServiceClient.h"

#include <klNetBase/core/klConnectionClosed.h>
#include <klNetBase/core/klConnectionTimeout.h>
#include <klNetBase/serial/klNetStream.h>

#include <cerrno>
#include <cinttypes>
#include <cmath>
#include <cstdint>
#include <cstdio>
#include <cstdlib>
#include <limits>
#include <stdexcept>
#include <string>
#include <vector>

namespace {

const char* const kUsage =
    "Usage: klnetctl [--host H] [--port P] [--timeout S] [--json] COMMAND\n"
    "Talks to the cluster service of a render node.\n"
    "\n"
    "  --host H       service host, a name or address (default 127.0.0.1)\n"
    "  --port P       service port (default 8889)\n"
    "  --timeout S    seconds to wait for the connection and for the answer (default 30)\n"
    "  --json         print the answer as one JSON object\n"
    "  --help         show this help and exit\n"
    "\n"
    "Commands:\n"
    "  status                      the service's version, running servers and their bookings\n"
    "  start [--version V] [--booking ID] [--display] [--stereo] [-Z] [-t] [-ta]\n"
    "        [--extra ARG]         start a render server; prints its id, the free memory and\n"
    "                              the number of servers running. The server keeps running\n"
    "                              until it is stopped.\n"
    "  stop-server ID              stop the server with this id\n"
    "  stop-booking ID             stop every server started with this booking id\n"
    "  stop-service                stop the service and all its servers\n"
    "\n"
    "Exit status: 0 done, 1 the request failed, 2 bad command line.\n";

class UsageError : public std::runtime_error {
public:
    using std::runtime_error::runtime_error;
};

struct Command {
    std::string name;
    klServiceClient::StartRequest start;
    std::uint32_t serverId = 0;
    std::string bookingId;
};

struct Options {
    std::string host = "127.0.0.1";
    int port = klServiceClient::defaultPort();
    double timeout = 30.0;
    bool json = false;
    Command command;
};

long long parseInteger(const std::string& what, const std::string& text, long long high) {
    char* end = nullptr;
    errno = 0;
    const long long value = std::strtoll(text.c_str(), &end, 10);
    if (text.empty() || *end != '\0' || errno != 0 || value < 0 || value > high) {
        throw UsageError("invalid " + what + " '" + text + "'");
    }
    return value;
}

// Parses the command line into options. Returns true when --help was asked for.
bool parseOptions(const std::vector<std::string>& args, Options& options) {
    std::size_t i = 0;
    const auto value = [&](const std::string& option) -> const std::string& {
        if (i + 1 >= args.size()) {
            throw UsageError("option " + option + " needs a value");
        }
        return args[++i];
    };
    for (; i < args.size() && args[i].compare(0, 1, "-") == 0; ++i) {
        const std::string& option = args[i];
        if (option == "--help") {
            return true;
        } else if (option == "--host") {
            options.host = value(option);
            // Accept the bracketed form of IPv6 literals too.
            if (options.host.size() > 2 && options.host.front() == '[' &&
                options.host.back() == ']') {
                options.host = options.host.substr(1, options.host.size() - 2);
            }
            if (options.host.empty()) {
                throw UsageError("invalid host ''");
            }
        } else if (option == "--port") {
            options.port = int(parseInteger("port", value(option), 65535));
            if (options.port == 0) {
                throw UsageError("invalid port '0'");
            }
        } else if (option == "--timeout") {
            const std::string& text = value(option);
            char* end = nullptr;
            options.timeout = std::strtod(text.c_str(), &end);
            if (text.empty() || *end != '\0' || !std::isfinite(options.timeout) ||
                options.timeout <= 0.0 || options.timeout > 86400.0) {
                throw UsageError("invalid timeout '" + text + "'");
            }
        } else if (option == "--json") {
            options.json = true;
        } else {
            throw UsageError("unknown option '" + option + "'");
        }
    }
    if (i == args.size()) {
        throw UsageError("no command given");
    }
    Command& command = options.command;
    command.name = args[i++];
    const auto operand = [&](const std::string& what) -> const std::string& {
        if (i >= args.size()) {
            throw UsageError(command.name + " needs " + what);
        }
        return args[i++];
    };
    if (command.name == "start") {
        for (; i < args.size(); ++i) {
            const std::string& option = args[i];
            if (option == "--help") {
                return true;
            } else if (option == "--version") {
                command.start.version = value(option);
            } else if (option == "--booking") {
                command.start.bookingId = value(option);
            } else if (option == "--extra") {
                command.start.extraArgument = value(option);
            } else if (option == "--display") {
                command.start.display = true;
            } else if (option == "--stereo") {
                command.start.stereo = true;
            } else if (option == "-Z") {
                command.start.firstOption = true;
            } else if (option == "-t") {
                command.start.secondOption = true;
            } else if (option == "-ta") {
                command.start.secondOption = true;
                command.start.thirdOption = true;
            } else {
                throw UsageError("unknown start option '" + option + "'");
            }
        }
    } else if (command.name == "stop-server") {
        command.serverId = std::uint32_t(parseInteger("server id", operand("a server id"),
                                                      std::numeric_limits<std::uint32_t>::max()));
    } else if (command.name == "stop-booking") {
        command.bookingId = operand("a booking id");
    } else if (command.name != "status" && command.name != "stop-service") {
        throw UsageError("unknown command '" + command.name + "'");
    }
    if (i < args.size()) {
        throw UsageError("unexpected argument '" + args[i] + "'");
    }
    return false;
}

// A JSON string literal. Texts from the service (booking ids, version) may hold any bytes:
// control characters are escaped and bytes that are not UTF-8 become U+FFFD, so that the output
// always parses (and a terminal is never sent raw control characters).
std::string quoted(const std::string& text) {
    std::string out = "\"";
    for (std::size_t i = 0; i < text.size();) {
        const unsigned char c = static_cast<unsigned char>(text[i]);
        if (c == '"' || c == '\\') {
            out += '\\';
            out += char(c);
            ++i;
        } else if (c < 0x20 || c == 0x7F) {
            char escaped[8];
            std::snprintf(escaped, sizeof(escaped), "\\u%04x", c);
            out += escaped;
            ++i;
        } else if (c < 0x80) {
            out += char(c);
            ++i;
        } else {
            // Length of a well-formed sequence starting here, 0 if it is not one.
            const std::size_t length = c >= 0xC2 && c <= 0xDF   ? 2
                                       : c >= 0xE0 && c <= 0xEF ? 3
                                       : c >= 0xF0 && c <= 0xF4 ? 4
                                                                : 0;
            bool valid = length > 0 && i + length <= text.size();
            for (std::size_t k = 1; valid && k < length; ++k) {
                valid = (static_cast<unsigned char>(text[i + k]) & 0xC0) == 0x80;
            }
            if (valid && length >= 3) {
                // Overlong forms, surrogates and code points above U+10FFFF.
                const unsigned char next = static_cast<unsigned char>(text[i + 1]);
                valid = !(c == 0xE0 && next < 0xA0) && !(c == 0xED && next > 0x9F) &&
                        !(c == 0xF0 && next < 0x90) && !(c == 0xF4 && next > 0x8F);
            }
            if (valid) {
                out.append(text, i, length);
                i += length;
            } else {
                out += "\\ufffd";
                ++i;
            }
        }
    }
    return out + "\"";
}

// A text as it stands when it is plain, else quoted as above.
std::string shown(const std::string& text) {
    const std::string literal = quoted(text);
    return !text.empty() && literal.size() == text.size() + 2 ? text : literal;
}

std::string quotedList(const std::vector<std::string>& texts, const char* separator) {
    std::string out;
    for (const auto& text : texts) {
        out += (out.empty() ? "" : separator) + quoted(text);
    }
    return out;
}

void printStatus(const klNetServiceStatus& status, bool json) {
    const double cpu = status.getCPUUsage();
    if (json) {
        char cpuText[32] = "null";
        if (std::isfinite(cpu)) {
            std::snprintf(cpuText, sizeof(cpuText), "%g", cpu);
        }
        std::printf("{\"version\":%s,\"running\":%s,\"servers\":%d,\"freeMemory\":%" PRIu64
                    ",\"cpuUsage\":%s,\"bookingIds\":[%s]}\n",
                    quoted(status.getVersion()).c_str(), status.getIsRunning() ? "true" : "false",
                    status.getNumberOfClusterServers(), std::uint64_t(status.getFreeMemory()),
                    cpuText, quotedList(status.getBookingIds(), ",").c_str());
        return;
    }
    const auto bookings = status.getBookingIds();
    std::printf("version: %s\nrunning: %s\nservers running: %d\nfree memory: %" PRIu64
                " bytes\ncpu usage: %g%%\nbooking ids: %s\n",
                shown(status.getVersion()).c_str(), status.getIsRunning() ? "yes" : "no",
                status.getNumberOfClusterServers(), std::uint64_t(status.getFreeMemory()), cpu,
                bookings.empty() ? "(none)" : quotedList(bookings, ", ").c_str());
}

void run(const klServiceClient& client, const Options& options) {
    const Command& command = options.command;
    if (command.name == "status") {
        printStatus(client.status(), options.json);
    } else if (command.name == "start") {
        const auto result = client.startServer(command.start);
        // Our connection now belongs to the started server; closing it leaves the server
        // running until someone stops it.
        result.stream->shutdown();
        std::printf(options.json ? "{\"serverId\":%" PRIu32 ",\"freeMemory\":%" PRIu64
                                   ",\"serverCount\":%" PRId32 "}\n"
                                 : "server id: %" PRIu32 "\nfree memory: %" PRIu64
                                   " bytes\nservers running: %" PRId32 "\n",
                    result.serverId, result.freeMemory, result.serverCount);
    } else if (command.name == "stop-server") {
        client.stopServer(command.serverId);
        std::printf(options.json ? "{\"serverId\":%" PRIu32 ",\"stopped\":true}\n"
                                 : "server %" PRIu32 " stopped\n",
                    command.serverId);
    } else if (command.name == "stop-booking") {
        client.stopBooking(command.bookingId);
        const std::string id = quoted(command.bookingId);
        std::printf(options.json ? "{\"bookingId\":%s,\"stopped\":true}\n"
                                 : "servers of booking %s stopped\n",
                    id.c_str());
    } else {
        client.stopService();
        std::printf(options.json ? "{\"stopping\":true}\n" : "service stopping\n");
    }
}

}  // namespace

int main(int argc, char** argv) {
    Options options;
    try {
        if (parseOptions(std::vector<std::string>(argv + 1, argv + argc), options)) {
            std::fputs(kUsage, stdout);
            return 0;
        }
    } catch (const UsageError& e) {
        std::fprintf(stderr, "klnetctl: %s\n", e.what());
        return 2;
    }

    const std::string where =
        (options.host.find(':') != std::string::npos ? "[" + options.host + "]" : options.host) +
        ":" + std::to_string(options.port);
    klServiceClient client(options.host, options.port);
    client.setConnectTimeout(options.timeout);
    client.setRecvTimeout(options.timeout);
    try {
        run(client, options);
        return std::fflush(stdout) == 0 ? 0 : 1;
    } catch (const klServiceConnectError& e) {
        std::fprintf(stderr, "klnetctl: cannot connect to %s: %s\n", where.c_str(), e.what());
    } catch (const klConnectionTimeout&) {
        std::fprintf(stderr, "klnetctl: no answer from %s within %g s\n", where.c_str(),
                     options.timeout);
    } catch (const klConnectionClosed&) {
        std::fprintf(stderr, "klnetctl: %s closed the connection without an answer\n",
                     where.c_str());
    } catch (const klServiceError& e) {
        std::fprintf(stderr, "klnetctl: service error: %s\n", e.what());
    } catch (const std::exception& e) {
        std::fprintf(stderr, "klnetctl: %s\n", e.what());
    }
    return 1;
}
