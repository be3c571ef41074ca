// klNetService: the cluster service of a render node.
//
// Listens on a TCP port (8889 by default) and serves one request per accepted connection, each on
// a Qt thread of its own. A connection starts with the client's 4-byte greeting, which is echoed,
// followed by a 4-byte command code and the command's fields; answers use the stream's result
// protocol (success, or an exception text):
//
//   code  command              fields after the code                  answer after success
//   1     start server         extra argument, version, reserved,     server id (u32), free
//                              [display >= 9.0], first, second,       memory (u64), running
//                              third option, [booking id >= 9.2],     servers (i32); the client's
//                              [stereo >= 10.0]                       socket now belongs to the
//                                                                     started server
//   2     connect server       server id (u32)                        - (socket handed over)
//   3     stop service         -                                      -
//   4     connect service      host (string), port (u32)              - (relayed to host:port)
//   5     stop server          server id (u32)                        -
//   6     get status           -                                      klNetServiceStatus
//   7     stop by booking id   booking id (string)                    -
//   8     drain                -                                      -
//
// A drain answers success at once and puts the service in its draining state (see drain()).
//
// A relay answers success once both its directions run (and an error when they cannot start);
// when one side finishes sending, the other side is told so and the other direction carries on
// until it ends too; a failure on either side ends both.
//
// Accepting: run()'s thread accepts every connection as it comes and takes it through its
// handshake without a thread of its own (klNetServiceAdmission): the greeting and, for a keyed
// service, the sealer's handshake up to the peer's proof of the key; for a service without a key,
// the greeting's echo and the first 4 bytes of the command. Only a connection that has shown that
// much gets a request slot (setMaxRequests) and a request thread; while every slot is busy,
// proven connections wait in the order of their accept. So connections that greet and then say
// nothing, or never greet, cost no thread and hold no slot: they are closed once the handshake
// time-out has passed (setHandshakeTimeout), and are capped (setMaxHandshakes), the oldest
// closed first to make room.
//
// Beyond what a client sees, the service defends itself against peers that misbehave: each
// request must arrive whole within a time-out, counted from its accept; peers may be restricted
// to address ranges; running servers, concurrent requests and relays are capped; relays go only
// to address ranges the service is told, and end when idle; version texts are plain names
// (letters, digits, '.', '-', '_', never "..", a blank only as in "SR1 SP3") before they select a
// program; and string fields longer than 64 KiB are refused before anything is allocated for
// them.
//
// Servers end in three ways, and the service learns of each at once, from the application
// thread: a server ends by itself (its client has gone and it had no other for the idle time the
// service passes it, see setIdleExit, or it failed); it is stopped (stop-server, stop-booking, the
// service's own end), which closes its pipe and, should it still run 3 s later, sends SIGTERM
// (with SIGCONT, for a stopped process) and, 3 s after that, SIGKILL, in the background: no
// request waits for it; or it is killed from outside. Its slot is then free, and it leaves the
// status, the booking ids and servers() (where a stopped server shows as stopping until it has
// ended). When the service ends, it waits (at most about 8 s) until every server it started has
// ended. At start it removes the hand-off sockets that a killed service left behind
// (klSocketPipe::removeStaleFiles).
//
// Requirements: a QCoreApplication whose event loop runs on its thread; finished request threads
// are deleted there, and started servers' output and ends are delivered there.
//
// Every request ends with one log line: the peer's address, the command and its outcome (the
// server started, with its id, booking and process id; what was stopped; why it was refused).
// Status requests log at debug level, refusals and failures as warnings; connections closed in
// their handshake for time or room at debug level, so that a flood does not flood the log.
//
// Thread safety: run() blocks the calling thread, which is also the one that accepts and carries
// handshakes. stop(), drain(), isDraining(), handleExternalRequest(), getPort(), serverCount(),
// bookingIds(), servers() and metrics() may be called from any thread. The settings an operator
// may change while the service runs (a reload) may be set from any thread at any time, and apply
// to the requests accepted from then on, never to servers running: setPeerFilter,
// setMaxServers, setMaxRequests, setRequestTimeout, setLinkSealer, setRelayTargets,
// setMaxRelays, setRelayIdleTimeout, setIdleExit and setServerEnvironment. Configure the others
// (setListenAddress, setKeepAlive, setConsole, setHandshakeTimeout, setMaxHandshakes,
// setNodeNames, setListeningHandler, setDrainHandler) before run().
#pragma once

#include <klNetBase/klNetBaseExport.h>
#include <klNetBase/link/klNetNodeNames.h>
#include <klNetBase/link/klSocketKeepAlive.h>
#include <klNetBase/runtime/klNetActionManager.h>
#include <klNetBase/service/klNetPeerFilter.h>

#include <array>
#include <atomic>
#include <chrono>
#include <condition_variable>
#include <cstdint>
#include <functional>
#include <future>
#include <map>
#include <memory>
#include <mutex>
#include <string>
#include <utility>
#include <vector>

class klBoundSocketLink;
class klNetDeadlineTimer;
class klNetLink;
class klNetLinkSealer;
class klNetServerProcess;
class klNetServiceAdmission;
class klNetStream;
class klSocketLink;

class KLNETBASE_EXPORT klNetService {
public:
    // Request codes, the first 4 bytes of every request after the greeting.
    enum Command : std::uint32_t {
        kStartServer = 1,
        kConnectServer = 2,
        kStopService = 3,
        kConnectService = 4,
        kStopServer = 5,
        kGetStatus = 6,
        kStopServerByBookingId = 7,
        kDrain = 8,
    };
    // The highest command code.
    static constexpr std::uint32_t kLastCommand = kDrain;

    // Longest string field a request may carry.
    static constexpr std::uint32_t kMaxStringSize = 64 * 1024;
    // Longest version text a start request may carry.
    static constexpr std::size_t kMaxVersionSize = 32;

    // Stores both; nothing is opened before run(). Port 0 lets the system choose.
    klNetService(int port, std::string serviceArgument);
    // Does not stop servers: run() does that on its way out.
    ~klNetService();

    klNetService(const klNetService&) = delete;
    klNetService& operator=(const klNetService&) = delete;

    // The port to listen on; once run() has bound, the port actually bound.
    int getPort() const { return m_port.load(); }
    // Listen on this one local address (numeric IPv4 or IPv6, e.g. "127.0.0.1", "::1") instead of
    // every address (empty, the default).
    void setListenAddress(std::string address) { m_listenAddress = std::move(address); }
    // Keep-alive for every accepted connection (which a started server then goes on with) and
    // every relay's onward connection. Without it (the default) they have none.
    void setKeepAlive(const klSocketKeepAlive& settings) {
        m_keepAlive = settings;
        m_keepAliveOn = true;
    }
    // Whether started servers' console output is copied to standard output (default true).
    void setConsole(bool console) { m_console = console; }

    // Peers allowed to connect; empty (the default) allows every peer.
    void setPeerFilter(const klNetPeerFilter& filter);
    // Most servers running at once (default 16; 0 for no limit). A start reserves its place
    // before it launches anything, so concurrent starts never exceed the limit; one beyond it is
    // answered "Too many servers running (<n>)".
    void setMaxServers(int count);
    // Most requests served at once (default 64). Further connections that have done their
    // handshake wait, in the order of their accept, until a request ends: its answer sent and its
    // connection closed.
    void setMaxRequests(int count);
    // Time a connection has from its accept to the end of its handshake (default 2 s; the request
    // time-out when that is shorter): the greeting and, with a sealer, the proof of the key;
    // without one, the first 4 bytes of the command. A connection that takes longer is closed,
    // logged at debug level and counted as refusal "handshake-timeout". Throws klNetError for a
    // value that is not positive and finite.
    void setHandshakeTimeout(double seconds);
    // Most connections held in their handshake or waiting for a request slot (default 1024, and
    // at most half the process's descriptor limit). At the limit the oldest connection still in
    // its handshake is closed to make room (refusal "handshake-limit"); when every one held has
    // done its handshake, further connections wait in the listen backlog.
    void setMaxHandshakes(int count) { m_maxHandshakes = count; }
    // Time a request has from its accept to its last byte (default: the connection time-out of
    // the options, 10 s); the connection of a request that takes longer is closed. The wait for
    // a started server to take over the connection is not part of it.
    void setRequestTimeout(double seconds) { m_requestTimeout = seconds; }
    // With a sealer, the service serves sealed clients only: a client's greeting must be the
    // sealed one and its handshake must prove the key, or its connection is closed at once and
    // logged; relays to other services are sealed as well. A connection handed to a render
    // server carries its seal's state along, so client and server go on sealed. Without one
    // (the default) the service greets and serves every client in the clear.
    void setLinkSealer(std::shared_ptr<klNetLinkSealer> sealer);
    // A sealed client names the service it dialed, and the service serves only the names it
    // answers to: once run() has bound its port, this host's names with that port
    // (klNetNodeNames::addThisHost: host name, Slurm node name, interface addresses; with a
    // listen address only that one) and these, for names a site forwards to it on purpose (a
    // name without a port, 0, takes the port bound). Before run().
    void setNodeNames(klNetNodeNames names) { m_extraNodeNames = std::move(names); }
    // Hosts that relay requests may connect to. Empty (the default) refuses every relay.
    void setRelayTargets(const klNetPeerFilter& targets);
    // Most relays open at once (default 16); one beyond it is answered "Too many relays (<n>)".
    void setMaxRelays(int count);
    // A relay that carries nothing either way for this long is closed (default 300 s); a relay
    // open already keeps the time it started with.
    void setRelayIdleTimeout(double seconds) { m_relayIdleTimeout = seconds; }
    // Seconds a server may go without any client before it ends by itself (0, the default: it
    // waits for the service to stop it). Passed to every server started as the environment
    // variable KALD_IDLE_EXIT; the reference server honours it, whether another server program
    // does is up to that program. Throws klNetError for a negative or non-finite value.
    void setIdleExit(double seconds);
    // Variables servers get besides the small fixed set klNetServerProcess gives them (they
    // inherit nothing else of this process). Each entry is NAME=VALUE, or NAME alone for this
    // process's value of NAME now (left out when it has none). Throws klNetError for a NAME that
    // is not [A-Za-z_][A-Za-z0-9_]* and leaves the setting as it was.
    void setServerEnvironment(const std::vector<std::string>& entries);
    // Called on run()'s thread once the port is bound and listening, with the bound port.
    void setListeningHandler(std::function<void(int port)> handler) {
        m_listeningHandler = std::move(handler);
    }
    // Called once, on the thread that asked for it, when the service starts to drain (drain()
    // or a drain request).
    void setDrainHandler(std::function<void()> handler) { m_drainHandler = std::move(handler); }

    // Accepts and serves connections until the listener is shut down (stop(), or a stop-service
    // request) or fails; then stops every server, closes every relay and waits for requests in
    // progress. A failure to listen throws.
    void run();
    // Makes run() leave its loop. Any thread; harmless before or after run().
    void stop();
    // Lets the servers running finish and then stops, as stop() does, once none is left (at
    // once when none runs). Meanwhile the service serves every request as before but starts no
    // server: a start is answered "The service is draining: no new servers are started". Any
    // thread; a second call does nothing more.
    void drain();
    bool isDraining() const { return m_draining.load(); }

    // Serves a connection that the caller accepted itself (greeting already exchanged), on a
    // request thread, beside the request limit; failures are logged. Takes the link. A service
    // with a sealer serves only a link that is sealed already (the caller ran the sealer's
    // handshake); any other is closed and logged as not sealed (refusal "unsealed").
    void handleExternalRequest(klSocketLink* link);

    // Servers running and not asked to stop.
    int serverCount();
    // Their booking ids, by ascending server id.
    std::vector<std::string> bookingIds();

    // A server the service started, as an operator sees it.
    struct ServerInfo {
        unsigned id = 0;
        std::string bookingId;
        std::uint32_t processId = 0;
        std::string client;  // numeric address of the client that started it
        std::chrono::system_clock::time_point started;
        bool stopping = false;  // asked to stop and not yet ended
    };
    // The servers running (or stopping), by ascending id.
    std::vector<ServerInfo> servers();

    // What the service has done since it was constructed. Outcomes of a request: answered with
    // success, answered with an error (refusals included), or cut off by the request time-out.
    enum Outcome { kSucceeded, kFailed, kTimedOut, kOutcomes };
    // Counts of observations of at most each bound (cumulative), their number and their sum.
    struct Histogram {
        static constexpr std::array<double, 10> kBounds{0.001, 0.005, 0.01, 0.05, 0.1,
                                                        0.5,   1.0,   5.0,  10.0, 30.0};
        std::array<std::uint64_t, kBounds.size()> buckets{};
        std::uint64_t count = 0;
        double sum = 0.0;
        void add(double seconds);
    };
    struct Metrics {
        // By command code (0: an unknown code) and outcome.
        std::array<std::array<std::uint64_t, kOutcomes>, kLastCommand + 1> requests{};
        // By reason: "peer", "unsealed", "key", "handshake-timeout", "handshake-limit",
        // "version", "server-limit", "relay-disabled", "relay-target", "relay-limit", "draining".
        std::map<std::string, std::uint64_t> refusals;
        int serversRunning = 0;
        std::uint64_t serversStarted = 0;
        std::uint64_t handOffs = 0;  // connections handed to servers
        int relaysOpen = 0;
        std::uint64_t relaysOpened = 0;
        std::uint64_t bytesRelayed = 0;
        // Request durations from accept to the end of the request, by command code.
        std::array<Histogram, kLastCommand + 1> durations{};
        // From a start's launch of its server until the server took the client's connection.
        Histogram startLatency;
        int requestsInFlight = 0;  // accepted and not yet answered and closed
        // Connections that wait for a request slot (at the request limit): their handshake done,
        // or still in the listen backlog once the handshake stage is full.
        int requestsWaiting = 0;
        // Servers that ended by themselves or were ended: exited (with any status) or killed by
        // a signal.
        std::uint64_t serversExited = 0;
        std::uint64_t serversKilled = 0;
        bool draining = false;
    };
    Metrics metrics();
    // The name of a command code in logs and metrics ("start-server", ..., "unknown").
    static const char* commandName(std::uint32_t command);

    static bool inProcessIsStereo() { return s_inProcessStereo; }
    static bool inProcessHasDisplay() { return s_inProcessDisplay; }
    // Starts a service on port 8889 inside this process, whose servers run in-process too, and
    // returns the socket-pipe name of the first server a client starts (waits for it).
    static std::string runInProcess();

private:
    struct Request;
    struct Relay;
    class StartSlot;

    // Serves a connection that has done its handshake on a request thread of its own, its request
    // time counted from accepted; its request slot is taken already.
    void handleRequest(std::unique_ptr<klSocketLink> link,
                       std::chrono::steady_clock::time_point accepted);
    void serveRequest(Request& request);
    // Reads the command code into command and serves it; a failure is answered to the client.
    void serveCommand(Request& request, std::uint32_t& command);
    void dispatch(klNetStream& stream, Request& request, std::uint32_t command);
    // Ends the request's time limit once its last byte is read, before its connection is handed
    // to a server or relayed; throws klConnectionClosed if the limit has passed already.
    void endRequestTime(Request& request);
    void startServer(klNetStream& stream, Request& request);
    void connectServer(klNetStream& stream, Request& request);
    void stopServer(klNetStream& stream, Request& request);
    void stopServerByBookingId(klNetStream& stream, Request& request);
    void stopService(klNetStream& stream, Request& request);
    void drainService(klNetStream& stream, Request& request);
    void connectService(klNetStream& stream, Request& request);
    void getStatus(klNetStream& stream, Request& request);
    std::shared_ptr<klNetServerProcess> getServer(unsigned id);
    void addServer(const std::shared_ptr<klNetServerProcess>& server, StartSlot& slot,
                   const std::string& client);
    // Moves stopped and ended servers out of the table; stopped programs still running stay
    // listed as stopping until they end.
    void removeStoppedServers();
    // Stops a server, and ends its program in the background should it not end by itself.
    void endServer(const std::shared_ptr<klNetServerProcess>& server);
    // The end handler of server id: on the application thread, once its program has ended.
    void serverEnded(unsigned id);
    // Waits, bounded, until every stopping program has ended; the rest are ended here.
    void waitForServers();
    // Once go says the relay runs, forwards buffers from one end of a relay to the other: until
    // the sending end finishes (the other end is then told so, and the other direction goes on)
    // or either fails (both directions end).
    void connectLinks(const std::shared_ptr<Relay>& relay, bool toTarget,
                      const std::shared_future<bool>& go);
    // Lets go of one hold on a relay; the last retires it.
    void leaveRelay(const std::shared_ptr<Relay>& relay);
    void relayEnded();
    void shutdown();
    // Takes a request slot if one is free.
    bool takeRequestSlot();
    // Accepts connections and carries them through their handshakes until stop().
    void admitConnections(const klBoundSocketLink& listener);
    // Logs and counts a connection whose request time ran out before it got a request slot.
    void requestExpired(const std::string& peer, std::chrono::steady_clock::time_point accepted);
    void requestEnded();
    // Blocks until no request thread and no relay is left.
    void waitForRequests();
    int runningServers() const;  // REQUIRES: m_lock held
    void countRefusal(const std::string& reason);
    void countHandOff();
    void countServerEnd(bool killed);
    // A request's duration, by command.
    void countDuration(std::uint32_t command, double seconds);
    // Stops the service when it drains and no server is left. Not under m_lock.
    void stopIfDrained();
    // The settings that may change while the service runs, as they are now.
    klNetPeerFilter peerFilter() const;
    klNetPeerFilter relayTargets() const;
    std::shared_ptr<klNetLinkSealer> linkSealer() const;
    std::vector<std::pair<std::string, std::string>> serverEnvironment() const;
    // Connections waiting in the listener's accept queue; 0 when unknown.
    int acceptQueueLength();
    // Logs the request's line and counts it.
    void endRequest(const Request& request, std::uint32_t command);

    // Set before run(), or guarded as the setters say.
    std::atomic<int> m_port;
    std::string m_listenAddress;
    klSocketKeepAlive m_keepAlive;
    bool m_keepAliveOn = false;
    const std::string m_serviceArgument;
    bool m_console = true;
    int m_maxServers = 16;   // guarded by m_lock
    int m_maxRequests = 64;  // guarded by m_requestLock
    std::atomic<double> m_requestTimeout;
    // Guarded by m_settingsLock: m_peerFilter, m_relayTargets, m_sealer, m_serverEnvironment.
    mutable std::mutex m_settingsLock;
    klNetPeerFilter m_peerFilter;
    int m_maxHandshakes = 1024;
    double m_handshakeTimeout = 2.0;
    klNetPeerFilter m_relayTargets;
    std::shared_ptr<klNetLinkSealer> m_sealer;
    // The names sealed clients may have dialed to reach this service: set by run() once the
    // port is bound, from this host's names and m_extraNodeNames.
    klNetNodeNames m_nodeNames;
    klNetNodeNames m_extraNodeNames;
    int m_maxRelays = 16;  // guarded by m_requestLock
    std::atomic<double> m_relayIdleTimeout{300.0};
    std::atomic<double> m_idleExit{0.0};
    std::vector<std::pair<std::string, std::string>> m_serverEnvironment;
    std::function<void(int)> m_listeningHandler;
    std::function<void()> m_drainHandler;
    std::atomic<bool> m_draining{false};

    // Guarded by m_lock.
    mutable std::mutex m_lock;
    std::map<unsigned, std::shared_ptr<klNetServerProcess>> m_servers;
    struct Origin {
        std::string client;
        std::chrono::system_clock::time_point started;
    };
    std::map<unsigned, Origin> m_origins;  // of the servers in m_servers
    // Stopped servers out of the table whose programs have not ended yet.
    struct Stopping {
        std::shared_ptr<klNetServerProcess> server;
        Origin origin;
    };
    std::map<unsigned, Stopping> m_stopping;
    std::condition_variable m_stoppingChanged;
    int m_startsInProgress = 0;

    // How servers' end handlers reach this service; cleared by the destructor, so that a handler
    // that runs later does nothing.
    struct EndNotice {
        std::mutex lock;
        klNetService* service = nullptr;  // guarded by lock
    };
    const std::shared_ptr<EndNotice> m_endNotice;

    // Guarded by m_metricsLock.
    std::mutex m_metricsLock;
    Metrics m_metrics;
    std::atomic<std::uint64_t> m_bytesRelayed{0};

    // Guarded by m_listenerLock.
    std::mutex m_listenerLock;
    std::shared_ptr<klBoundSocketLink> m_listener;
    bool m_stopped = false;

    // Guarded by m_requestLock.
    std::mutex m_requestLock;
    std::condition_variable m_requestsChanged;
    bool m_accepting = true;
    // The handshake stage while run() accepts, to be woken when a slot frees or to be stopped.
    klNetServiceAdmission* m_admission = nullptr;
    int m_activeRequests = 0;  // admitted and not yet answered and closed
    int m_requestThreads = 0;  // started and not yet finished
    int m_activeRelays = 0;
    std::vector<std::weak_ptr<Relay>> m_relays;

    // Deadlines of requests and idle relays.
    std::unique_ptr<klNetDeadlineTimer> m_timer;
    std::atomic<unsigned> m_lastServerId{0};
    klNetActionManager m_actionManager{0};

    static std::atomic<bool> s_inProcessDisplay;
    static std::atomic<bool> s_inProcessStereo;
};
