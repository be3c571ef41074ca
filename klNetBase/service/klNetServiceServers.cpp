// klNetService: the table of started servers, and how they are stopped and waited for.
#include <klNetBase/service/klNetService.h>

#include <klNetBase/core/klNetError.h>
#include <klNetBase/service/detail/klNetDeadlineTimer.h>
#include <klNetBase/service/detail/klNetServiceInternals.h>
#include <klNetBase/service/klNetServerProcess.h>

#include <klLog.h>

#include <QCoreApplication>
#include <QThread>

#include <algorithm>
#include <chrono>

namespace {

// A stopped server that has not ended this long after its pipe closed is sent SIGTERM; one that
// has not ended this long after SIGTERM is killed.
constexpr auto kStopGrace = std::chrono::seconds(3);
constexpr auto kTerminateGrace = std::chrono::seconds(3);
// How long the service's end waits for its servers beyond those two: a killed process is reaped
// and reported within milliseconds.
constexpr auto kKilledWait = std::chrono::seconds(2);

}  // namespace

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
    // A stopped server no longer counts: it may have been the last one a drain waited for.
    stopIfDrained();
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
    stopIfDrained();
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
