#include "klServiceReloader.h"

#include <klNetBase/codecs/klNetFarmSealer.h>
#include <klNetBase/service/klNetService.h>

#include <klLog.h>

#include <unistd.h>

#include <algorithm>
#include <cstring>
#include <map>
#include <stdexcept>

namespace {

bool sameKey(const std::optional<klNetFarmKey>& a, const std::optional<klNetFarmKey>& b) {
    return a.has_value() == b.has_value() &&
           (!a || std::memcmp(a->data(), b->data(), klNetFarmKey::kSize) == 0);
}

}  // namespace

klServiceReloader::klServiceReloader(klNetService& service, std::vector<std::string> args,
                                     const klServiceOptions& options)
    : m_service(service),
      m_args(std::move(args)),
      m_options(options),
      m_drainTimeout(options.drainTimeout) {}

void klServiceReloader::applyAtStart() {
    if (m_options.keyFile == "-") {
        if (::isatty(STDIN_FILENO) == 1) {
            throw std::runtime_error("--key-file -: standard input is a terminal, not a pipe");
        }
        m_key = klNetFarmKey::readFrom(STDIN_FILENO, "Standard input");
    } else if (!m_options.keyFile.empty()) {
        m_key = klNetFarmKey::load(m_options.keyFile);
    }
    if (m_key) {
        m_service.setLinkSealer(std::make_shared<klNetFarmSealer>(*m_key));
    }
    m_keyLoaded = true;
    apply(m_options);
}

void klServiceReloader::apply(const klServiceOptions& options) {
    m_service.setPeerFilter(options.peerFilter);
    m_service.setMaxServers(options.maxServers);
    m_service.setMaxRequests(options.maxRequests);
    m_service.setRequestTimeout(options.requestTimeout);
    m_service.setRelayTargets(options.relayTargets);
    m_service.setMaxRelays(options.maxRelays);
    m_service.setRelayIdleTimeout(options.relayIdleTimeout);
    m_service.setIdleExit(options.idleExit);
    m_service.setServerEnvironment(options.serverEnvironment);
    m_drainTimeout = options.drainTimeout;
}

std::string klServiceReloader::reload() {
    klServiceOptions next;
    std::string fault = klServiceOptions::read(m_args, next);
    // Standard error, once it is the log file, cannot be given back.
    if (fault.empty() && next.logFile.empty() && !m_options.logFile.empty()) {
        klLog::warning("Configuration: log-file removed needs a restart; it stays %s\n",
                       m_options.logFile.c_str());
        next.logFile = m_options.logFile;
    }
    // The log first: what follows goes to the file at its path now.
    if (fault.empty() && !next.logFile.empty()) {
        try {
            klLog::setFile(next.logFile);
        } catch (const std::exception& e) {
            fault = e.what();
        }
    }
    // Standard input is read once: a key from it stays, and none comes from it later.
    if (m_options.keyFile == "-" || next.keyFile == "-") {
        next.keyFile = m_options.keyFile;
    }
    std::optional<klNetFarmKey> key = m_key;
    if (fault.empty() && next.keyFile != "-") {
        try {
            key.reset();
            if (!next.keyFile.empty()) {
                key = klNetFarmKey::load(next.keyFile);
            }
        } catch (const std::exception& e) {
            fault = e.what();
        }
    }
    if (!fault.empty()) {
        klLog::error("Reload refused, the configuration stays as it was: %s\n", fault.c_str());
        return fault;
    }

    // Lines from here on at the new level.
    if (next.logLevel != m_options.logLevel) {
        // The level is a variable of the process's environment that exists already, which
        // setenv replaces in place; readers see the old value or the new one.
        klLog::setLevel(next.logLevel);
    }
    // Applied first, logged after: once a line says a setting changed, it has.
    const std::vector<klServiceOptions::Setting> was = m_options.settings();
    const std::vector<klServiceOptions::Setting> is = next.settings();
    const bool keyChanged = !sameKey(key, m_key);
    if (keyChanged) {
        m_service.setLinkSealer(key ? std::make_shared<klNetFarmSealer>(*key) : nullptr);
        m_key = std::move(key);
    }
    // The restart-only settings stay as they were; the others are taken over.
    next.port = m_options.port;
    next.listen = m_options.listen;
    next.metrics = m_options.metrics;
    next.serviceArgument = m_options.serviceArgument;
    next.console = m_options.console;
    next.stopOnStdinClose = m_options.stopOnStdinClose;
    apply(next);
    m_options = std::move(next);

    std::map<std::string, klServiceOptions::Setting> before;
    for (const auto& setting : was) {
        before.emplace(setting.name, setting);
    }
    int changes = 0;
    for (const auto& setting : is) {
        const klServiceOptions::Setting& old = before.at(setting.name);
        if (old.key() == setting.key()) {
            continue;
        }
        ++changes;
        if (setting.reloadable && old.reloadable) {
            klLog::info("Configuration reloaded: %s changed from %s to %s\n", setting.name,
                        old.value.c_str(), setting.value.c_str());
        } else {
            klLog::warning("Configuration: %s changed from %s to %s needs a restart; it stays %s\n",
                           setting.name, old.value.c_str(), setting.value.c_str(),
                           old.value.c_str());
        }
    }
    if (keyChanged) {
        ++changes;
        klLog::info("Configuration reloaded: the farm key changed%s\n",
                    m_key ? "" : " to none: clients are served in the clear");
    }
    if (changes == 0) {
        klLog::info("Configuration reloaded: nothing changed\n");
    }
    return {};
}
