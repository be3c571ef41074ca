// Helpers for the pipeline tests: recording stand-ins for links and senders, a gate that holds a
// stage's thread inside a call, bounded waits, and connected loopback socket links.
#pragma once

#include <support/klNetTestSupport.h>

#include <klNetBase/core/klConnectionClosed.h>
#include <klNetBase/link/klBoundSocketLink.h>
#include <klNetBase/link/klSocketLink.h>
#include <klNetBase/recv/klNetReceiver.h>
#include <klNetBase/send/klNetSender.h>

#include <atomic>
#include <chrono>
#include <condition_variable>
#include <exception>
#include <functional>
#include <mutex>
#include <queue>
#include <thread>

// Failures name a buffer by its header instead of dumping its 131712 bytes.
inline void PrintTo(const klNetBuffer& buffer, std::ostream* os) {
    *os << "{type " << buffer.getType() << ", size " << buffer.getDataSize() << ", destination "
        << buffer.getDestination() << ", source " << buffer.getSource() << "}";
}

namespace kltest {

using Clock = std::chrono::steady_clock;
// How long something that must happen may take, however slow the machine.
constexpr auto kBound = std::chrono::seconds(20);
// How long we watch for something that must not happen; too short only weakens the check.
constexpr auto kQuiet = std::chrono::milliseconds(200);

// Polls pred until it holds or limit passes.
template <class Pred>
bool waitUntil(Pred pred, Clock::duration limit = kBound) {
    const auto deadline = Clock::now() + limit;
    while (!pred()) {
        if (Clock::now() > deadline) {
            return false;
        }
        std::this_thread::sleep_for(std::chrono::milliseconds(1));
    }
    return true;
}

// Runs body on a thread of its own. A body still running when the Task goes is detached, so a
// fault fails the test instead of hanging it; bodies therefore own what they use (shared_ptr).
class Task {
public:
    explicit Task(std::function<void()> body) : m_state(std::make_shared<State>()) {
        m_thread = std::thread([state = m_state, body = std::move(body)] {
            std::exception_ptr error;
            try {
                body();
            } catch (...) {
                error = std::current_exception();
            }
            std::lock_guard<std::mutex> lock(state->mutex);
            state->error = error;
            state->done = true;
            state->changed.notify_all();
        });
    }
    ~Task() {
        if (finishedWithin(std::chrono::seconds(0))) {
            m_thread.join();
        } else {
            m_thread.detach();
        }
    }
    Task(const Task&) = delete;
    Task& operator=(const Task&) = delete;

    bool finishedWithin(Clock::duration limit) {
        std::unique_lock<std::mutex> lock(m_state->mutex);
        return m_state->changed.wait_for(lock, limit, [this] { return m_state->done; });
    }
    // The body's exception, once it has finished.
    std::exception_ptr error() {
        std::lock_guard<std::mutex> lock(m_state->mutex);
        return m_state->error;
    }

private:
    struct State {
        std::mutex mutex;
        std::condition_variable changed;
        bool done = false;
        std::exception_ptr error;
    };
    std::shared_ptr<State> m_state;
    std::thread m_thread;
};

// Holds every caller of pass() until open().
class Gate {
public:
    void pass() {
        std::unique_lock<std::mutex> lock(m_mutex);
        ++m_arrived;
        m_changed.notify_all();
        m_changed.wait(lock, [this] { return m_open; });
    }
    bool waitArrived(int count = 1) {
        std::unique_lock<std::mutex> lock(m_mutex);
        return m_changed.wait_for(lock, kBound, [&] { return m_arrived >= count; });
    }
    void open() {
        std::lock_guard<std::mutex> lock(m_mutex);
        m_open = true;
        m_changed.notify_all();
    }

private:
    std::mutex m_mutex;
    std::condition_variable m_changed;
    int m_arrived = 0;
    bool m_open = false;
};

// Keeps what a stand-in is handed, in order. The hook runs first, on the calling thread, and may
// block or throw; calls that overlap in time are counted.
class Recorder {
public:
    using Hook = std::function<void(const std::shared_ptr<klNetBuffer>&)>;

    // Set before traffic starts.
    void setHook(Hook hook) { m_hook = std::move(hook); }
    void take(const std::shared_ptr<klNetBuffer>& buffer) {
        if (m_inside.fetch_add(1) != 0) {
            ++m_overlaps;
        }
        struct Leave {
            std::atomic<int>& inside;
            ~Leave() { --inside; }
        } leave{m_inside};
        if (m_hook) {
            m_hook(buffer);
        }
        std::lock_guard<std::mutex> lock(m_mutex);
        m_taken.push_back(buffer);
    }
    std::vector<std::shared_ptr<klNetBuffer>> taken() const {
        std::lock_guard<std::mutex> lock(m_mutex);
        return m_taken;
    }
    int overlaps() const { return m_overlaps; }

private:
    Hook m_hook;
    std::atomic<int> m_inside{0};
    std::atomic<int> m_overlaps{0};
    mutable std::mutex m_mutex;
    std::vector<std::shared_ptr<klNetBuffer>> m_taken;
};

// An in-memory link: records what it is sent, serves a scripted list (then klConnectionClosed),
// has nothing to poll on, and fails its alive check once it is marked vanished. Scripted and
// marked before use.
class TestLink : public klNetLink {
public:
    explicit TestLink(std::string name = "test link") : m_name(std::move(name)) {}

    void send(const std::shared_ptr<klNetBuffer>& buffer) override { recorder.take(buffer); }
    void recv(std::shared_ptr<klNetBuffer>& buffer) override {
        if (script.empty()) {
            throw klConnectionClosed();
        }
        buffer = script.front();
        script.pop();
    }
    void shutdown() override { ++shutdowns; }
    unsigned int getRecvHandle() override { return ~0u; }  // -1: poll skips it
    void checkAlive() override {
        ++aliveChecks;
        if (vanished) {
            throw klConnectionClosed();
        }
    }
    bool isReadable() override { return readable; }
    std::string getLinkName() override { return m_name; }

    Recorder recorder;
    std::atomic<int> shutdowns{0};
    std::atomic<int> aliveChecks{0};
    std::atomic<bool> vanished{false};
    bool readable = true;
    std::queue<std::shared_ptr<klNetBuffer>> script;

private:
    std::string m_name;
};

// A leaf stage that records what reaches it and answers the statistics calls with set values.
class ProbeSender : public klNetSender {
public:
    explicit ProbeSender(const std::set<unsigned int>& destinations, int affinity = -1,
                         std::uint64_t compressedBytes = 0)
        : klNetSender(destinations), m_affinity(affinity), m_compressedBytes(compressedBytes) {}

    void send(const std::shared_ptr<klNetBuffer>& buffer) override { recorder.take(buffer); }
    int getNodeAffinity() override { return m_affinity; }
    std::uint64_t getCompressedBytes() override { return m_compressedBytes; }
    void resetStatistics() override { ++resets; }
    void waitAllDataTransfered() override { waitedAt = ++s_clock; }

    inline static std::atomic<int> s_clock{0};
    Recorder recorder;
    int resets = 0;
    int waitedAt = 0;  // s_clock at the last waitAllDataTransfered(), 0 if never

private:
    int m_affinity;
    std::uint64_t m_compressedBytes;
};

// A buffer of size payload bytes (pattern bytes, first byte tag) for destination.
inline std::shared_ptr<klNetBuffer> taggedBuffer(std::size_t size, unsigned int destination,
                                                 unsigned char tag = 0) {
    Bytes bytes = pattern(size);
    if (size > 0) {
        bytes[0] = tag;
    }
    auto buffer = bufferWith(bytes);
    buffer->setType(klNetMessageTypeMessage);
    buffer->setCompression(klNetCompressionNone, size);
    buffer->setDestination(destination);
    buffer->setSource(0);
    buffer->setSendMode(klNetSendModeDefault);
    return buffer;
}

// Bundles split into their records, plain buffers as they are, in order.
inline std::vector<std::shared_ptr<klNetBuffer>> unbundled(
    const std::vector<std::shared_ptr<klNetBuffer>>& buffers) {
    std::vector<std::shared_ptr<klNetBuffer>> plain;
    for (const auto& buffer : buffers) {
        if (buffer->getType() != klNetMessageTypeBundle) {
            plain.push_back(buffer);
            continue;
        }
        std::queue<std::shared_ptr<klNetBuffer>> records;
        buffer->split(records);
        for (; !records.empty(); records.pop()) {
            plain.push_back(records.front());
        }
    }
    return plain;
}

// Runs body, which reads from receiver, on a thread of its own. A body still blocked after the
// bound has the receiver's links shut, so that it ends with an error instead of hanging the test.
inline void receiveWithin(const std::shared_ptr<klNetReceiver>& receiver,
                          std::function<void()> body) {
    Task task(std::move(body));
    if (!task.finishedWithin(kBound)) {
        ADD_FAILURE() << "still receiving after the bound";
        receiver->shutdown();
        task.finishedWithin(kBound);
    }
    try {
        if (task.error()) {
            std::rethrow_exception(task.error());
        }
    } catch (const std::exception& error) {
        ADD_FAILURE() << "receiving failed: " << error.what();
    }
}

struct SocketPair {
    std::shared_ptr<klSocketLink> near;
    std::shared_ptr<klSocketLink> far;
};

// Two ends of one loopback connection on an ephemeral port.
inline SocketPair connectedPair() {
    klBoundSocketLink listener(0);
    const int port = listener.getAddress().getPort();
    SocketPair pair;
    std::thread acceptor([&] { pair.far = std::make_shared<klSocketLink>(listener); });
    pair.near = std::make_shared<klSocketLink>(klSocketAddress("127.0.0.1", port), 5.0);
    acceptor.join();
    return pair;
}

}  // namespace kltest
