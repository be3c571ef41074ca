// klRenderSessions: the client connections a render server serves, each on a thread of its own.
//
// serve() takes a connection that the service handed over and answers render requests on it, one
// after another, until the client closes it. stopAll() ends every session: renders in progress
// stop, every link is shut down, and connections that arrive afterwards are shut at once. Session
// threads are joined by joinAll() or the destructor; finished ones already when the next
// connection arrives, so a long-running server does not collect them.
//
// Output: one line on standard output per request served or refused and per connection that
// ends in an error (a client closing its connection is no error).
//
// idleSeconds() tells how long the server has had no client: a render server that nobody uses
// any more (its client has gone, crashed or was killed) can end by itself.
//
// Ownership: the sessions own their threads and share their links with them.
// Thread safety: serve() and joinAll() from one thread; stopAll() and idleSeconds() from any
// thread.
#pragma once

#include <klNetBase/link/klSocketLink.h>

#include <atomic>
#include <chrono>
#include <list>
#include <memory>
#include <mutex>
#include <thread>

class klRenderSessions {
public:
    klRenderSessions() = default;
    // stopAll(), then joinAll().
    ~klRenderSessions();

    klRenderSessions(const klRenderSessions&) = delete;
    klRenderSessions& operator=(const klRenderSessions&) = delete;

    void serve(std::shared_ptr<klSocketLink> link);
    void stopAll();
    void joinAll() { join(true); }
    // Seconds since the last session ended (or since construction, when there was none); 0 while
    // a session is open.
    double idleSeconds();

private:
    struct Session {
        std::shared_ptr<klSocketLink> link;
        // Touched only by the thread that calls serve() and joinAll().
        std::thread thread;
        std::atomic<bool> finished{false};
    };

    void run(Session& session);
    void sessionEnded(Session& session);
    // Joins every finished session thread, or every one when all is set.
    void join(bool all);

    // Set once by stopAll(); polled by every render.
    std::atomic<bool> m_cancel{false};
    std::atomic<unsigned> m_requestCount{0};

    std::mutex m_mutex;
    // Guarded by m_mutex.
    std::list<std::unique_ptr<Session>> m_sessions;
    bool m_stopped = false;
    int m_open = 0;  // sessions not yet ended
    std::chrono::steady_clock::time_point m_idleSince = std::chrono::steady_clock::now();
};
