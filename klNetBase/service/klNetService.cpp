#include <klNetBase/service/klNetService.h>

#include <klNetBase/core/klConnectionClosed.h>
#include <klNetBase/core/klConnectionTimeout.h>
#include <klNetBase/core/klNetBufferPool.h>
#include <klNetBase/core/klNetError.h>
#include <klNetBase/core/klNetOptions.h>
#include <klNetBase/link/klBoundSocketLink.h>
#include <klNetBase/link/klNetLinkSealer.h>
#include <klNetBase/link/klSocketAddress.h>
#include <klNetBase/link/klSocketLink.h>
#include <klNetBase/link/klSocketPipe.h>
#include <klNetBase/runtime/klNetMem.h>
#include <klNetBase/serial/klNetStream.h>
#include <klNetBase/service/detail/klNetDeadlineTimer.h>
#include <klNetBase/service/detail/klNetNoEventDispatcher.h>
#include <klNetBase/service/klNetServerProcess.h>
#include <klNetBase/service/klNetServiceStatus.h>
#include <klNetBase/service/klNetUtils.h>

#include <klLog.h>
#include <klVersionInfo.h>

#include <QCoreApplication>
#include <QThread>

#include <algorithm>
#include <chrono>
#include <cmath>
#include <cstdio>
#include <cstdlib>
#include <sstream>
#include <thread>

namespace {

constexpr double kVersionTolerance = 0.0001;
// A started program opens its pipe within milliseconds; waiting in short slices notices one that
// ended (or was stopped) before it took its socket without waiting out the whole time-out. An
// in-process server's thread may end at once and leave the pipe to its caller, which has the
// whole time-out to open it.
constexpr double kHandOffSlice = 0.25;
constexpr double kHandOffTimeout = 10.0;
constexpr double kRelayConnectTimeout = 5.0;
// A stopped server that has not ended this long after its pipe closed is sent SIGTERM; one that
// has not ended this long after SIGTERM is killed.
constexpr auto kStopGrace = std::chrono::seconds(3);
constexpr auto kTerminateGrace = std::chrono::seconds(3);
// How long the service's end waits for its servers beyond those two: a killed process is reaped
// and reported within milliseconds.
constexpr auto kKilledWait = std::chrono::seconds(2);

bool atLeast(double version, double threshold) {
    return version + kVersionTolerance >= threshold;
}

// A string field, refused before anything is allocated for it when it is longer than any sane
// request needs. The wire form is the serializer's: length including the terminating zero, the
// bytes, the zero.
std::string readString(klNetStream& stream) {
    std::uint32_t length = 0;
    stream >> length;
    if (length > klNetService::kMaxStringSize) {
        throw klNetError(std::ostringstream()
                         << "String field too long (" << length << " bytes, at most "
                         << klNetService::kMaxStringSize << ")");
    }
    std::string text(length, '\0');
    if (length > 0) {
        stream.getBytes(text.data(), length);
        text.pop_back();
    }
    return text;
}

bool readFlag(klNetStream& stream) {
    std::uint8_t flag = 0;
    stream >> flag;
    return flag != 0;
}

// The version text selects a program directory (the installation of that version), so it must
// be a plain name: letters, digits, '.', '-' and '_', no "..", at most kMaxVersionSize bytes.
void checkVersionText(const std::string& version) {
    const bool plain = version.size() <= klNetService::kMaxVersionSize &&
                       version.find("..") == std::string::npos &&
                       std::all_of(version.begin(), version.end(), [](char c) {
                           return (c >= '0' && c <= '9') || (c >= 'a' && c <= 'z') ||
                                  (c >= 'A' && c <= 'Z') || c == '.' || c == '-' || c == '_';
                       });
    if (!plain) {
        throw klNetError("Invalid version text " +
                         klNetUtils::quoted(version, klNetService::kMaxVersionSize));
    }
}

// The values written one after the other, as a stream writes them.
template <class... Values>
std::string textOf(const Values&... values) {
    std::ostringstream text;
    (text << ... << values);
    return text.str();
}

std::string ownVersion() {
    return klVersionInfo::the().getVersionString();
}

bool digitsFrom(const std::string& text, std::size_t from) {
    return std::all_of(text.begin() + std::ptrdiff_t(from), text.end(),
                       [](char c) { return c >= '0' && c <= '9'; });
}

// Service-pack names of old clients: "SR1", "SR1.SP3" become "8.5", "8.53". The rule is the
// pattern ^SR1(?:.SP)?(\d*)$ ('.' being any character but a line break), matched by hand: the
// standard regex matcher recurses once per character, and a version text may be 64 KiB long.
std::string normaliseVersion(const std::string& version) {
    if (version.compare(0, 3, "SR1") != 0) {
        return version;
    }
    if (digitsFrom(version, 3)) {
        return "8.5" + version.substr(3);
    }
    if (version.size() >= 6 && version[3] != '\n' && version[3] != '\r' &&
        version.compare(4, 2, "SP") == 0 && digitsFrom(version, 6)) {
        return "8.5" + version.substr(6);
    }
    return version;
}

}  // namespace

// One accepted connection and its request. The deadline's action shuts the link down, which
// ends whatever read or write of the request thread waits on it.
struct klNetService::Request {
    std::shared_ptr<klSocketLink> link;
    std::string peer;  // numeric address, for the log
    std::chrono::steady_clock::time_point accepted = std::chrono::steady_clock::now();
    std::uint64_t deadline = 0;
    std::atomic<bool> timedOut{false};
    // The request's log line after the peer and the command, set by its handler.
    std::string outcome = "done";
    klLog::Level level = klLog::Level::info;
};

// The two ends of a relay and when it last carried a buffer either way. Each end is read by one
// thread, which forwards to the other end; the last of the two threads to end retires the relay.
struct klNetService::Relay {
    using Clock = klNetDeadlineTimer::Clock;
    std::shared_ptr<klNetLink> client;
    std::shared_ptr<klNetLink> target;
    std::atomic<Clock::rep> lastActivity{Clock::now().time_since_epoch().count()};
    std::atomic<int> threads{0};
    std::uint64_t idleTimer = 0;

    Clock::time_point lastActive() const {
        return Clock::time_point(Clock::duration(lastActivity.load()));
    }
    void close() {
        client->shutdown();
        target->shutdown();
    }
};

// A start request's place under the server limit, held from before the launch until the server
// is in the table, where it counts itself.
class klNetService::StartSlot {
public:
    explicit StartSlot(klNetService& service) : m_service(service) {
        std::lock_guard<std::mutex> guard(service.m_lock);
        if (service.m_maxServers > 0 &&
            service.runningServers() + service.m_startsInProgress >= service.m_maxServers) {
            service.countRefusal("server-limit");
            throw klNetError(std::ostringstream()
                             << "Too many servers running (" << service.m_maxServers << ")");
        }
        ++service.m_startsInProgress;
    }
    ~StartSlot() {
        std::lock_guard<std::mutex> guard(m_service.m_lock);
        releaseLocked();
    }
    StartSlot(const StartSlot&) = delete;
    StartSlot& operator=(const StartSlot&) = delete;
    // REQUIRES: the service's m_lock held.
    void releaseLocked() {
        if (m_held) {
            m_held = false;
            --m_service.m_startsInProgress;
        }
    }

private:
    klNetService& m_service;
    bool m_held = true;
};

std::atomic<bool> klNetService::s_inProcessDisplay{false};
std::atomic<bool> klNetService::s_inProcessStereo{false};

klNetService::klNetService(int port, std::string serviceArgument)
    : m_port(port),
      m_serviceArgument(std::move(serviceArgument)),
      m_requestTimeout(klNetOptions::getConnectionTimeout()),
      m_endNotice(std::make_shared<EndNotice>()),
      m_timer(std::make_unique<klNetDeadlineTimer>()) {
    m_endNotice->service = this;
}

klNetService::~klNetService() {
    // A service that never ran may still have been handed requests.
    waitForRequests();
    std::lock_guard<std::mutex> guard(m_endNotice->lock);
    m_endNotice->service = nullptr;
}

void klNetService::setIdleExit(double seconds) {
    if (!(seconds >= 0.0) || !std::isfinite(seconds)) {
        throw klNetError(textOf("Invalid idle time ", seconds));
    }
    m_idleExit = seconds;
}

void klNetService::setServerEnvironment(const std::vector<std::string>& entries) {
    std::vector<std::pair<std::string, std::string>> variables;
    for (const std::string& entry : entries) {
        const std::size_t equals = entry.find('=');
        const std::string name = entry.substr(0, equals);
        if (!klNetUtils::isEnvironmentName(name)) {
            throw klNetError("Invalid environment variable name " + klNetUtils::quoted(name));
        }
        if (equals != std::string::npos) {
            variables.emplace_back(name, entry.substr(equals + 1));
        } else if (const char* value = std::getenv(name.c_str())) {
            variables.emplace_back(name, value);
        }
    }
    m_serverEnvironment = std::move(variables);
}

void klNetService::run() {
    auto listener = m_listenAddress.empty() ? std::make_shared<klBoundSocketLink>(m_port.load())
                                            : std::make_shared<klBoundSocketLink>(klSocketAddress(
                                                  m_listenAddress, std::to_string(m_port.load())));
    m_port = listener->getAddress().getPort();
    // Only a service that runs clears up: one that cannot listen leaves everything as it is.
    if (const int stale = klSocketPipe::removeStaleFiles(); stale > 0) {
        klLog::info("Removed %d stale hand-off socket%s of an earlier service from %s\n", stale,
                    stale == 1 ? "" : "s", klSocketPipe::getDirectory().c_str());
    }
    {
        std::lock_guard<std::mutex> guard(m_listenerLock);
        if (m_stopped) {
            listener->shutdown();
        }
        m_listener = listener;
    }
    if (m_listeningHandler) {
        m_listeningHandler(m_port.load());
    }

    // Connections beyond the request limit wait in the listen backlog until a request ends.
    while (waitForRequestSlot()) {
        try {
            std::unique_ptr<klSocketLink> link;
            try {
                link = std::make_unique<klSocketLink>(*listener);
            } catch (const klConnectionClosed&) {
                break;
            } catch (const std::exception& e) {
                klLog::error("%s", e.what());
                break;
            }
            if (m_keepAliveOn) {
                link->setKeepAlive(m_keepAlive);
            }
            const klSocketAddress peer = link->getPeerAddress();
            if (!m_peerFilter.allows(peer.getSockAddr())) {
                klLog::warning("Refused connection from %s: not an allowed peer\n",
                               peer.getName().c_str());
                countRefusal("peer");
                continue;
            }
            {
                std::lock_guard<std::mutex> guard(m_requestLock);
                ++m_activeRequests;
            }
            handleRequest(link.release(), true);
        } catch (const std::exception& e) {
            klLog::error("%s\n", e.what());
        }
    }
    shutdown();
    waitForRequests();
    std::lock_guard<std::mutex> guard(m_listenerLock);
    m_listener.reset();
}

void klNetService::stop() {
    std::shared_ptr<klBoundSocketLink> listener;
    {
        std::lock_guard<std::mutex> guard(m_listenerLock);
        m_stopped = true;
        listener = m_listener;
    }
    {
        std::lock_guard<std::mutex> guard(m_requestLock);
        m_accepting = false;
    }
    m_requestsChanged.notify_all();
    if (listener) {
        listener->shutdown();
    }
}

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
                                  std::chrono::duration<double>(m_requestTimeout)),
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
    if (!m_sealer) {
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
        m_sealer->accept(*request.link);
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

void klNetService::startServer(klNetStream& stream, Request& request) {
    removeStoppedServers();
    const std::string extraArgument = readString(stream);
    std::string version = readString(stream);
    try {
        checkVersionText(version);
    } catch (const klNetError&) {
        countRefusal("version");
        throw;
    }
    version = normaliseVersion(version);
    const double clientVersion = klNetUtils::decimalValue(version);
    if (clientVersion > klNetUtils::decimalValue(ownVersion())) {
        throw klNetError("Incompatible versions: KALDClusterService " + ownVersion() +
                         " request from " + version);
    }
    readString(stream);  // reserved
    const bool display = atLeast(clientVersion, 9.0) && readFlag(stream);
    const bool firstOption = readFlag(stream);
    const bool secondOption = readFlag(stream);
    const bool thirdOption = readFlag(stream);
    const std::string bookingId = atLeast(clientVersion, 9.2) ? readString(stream) : "";
    const bool stereo = atLeast(clientVersion, 10.0) && readFlag(stream);
    endRequestTime(request);
    s_inProcessDisplay = display;
    s_inProcessStereo = stereo;

    StartSlot slot(*this);
    const unsigned id = ++m_lastServerId;
    auto server =
        klNetServerProcess::create(extraArgument, id, m_serviceArgument, version, display, stereo,
                                   firstOption, secondOption, thirdOption, bookingId);
    std::vector<std::pair<std::string, std::string>> environment = m_serverEnvironment;
    if (m_idleExit > 0.0) {
        environment.emplace_back("KALD_IDLE_EXIT", textOf(m_idleExit));
    }
    server->setEnvironment(std::move(environment));
    server->setEndHandler([notice = m_endNotice, id] {
        std::lock_guard<std::mutex> guard(notice->lock);
        if (notice->service != nullptr) {
            notice->service->serverEnded(id);
        }
    });
    server->start(m_console);
    addServer(server, slot, request.peer);

    // The socket is shared with the server from now on: its receive time-out must not go
    // along with it.
    klSocketLink& link = *request.link;
    link.setRecvTimeout(0.0);
    const auto handOffStart = std::chrono::steady_clock::now();
    for (;;) {
        try {
            server->sendSocket(link, kHandOffSlice);
            break;
        } catch (const std::exception&) {
            QCoreApplication::processEvents();
            if (server->isStopRequested()) {
                throw klNetError("Server manually aborted");
            }
            const std::chrono::duration<double> waited =
                std::chrono::steady_clock::now() - handOffStart;
            if (!server->isRunning() &&
                (!server->isInProcess() || waited.count() >= kHandOffTimeout)) {
                throw klNetError("Failed to connect started server");
            }
        }
    }
    stream.sendSuccess();
    stream << std::uint32_t(id) << std::uint64_t(klNetMem::getAvailableMemory())
           << std::int32_t(serverCount());
    countHandOff();
    request.outcome = textOf("server ", id, " started (booking ", klNetUtils::quoted(bookingId),
                             ", process ", server->getProcessId(), ")");
}

void klNetService::connectServer(klNetStream& stream, Request& request) {
    std::uint32_t id = 0;
    stream >> id;
    endRequestTime(request);
    const auto server = getServer(id);
    request.link->setRecvTimeout(0.0);
    server->sendSocket(*request.link, -1.0);
    stream.sendSuccess();
    countHandOff();
    request.outcome = textOf("handed to server ", id);
}

void klNetService::stopService(klNetStream& stream, Request& request) {
    request.outcome = "stopping the service";
    stream.sendSuccess();
    stream.flush();
    stop();
}

void klNetService::connectService(klNetStream& stream, Request& request) {
    const std::string host = readString(stream);
    std::uint32_t port = 0;
    stream >> port;
    // Without targets of its own the service resolves nothing and connects nowhere, so that a
    // client can use it neither as a proxy nor to probe the network behind it.
    if (m_relayTargets.isEmpty()) {
        countRefusal("relay-disabled");
        throw klNetError("Relaying is not enabled on this service");
    }
    const klSocketAddress address(host, int(port));
    if (!m_relayTargets.allows(address.getSockAddr())) {
        countRefusal("relay-target");
        throw klNetError("Relaying to " + address.getName() + " is not allowed");
    }
    {
        std::lock_guard<std::mutex> guard(m_requestLock);
        if (m_activeRelays >= m_maxRelays) {
            countRefusal("relay-limit");
            throw klNetError(std::ostringstream() << "Too many relays (" << m_maxRelays << ")");
        }
        ++m_activeRelays;
    }
    auto relay = std::make_shared<Relay>();
    try {
        relay->client = stream.getFirstLink();
        auto target = std::make_shared<klSocketLink>(address, kRelayConnectTimeout);
        if (m_keepAliveOn) {
            target->setKeepAlive(m_keepAlive);
        }
        if (m_sealer) {
            m_sealer->connect(*target, kRelayConnectTimeout);
        } else {
            target->signalHPCNetSocket();
        }
        relay->target = std::move(target);
        endRequestTime(request);
        {
            // Listed only whole, and only while the service runs: shutdown() closes every relay
            // it finds listed, and refuses the rest here.
            std::lock_guard<std::mutex> guard(m_requestLock);
            if (!m_accepting) {
                throw klNetError("Service is shutting down");
            }
            m_relays.push_back(relay);
        }
        relay->client->setRecvTimeout(0.0);
        // Answer before the relay starts, so that the answer and relayed buffers never share the
        // client's socket at the same time.
        stream.sendSuccess();
        stream.flush();
    } catch (...) {
        relayEnded();
        throw;
    }
    {
        std::lock_guard<std::mutex> guard(m_metricsLock);
        ++m_metrics.relaysOpened;
    }
    request.outcome = textOf("relaying to ", address.getName(), " port ", port);
    const auto idle = std::chrono::duration_cast<Relay::Clock::duration>(
        std::chrono::duration<double>(m_relayIdleTimeout));
    relay->idleTimer = m_timer->schedule(Relay::Clock::now() + idle, [relay, idle] {
        const auto quietUntil = relay->lastActive() + idle;
        if (Relay::Clock::now() < quietUntil) {
            return quietUntil;
        }
        relay->close();
        return klNetDeadlineTimer::kDone;
    });
    relay->threads = 2;
    for (const bool toTarget : {true, false}) {
        try {
            std::thread([this, relay, toTarget] {
                connectLinks(relay, toTarget ? relay->client : relay->target,
                             toTarget ? relay->target : relay->client);
            }).detach();
        } catch (const std::exception& e) {
            // The other direction, if it runs, ends as soon as its link is shut.
            klLog::error("Unable to start a relay thread: %s\n", e.what());
            relay->close();
            if (--relay->threads == 0) {
                m_timer->cancel(relay->idleTimer);
                relayEnded();
            }
        }
    }
}

void klNetService::stopServer(klNetStream& stream, Request& request) {
    std::uint32_t id = 0;
    stream >> id;
    endServer(getServer(id));
    stream.sendSuccess();
    request.outcome = textOf("server ", id, " stopped");
}

void klNetService::getStatus(klNetStream& stream, Request& request) {
    klNetServiceStatus status;
    status.setNumberOfClusterServers(serverCount());
    status.setFreeMemory(klNetMem::getAvailableMemory());
    status.setIsRunning(true);
    status.setVersion(ownVersion());
    status.setBookingIds(bookingIds());
    stream.sendSuccess();
    status.putValue(stream);
    stream.flush();
    request.outcome = "answered";
    request.level = klLog::Level::debug;
}

void klNetService::stopServerByBookingId(klNetStream& stream, Request& request) {
    const std::string bookingId = readString(stream);
    std::vector<std::shared_ptr<klNetServerProcess>> matching;
    {
        std::lock_guard<std::mutex> guard(m_lock);
        for (const auto& [id, server] : m_servers) {
            if (server->bookingId() == bookingId) {
                matching.push_back(server);
            }
        }
    }
    for (const auto& server : matching) {
        endServer(server);
    }
    stream.sendSuccess();
    request.outcome =
        textOf("stopped ", matching.size(), matching.size() == 1 ? " server" : " servers",
               " of booking ", klNetUtils::quoted(bookingId));
}

std::shared_ptr<klNetServerProcess> klNetService::getServer(unsigned id) {
    std::lock_guard<std::mutex> guard(m_lock);
    const auto found = m_servers.find(id);
    if (found == m_servers.end()) {
        throw klNetError("Unknown server:" + std::to_string(id));
    }
    return found->second;
}

void klNetService::addServer(const std::shared_ptr<klNetServerProcess>& server, StartSlot& slot,
                             const std::string& client) {
    {
        std::lock_guard<std::mutex> guard(m_listenerLock);
        if (!m_stopped) {
            std::lock_guard<std::mutex> serversGuard(m_lock);
            m_servers[server->getId()] = server;
            m_origins[server->getId()] = Origin{client, std::chrono::system_clock::now()};
            // Counted as a running server from now on.
            slot.releaseLocked();
            return;
        }
    }
    // The service is going away: this server would outlive the table that stops servers.
    server->stop();
    throw klNetError("Service is shutting down");
}

void klNetService::removeStoppedServers() {
    std::vector<std::shared_ptr<klNetServerProcess>> removed;
    {
        std::lock_guard<std::mutex> guard(m_lock);
        for (auto it = m_servers.begin(); it != m_servers.end();) {
            const std::shared_ptr<klNetServerProcess>& server = it->second;
            if (server->isRunning() && !server->isStopRequested()) {
                ++it;
                continue;
            }
            // A program still running is being ended in the background: it stays listed as
            // stopping, and its end handler lets it go. So nobody waits for it here.
            if (server->isRunning() && !server->isInProcess()) {
                m_stopping[it->first] = Stopping{server, m_origins[it->first]};
            } else {
                removed.push_back(server);
            }
            m_origins.erase(it->first);
            it = m_servers.erase(it);
        }
    }
    // Destroying an in-process server joins its task; never under the lock.
}

void klNetService::endServer(const std::shared_ptr<klNetServerProcess>& server) {
    server->stop();
    if (server->isInProcess()) {
        return;
    }
    // Signals only, from the deadline thread: nothing here waits. The server is not kept alive
    // for it; once it has ended and gone, there is nothing left to do.
    std::weak_ptr<klNetServerProcess> weak = server;
    auto terminated = std::make_shared<bool>(false);  // touched by the deadline thread only
    m_timer->schedule(klNetDeadlineTimer::Clock::now() + kStopGrace,
                      [weak, terminated]() -> klNetDeadlineTimer::Clock::time_point {
                          const auto target = weak.lock();
                          if (!target || !target->isRunning()) {
                              return klNetDeadlineTimer::kDone;
                          }
                          if (!*terminated) {
                              *terminated = true;
                              target->terminate();
                              return klNetDeadlineTimer::Clock::now() + kTerminateGrace;
                          }
                          target->kill();
                          return klNetDeadlineTimer::kDone;
                      });
}

void klNetService::serverEnded(unsigned id) {
    std::shared_ptr<klNetServerProcess> server;
    {
        std::lock_guard<std::mutex> guard(m_lock);
        if (const auto found = m_servers.find(id); found != m_servers.end()) {
            server = std::move(found->second);
            m_servers.erase(found);
            m_origins.erase(id);
        } else if (const auto stopping = m_stopping.find(id); stopping != m_stopping.end()) {
            server = std::move(stopping->second.server);
            m_stopping.erase(stopping);
        }
    }
    m_stoppingChanged.notify_all();
    // This runs inside the program wrapper's own signal: the server, and with it the wrapper,
    // goes once that is over.
    if (server) {
        QMetaObject::invokeMethod(
            QCoreApplication::instance(), [server = std::move(server)] {}, Qt::QueuedConnection);
    }
}

void klNetService::waitForServers() {
    const auto deadline =
        std::chrono::steady_clock::now() + kStopGrace + kTerminateGrace + kKilledWait;
    // Ends are reported on the application thread: when that is this one, it must look for them.
    QCoreApplication* const application = QCoreApplication::instance();
    const bool onApplicationThread =
        application != nullptr && application->thread() == QThread::currentThread();
    std::unique_lock<std::mutex> guard(m_lock);
    while (!m_stopping.empty() && std::chrono::steady_clock::now() < deadline) {
        if (onApplicationThread) {
            guard.unlock();
            QCoreApplication::processEvents();
            guard.lock();
        }
        m_stoppingChanged.wait_for(guard, std::chrono::milliseconds(50));
    }
    std::map<unsigned, Stopping> left = std::move(m_stopping);
    m_stopping.clear();
    guard.unlock();
    for (const auto& [id, stopping] : left) {
        klLog::warning("Server %u (process %u) has not ended: ending it now\n", id,
                       unsigned(stopping.server->getProcessId()));
    }
    // Their destruction kills what still runs and waits for it.
}

int klNetService::serverCount() {
    std::lock_guard<std::mutex> guard(m_lock);
    return runningServers();
}

int klNetService::runningServers() const {
    int count = 0;
    for (const auto& [id, server] : m_servers) {
        count += server->isRunning() && !server->isStopRequested() ? 1 : 0;
    }
    return count;
}

std::vector<std::string> klNetService::bookingIds() {
    std::lock_guard<std::mutex> guard(m_lock);
    std::vector<std::string> ids;
    for (const auto& [id, server] : m_servers) {
        if (server->isRunning() && !server->isStopRequested()) {
            ids.push_back(server->bookingId());
        }
    }
    return ids;
}

void klNetService::connectLinks(const std::shared_ptr<Relay>& relay,
                                const std::shared_ptr<klNetLink>& from,
                                const std::shared_ptr<klNetLink>& to) {
    try {
        std::shared_ptr<klNetBuffer> buffer = klNetBufferPool::pop();
        for (;;) {
            from->recv(buffer);
            to->send(buffer);
            m_bytesRelayed += buffer->getBufferSize();
            relay->lastActivity = Relay::Clock::now().time_since_epoch().count();
        }
    } catch (const std::exception&) {
        // One side has gone (or the relay was idle too long, or the service stops): end the
        // other direction too, so that neither thread nor socket outlives the relay.
    }
    relay->close();
    if (--relay->threads == 0) {
        m_timer->cancel(relay->idleTimer);
        relayEnded();
    }
}

void klNetService::relayEnded() {
    {
        std::lock_guard<std::mutex> guard(m_requestLock);
        --m_activeRelays;
        m_relays.erase(
            std::remove_if(m_relays.begin(), m_relays.end(),
                           [](const std::weak_ptr<Relay>& relay) { return relay.expired(); }),
            m_relays.end());
    }
    m_requestsChanged.notify_all();
}

void klNetService::shutdown() {
    std::vector<std::shared_ptr<klNetServerProcess>> servers;
    {
        std::lock_guard<std::mutex> listenerGuard(m_listenerLock);
        m_stopped = true;
        std::lock_guard<std::mutex> guard(m_lock);
        for (auto& [id, server] : m_servers) {
            servers.push_back(server);
        }
        // Programs wait for their ends as stopping; in-process servers are joined below.
        for (auto& [id, server] : m_servers) {
            if (server->isRunning() && !server->isInProcess()) {
                m_stopping[id] = Stopping{std::move(server), m_origins[id]};
            }
        }
        m_servers.clear();
        m_origins.clear();
    }
    for (const auto& server : servers) {
        endServer(server);
    }
    std::vector<std::shared_ptr<Relay>> relays;
    {
        std::lock_guard<std::mutex> guard(m_requestLock);
        m_accepting = false;
        for (const auto& relay : m_relays) {
            if (auto open = relay.lock()) {
                relays.push_back(std::move(open));
            }
        }
    }
    for (const auto& relay : relays) {
        relay->close();
    }
    servers.clear();
    waitForServers();
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
    const std::string name = command == 0 || command > kStopServerByBookingId
                                 ? textOf("command ", command)
                                 : commandName(command);
    if (request.timedOut) {
        klLog::warning("Request from %s timed out after %g s\n", request.peer.c_str(),
                       m_requestTimeout);
    } else {
        klLog::write(request.level, "%s %s: %s\n", request.peer.c_str(), name.c_str(),
                     request.outcome.c_str());
    }

    const double seconds =
        std::chrono::duration<double>(std::chrono::steady_clock::now() - request.accepted).count();
    const Outcome outcome = request.timedOut                         ? kTimedOut
                            : request.level == klLog::Level::warning ? kFailed
                                                                     : kSucceeded;
    std::lock_guard<std::mutex> guard(m_metricsLock);
    ++m_metrics.requests[command <= kStopServerByBookingId ? command : 0][outcome];
    for (std::size_t i = 0; i < Metrics::kLatencyBounds.size(); ++i) {
        m_metrics.latencyBuckets[i] += seconds <= Metrics::kLatencyBounds[i] ? 1 : 0;
    }
    ++m_metrics.latencyCount;
    m_metrics.latencySum += seconds;
}

void klNetService::countRefusal(const std::string& reason) {
    std::lock_guard<std::mutex> guard(m_metricsLock);
    ++m_metrics.refusals[reason];
}

void klNetService::countHandOff() {
    std::lock_guard<std::mutex> guard(m_metricsLock);
    ++m_metrics.handOffs;
}

klNetService::Metrics klNetService::metrics() {
    const int running = serverCount();
    int relaysOpen;
    {
        std::lock_guard<std::mutex> guard(m_requestLock);
        relaysOpen = m_activeRelays;
    }
    std::lock_guard<std::mutex> guard(m_metricsLock);
    Metrics metrics = m_metrics;
    metrics.serversRunning = running;
    metrics.serversStarted = m_lastServerId;
    metrics.relaysOpen = relaysOpen;
    metrics.bytesRelayed = m_bytesRelayed;
    return metrics;
}

std::vector<klNetService::ServerInfo> klNetService::servers() {
    std::lock_guard<std::mutex> guard(m_lock);
    std::vector<ServerInfo> list;
    for (const auto& [id, server] : m_servers) {
        if (!server->isRunning()) {
            continue;
        }
        const Origin& origin = m_origins[id];
        list.push_back(ServerInfo{id, server->bookingId(), server->getProcessId(), origin.client,
                                  origin.started, server->isStopRequested()});
    }
    for (const auto& [id, stopping] : m_stopping) {
        list.push_back(ServerInfo{id, stopping.server->bookingId(), stopping.server->getProcessId(),
                                  stopping.origin.client, stopping.origin.started, true});
    }
    std::sort(list.begin(), list.end(),
              [](const ServerInfo& a, const ServerInfo& b) { return a.id < b.id; });
    return list;
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
        default:
            return "unknown";
    }
}

std::string klNetService::runInProcess() {
    klNetServerProcess::setInProcess(true, {});
    // One service per process, ended and joined at exit.
    struct InProcessService {
        klNetService service{klNetOptions::getDefaultServicePort(), ""};
        std::thread thread{[this] {
            try {
                service.run();
            } catch (const std::exception& e) {
                klLog::error("%s", e.what());
            }
        }};
        ~InProcessService() {
            service.stop();
            thread.join();
        }
    };
    static InProcessService inProcess;
    for (;;) {
        {
            std::lock_guard<std::mutex> guard(inProcess.service.m_lock);
            if (!inProcess.service.m_servers.empty()) {
                return inProcess.service.m_servers.begin()->second->socketPipeName();
            }
        }
        std::this_thread::sleep_for(std::chrono::milliseconds(10));
    }
}
