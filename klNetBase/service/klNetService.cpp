#include <klNetBase/service/klNetService.h>

#include <klNetBase/core/klConnectionClosed.h>
#include <klNetBase/core/klNetBufferPool.h>
#include <klNetBase/core/klNetError.h>
#include <klNetBase/core/klNetOptions.h>
#include <klNetBase/link/klBoundSocketLink.h>
#include <klNetBase/link/klSocketAddress.h>
#include <klNetBase/link/klSocketLink.h>
#include <klNetBase/runtime/klNetMem.h>
#include <klNetBase/serial/klNetStream.h>
#include <klNetBase/service/klNetServerProcess.h>
#include <klNetBase/service/klNetServiceStatus.h>
#include <klNetBase/service/klNetUtils.h>

#include <klLog.h>
#include <klVersionInfo.h>

#include <QCoreApplication>
#include <QThread>

#include <algorithm>
#include <chrono>
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
        throw klNetError(std::ostringstream() << "String field too long (" << length
                                              << " bytes, at most "
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

std::atomic<bool> klNetService::s_inProcessDisplay{false};
std::atomic<bool> klNetService::s_inProcessStereo{false};

klNetService::klNetService(int port, std::string serviceArgument)
    : m_port(port),
      m_serviceArgument(std::move(serviceArgument)),
      m_requestTimeout(klNetOptions::getConnectionTimeout()) {}

klNetService::~klNetService() {
    // A service that never ran may still have been handed requests.
    waitForRequests();
}

void klNetService::run() {
    auto listener = std::make_shared<klBoundSocketLink>(m_port.load());
    m_port = listener->getAddress().getPort();
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

    for (;;) {
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
            const klSocketAddress peer = link->getPeerAddress();
            if (!m_peerFilter.allows(peer.getSockAddr())) {
                klLog::error("Refused connection from %s: not an allowed peer\n",
                             peer.getName().c_str());
                continue;
            }
            {
                std::lock_guard<std::mutex> guard(m_requestLock);
                if (m_activeRequests >= m_maxRequests) {
                    klLog::error("Refused connection from %s: %d requests in progress\n",
                                 peer.getName().c_str(), m_activeRequests);
                    continue;
                }
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
    std::shared_ptr<klSocketLink> owned(link);
    const auto requestDone = [this] {
        std::lock_guard<std::mutex> guard(m_requestLock);
        --m_activeRequests;
        m_requestsDone.notify_all();
    };
    QThread* thread = QThread::create([this, owned, greet] { serveRequest(owned, greet); });
    if (thread == nullptr) {
        requestDone();
        throw klNetError("Unable to start a request thread");
    }
    QObject::connect(thread, &QThread::finished, thread, &QObject::deleteLater);
    // Counted as done only once the thread has finished and its deletion is queued, so that
    // whoever waits for the requests may then let the application delete the thread objects.
    QObject::connect(thread, &QThread::finished, thread, requestDone, Qt::DirectConnection);
    // deleteLater needs an event loop: the application's.
    if (QCoreApplication* application = QCoreApplication::instance()) {
        thread->moveToThread(application->thread());
    }
    thread->start(QThread::InheritPriority);
}

void klNetService::serveRequest(const std::shared_ptr<klSocketLink>& link, bool greet) {
    try {
        // A client that connects and then says nothing must not hold its thread for ever.
        link->setRecvTimeout(m_requestTimeout);
        if (greet) {
            std::uint32_t greeting = 0;
            link->recv(&greeting, sizeof(greeting));
            link->send(&greeting, sizeof(greeting));
        }
    } catch (const std::exception& e) {
        klLog::error("%s\n", e.what());
        return;
    }

    std::uint32_t command = 0;
    {
        klNetStream stream(link);
        try {
            stream >> command;
            dispatch(stream, *link, command);
        } catch (const std::exception& e) {
            try {
                stream.sendException(e);
                stream.flush();
            } catch (const std::exception& failure) {
                klLog::error("Failed to process command; %s\n", failure.what());
            }
        }
        try {
            stream.flush();
        } catch (const std::exception&) {
            // The client has gone; nothing is left to tell it.
        }
    }
    // Only a stop-server request clears the table at once; after the others stopped servers stay
    // listed until the next start or stop-server request.
    if (command == kStopServer) {
        removeStoppedServers();
    }
    std::fflush(stderr);
    std::fflush(stdout);
}

void klNetService::dispatch(klNetStream& stream, klSocketLink& link, std::uint32_t command) {
    switch (command) {
        case kStartServer:
            startServer(stream, link);
            break;
        case kConnectServer:
            connectServer(stream, link);
            break;
        case kStopService:
            stopService(stream);
            break;
        case kConnectService:
            connectService(stream);
            break;
        case kStopServer:
            stopServer(stream);
            break;
        case kGetStatus:
            getStatus(stream);
            break;
        case kStopServerByBookingId:
            stopServerByBookingId(stream);
            break;
        default:
            throw klNetError("Unknown service command");
    }
}

void klNetService::startServer(klNetStream& stream, klSocketLink& link) {
    removeStoppedServers();
    try {
        const std::string extraArgument = readString(stream);
        const std::string version = normaliseVersion(readString(stream));
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
        s_inProcessDisplay = display;
        s_inProcessStereo = stereo;

        if (m_maxServers > 0 && serverCount() >= m_maxServers) {
            throw klNetError(std::ostringstream()
                             << "Too many servers running (" << m_maxServers << ")");
        }
        const unsigned id = ++m_lastServerId;
        auto server = klNetServerProcess::create(extraArgument, id, m_serviceArgument, version,
                                                 display, stereo, firstOption, secondOption,
                                                 thirdOption, bookingId);
        server->start(m_console);
        addServer(server);

        // The socket is shared with the server from now on: its receive time-out must not go
        // along with it.
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
    } catch (const std::exception& e) {
        klLog::error("Failed to start server: %s\n", e.what());
        throw;
    }
}

void klNetService::connectServer(klNetStream& stream, klSocketLink& link) {
    std::uint32_t id = 0;
    stream >> id;
    const auto server = getServer(id);
    link.setRecvTimeout(0.0);
    server->sendSocket(link, -1.0);
    stream.sendSuccess();
}

void klNetService::stopService(klNetStream& stream) {
    stream.sendSuccess();
    stream.flush();
    stop();
}

void klNetService::connectService(klNetStream& stream) {
    const std::string host = readString(stream);
    std::uint32_t port = 0;
    stream >> port;
    const std::shared_ptr<klNetLink> client = stream.getFirstLink();
    auto target = std::make_shared<klSocketLink>(klSocketAddress(host, int(port)),
                                                 kRelayConnectTimeout);
    target->signalHPCNetSocket();
    client->setRecvTimeout(0.0);
    // Answer before the relay starts, so that the answer and relayed buffers never share the
    // client's socket at the same time.
    stream.sendSuccess();
    stream.flush();
    std::thread(connectLinks, client, target).detach();
    std::thread(connectLinks, target, client).detach();
}

void klNetService::stopServer(klNetStream& stream) {
    std::uint32_t id = 0;
    stream >> id;
    getServer(id)->stop();
    stream.sendSuccess();
}

void klNetService::getStatus(klNetStream& stream) {
    klNetServiceStatus status;
    status.setNumberOfClusterServers(serverCount());
    status.setFreeMemory(klNetMem::getAvailableMemory());
    status.setIsRunning(true);
    status.setVersion(ownVersion());
    status.setBookingIds(bookingIds());
    stream.sendSuccess();
    status.putValue(stream);
    stream.flush();
}

void klNetService::stopServerByBookingId(klNetStream& stream) {
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
        server->stop();
    }
    stream.sendSuccess();
}

std::shared_ptr<klNetServerProcess> klNetService::getServer(unsigned id) {
    std::lock_guard<std::mutex> guard(m_lock);
    const auto found = m_servers.find(id);
    if (found == m_servers.end()) {
        throw klNetError("Unknown server:" + std::to_string(id));
    }
    return found->second;
}

void klNetService::addServer(const std::shared_ptr<klNetServerProcess>& server) {
    {
        std::lock_guard<std::mutex> guard(m_listenerLock);
        if (!m_stopped) {
            std::lock_guard<std::mutex> serversGuard(m_lock);
            m_servers[server->getId()] = server;
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
            if (!it->second->isRunning() || it->second->isStopRequested()) {
                removed.push_back(std::move(it->second));
                it = m_servers.erase(it);
            } else {
                ++it;
            }
        }
    }
    // Destroying a server waits for its process; never under the lock.
}

int klNetService::serverCount() {
    std::lock_guard<std::mutex> guard(m_lock);
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

void klNetService::connectLinks(std::shared_ptr<klNetLink> from, std::shared_ptr<klNetLink> to) {
    try {
        std::shared_ptr<klNetBuffer> buffer = klNetBufferPool::pop();
        for (;;) {
            from->recv(buffer);
            to->send(buffer);
        }
    } catch (const std::exception&) {
        // One side has gone: end the other direction too, so that neither thread nor socket
        // outlives the relay.
        from->shutdown();
        to->shutdown();
    }
}

void klNetService::shutdown() {
    std::vector<std::shared_ptr<klNetServerProcess>> servers;
    {
        std::lock_guard<std::mutex> listenerGuard(m_listenerLock);
        m_stopped = true;
        std::lock_guard<std::mutex> guard(m_lock);
        for (auto& [id, server] : m_servers) {
            servers.push_back(std::move(server));
        }
        m_servers.clear();
    }
    for (const auto& server : servers) {
        server->stop();
    }
}

void klNetService::waitForRequests() {
    std::unique_lock<std::mutex> guard(m_requestLock);
    m_requestsDone.wait(guard, [this] { return m_activeRequests == 0; });
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
