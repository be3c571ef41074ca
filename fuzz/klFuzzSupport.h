// Helpers shared by the fuzz targets: a reader that takes typed values off the front of an input,
// buffers made from input bytes, a peer that feeds bytes into a real socket, and a check that an
// input left no descriptor open.
//
// Everything here is used by one fuzz iteration at a time on the fuzzing thread; a
// klFuzzSocketFeeder runs one writer thread of its own, joined by its destructor.
#pragma once

#include <klNetBase/klNetBase.h>

#include <dirent.h>
#include <fcntl.h>
#include <netinet/in.h>
#include <sys/socket.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <chrono>
#include <cstddef>
#include <cstdint>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <memory>
#include <stdexcept>
#include <thread>
#include <utility>
#include <vector>

namespace klfuzz {

// Takes values off the front of the input; past its end every read yields zeros and empty runs,
// so a target never has to check the length itself.
class Input {
public:
    Input(const std::uint8_t* data, std::size_t size) : m_data(data), m_size(size) {}

    std::uint8_t u8() { return std::uint8_t(take(1)); }
    std::uint16_t u16() { return std::uint16_t(take(2)); }
    std::uint32_t u32() { return std::uint32_t(take(4)); }
    bool empty() const { return m_offset >= m_size; }
    std::size_t remaining() const { return m_size - m_offset; }
    const std::uint8_t* position() const { return m_data + m_offset; }
    // Up to n bytes; fewer at the end of the input.
    std::vector<std::uint8_t> bytes(std::size_t n) {
        n = std::min(n, remaining());
        std::vector<std::uint8_t> run(m_data + m_offset, m_data + m_offset + n);
        m_offset += n;
        return run;
    }
    std::vector<std::uint8_t> rest() { return bytes(remaining()); }

private:
    // Little-endian, as everything on the wire.
    std::uint64_t take(std::size_t n) {
        std::uint64_t value = 0;
        for (std::size_t i = 0; i < n && m_offset < m_size; ++i) {
            value |= std::uint64_t(m_data[m_offset++]) << (8 * i);
        }
        return value;
    }

    const std::uint8_t* m_data;
    std::size_t m_size;
    std::size_t m_offset = 0;
};

// The bytes cut into pool buffers of at most piece payload bytes each, as a reading message
// would receive them; into longer pieces where there would be over kMaxCutBuffers, since every
// buffer is a pool buffer of its own and thousands of them would cost a run its time in mapping
// and unmapping pages instead of in parsing.
constexpr std::size_t kMaxCutBuffers = 512;

inline std::vector<std::shared_ptr<klNetBuffer>> cutIntoBuffers(const std::uint8_t* data,
                                                                std::size_t size,
                                                                std::size_t piece) {
    std::vector<std::shared_ptr<klNetBuffer>> buffers;
    piece = std::max({piece, std::size_t(1), (size + kMaxCutBuffers - 1) / kMaxCutBuffers});
    piece = std::min(piece, klNetBuffer::getCapacity());
    for (std::size_t offset = 0; offset < size; offset += piece) {
        const std::size_t n = std::min(piece, size - offset);
        std::shared_ptr<klNetBuffer> buffer = klNetBufferPool::pop();
        std::memcpy(buffer->getData(), data + offset, n);
        buffer->setDataSize(n);
        buffer->setType(klNetMessageTypeMessage);
        buffers.push_back(std::move(buffer));
    }
    return buffers;
}

// Buffers as a link delivers them from a byte run in the normal framing: a 24-byte header, then
// as many payload bytes as it says (never more than a link accepts, and no more than there are).
// A trailing partial header is dropped.
inline std::vector<std::shared_ptr<klNetBuffer>> framesFrom(Input& input) {
    std::vector<std::shared_ptr<klNetBuffer>> buffers;
    while (input.remaining() >= klNetBuffer::getHeaderSize()) {
        std::shared_ptr<klNetBuffer> buffer = klNetBufferPool::pop();
        std::memcpy(buffer->getBuffer(), input.position(), klNetBuffer::getHeaderSize());
        input.bytes(klNetBuffer::getHeaderSize());
        const std::vector<std::uint8_t> payload =
            input.bytes(std::min(buffer->getDataSize(), klNetBuffer::getCapacity()));
        std::copy(payload.begin(), payload.end(), buffer->getData());
        buffer->setDataSize(payload.size());
        buffers.push_back(std::move(buffer));
    }
    return buffers;
}

// An in-memory link that serves its buffers in order and then reports the peer gone
// (klConnectionClosed); what is sent to it is dropped.
class ScriptLink : public klNetLink {
public:
    explicit ScriptLink(std::vector<std::shared_ptr<klNetBuffer>> script)
        : m_script(std::move(script)) {}

    void send(const std::shared_ptr<klNetBuffer>&) override {}
    void recv(std::shared_ptr<klNetBuffer>& buffer) override {
        if (m_next >= m_script.size()) {
            throw klConnectionClosed();
        }
        buffer = std::move(m_script[m_next++]);
    }
    bool isReadable() override { return m_next < m_script.size(); }
    void shutdown() override { m_next = m_script.size(); }
    unsigned int getRecvHandle() override { return ~0u; }
    void checkAlive() override {}

private:
    std::vector<std::shared_ptr<klNetBuffer>> m_script;
    std::size_t m_next = 0;
};

// An in-memory link that serves bytes as stream data, cut into buffers of at most piece bytes as
// they are asked for (so that a small cut of a large input never holds thousands of pool buffers
// at once), then reports the peer gone (klConnectionClosed); what is sent to it is dropped.
class StreamDataLink : public klNetLink {
public:
    StreamDataLink(std::vector<std::uint8_t> bytes, std::size_t piece)
        : m_bytes(std::move(bytes)),
          m_piece(std::min(std::max<std::size_t>(piece, 1), klNetBuffer::getCapacity())) {}

    void send(const std::shared_ptr<klNetBuffer>&) override {}
    void recv(std::shared_ptr<klNetBuffer>& buffer) override {
        if (m_next >= m_bytes.size()) {
            throw klConnectionClosed();
        }
        const std::size_t n = std::min(m_piece, m_bytes.size() - m_next);
        buffer = klNetBufferPool::pop();
        std::memcpy(buffer->getData(), m_bytes.data() + m_next, n);
        buffer->setDataSize(n);
        buffer->setCompression(klNetCompressionNone, n);
        buffer->setType(klNetMessageTypeStream);
        m_next += n;
    }
    bool isReadable() override { return m_next < m_bytes.size(); }
    void shutdown() override { m_next = m_bytes.size(); }
    unsigned int getRecvHandle() override { return ~0u; }
    void checkAlive() override {}

private:
    std::vector<std::uint8_t> m_bytes;
    std::size_t m_piece;
    std::size_t m_next = 0;
};

// The harness's own trouble (not a finding in the code under test). Also written to the file
// named by KLFUZZ_HARNESS_LOG when set, as libFuzzer's -close_fd_mask may have closed stderr.
[[noreturn]] inline void fail(const char* what, int error = errno) {
    std::fprintf(stderr, "fuzz harness: %s: %s\n", what, std::strerror(error));
    if (const char* path = std::getenv("KLFUZZ_HARNESS_LOG")) {
        if (std::FILE* log = std::fopen(path, "a")) {
            std::fprintf(log, "fuzz harness: %s: %s\n", what, std::strerror(error));
            std::fclose(log);
        }
    }
    std::abort();
}

// A finding: the code under test broke a promise the target checks; libFuzzer keeps the input.
inline void check(bool condition, const char* what) {
    if (!condition) {
        std::fprintf(stderr, "fuzz harness: %s\n", what);
        std::abort();
    }
}

// One connected pair of stream sockets: the library reads from the near end what a writer thread
// sends from the far end, which then closes its sending side so that the reader sees the peer go
// away after the last byte. TCP over loopback when the code under test sets TCP options, a
// Unix-domain pair otherwise. The destructor closes the far end (a write still blocked then fails)
// and joins the writer; the near end belongs to whoever takes it.
class SocketFeeder {
public:
    enum Kind { kUnix, kTcp };

    SocketFeeder(Kind kind, std::vector<std::uint8_t> bytes) : m_bytes(std::move(bytes)) {
        if (kind == kUnix) {
            int fds[2];
            if (::socketpair(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC, 0, fds) != 0) {
                fail("socketpair");
            }
            m_near = fds[0];
            m_far = fds[1];
        } else {
            connectLoopback();
        }
        m_writer = std::thread([this] { writeAll(); });
    }
    ~SocketFeeder() {
        // Reset rather than close in order: a long run opens hundreds of thousands of loopback
        // connections, and the TIME_WAIT of an orderly close would use up the ephemeral ports.
        const linger reset{1, 0};
        ::setsockopt(m_far, SOL_SOCKET, SO_LINGER, &reset, sizeof(reset));
        ::shutdown(m_far, SHUT_RDWR);
        m_writer.join();
        ::close(m_far);
        if (m_near >= 0) {
            ::close(m_near);
        }
    }
    SocketFeeder(const SocketFeeder&) = delete;
    SocketFeeder& operator=(const SocketFeeder&) = delete;

    // The reading end, for a link to adopt.
    int takeNear() { return std::exchange(m_near, -1); }
    // The writing end, for reading what the code under test answered.
    int far() const { return m_far; }

private:
    void writeAll() {
        const std::uint8_t* next = m_bytes.data();
        std::size_t left = m_bytes.size();
        while (left > 0) {
            const ssize_t n = ::send(m_far, next, left, MSG_NOSIGNAL);
            if (n <= 0) {
                if (n < 0 && errno == EINTR) {
                    continue;
                }
                return;  // the reader has gone
            }
            next += n;
            left -= std::size_t(n);
        }
        ::shutdown(m_far, SHUT_WR);
    }

public:
    // One listening socket on an ephemeral loopback port for the whole run; each TCP pair is a
    // fresh connection to it. Call once before counting descriptors.
    static int loopbackListener() {
        static const int listener = [] {
            const int fd = ::socket(AF_INET, SOCK_STREAM | SOCK_CLOEXEC, 0);
            sockaddr_in address{};
            address.sin_family = AF_INET;
            address.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
            if (fd < 0 || ::bind(fd, reinterpret_cast<sockaddr*>(&address), sizeof(address)) != 0 ||
                ::listen(fd, 16) != 0) {
                fail("loopback listener");
            }
            return fd;
        }();
        return listener;
    }

private:
    void connectLoopback() {
        const int listener = loopbackListener();
        sockaddr_in address{};
        socklen_t length = sizeof(address);
        ::getsockname(listener, reinterpret_cast<sockaddr*>(&address), &length);
        // Other programs on the machine share the ephemeral ports: wait a little for one to
        // come free, on a fresh socket each time, rather than report the harness's own trouble
        // as a finding.
        for (int attempt = 0;; ++attempt) {
            m_far = ::socket(AF_INET, SOCK_STREAM | SOCK_CLOEXEC, 0);
            if (m_far < 0) {
                fail("loopback socket");
            }
            if (::connect(m_far, reinterpret_cast<sockaddr*>(&address), length) == 0) {
                break;
            }
            const int error = errno;
            ::close(m_far);
            m_far = -1;
            if (attempt == 200) {
                fail("loopback connect", error);
            }
            std::this_thread::sleep_for(std::chrono::milliseconds(10));
        }
        m_near = ::accept4(listener, nullptr, nullptr, SOCK_CLOEXEC);
        if (m_near < 0) {
            fail("loopback accept");
        }
    }

    std::vector<std::uint8_t> m_bytes;
    int m_near = -1;
    int m_far = -1;
    std::thread m_writer;
};

// Number of entries of a directory of /proc/self.
inline int entriesOf(const char* directory) {
    DIR* dir = ::opendir(directory);
    if (dir == nullptr) {
        fail(directory);
    }
    int count = 0;
    while (::readdir(dir) != nullptr) {
        ++count;
    }
    ::closedir(dir);
    return count;
}

// Number of descriptors this process has open.
inline int openDescriptors() { return entriesOf("/proc/self/fd"); }

// Waits, at most about 200 ms, until the process has no more than count threads. A thread that
// has reported its end (a Qt thread's finished signal, say) still holds its per-thread data until
// it has exited, and libFuzzer's leak check after an input must not run before then. Bounded
// short, as an input may also have started threads that stay (a thread pool's first workers).
inline void awaitThreadCount(int count) {
    for (int i = 0; i < 200 && entriesOf("/proc/self/task") > count; ++i) {
        std::this_thread::sleep_for(std::chrono::milliseconds(1));
    }
}

// Aborts (a finding) when the scope leaves more descriptors open than it found: a hostile peer
// must not be able to make the process run out of them.
class DescriptorCheck {
public:
    DescriptorCheck() : m_before(openDescriptors()) {}
    ~DescriptorCheck() {
        const int after = openDescriptors();
        if (after > m_before) {
            std::fprintf(stderr, "fuzz harness: %d descriptor(s) left open by this input\n",
                         after - m_before);
            std::abort();
        }
    }
    DescriptorCheck(const DescriptorCheck&) = delete;
    DescriptorCheck& operator=(const DescriptorCheck&) = delete;

private:
    int m_before;
};

}  // namespace klfuzz
