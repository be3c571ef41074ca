// klNetService: serving a request, from its accepted connection to its log line: the request's
// thread and time limit, the request limit, the greeting, the dispatch of its command.
#include <klNetBase/service/klNetService.h>

#include <klNetBase/core/klConnectionClosed.h>
#include <klNetBase/core/klNetError.h>
#include <klNetBase/link/klNetLinkSealer.h>
#include <klNetBase/link/klSocketAddress.h>
#include <klNetBase/link/klSocketLink.h>
#include <klNetBase/serial/klNetStream.h>
#include <klNetBase/service/detail/klNetDeadlineTimer.h>
#include <klNetBase/service/detail/klNetNoEventDispatcher.h>
#include <klNetBase/service/detail/klNetServiceInternals.h>

#include <klLog.h>

#include <QCoreApplication>
#include <QThread>

#include <chrono>
#include <cmath>
#include <cstdio>

using klNetServiceDetail::textOf;

void klNetService::handleExternalRequest(klSocketLink* link) {
    try {
        {
            std::lock_guard<std::mutex> guard(m_requestLock);
            ++m_activeRequests;
        }
        handleRequest(link, false);
    } catch (const std::exception& e) {
        klLog::error("Request error %s\n", e.what());
    }
}

void klNetService::handleRequest(klSocketLink* link, bool greet) {
    // The request owns its link from here on, whatever happens.
    auto request = std::make_shared<Request>();
    request->link.reset(link);
    try {
        request->peer = link->getPeerAddress().getName();
    } catch (const std::exception&) {
        request->peer = "an unknown peer";
    }
    request->deadline =
        m_timer->schedule(klNetDeadlineTimer::Clock::now() +
                              std::chrono::duration_cast<klNetDeadlineTimer::Clock::duration>(
                                  std::chrono::duration<double>(m_requestTimeout.load())),
                          [request] {
                              request->timedOut = true;
                              request->link->shutdown();
                              return klNetDeadlineTimer::kDone;
                          });
    {
        std::lock_guard<std::mutex> guard(m_requestLock);
        ++m_requestThreads;
    }
    const auto threadDone = [this] {
        {
            std::lock_guard<std::mutex> guard(m_requestLock);
            --m_requestThreads;
        }
        m_requestsChanged.notify_all();
    };
    QThread* thread = QThread::create([this, request, greet] { serveRequest(*request, greet); });
    if (thread == nullptr) {
        m_timer->cancel(request->deadline);
        requestEnded();
        threadDone();
        throw klNetError("Unable to start a request thread");
    }
    // The thread runs no event loop: it needs no descriptor for one, and cannot fail for lack of
    // one. The thread owns its dispatcher.
    thread->setEventDispatcher(new klNetNoEventDispatcher);
    QObject::connect(thread, &QThread::finished, thread, &QObject::deleteLater);
    // A thread counts until it has finished and its deletion is queued, so that whoever waits for
    // the threads may then let the application delete the thread objects.
    QObject::connect(thread, &QThread::finished, thread, threadDone, Qt::DirectConnection);
    // deleteLater needs an event loop: the application's.
    if (QCoreApplication* application = QCoreApplication::instance()) {
        thread->moveToThread(application->thread());
    }
    thread->start(QThread::InheritPriority);
}

void klNetService::serveRequest(Request& request, bool greet) {
    std::uint32_t command = 0;
    bool refused = false;
    try {
        // The deadline bounds the request as a whole; the receive time-out is a second line for
        // each read.
        request.link->setRecvTimeout(m_requestTimeout);
        refused = greet && !greetClient(request);
        if (!refused) {
            serveCommand(request, command);
        }
    } catch (const std::exception& e) {
        // Before a command: a port scan, a probe of another protocol, a client gone.
        request.outcome = e.what();
        request.level = klLog::Level::debug;
    }
    m_timer->cancel(request.deadline);
    if (!refused) {  // a refusal has its own line
        endRequest(request, command);
    }
    // Closes the connection, unless a server or a relay holds it now.
    request.link.reset();
    // Only a stop-server request clears the table at once; after the others stopped servers stay
    // listed until the next start or stop-server request. (Removed servers are waited for.)
    if (command == kStopServer) {
        removeStoppedServers();
    }
    std::fflush(stderr);
    std::fflush(stdout);
    requestEnded();
}

void klNetService::serveCommand(Request& request, std::uint32_t& command) {
    klNetStream stream(request.link);
    try {
        stream >> command;
        dispatch(stream, request, command);
    } catch (const std::exception& e) {
        request.outcome =
            command == kStartServer ? std::string("Failed to start server: ") + e.what() : e.what();
        request.level = klLog::Level::warning;
        if (!request.timedOut) {
            try {
                stream.sendException(e);
                stream.flush();
            } catch (const std::exception& failure) {
                klLog::error("Failed to process command; %s\n", failure.what());
            }
        }
    }
    try {
        stream.flush();
    } catch (const std::exception&) {
        // The client has gone; nothing is left to tell it.
    }
}

bool klNetService::greetClient(Request& request) {
    std::uint32_t greeting = 0;
    request.link->recv(&greeting, sizeof(greeting));
    const std::shared_ptr<klNetLinkSealer> sealer = linkSealer();
    if (!sealer) {
        request.link->send(&greeting, sizeof(greeting));
        return true;
    }
    // A keyed service talks to sealed clients only, and says nothing to the others.
    if (greeting != klSocketLink::kSealedGreeting) {
        klLog::warning("Refused connection from %s: not sealed\n", request.peer.c_str());
        countRefusal("unsealed");
        return false;
    }
    try {
        sealer->accept(*request.link, m_nodeNames);
    } catch (const std::exception& e) {
        if (!request.timedOut) {
            klLog::warning("Refused connection from %s: %s\n", request.peer.c_str(), e.what());
            countRefusal("key");
        }
        return false;
    }
    return true;
}

void klNetService::dispatch(klNetStream& stream, Request& request, std::uint32_t command) {
    switch (command) {
        case kStartServer:
            startServer(stream, request);
            break;
        case kConnectServer:
            connectServer(stream, request);
            break;
        case kStopService:
            stopService(stream, request);
            break;
        case kConnectService:
            connectService(stream, request);
            break;
        case kStopServer:
            stopServer(stream, request);
            break;
        case kGetStatus:
            getStatus(stream, request);
            break;
        case kStopServerByBookingId:
            stopServerByBookingId(stream, request);
            break;
        case kDrain:
            drainService(stream, request);
            break;
        default:
            throw klNetError("Unknown service command");
    }
}

void klNetService::endRequestTime(Request& request) {
    m_timer->cancel(request.deadline);
    if (request.timedOut) {
        throw klConnectionClosed();
    }
}

bool klNetService::waitForRequestSlot() {
    std::unique_lock<std::mutex> guard(m_requestLock);
    m_requestsChanged.wait(guard,
                           [this] { return !m_accepting || m_activeRequests < m_maxRequests; });
    return m_accepting;
}

void klNetService::requestEnded() {
    {
        std::lock_guard<std::mutex> guard(m_requestLock);
        --m_activeRequests;
    }
    m_requestsChanged.notify_all();
}

void klNetService::waitForRequests() {
    std::unique_lock<std::mutex> guard(m_requestLock);
    m_requestsChanged.wait(guard, [this] { return m_requestThreads == 0 && m_activeRelays == 0; });
}

void klNetService::endRequest(const Request& request, std::uint32_t command) {
    const std::string name =
        command == 0 || command > kLastCommand ? textOf("command ", command) : commandName(command);
    const double seconds =
        std::chrono::duration<double>(std::chrono::steady_clock::now() - request.accepted).count();
    const long long milliseconds = std::llround(seconds * 1000.0);
    if (request.timedOut) {
        klLog::warning("Request from %s timed out after %g s (%s, in %lld ms)\n",
                       request.peer.c_str(), m_requestTimeout.load(), name.c_str(), milliseconds);
    } else {
        klLog::write(request.level, "%s %s: %s in %lld ms\n", request.peer.c_str(), name.c_str(),
                     request.outcome.c_str(), milliseconds);
    }
    countDuration(command, seconds);
    const Outcome outcome = request.timedOut                         ? kTimedOut
                            : request.level == klLog::Level::warning ? kFailed
                                                                     : kSucceeded;
    std::lock_guard<std::mutex> guard(m_metricsLock);
    ++m_metrics.requests[command <= kLastCommand ? command : 0][outcome];
}

const char* klNetService::commandName(std::uint32_t command) {
    switch (command) {
        case kStartServer:
            return "start-server";
        case kConnectServer:
            return "connect-server";
        case kStopService:
            return "stop-service";
        case kConnectService:
            return "relay";
        case kStopServer:
            return "stop-server";
        case kGetStatus:
            return "status";
        case kStopServerByBookingId:
            return "stop-booking";
        case kDrain:
            return "drain";
        default:
            return "unknown";
    }
}
