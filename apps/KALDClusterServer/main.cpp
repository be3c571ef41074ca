// KALDClusterServer: the reference render server.
//
// The cluster service starts it with the name of a socket hand-off pipe and then passes it the
// connections of clients that asked for a render server. Each connection is served on a thread of
// its own with the render protocol (klRenderProtocol.h) until the client closes it. The server
// ends with status 0 when the service closes the pipe (it has stopped the server) or on SIGTERM or
// SIGINT, after shutting every client connection down and joining its threads.
#include "klRenderSessions.h"

#include <klNetBase/core/klConnectionClosed.h>
#include <klNetBase/core/klConnectionTimeout.h>
#include <klNetBase/link/klSocketLink.h>
#include <klNetBase/link/klSocketPipe.h>

#include "klVersionInfo.h"

#include <pthread.h>
#include <signal.h>

#include <atomic>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <memory>
#include <string>
#include <thread>

namespace {

constexpr const char* kProgram = "KALDClusterServer";

void printHelp() {
    std::printf(
        "Usage: %s [-Z] [-P|-s] [-t|-ta] [-socketpipe=PATH] [EXTRA]\n"
        "\n"
        "The reference render server. The cluster service starts it and hands it the connections\n"
        "of its clients, which ask for regions of Mandelbrot and Julia set frames and get RGB\n"
        "pixels back. Prints one line per request served.\n"
        "\n"
        "  -Z, -P, -s, -t, -ta   launch options of the service; accepted and shown at start\n"
        "  -socketpipe=PATH      the service's socket hand-off pipe; without it the pipe is\n"
        "                        taken from the environment variable KALD_LOCAL_SERVICE\n"
        "  EXTRA                 the client's extra argument, shown at start; the argument right\n"
        "                        after -socketpipe=PATH is always taken as EXTRA, even if empty "
        "or\n"
        "                        starting with '-'\n"
        "  --help                this text\n"
        "  --version             the version\n"
        "\n"
        "Exit status: 0 when the service closes the pipe or on SIGTERM/SIGINT, 1 when the pipe\n"
        "fails, 2 for a bad command line.\n",
        kProgram);
}

struct Options {
    std::string flags;  // the launch options given, as "-Z -P -t"
    std::string pipe;
    std::string extra;
    bool hasExtra = false;
};

// Parses the command line into options. Returns -1 to go on, or the status to exit with.
int parse(int argc, char** argv, Options& options) {
    const auto fail = [](const std::string& text) {
        std::fprintf(stderr, "%s: %s (see --help)\n", kProgram, text.c_str());
        return 2;
    };
    for (int i = 1; i < argc; ++i) {
        const std::string arg = argv[i];
        if (arg == "--help" || arg == "-h") {
            printHelp();
            return 0;
        }
        if (arg == "--version") {
            std::printf("%s %s\n", kProgram, klVersionInfo::the().getVersionString().c_str());
            return 0;
        }
        if (arg == "-Z" || arg == "-P" || arg == "-s" || arg == "-t" || arg == "-ta") {
            options.flags += (options.flags.empty() ? "" : " ") + arg;
        } else if (arg.rfind("-socketpipe=", 0) == 0) {
            options.pipe = arg.substr(std::strlen("-socketpipe="));
            if (options.pipe.empty()) {
                return fail("-socketpipe= needs a path");
            }
            // The service always puts the client's extra argument right behind the pipe, and
            // that argument may look like an option.
            if (i + 1 < argc) {
                if (options.hasExtra) {
                    return fail(std::string("unexpected argument '") + argv[i + 1] + "'");
                }
                options.extra = argv[++i];
                options.hasExtra = true;
            }
        } else if (!arg.empty() && arg[0] == '-') {
            return fail("unknown option '" + arg + "'");
        } else if (options.hasExtra) {
            return fail("unexpected argument '" + arg + "'");
        } else {
            options.extra = arg;
            options.hasExtra = true;
        }
    }
    if (options.pipe.empty()) {
        const char* inherited = std::getenv("KALD_LOCAL_SERVICE");
        if (inherited == nullptr || inherited[0] == '\0') {
            return fail("no socket pipe: give -socketpipe=PATH or set KALD_LOCAL_SERVICE");
        }
        options.pipe = inherited;
    }
    return -1;
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
        try {
            sessions.serve(std::make_shared<klSocketLink>(*pipe, -1.0));
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
    const int exitNow = parse(argc, argv, options);
    if (exitNow >= 0) {
        return exitNow;
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
    return serve(options, stopSignals);
}
