// klHttpListener: the small HTTP server of a monitoring endpoint: GET (and HEAD) of a few fixed
// paths, one answer per connection ("Connection: close"), on IPv4 or IPv6.
//
// Two threads of its own accept and serve one connection at a time each. A request must arrive
// whole (request line and headers, at most 8 KiB) within 10 s, or its connection is closed
// unanswered; a body is never read. Paths are matched exactly, after the query ("?...") is cut
// off; an unknown path is answered 404, another method 405, a malformed request 400.
//
// Thread safety: constructed and destroyed on one thread; handlers run on the listener's
// threads, two at a time, and must be thread-safe.
#pragma once

#include <atomic>
#include <functional>
#include <map>
#include <string>
#include <thread>
#include <vector>

class klHttpListener {
public:
    struct Answer {
        int status = 200;
        std::string type = "text/plain; charset=utf-8";
        std::string body;
    };
    using Handler = std::function<Answer()>;

    // Listens on "HOST:PORT" (HOST a numeric IPv4 address or an IPv6 one in brackets; PORT 0
    // for one the system chooses). Failure throws std::runtime_error "cannot serve HTTP on
    // <address>: <reason>".
    klHttpListener(const std::string& address, std::map<std::string, Handler> handlers);
    // Stops listening and waits for the connections being served (at most their time-out).
    ~klHttpListener();
    klHttpListener(const klHttpListener&) = delete;
    klHttpListener& operator=(const klHttpListener&) = delete;

    int port() const { return m_port; }

private:
    void acceptLoop();
    void serve(int connection);
    // The request line and headers; empty when the connection ended, timed out or sent too much.
    std::string readRequest(int connection);

    const std::map<std::string, Handler> m_handlers;
    int m_listener = -1;
    int m_port = 0;
    std::atomic<bool> m_stopping{false};
    std::vector<std::thread> m_threads;
};
