// KALDClusterServer: the reference render server.
//
// The cluster service starts it with the name of a socket hand-off pipe and then passes it the
// connections of clients that asked for a render server. Each connection is served on a thread of
// its own with the render protocol (klRenderProtocol.h) until the client closes it. The server
// ends with status 0 when the service closes the pipe (it has stopped the server, or it has gone),
// on SIGTERM or SIGINT, or, given an idle time (--idle-exit, or KALD_IDLE_EXIT from the service),
// when it has had no client for that long; it shuts every client connection down and joins its
// threads first.
#include "klRenderSessions.h"

#include <klNetBase/core/klConnectionClosed.h>
#include <klNetBase/core/klConnectionTimeout.h>
#include <klNetBase/link/klSocketLink.h>
#include <klNetBase/link/klSocketPipe.h>

#include "klCommandLine.h"

#include <klNetBase/codecs/klNetFarmSealer.h>
#include "klVersionInfo.h"

#include <pthread.h>
#include <signal.h>

#include <algorithm>
#include <atomic>
#include <cmath>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <locale>
#include <memory>
#include <optional>
#include <sstream>
#include <string>
#include <thread>
#include <utility>
#include <vector>

namespace {

constexpr const char* kProgram = "KALDClusterServer";

struct Options {
    std::string flags;  // the launch options given, as "-Z -P -t"
    std::string pipe;
    std::string extra;
    double idleExit = 0.0;  // 0: no idle end
};

// Seconds as --idle-exit and KALD_IDLE_EXIT take them; false for anything else.
bool parseSeconds(const std::string& text, double& seconds) {
    std::istringstream in(text);
    in.imbue(std::locale::classic());
    double value = 0.0;
    if (!(in >> value) || !in.eof() || !std::isfinite(value) || value < 0.0) {
        return false;
    }
    seconds = value;
    return true;
}

// Parses the command line into options. Returns the status to exit with when the program is done
// already (--help, --version, a bad command line).
//
// The service launches the server as
//     KALDClusterServer [-Z] [-P|-s] [-t|-ta] -socketpipe=PATH EXTRA
// and EXTRA, the client's extra argument, is always there after the pipe, even when it is empty
// or starts with '-'; older services give no pipe (it is then in KALD_LOCAL_SERVICE) and EXTRA
// only when it is not empty. CLI11 takes single-letter flags, so "-ta" reads as "-t" and "-a";
// "-socketpipe=PATH" is handed to it as "--socketpipe=PATH", and whatever follows as arguments
// after "--", which are never options.
std::optional<int> parse(int argc, char** argv, Options& options) {
    klCommandLine cli(kProgram,
                      "The reference render server. The cluster service starts it as\n"
                      "    KALDClusterServer [-Z] [-P|-s] [-t|-ta] -socketpipe=PATH EXTRA\n"
                      "and hands it the connections of its clients, which ask for regions of "
                      "Mandelbrot and Julia set frames and get RGB pixels back. Prints one line "
                      "per request served.");
    CLI::App& app = cli.app();
    bool first = false, noDisplay = false, stereo = false, second = false, third = false;
    app.add_flag("-Z", first, "launch option of the service; shown at start");
    app.add_flag("-P", noDisplay, "launch option of the service (no display); shown at start");
    app.add_flag("-s", stereo, "launch option of the service (stereo); shown at start");
    CLI::Option* t = app.add_flag("-t", second, "launch option of the service; shown at start");
    app.add_flag("-a", third, "with -t: -ta, a launch option of the service; shown at start")
        ->needs(t);
    CLI::Option* idle =
        app.add_option("--idle-exit", options.idleExit,
                       "end (status 0) after S seconds without any client; 0: never (default: "
                       "KALD_IDLE_EXIT, which the service sets, else 0)")
            ->type_name("S")
            ->check(klCommandLine::number(0, 1e9));
    app.add_option("--socketpipe", options.pipe)->group("");
    app.add_option("EXTRA", options.extra,
                   "the client's extra argument, shown at start; the argument right after "
                   "-socketpipe=PATH is always EXTRA, even if empty or starting with '-'")
        ->type_name("");
    app.footer(
        "-socketpipe=PATH names the service's socket hand-off pipe; without it the pipe is "
        "taken from the environment variable KALD_LOCAL_SERVICE.\n\n"
        "Exit status: 0 when the service closes the pipe, on SIGTERM/SIGINT or after the idle "
        "time, 1 when the pipe fails, 2 for a bad command line.");

    std::vector<std::string> args;
    for (int i = 1; i < argc; ++i) {
        const std::string arg = argv[i];
        if (arg.rfind("-socketpipe=", 0) == 0) {
            if (arg.size() == std::strlen("-socketpipe=")) {
                return cli.fail("-socketpipe= needs a path");
            }
            args.push_back("-" + arg);
            args.push_back("--");
            args.insert(args.end(), argv + i + 1, argv + argc);
            break;
        }
        args.push_back(arg);
    }
    if (const std::optional<int> done = cli.parse(args)) {
        return done;
    }
    for (const auto& [given, text] : {std::pair<bool, const char*>{first, "-Z"},
                                      {noDisplay, "-P"},
                                      {stereo, "-s"},
                                      {second, third ? "-ta" : "-t"}}) {
        if (given) {
            options.flags += (options.flags.empty() ? "" : " ") + std::string(text);
        }
    }
    if (idle->count() == 0) {
        const char* inherited = std::getenv("KALD_IDLE_EXIT");
        if (inherited != nullptr && !parseSeconds(inherited, options.idleExit)) {
            return cli.fail(std::string("KALD_IDLE_EXIT: '") + inherited +
                            "' is not a number of seconds");
        }
    }
    if (options.pipe.empty()) {
        const char* inherited = std::getenv("KALD_LOCAL_SERVICE");
        if (inherited == nullptr || inherited[0] == '\0') {
            return cli.fail("no socket pipe: give -socketpipe=PATH or set KALD_LOCAL_SERVICE");
        }
        options.pipe = inherited;
    }
    return std::nullopt;
}

int serve(const Options& options, const sigset_t& stopSignals) {
    std::unique_ptr<klSocketPipe> pipe;
    try {
        pipe = std::make_unique<klSocketPipe>(options.pipe);
    } catch (const std::exception& e) {
        std::fprintf(stderr, "%s: %s\n", kProgram, e.what());
        return 1;
    }
    std::printf("%s %s serving pipe %s (options: %s; extra argument: '%s')\n", kProgram,
                klVersionInfo::the().getVersionString().c_str(), options.pipe.c_str(),
                options.flags.empty() ? "none" : options.flags.c_str(), options.extra.c_str());
    std::fflush(stdout);

    klRenderSessions sessions;
    // Stop signals are taken here, on a thread of their own, rather than in a handler: shutting
    // the pipe and the links down is not allowed in a signal handler. The main thread wakes this
    // thread with a SIGTERM of its own when it is done.
    std::atomic<bool> finishing{false};
    std::thread signalWatcher([&] {
        int signal = 0;
        if (::sigwait(&stopSignals, &signal) == 0 && !finishing) {
            std::printf("%s stopping on signal %d\n", kProgram, signal);
            std::fflush(stdout);
        }
        pipe->shutdown();
        sessions.stopAll();
    });

    int status = 0;
    for (;;) {
        // Without an idle time, wait for the next client as long as it takes; with one, no longer
        // than until that time is up, counted from the last client's end.
        double wait = -1.0;
        if (options.idleExit > 0.0) {
            const double idle = sessions.idleSeconds();
            if (idle >= options.idleExit) {
                std::printf("%s ending: no client for %g s\n", kProgram, options.idleExit);
                std::fflush(stdout);
                break;
            }
            wait = std::max(options.idleExit - idle, 0.001);
        }
        try {
            sessions.serve(std::make_shared<klSocketLink>(*pipe, wait));
        } catch (const klConnectionClosed&) {
            break;  // the service closed the pipe, or a stop signal shut it
        } catch (const klConnectionTimeout&) {
            continue;
        } catch (const std::exception& e) {
            std::fprintf(stderr, "%s: %s\n", kProgram, e.what());
            status = 1;
            break;
        }
    }
    sessions.stopAll();
    finishing = true;
    ::pthread_kill(signalWatcher.native_handle(), SIGTERM);
    signalWatcher.join();
    sessions.joinAll();
    std::printf("%s stopped\n", kProgram);
    std::fflush(stdout);
    return status;
}

}  // namespace

int main(int argc, char** argv) {
    Options options;
    if (const std::optional<int> done = parse(argc, argv, options)) {
        return *done;
    }
    // Before any thread starts, so that every thread inherits the mask and only the watcher
    // thread ever takes these signals.
    sigset_t stopSignals;
    sigemptyset(&stopSignals);
    sigaddset(&stopSignals, SIGTERM);
    sigaddset(&stopSignals, SIGINT);
    ::pthread_sigmask(SIG_BLOCK, &stopSignals, nullptr);
    // Our output goes to the service's console through a pipe; a service that has gone must not
    // take the server down with it.
    ::signal(SIGPIPE, SIG_IGN);
    // A keyed service hands its clients over sealed, with their seals' state: go on sealed.
    klNetFarmSealer::enableHandOff();
    return serve(options, stopSignals);
}
