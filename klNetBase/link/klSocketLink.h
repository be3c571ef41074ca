// klSocketLink: a TCP connection that carries whole buffers.
//
// Framing of one buffer on the stream, with no other delimiter, marker or checksum:
//
//   normal         [ 24-byte wire header | payload (dataSize bytes) ]   one write
//   compatibility  [ header bytes 0..19 ] [ payload ]                     two writes
//
// Peers greet with 4 bytes: 101010102 from a current peer, 101010101 from an older one that uses
// the 20-byte header (the accepting side then switches to compatibility mode and echoes the value).
// A received payload size above 131602 means the stream is out of sync and is refused.
//
// A sealed link (setSeal) frames each buffer as [length | sealed header and payload | tag] instead
// (klNetLinkSeal): a frame that does not open ends the link with klSealedFrameError "Sealed frame
// failed authentication", and nothing of it is delivered. Peers that seal greet with 101010103.
//
// Failures: a peer that goes away is klConnectionClosed; a receive that runs into the time-out set
// by setRecvTimeout() is klConnectionTimeout and leaves the link usable; any other receive failure
// shuts the link down. Nothing raises SIGPIPE.
//
// Thread safety: one thread sends while another receives; any thread may call shutdown() to make
// both blocked calls end in klConnectionClosed. The descriptor is closed by the destructor, after
// every user of the link has let go of it, so that a shut link's number can never be reused under
// a call still in progress. Everything else belongs to the owning thread.
#pragma once

#include <klNetBase/klNetBaseExport.h>
#include <klNetBase/link/klNetLink.h>
#include <klNetBase/link/klNetLinkSeal.h>
#include <klNetBase/link/klSocketAddress.h>
#include <klNetBase/link/klSocketHandle.h>
#include <klNetBase/link/klSocketKeepAlive.h>

#include <atomic>
#include <cstddef>
#include <cstdint>
#include <memory>
#include <mutex>
#include <vector>

class klBoundSocketLink;
class klNetInterfaceOptions;
class klNetStream;
class klSocketPipe;

class KLNETBASE_EXPORT klSocketLink : public klNetLink {
public:
    static constexpr std::uint32_t kCompatibilityGreeting = 101010101;
    static constexpr std::uint32_t kGreeting = 101010102;
    static constexpr std::uint32_t kSealedGreeting = 101010103;

    // Connects with Nagle off and a 1-second linger. Failure throws
    // "Unable to connect to '<address>' port:<port>. " + the cause, e.g. the system's refusal text
    // or "connect timed out after <whole seconds> seconds.".
    klSocketLink(const klSocketAddress& address, double timeoutSeconds);
    // Adopts a connected descriptor as it is.
    explicit klSocketLink(klSocketHandle descriptor);
    // Waits for and takes the next connection of the listener; Nagle off, 1-second linger.
    explicit klSocketLink(const klBoundSocketLink& listener);
    // Server side of a hand-off: the next socket the service passes through the pipe
    // (klSocketPipe::recvSocket and its failures); Nagle off, 1-second linger. A sealed
    // connection arrives with its seal's state and goes on sealed (klNetLinkSeal::restore).
    klSocketLink(klSocketPipe& pipe, double timeoutSeconds);
    ~klSocketLink() override;

    klSocketLink(const klSocketLink&) = delete;
    klSocketLink& operator=(const klSocketLink&) = delete;

    // The link a stream already talks over (its first link); options and flag are not used.
    static std::shared_ptr<klNetLink> create(klNetStream& stream, klNetInterfaceOptions& options,
                                             bool flag);

    // Nothing to start on this platform; kept so that every entry point calls it first.
    static void initialize();

    void send(const std::shared_ptr<klNetBuffer>& buffer) override;
    void recv(std::shared_ptr<klNetBuffer>& buffer) override;
    // Without a cipher and in the normal framing: header and caller memory in one writev, and a
    // payload read straight into the caller's memory. Otherwise as the base (through a buffer).
    void sendFrom(const klNetHeader& header, const void* payload) override;
    bool recvInto(void* target, std::size_t room, klNetMessageType type, klNetHeader& header,
                  std::shared_ptr<klNetBuffer>& buffer) override;
    void shutdown() override;
    unsigned int getRecvHandle() override { return static_cast<unsigned int>(getDescriptor()); }
    void checkAlive() override;
    // SO_RCVTIMEO in whole milliseconds; 0 for none. A receive that runs into it throws
    // klConnectionTimeout naming the time waited.
    void setRecvTimeout(double seconds) override;
    bool isReadable() override { return pollReadable(0.0); }
    // "<local address>-><peer address>", without ports.
    std::string getLinkName() override;

    // Exactly length bytes, or an exception.
    void send(const void* data, std::size_t length);
    void recv(void* data, std::size_t length);
    // Copies up to maxLength pending bytes without consuming them; returns their count.
    std::size_t peekAvailable(void* data, std::size_t maxLength);
    // Waits until the link can be read; a negative time waits without limit. A peer that has hung
    // up throws klConnectionClosed.
    bool pollReadable(double seconds);
    // Waits until the link can be written, in slices of 500 ms; NaN returns false at once, a
    // negative time waits without limit. A pending socket error throws its text.
    bool pollWritable(double seconds);
    void setDelay(bool delay);
    void setBlocking(bool blocking);
    // Keep-alive with the given values (see klSocketKeepAlive); they stay with the socket when it
    // is handed to another process. Failure throws "setsockopt(,IPPROTO_TCP,<option>) " + the
    // system's text.
    void setKeepAlive(const klSocketKeepAlive& settings);
    // Not available on this platform: does nothing.
    void useLoopbackFastPath() {}
    klSocketAddress getAddress();
    klSocketAddress getPeerAddress();
    klSocketHandle getDescriptor() const { return m_descriptor.load(std::memory_order_acquire); }
    // Hands the descriptor over: the link is closed for its user but leaves the socket open.
    klSocketHandle takeDescriptor();
    // Service side of a hand-off: makes the socket blocking and passes it to the server through
    // the pipe (klSocketPipe::sendSocket and its failures). The link keeps its descriptor. A
    // sealed link passes its seal's state along, with framesReserved frames kept for the answer
    // this end still sends: one frame more throws klNetError rather than reuse a nonce.
    void sendDescriptor(klSocketPipe& pipe, double timeoutSeconds,
                        std::uint64_t framesReserved = 1);

    // From the next buffer on, every frame in both directions is sealed (both ends must set
    // their seals at the same point of the stream, as a handshake does). Not with a cipher or the
    // compatibility framing. Before traffic, on the owning thread.
    void setSeal(std::unique_ptr<klNetLinkSeal> seal);
    bool isSealed() const { return m_seal != nullptr; }
    bool getCompatibilityMode() const { return m_compatibilityMode; }
    void setCompatibilityMode(bool on) { m_compatibilityMode = on; }

    // Accepting side of the greeting: within about 2 seconds (at once when the peer closes first),
    // either a link ready for buffers (the greeting consumed and echoed) or null, with the
    // descriptor left open and its bytes unread.
    static std::unique_ptr<klSocketLink> checkForHPCNetSocket(klSocketHandle descriptor);
    // Connecting side: sends the greeting and waits up to 30 seconds for the same answer;
    // anything else throws "Unexpected respnse from server".
    void signalHPCNetSocket();

protected:
    void setLinger(bool on, int seconds);
    void setReusePort(bool on);
    void setIPv6Only(bool on);
    // SO_KEEPALIVE with probes after 120 s idle, every second; failures ignored.
    void setKeepAlive();
    int getAvailable();
    static int getLastError();

    // Marks the link invalid and wakes blocked calls. closeNow also closes the descriptor at once
    // (for listeners, whose port must be freed); otherwise the destructor closes it.
    void shutdownDescriptor(bool closeNow);
    void setDescriptor(klSocketHandle descriptor) {
        m_descriptor.store(descriptor, std::memory_order_release);
    }

private:
    // Writes every byte of the count parts, advancing over partial writes: send() for one part,
    // sendmsg() (one writev) for several.
    void sendParts(struct iovec* parts, int count);
    // Reads the header of the next buffer and checks its size.
    void recvHeader(klNetBuffer& buffer);
    void sendSealed(const klNetBuffer& buffer);
    void recvSealed(klNetBuffer& buffer);
    void connectTo(const klSocketAddress& address, double timeoutSeconds);
    // Takes a connected socket with the settings of every connection; on failure closes it.
    void adoptConnected(klSocketHandle descriptor);
    [[noreturn]] void throwRecvFailure(bool peerClosed);

    std::atomic<klSocketHandle> m_descriptor{klInvalidSocket};
    std::unique_ptr<klNetLinkSeal> m_seal;
    // The receive time-out set last, for the time-out's text.
    std::atomic<long long> m_recvTimeoutMs{0};
    // The sending and the receiving thread's frames of a sealed link.
    std::vector<unsigned char> m_sealedOut;
    std::vector<unsigned char> m_sealedIn;
    // Shut but not yet closed; guarded by s_closeMutex until destruction.
    klSocketHandle m_shutDescriptor = klInvalidSocket;
    bool m_compatibilityMode = false;

    static std::atomic<bool> s_initialized;
    // Serialises every shutdown of every socket link.
    static std::mutex s_closeMutex;
};
