// Helpers for the pipeline tests: recording stand-ins for links and senders, a gate that holds a
// stage's thread inside a call, bounded waits, and connected loopback socket links.
#pragma once

#include <support/klNetTestSupport.h>

#include <klNetBase/core/klConnectionClosed.h>
#include <klNetBase/link/klBoundSocketLink.h>
#include <klNetBase/link/klSocketLink.h>
#include <klNetBase/send/klNetSender.h>

#include <atomic>
#include <chrono>
#include <functional>
#include <future>
#include <mutex>
#include <queue>
#include <thread>

// Failures name a buffer by its header instead of dumping its 131712 bytes.
inline void PrintTo(const klNetBuffer& buffer, std::ostream* os) {
    *os << "{type " << buffer.getType() << ", size " << buffer.getDataSize() << ", destination "
        << buffer.getDestination() << ", source " << buffer.getSource() << "}";
}

namespace kltest {

using Buffer = std::shared_ptr<klNetBuffer>;
using Clock = std::chrono::steady_clock;
// How long something that must happen may take, however slow the machine.
constexpr auto kBound = std::chrono::seconds(20);
// How long we watch for something that must not happen; too short only weakens the check.
constexpr auto kQuiet = std::chrono::milliseconds(200);

// Polls pred until it holds or limit passes.
template <class Pred>
bool waitUntil(Pred pred, Clock::duration limit = kBound) {
    for (const auto deadline = Clock::now() + limit; !pred();) {
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
    explicit Task(std::function<void()> body) {
        std::packaged_task<void()> task(std::move(body));
        m_done = task.get_future().share();
        m_thread = std::thread(std::move(task));
    }
    ~Task() { finishedWithin(Clock::duration::zero()) ? m_thread.join() : m_thread.detach(); }
    bool finishedWithin(Clock::duration limit) const {
        return m_done.wait_for(limit) == std::future_status::ready;
    }
    // Rethrows what the body threw, once it has finished.
    void get() const { m_done.get(); }

private:
    std::shared_future<void> m_done;
    std::thread m_thread;
};

// Holds every caller of pass() until open().
class Gate {
public:
    void pass() {
        ++m_arrived;
        m_opened.wait();
    }
    bool waitArrived(int count = 1) {
        return waitUntil([&] { return m_arrived >= count; });
    }
    void open() {
        std::call_once(m_once, [this] { m_opener.set_value(); });
    }

private:
    std::promise<void> m_opener;
    std::shared_future<void> m_opened = m_opener.get_future().share();
    std::atomic<int> m_arrived{0};
    std::once_flag m_once;
};

// Keeps what a stand-in is handed, in order, once the hook (set before traffic starts; it runs on
// the calling thread and may block or throw) has passed it.
class Recorder {
public:
    std::function<void(const Buffer&)> hook;

    void take(const Buffer& buffer) {
        if (hook) {
            hook(buffer);
        }
        std::lock_guard<std::mutex> lock(m_mutex);
        m_taken.push_back(buffer);
    }
    std::vector<Buffer> taken() const {
        std::lock_guard<std::mutex> lock(m_mutex);
        return m_taken;
    }

private:
    mutable std::mutex m_mutex;
    std::vector<Buffer> m_taken;
};

// An in-memory link: records what it is sent, serves its script (then klConnectionClosed), has
// nothing to poll on, and fails its alive check once marked vanished. Set up before use.
class TestLink : public klNetLink {
public:
    void send(const Buffer& buffer) override { recorder.take(buffer); }
    void recv(Buffer& buffer) override {
        if (script.empty()) {
            throw klConnectionClosed();
        }
        buffer = script.front();
        script.pop();
    }
    void shutdown() override { ++shutdowns; }
    unsigned int getRecvHandle() override { return ~0u; }  // -1: poll skips it
    void checkAlive() override {
        if (vanished) {
            throw klConnectionClosed();
        }
    }

    Recorder recorder;
    std::queue<Buffer> script;
    bool vanished = false;
    int shutdowns = 0;
};

// A leaf stage that records what reaches it (several may share a recorder) and answers the
// statistics calls with set values.
class ProbeSender : public klNetSender {
public:
    explicit ProbeSender(const std::set<unsigned int>& destinations) : klNetSender(destinations) {}

    void send(const Buffer& buffer) override { recorder->take(buffer); }
    int getNodeAffinity() override { return affinity; }
    std::uint64_t getCompressedBytes() override { return compressed; }
    void resetStatistics() override { ++resets; }
    void waitAllDataTransfered() override { waitedAt = ++s_clock; }

    inline static std::atomic<int> s_clock{0};
    std::shared_ptr<Recorder> recorder = std::make_shared<Recorder>();
    int affinity = -1;
    std::uint64_t compressed = 0;
    int resets = 0;
    int waitedAt = 0;  // s_clock at the last waitAllDataTransfered(), 0 if never
};

// A buffer of size payload bytes (pattern bytes, first byte tag) for destination.
inline Buffer taggedBuffer(std::size_t size, unsigned int destination, unsigned char tag = 0) {
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

// Two ends of one loopback connection on an ephemeral port: near connected, far accepted.
inline std::pair<std::shared_ptr<klSocketLink>, std::shared_ptr<klSocketLink>> connectedPair() {
    klBoundSocketLink listener(0);
    std::shared_ptr<klSocketLink> far;
    std::thread acceptor([&] { far = std::make_shared<klSocketLink>(listener); });
    auto near = std::make_shared<klSocketLink>(
        klSocketAddress("127.0.0.1", listener.getAddress().getPort()), 5.0);
    acceptor.join();
    return {near, far};
}

}  // namespace kltest
