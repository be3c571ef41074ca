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
// Ownership: the sessions own their threads and share their links with them.
// Thread safety: serve() and joinAll() from one thread; stopAll() from any thread.
#pragma once

#include <klNetBase/link/klSocketLink.h>

#include <atomic>
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

private:
    struct Session {
        std::shared_ptr<klSocketLink> link;
        // Touched only by the thread that calls serve() and joinAll().
        std::thread thread;
        std::atomic<bool> finished{false};
    };

    void run(Session& session);
    // Joins every finished session thread, or every one when all is set.
    void join(bool all);

    // Set once by stopAll(); polled by every render.
    std::atomic<bool> m_cancel{false};
    std::atomic<unsigned> m_requestCount{0};

    std::mutex m_mutex;
    // Guarded by m_mutex.
    std::list<std::unique_ptr<Session>> m_sessions;
    bool m_stopped = false;
};
