// klSocketPipe: a local channel over which the cluster service hands accepted client sockets to
// a render-server process it started, so that the client then talks straight to that server.
//
// The channel is a Unix-domain SOCK_SEQPACKET socket (message boundaries kept) bound to
//
//   $XDG_RUNTIME_DIR/kaldService-{XXXXXXXX-XXXX-XXXX-XXXX-XXXXXXXXXXXX}   (else /tmp/...)
//
// with a fresh random GUID in upper-case hexadecimal. The socket file has mode 0600 and the service
// side accepts only a peer of its own user id (SO_PEERCRED). The file is removed when the service
// side is destroyed. Messages, each one packet, in the machine's byte order:
//
//   order  direction          size  content
//   1      server -> service  4     the server's process id, once per pipe
//   2      service -> server  8     the service's descriptor number; the descriptor itself rides
//                                   along as SCM_RIGHTS ancillary data, once per socket
//   3      server -> service  8     the same 8 bytes back, as acknowledgement
//
// Failures are klNetError with fixed texts (listed at each call), except a time-out
// (klConnectionTimeout, retryable) and the end of the pipe or a shutdown (klConnectionClosed).
//
// Thread safety: sendSocket() calls are serialised by an internal mutex; recvSocket() belongs to
// one thread; shutdown() may be called from any thread and wakes a waiting sendSocket() or
// recvSocket() at once.
#pragma once

#include <klNetBase/klNetBaseExport.h>
#include <klNetBase/link/klSocketHandle.h>

#include <cstdint>
#include <mutex>
#include <string>

class KLNETBASE_EXPORT klSocketPipe {
public:
    // Service side: creates a new uniquely named pipe and listens on it. The argument does not
    // change the behaviour. Failures: "Unable to create unique pipe name. Error:<errno>",
    // "CreateNamedPipe failed. Error:<errno>:<system text>" (e.g. "Error:24:Too many open
    // files").
    explicit klSocketPipe(bool inProcess = false);
    // Server side: opens an existing pipe by name, retrying a refused or busy open ten times
    // 200 ms apart. Failure: "Unable to connect to named pipe. " + the system's text.
    explicit klSocketPipe(std::string name);
    // Closes the descriptors; the service side also removes the socket file.
    ~klSocketPipe();

    klSocketPipe(const klSocketPipe&) = delete;
    klSocketPipe& operator=(const klSocketPipe&) = delete;

    // Service side: hands one socket over; the caller keeps its own descriptor open. The first
    // call waits (at most timeoutSeconds; 0 or less waits without limit) for the server to open
    // the pipe and reads its process id; a peer that closes without sending one (another service
    // checking whether the pipe is in use, see removeStaleFiles) is dropped, and the wait goes
    // on. Failures: klConnectionTimeout, klConnectionClosed after
    // shutdown(), "Unable to connect pipe" (also for a peer of another user id, which is
    // dropped so that a later call may accept the right one), "Unable to read process id",
    // "Unable to duplicate socket: " + text, "Unable to pass socket to server",
    // "Error on socket transfer to server". A sealed connection's seal state (at most
    // kMaxSealState bytes) travels in the same message, after the descriptor number.
    void sendSocket(klSocketHandle socket, double timeoutSeconds,
                    const std::string& sealState = std::string());
    // Server side: waits (at most timeoutSeconds; 0 or less without limit) for the next socket
    // and returns it, close-on-exec, owned by the caller. A call that times out leaves its read
    // pending for the next call. The service closing its end, or shutdown(), is
    // klConnectionClosed. Failures: "Unable to send process id", "Error waiting for new socket",
    // "Unable acknowledge received socket". sealState, when given, receives the seal state that
    // came with the socket (empty for a plain connection); without it a sealed one is refused.
    klSocketHandle recvSocket(double timeoutSeconds, std::string* sealState = nullptr);

    static constexpr std::size_t kMaxSealState = 256;
    // Wakes a waiting call, which throws klConnectionClosed, and ends the pipe for both sides:
    // the service side closes its descriptors at once, the server side at destruction.
    void shutdown();

    // The full path of the socket file: what a server is given as "-socketpipe=<name>".
    std::string getName() const { return m_name; }
    // The directory of the socket files: $XDG_RUNTIME_DIR when it is an absolute path, else /tmp.
    static std::string getDirectory();
    // Service side, at start: removes what a service that was killed left behind, the socket
    // files in getDirectory() named exactly like a pipe's (kaldService-{GUID}) that belong to
    // this process's user and on which nobody listens any more (a connection is refused). A
    // file that is no socket, another user's, one whose listener answers or one of any other
    // name stays. Returns how many were removed.
    static int removeStaleFiles();
    // The server's process id as read (service side), or this process's id once sent.
    std::uint32_t getPeerProcessId() const { return m_peerProcessId; }

private:
    // Waits until fd is readable or shutdown() is called; false when the time runs out.
    bool waitReadable(klSocketHandle fd, double timeoutSeconds);
    // Accepts the server's connection and reads its process id.
    void acceptServer(double timeoutSeconds);
    // Accepts a connection of a process of our own user.
    void acceptConnection(double timeoutSeconds);
    void closeDescriptors();

    // Constant after construction.
    std::string m_name;
    const bool m_serviceSide;
    // Signalled once by shutdown() and never reset.
    klSocketHandle m_shutdownEvent = klInvalidSocket;

    // Guarded by m_mutex.
    std::mutex m_mutex;
    // Service side: the listening socket; server side: the connection to the service.
    klSocketHandle m_descriptor = klInvalidSocket;
    // Service side: the accepted connection of the server.
    klSocketHandle m_connection = klInvalidSocket;
    std::uint32_t m_peerProcessId = 0;
    bool m_connected = false;
    // Server side, touched only by the receiving thread: an earlier recvSocket() timed out while
    // waiting for the next socket message.
    bool m_readPending = false;
};
