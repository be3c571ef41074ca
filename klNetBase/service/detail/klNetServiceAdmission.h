// klNetServiceAdmission: the service's stage between a connection's accept and its request
// thread. Internal.
//
// A request thread is what a client's request costs; a client that has not shown it is one (it
// has not greeted, or not proved the farm key) must cost no thread and must not hold a request's
// place, or a crowd of connections that greet and then say nothing would keep proven clients
// out. So one thread, the one that calls run(), accepts every connection as it comes and carries
// each through its greeting without blocking on it, over epoll:
//
//   accepted ──greeting──┬─ keyed service: sealed greeting ─ hello ─ peer's proof ─ finish ─┐
//   (peer filter,        │  (another greeting: refused, "unsealed"; a bad proof: "key")      ├─
//   proven
//    keep-alive)         └─ plain service: greeting echoed ─ first 4 bytes of the command ───┘
//
// A proven connection is made blocking again and handed on with a request slot (takeSlot); when
// every slot is busy it waits, in the order of its accept, until wake() says one may be free.
// Its request time still counts from its accept: one that runs out while waiting is closed
// (expired).
//
// Bounds: a connection that is not proven within the handshake time-out (or the request
// time-out, if shorter) of its accept is closed ("handshake-timeout", logged at debug level, as a
// flood would otherwise flood the log). Connections held here, in their handshake or waiting for
// a slot, are capped (the given count, at most half the process's descriptor limit): at the cap
// the oldest unproven connection is closed to make room ("handshake-limit"). That keeps accepting,
// so that a crowd that fills the stage delays a newcomer by no more than its own handshake, where
// refusing to accept would leave it in the backlog until the crowd's connections time out. Only
// when every held connection is proven (waiting for a slot) does the stage stop accepting, and
// connections wait in the listen backlog. Running out of descriptors closes the oldest unproven
// connection too, or, without one, pauses accepting (growing pauses up to 1 s, said once).
//
// Descriptors are non-blocking from their accept until they are handed on; the handshake's own
// sends (a few dozen bytes on a fresh socket) fit the send buffer, and a send that would block
// fails the connection instead.
//
// Thread safety: run() on one thread; stop() and wake() from any thread (also from the owner's
// callbacks). The callbacks run on run()'s thread.
#pragma once

#include <klNetBase/link/detail/klFileDescriptor.h>
#include <klNetBase/link/klSocketKeepAlive.h>

#include <atomic>
#include <chrono>
#include <cstddef>
#include <deque>
#include <functional>
#include <list>
#include <memory>
#include <string>
#include <unordered_map>

class klNetLinkSealer;
class klNetNodeNames;
class klSocketAddress;
class klSocketLink;

class klNetServiceAdmission {
public:
    using Clock = std::chrono::steady_clock;

    struct Settings {
        bool keepAliveOn = false;
        klSocketKeepAlive keepAlive;
        double handshakeTimeout = 2.0;
        double requestTimeout = 10.0;
        int maxHandshakes = 1024;
    };
    // What the stage asks of its owner, on run()'s thread.
    struct Callbacks {
        // The sealer for a connection that greets now (null: the plain greeting), and whether a
        // peer is allowed: asked anew for each connection, so that a reload applies to the next.
        std::function<std::shared_ptr<klNetLinkSealer>()> sealer;
        std::function<bool(const klSocketAddress& peer)> allows;
        // Takes a request slot; false when every slot is busy.
        std::function<bool()> takeSlot;
        // A proven connection, blocking again, with the slot taken for it.
        std::function<void(std::unique_ptr<klSocketLink> link, Clock::time_point accepted)> admit;
        // Counts a connection refused or closed here, by reason.
        std::function<void(const char* reason)> refused;
        // A proven connection whose request time ran out before a slot came free; closed.
        std::function<void(const std::string& peer, Clock::time_point accepted)> expired;
    };

    // Accepts from listener, a listening socket that stays open until run() has returned.
    // names must outlive the stage. Throws klNetError when epoll or its event cannot be made.
    klNetServiceAdmission(int listener, Settings settings, const klNetNodeNames& names,
                          Callbacks callbacks);
    // Closes every connection still held.
    ~klNetServiceAdmission();
    klNetServiceAdmission(const klNetServiceAdmission&) = delete;
    klNetServiceAdmission& operator=(const klNetServiceAdmission&) = delete;

    // Accepts and admits until stop(); throws klNetError when waiting or accepting fails for a
    // reason other than a shortage.
    void run();
    // Makes run() return soon; before run() it returns at once.
    void stop();
    // A request slot may have come free.
    void wake();

    // Connections held now, in their handshake or waiting for a slot (run()'s thread).
    std::size_t held() const { return m_pending.size() + m_proven.size(); }
    // Connections that have done their handshake and wait for a slot, as of the stage's last
    // round (any thread).
    std::size_t waiting() const { return m_waiting.load(); }

private:
    struct Pending;
    struct Proven {
        std::unique_ptr<klSocketLink> link;
        std::string peer;
        Clock::time_point accepted;
    };
    enum class Step { kWait, kProven, kClosed };

    void acceptWaiting();
    // Takes one accepted descriptor into the stage (or refuses it).
    void take(int descriptor);
    // Carries a connection on as far as its bytes allow.
    Step advance(Pending& pending);
    Step greet(Pending& pending);
    void prove(std::list<Pending>::iterator pending);
    void close(std::list<Pending>::iterator pending);
    void closeOldest(const char* reason, const char* why);
    void closeLate(Clock::time_point now);
    void admitWaiting();
    void listen(bool on);
    int waitMilliseconds(Clock::time_point now) const;

    // Constant after construction.
    const int m_listener;
    const Settings m_settings;
    const klNetNodeNames& m_names;
    const Callbacks m_callbacks;
    const Clock::duration m_handshakeTime;
    const Clock::duration m_requestTime;
    std::size_t m_cap = 0;
    klFileDescriptor m_epoll;
    klFileDescriptor m_event;

    std::atomic<bool> m_stopping{false};
    std::atomic<std::size_t> m_waiting{0};

    // Touched only by run()'s thread.
    std::list<Pending> m_pending;  // in their handshake, oldest first
    std::unordered_map<int, std::list<Pending>::iterator> m_byDescriptor;
    std::deque<Proven> m_proven;  // waiting for a slot, by accept
    bool m_listening = true;
    Clock::time_point m_retryAccept{};  // after a shortage: when to accept again
    Clock::duration m_retryPause{};
    bool m_starved = false;
};
