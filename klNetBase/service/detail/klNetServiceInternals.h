// The private types and request-field readers of klNetService that more than one of its sources
// needs: a request, a relay, a start's place under the server limit. Internal: not installed.
//
// Thread safety: as the members of klNetService that use them (see each type).
#pragma once

#include <klNetBase/core/klNetError.h>
#include <klNetBase/link/klNetLink.h>
#include <klNetBase/link/klSocketLink.h>
#include <klNetBase/serial/klNetStream.h>
#include <klNetBase/service/detail/klNetDeadlineTimer.h>
#include <klNetBase/service/klNetService.h>

#include <klLog.h>

#include <atomic>
#include <chrono>
#include <cstdint>
#include <memory>
#include <mutex>
#include <sstream>
#include <string>

namespace klNetServiceDetail {

// A string field, refused before anything is allocated for it when it is longer than any sane
// request needs. The wire form is the serializer's: length including the terminating zero, the
// bytes, the zero.
inline std::string readString(klNetStream& stream) {
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

// The values written one after the other, as a stream writes them.
template <class... Values>
std::string textOf(const Values&... values) {
    std::ostringstream text;
    (text << ... << values);
    return text.str();
}

}  // namespace klNetServiceDetail

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
// thread, which forwards to the other end; the last holder (the two threads and, until it has
// answered, the request) retires the relay.
struct klNetService::Relay {
    using Clock = klNetDeadlineTimer::Clock;
    std::shared_ptr<klSocketLink> client;
    std::shared_ptr<klSocketLink> target;
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
// is in the table, where it counts itself. No start is let in while the service drains.
class klNetService::StartSlot {
public:
    explicit StartSlot(klNetService& service) : m_service(service) {
        std::lock_guard<std::mutex> guard(service.m_lock);
        // Read under the lock that drain() sets it under: a start either counts before the drain
        // (which then waits for it) or is refused.
        if (service.m_draining) {
            service.countRefusal("draining");
            throw klNetError("The service is draining: no new servers are started");
        }
        if (service.m_maxServers > 0 &&
            service.runningServers() + service.m_startsInProgress >= service.m_maxServers) {
            service.countRefusal("server-limit");
            throw klNetError(std::ostringstream()
                             << "Too many servers running (" << service.m_maxServers << ")");
        }
        ++service.m_startsInProgress;
    }
    ~StartSlot() {
        {
            std::lock_guard<std::mutex> guard(m_service.m_lock);
            releaseLocked();
        }
        // A start that failed may have been the last thing a drain waited for.
        m_service.stopIfDrained();
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
