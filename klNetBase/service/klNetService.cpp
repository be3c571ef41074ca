// klNetService: construction, configuration, running and stopping, metrics. Beside this file:
// klNetServiceRequests.cpp serves a request, klNetServiceCommands.cpp its command,
// klNetServiceRelay.cpp relays, klNetServiceServers.cpp keeps the table of started servers.
#include <klNetBase/service/klNetService.h>

#include <klNetBase/core/klConnectionClosed.h>
#include <klNetBase/core/klNetError.h>
#include <klNetBase/core/klNetOptions.h>
#include <klNetBase/link/klBoundSocketLink.h>
#include <klNetBase/link/klSocketAddress.h>
#include <klNetBase/link/klSocketLink.h>
#include <klNetBase/link/klSocketPipe.h>
#include <klNetBase/service/detail/klNetDeadlineTimer.h>
#include <klNetBase/service/detail/klNetServiceAdmission.h>
#include <klNetBase/service/detail/klNetServiceInternals.h>
#include <klNetBase/service/klNetServerProcess.h>
#include <klNetBase/service/klNetUtils.h>

#include <klLog.h>

#include <chrono>
#include <cmath>
#include <cstdlib>
#include <thread>

using klNetServiceDetail::textOf;

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

void klNetService::run() {
    auto listener = m_listenAddress.empty() ? std::make_shared<klBoundSocketLink>(m_port.load())
                                            : std::make_shared<klBoundSocketLink>(klSocketAddress(
                                                  m_listenAddress, std::to_string(m_port.load())));
    m_port = listener->getAddress().getPort();
    m_nodeNames = m_extraNodeNames.withPort(m_port.load());
    m_nodeNames.addThisHost(m_port.load(), m_listenAddress);
    std::string names;
    for (const std::string& name : m_nodeNames.names()) {
        names += (names.empty() ? "" : ", ") + name;
    }
    klLog::debug("Sealed clients may dial this service as %s\n", names.c_str());
    // Only a service that runs clears up: one that cannot listen leaves everything as it is.
    if (const int stale = klSocketPipe::removeStaleFiles(); stale > 0) {
        klLog::info("Removed %d stale hand-off socket%s of an earlier service from %s\n", stale,
                    stale == 1 ? "" : "s", klSocketPipe::getDirectory().c_str());
    }
    {
        std::lock_guard<std::mutex> guard(m_listenerLock);
        m_listener = listener;
    }
    if (m_listeningHandler) {
        m_listeningHandler(m_port.load());
    }

    try {
        admitConnections(*listener);
    } catch (const std::exception& e) {
        klLog::error("%s\n", e.what());
    }
    // The port is free from here on, while requests in progress end.
    listener->shutdown();
    shutdown();
    waitForRequests();
    std::lock_guard<std::mutex> guard(m_listenerLock);
    m_listener.reset();
}

void klNetService::stop() {
    {
        std::lock_guard<std::mutex> guard(m_listenerLock);
        m_stopped = true;
    }
    {
        // The accepting thread closes the listener itself once it has left its loop, so that its
        // descriptor is never closed under a wait or an accept in progress.
        std::lock_guard<std::mutex> guard(m_requestLock);
        m_accepting = false;
        if (m_admission != nullptr) {
            m_admission->stop();
        }
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
