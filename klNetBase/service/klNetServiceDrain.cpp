// klNetService: draining, the way out that lets the servers running finish: no server is started
// any more, and the service stops once the last one has ended.
#include <klNetBase/service/klNetService.h>

#include <klNetBase/serial/klNetStream.h>
#include <klNetBase/service/detail/klNetServiceInternals.h>

#include <klLog.h>

void klNetService::drain() {
    int left = 0;
    {
        std::lock_guard<std::mutex> guard(m_lock);
        if (m_draining.exchange(true)) {
            return;
        }
        left = runningServers() + m_startsInProgress;
    }
    klLog::info("Draining: no new servers are started; stopping once %d server%s ended\n", left,
                left == 1 ? " has" : "s have");
    if (m_drainHandler) {
        m_drainHandler();
    }
    stopIfDrained();
}

void klNetService::stopIfDrained() {
    if (!m_draining) {
        return;
    }
    {
        std::lock_guard<std::mutex> guard(m_lock);
        if (runningServers() + m_startsInProgress > 0) {
            return;
        }
    }
    bool first = false;
    {
        std::lock_guard<std::mutex> guard(m_listenerLock);
        first = !m_stopped;
    }
    if (first) {
        klLog::info("Drained: no server is left, stopping\n");
    }
    stop();
}

void klNetService::drainService(klNetStream& stream, Request& request) {
    request.outcome = "draining the service";
    stream.sendSuccess();
    stream.flush();
    drain();
}
