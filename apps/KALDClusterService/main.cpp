// KALDClusterService: the cluster service daemon of a render node.
//
// Runs klNetService on a thread of its own while the main thread runs the Qt event loop that the
// service relies on (finished request threads are deleted there; started servers' output arrives
// there). Once the port is bound it prints "listening on port N" on standard output and tells
// systemd it is ready. SIGTERM drains it (no new servers; it stops once the last has ended, or at
// --drain-timeout); SIGINT, a second SIGTERM, a stop-service request and, with
// --stop-on-stdin-close, the end of standard input stop it at once, servers and all. Either way
// it exits 0. SIGHUP reloads the configuration (klServiceReloader). A port that cannot be
// listened on ends it with status 1, a bad command line or configuration with status 2.
#include <klNetBase/core/klNetError.h>
#include <klNetBase/core/klNetOptions.h>
#include <klNetBase/link/klNetNodeNames.h>
#include <klNetBase/service/klNetPeerFilter.h>
#include <klNetBase/service/klNetService.h>
#include <klNetBase/service/klNetUtils.h>

#include <klNetBase/codecs/klNetFarmKey.h>
#include <klNetBase/codecs/klNetFarmSealer.h>
#include "klCommandLine.h"
#include "klDrainDeadline.h"
#include "klEndOfInputWatcher.h"
#include "klLog.h"
#include "klMetricsEndpoint.h"
#include "klServiceOptions.h"
#include "klServiceReloader.h"
#include "klSignalWatcher.h"
#include "klSystemdNotifier.h"
#include "klVersionInfo.h"

#include <QCoreApplication>

#include <arpa/inet.h>
#include <fcntl.h>
#include <unistd.h>

#include <algorithm>
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

const char* const kProgram = klServiceOptions::kProgram;

std::string joined(const std::vector<std::string>& texts) {
    std::string all;
    for (const std::string& text : texts) {
        all += (all.empty() ? "" : ", ") + text;
    }
    return all;
}

// --check-config: the command line and the configuration file have been read; the key file is
// what is left to look at.
int checkConfig(const klServiceOptions& options) {
    if (!options.keyFile.empty() && options.keyFile != "-") {
        try {
            klNetFarmKey::load(options.keyFile);
        } catch (const std::exception& e) {
            return klCommandLine::fail(kProgram, e.what());
        }
    }
    std::printf("%s: configuration good (%s)\n", kProgram,
                options.configFile.empty() ? "command line only, no configuration file"
                                           : options.configFile.c_str());
    return 0;
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
std::string runService(int argc, char** argv, const std::vector<std::string>& args,
                       const klServiceOptions& options) {
    QCoreApplication application(argc, argv);
    // Qt's own warnings (a program that cannot be started, say) go to the log like every line.
    qInstallMessageHandler([](QtMsgType type, const QMessageLogContext&, const QString& text) {
        klLog::write(
            type == QtDebugMsg || type == QtInfoMsg ? klLog::Level::debug : klLog::Level::warning,
            "%s\n", text.toLocal8Bit().constData());
    });

    klNetService service(options.port, options.serviceArgument);
    service.setConsole(options.console);
    service.setListenAddress(options.listen);
    service.setNodeNames(options.nodeNames);
    service.setHandshakeTimeout(options.handshakeTimeout);
    // Clients wait on these connections (the render servers' pixels come over them): a client
    // that is gone without a word must not keep its servers busy for long.
    service.setKeepAlive(klSocketKeepAlive::deadPeerWithin15s());
    klServiceReloader reloader(service, args, options);
    reloader.applyAtStart();

    std::atomic<bool> listening{false};
    std::atomic<bool> stopping{false};
    std::unique_ptr<klMetricsEndpoint> metrics;
    if (!options.metrics.empty()) {
        metrics = std::make_unique<klMetricsEndpoint>(
            service, options.metrics, [&service, &reloader, &listening, &stopping] {
                return stopping                ? std::string("stopping")
                       : !listening            ? std::string("not listening yet")
                       : !reloader.keyLoaded() ? std::string("no farm key loaded")
                       : service.isDraining()  ? std::string("draining")
                                               : std::string();
            });
    }
    // "Listening on port 8889, 2 servers running", for systemctl status.
    const auto statusText = [&service] {
        const int servers = service.serverCount();
        return "Listening on port " + std::to_string(service.getPort()) + ", " +
               std::to_string(servers) + (servers == 1 ? " server running" : " servers running");
    };
    service.setListeningHandler([&options, &metrics, &listening, &statusText](int port) {
        klLog::info("%s %s listening on port %d of %s\n", kProgram,
                    klVersionInfo::the().getVersionString().c_str(), port,
                    options.listen.empty() ? "every address" : options.listen.c_str());
        if (options.peerFilter.isEmpty() && options.keyFile.empty()) {
            klLog::warning("No --allow given: requests from every peer are accepted\n");
        } else if (options.peerFilter.isEmpty()) {
            klLog::info(
                "No --allow given: every peer may connect; only clients holding the "
                "farm key are served\n");
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
            klLog::info(
                "Metrics at http://%s:%d/metrics, servers at /servers, health at "
                "/healthz and /ready\n",
                host.c_str(), metrics->port());
            std::printf("metrics on port %d\n", metrics->port());
        }
        std::fflush(stdout);
        listening = true;
        klSystemdNotifier::ready(statusText());
    });

    // The bound of a drain: what is left then is stopped as stop-service stops it.
    klDrainDeadline drainDeadline([&service, &reloader, &stopping] {
        klLog::warning("Drain time-out (%g s): stopping the %d server(s) left\n",
                       reloader.drainTimeout(), service.serverCount());
        stopping = true;
        klSystemdNotifier::stopping("Drain time-out: stopping");
        service.stop();
    });
    service.setDrainHandler([&reloader, &drainDeadline, &statusText] {
        const double limit = reloader.drainTimeout();
        klSystemdNotifier::stopping("Draining: " + statusText() + ", no new servers");
        if (limit > 0.0) {
            drainDeadline.start(limit);
        }
    });
    const auto stopNow = [&service, &stopping](const char* why) {
        klLog::info("%s: stopping\n", why);
        stopping = true;
        klSystemdNotifier::stopping("Stopping");
        service.stop();
    };

    std::string failure;
    {
        klSignalWatcher signalWatcher(
            [&](int signal) {
                if (signal == SIGHUP) {
                    klLog::info("Signal %d received: reloading the configuration\n", signal);
                    klSystemdNotifier::reloading();
                    reloader.reload();
                    klSystemdNotifier::ready(service.isDraining() ? "Draining: " + statusText()
                                                                  : statusText());
                } else if (signal == SIGTERM && !service.isDraining() &&
                           reloader.drainTimeout() > 0.0) {
                    klLog::info(
                        "Signal %d received: draining for at most %g s (SIGTERM or "
                        "SIGINT again stops at once)\n",
                        signal, reloader.drainTimeout());
                    service.drain();
                } else {
                    stopNow(("Signal " + std::to_string(signal) + " received").c_str());
                }
            },
            false, {SIGTERM, SIGINT, SIGHUP});
        std::unique_ptr<klEndOfInputWatcher> inputWatcher;
        if (options.stopOnStdinClose) {
            inputWatcher = std::make_unique<klEndOfInputWatcher>(
                STDIN_FILENO, [&stopNow] { stopNow("Standard input closed"); });
        }
        ServiceThread serviceThread(service, application, failure);
        QCoreApplication::exec();
        stopping = true;
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
    const std::vector<std::string> args(argv + std::min(argc, 1), argv + argc);
    klServiceOptions options;
    if (const std::optional<int> done = klServiceOptions::parse(args, options)) {
        return *done;
    }
    if (options.checkConfig) {
        return checkConfig(options);
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
        failure = runService(argc, argv, args, options);
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
