// klServiceClient: the client side of the cluster service's request protocol.
//
// Every call opens a connection of its own to the service, exchanges the 4-byte greeting, sends
// one request and reads its answer, as the service serves exactly one request per connection:
//
//   call            code  request fields after the code        answer after success
//   startServer     1     extra argument, version, reserved,   server id (u32), free memory (u64),
//                         [display >= 9.0], first, second,     running servers (i32); the
//                         third option, [booking id >= 9.2],   connection now belongs to the
//                         [stereo >= 10.0]                     started server
//   connectServer   2     server id (u32)                      - (connection handed to the server)
//   stopService     3     -                                    -
//   relay           4     host (string), port (u32)            - (connection relayed to host:port)
//   stopServer      5     server id (u32)                      -
//   status          6     -                                    klNetServiceStatus
//   stopBooking     7     booking id (string)                  -
//
// Fields in brackets are written only when the request's version reaches the number given, since
// the service reads them only then (version texts are compared as decimal numbers).
//
// Failures:
//   klServiceConnectError  the service could not be reached or refused the greeting; the text is
//                          the cause alone ("111:Connection refused", "connect timed out after 10
//                          seconds.", a resolver text, "Unexpected respnse from server")
//   klConnectionTimeout    no greeting or answer within the receive time-out
//   klConnectionClosed     the service hung up before answering
//   klServiceError         the service answered with an error; the text is the service's own
//                          ("Unknown server:7")
//   klSealedFrameError     a sealed answer was changed on its way (it did not authenticate)
// All five are klNetError.
//
// Every connection has keep-alive (klSocketKeepAlive::deadPeerWithin15s()): a service or server
// gone without a word fails a blocked call with "recv error. 110:Connection timed out" within
// about 15 s.
//
// Ownership: a client holds only its settings. The streams it returns own their connections; the
// connection closes when the last copy of the stream goes.
// Thread safety: const calls from any number of threads at once (each uses its own connection);
// set...() before sharing the client.
#pragma once

#include <klNetBase/core/klNetError.h>
#include <klNetBase/service/klNetServiceStatus.h>

#include <cstdint>
#include <memory>
#include <string>

class klNetLinkSealer;
class klNetStream;

// The service could not be reached.
class klServiceConnectError : public klNetError {
public:
    using klNetError::klNetError;
};

// The service reported that a request failed.
class klServiceError : public klNetError {
public:
    using klNetError::klNetError;
};

class klServiceClient {
public:
    static constexpr double kDefaultRecvTimeout = 30.0;

    struct StartRequest {
        // Given to the server as its last command-line argument.
        std::string extraArgument;
        // The client's version text; it selects which of the fields below travel.
        std::string version = defaultVersion();
        bool display = false;
        bool firstOption = false;   // server option -Z
        bool secondOption = false;  // server option -t
        bool thirdOption = false;   // with the second option: -ta instead of -t
        std::string bookingId;
        bool stereo = false;
    };

    struct StartResult {
        std::uint32_t serverId = 0;
        std::uint64_t freeMemory = 0;
        std::int32_t serverCount = 0;
        // Connected to the started server, which reads the client's first request from it; the
        // receive time-out of the client stays set on its link.
        std::shared_ptr<klNetStream> stream;
    };

    // host: a name or numeric address (IPv6 without brackets); nothing is opened yet.
    explicit klServiceClient(std::string host, int port = defaultPort());

    // Time allowed for the TCP connection to be set up (default: the library's connection
    // time-out, 10 s).
    void setConnectTimeout(double seconds) { m_connectTimeout = seconds; }
    // Time allowed for the greeting's echo and for each read of an answer; 0 waits without limit.
    void setRecvTimeout(double seconds) { m_recvTimeout = seconds; }
    // Seals every connection (a keyed service serves sealed clients only); the handshake's
    // failures ("The service at HOST:PORT refused the farm key: it holds another key", ...) are
    // klServiceConnectError. Null (the default): plain connections.
    void setSealer(std::shared_ptr<klNetLinkSealer> sealer) { m_sealer = std::move(sealer); }
    // The name a sealed handshake gives for the service meant (klNetNodeNames::nameOf of a host
    // and a port): by default the host as given and the port; a node reached by its address but
    // known by another name (a Slurm node) gives that name. A service that does not answer to it
    // refuses: "The service at NAME answers to OTHER, not to NAME: ...".
    void setNodeName(std::string name) { m_nodeName = std::move(name); }

    const std::string& getHost() const { return m_host; }
    int getPort() const { return m_port; }

    klNetServiceStatus status() const;
    StartResult startServer(const StartRequest& request) const;
    // A further connection to a running server.
    std::shared_ptr<klNetStream> connectServer(std::uint32_t serverId) const;
    void stopServer(std::uint32_t serverId) const;
    // Stops every server started with this booking id; succeeds when none matches.
    void stopBooking(const std::string& bookingId) const;
    // The service answers, then stops listening and stops its servers.
    void stopService() const;
    // The service answers, then starts no more servers and stops once those running have ended.
    void drain() const;
    // A connection that the service relays to host:port (which it reaches itself).
    std::shared_ptr<klNetStream> relay(const std::string& host, std::uint32_t port) const;

    static std::string defaultVersion();
    static int defaultPort();

private:
    // Connects, greets and writes the command code; the caller adds the fields.
    std::shared_ptr<klNetStream> open(std::uint32_t command) const;
    // Sends what was written and reads the result; a remote error becomes klServiceError.
    static void finish(klNetStream& stream);

    std::string m_host;
    int m_port;
    double m_connectTimeout;
    double m_recvTimeout = kDefaultRecvTimeout;
    std::shared_ptr<klNetLinkSealer> m_sealer;
    std::string m_nodeName;
};
