#include "klRenderSessions.h"

#include <klNetBase/core/klConnectionClosed.h>
#include <klNetBase/serial/klNetStream.h>
#include <klRenderProtocol.h>

#include <cstdio>
#include <string>
#include <system_error>

klRenderSessions::~klRenderSessions() {
    stopAll();
    joinAll();
}

void klRenderSessions::serve(std::shared_ptr<klSocketLink> link) {
    join(false);
    auto owned = std::make_unique<Session>();
    Session& session = *owned;
    session.link = std::move(link);
    {
        std::lock_guard<std::mutex> lock(m_mutex);
        if (m_stopped) {
            // The thread still runs, meets the shut link at once and ends.
            session.link->shutdown();
        }
        m_sessions.push_back(std::move(owned));
        ++m_open;
    }
    try {
        session.thread = std::thread([this, &session] { run(session); });
    } catch (const std::system_error& e) {
        // Out of threads: this client goes without an answer, the others are served on.
        std::printf("connection refused: %s\n", e.what());
        std::fflush(stdout);
        session.link->shutdown();
        sessionEnded(session);
    }
}

double klRenderSessions::idleSeconds() {
    std::lock_guard<std::mutex> lock(m_mutex);
    return m_open > 0
               ? 0.0
               : std::chrono::duration<double>(std::chrono::steady_clock::now() - m_idleSince)
                     .count();
}

void klRenderSessions::sessionEnded(Session& session) {
    {
        std::lock_guard<std::mutex> lock(m_mutex);
        if (--m_open == 0) {
            m_idleSince = std::chrono::steady_clock::now();
        }
    }
    session.finished = true;
}

void klRenderSessions::stopAll() {
    m_cancel = true;
    std::lock_guard<std::mutex> lock(m_mutex);
    m_stopped = true;
    for (const auto& session : m_sessions) {
        session->link->shutdown();
    }
}

void klRenderSessions::join(bool all) {
    std::list<std::unique_ptr<Session>> ended;
    {
        std::lock_guard<std::mutex> lock(m_mutex);
        for (auto it = m_sessions.begin(); it != m_sessions.end();) {
            const auto next = std::next(it);
            if (all || (*it)->finished) {
                ended.splice(ended.end(), m_sessions, it);
            }
            it = next;
        }
    }
    for (const auto& session : ended) {
        if (session->thread.joinable()) {
            session->thread.join();
        }
    }
}

void klRenderSessions::run(Session& session) {
    std::string peer = "?";
    try {
        peer = session.link->getPeerAddress().getName();
        klNetStream stream(session.link);
        for (;;) {
            const std::string done = klRenderServer::serveRequest(stream, m_cancel);
            std::printf("request %u from %s: %s\n", ++m_requestCount, peer.c_str(), done.c_str());
            std::fflush(stdout);
        }
    } catch (const klConnectionClosed&) {
        // The client has gone, or the server is stopping.
    } catch (const std::exception& e) {
        std::printf("connection from %s ended: %s\n", peer.c_str(), e.what());
        std::fflush(stdout);
    }
    // Tells a client whose connection ended in an error that nothing more will come.
    session.link->shutdown();
    sessionEnded(session);
}
