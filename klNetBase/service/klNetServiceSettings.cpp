// klNetService: the settings an operator may change while the service runs, each set and read
// under the lock of the requests that use it, so that a reload needs no restart.
#include <klNetBase/service/klNetService.h>

#include <klNetBase/core/klNetError.h>
#include <klNetBase/service/detail/klNetServiceAdmission.h>
#include <klNetBase/service/detail/klNetServiceInternals.h>
#include <klNetBase/service/klNetUtils.h>

#include <cmath>
#include <cstdlib>

using klNetServiceDetail::textOf;

void klNetService::setPeerFilter(const klNetPeerFilter& filter) {
    std::lock_guard<std::mutex> guard(m_settingsLock);
    m_peerFilter = filter;
}

void klNetService::setMaxServers(int count) {
    std::lock_guard<std::mutex> guard(m_lock);
    m_maxServers = count;
}

void klNetService::setMaxRequests(int count) {
    {
        std::lock_guard<std::mutex> guard(m_requestLock);
        m_maxRequests = count;
        // A higher limit lets proven connections waiting for a slot in at once.
        if (m_admission != nullptr) {
            m_admission->wake();
        }
    }
    m_requestsChanged.notify_all();
}

void klNetService::setLinkSealer(std::shared_ptr<klNetLinkSealer> sealer) {
    std::lock_guard<std::mutex> guard(m_settingsLock);
    m_sealer = std::move(sealer);
}

void klNetService::setRelayTargets(const klNetPeerFilter& targets) {
    std::lock_guard<std::mutex> guard(m_settingsLock);
    m_relayTargets = targets;
}

void klNetService::setMaxRelays(int count) {
    std::lock_guard<std::mutex> guard(m_requestLock);
    m_maxRelays = count;
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
    std::lock_guard<std::mutex> guard(m_settingsLock);
    m_serverEnvironment = std::move(variables);
}

klNetPeerFilter klNetService::peerFilter() const {
    std::lock_guard<std::mutex> guard(m_settingsLock);
    return m_peerFilter;
}

klNetPeerFilter klNetService::relayTargets() const {
    std::lock_guard<std::mutex> guard(m_settingsLock);
    return m_relayTargets;
}

std::shared_ptr<klNetLinkSealer> klNetService::linkSealer() const {
    std::lock_guard<std::mutex> guard(m_settingsLock);
    return m_sealer;
}

std::vector<std::pair<std::string, std::string>> klNetService::serverEnvironment() const {
    std::lock_guard<std::mutex> guard(m_settingsLock);
    return m_serverEnvironment;
}

void klNetService::setHandshakeTimeout(double seconds) {
    if (!(seconds > 0.0) || !std::isfinite(seconds)) {
        throw klNetError(textOf("Invalid handshake time-out ", seconds));
    }
    m_handshakeTimeout = seconds;
}
