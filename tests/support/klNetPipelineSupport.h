// In-memory stand-ins for the pipeline, stream and receiver tests: a link and a sender that record
// what they are handed, a receiver that serves a script, a gate that holds a stage's thread inside
// a call, and buffers with a chosen header.
#pragma once

#include <support/klNetTestSupport.h>

#include <atomic>
#include <deque>
#include <mutex>
#include <queue>
#include <set>
#include <stdexcept>

// Failures name a buffer by its header instead of dumping its 131712 bytes.
inline void PrintTo(const klNetBuffer& buffer, std::ostream* os) {
    *os << "{type " << buffer.getType() << ", size " << buffer.getDataSize() << ", destination "
        << buffer.getDestination() << ", source " << buffer.getSource() << "}";
}

namespace kltest {

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
    Buffers taken() const {
        std::lock_guard<std::mutex> lock(m_mutex);
        return m_taken;
    }

private:
    mutable std::mutex m_mutex;
    Buffers m_taken;
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
    explicit ProbeSender(const std::set<unsigned int>& destinations = {})
        : klNetSender(destinations) {}

    void send(const Buffer& buffer) override { recorder->take(buffer); }
    int getNodeAffinity() override { return affinity; }
    std::uint64_t getCompressedBytes() override { return compressed; }
    void resetStatistics() override { ++resets; }
    void waitAllDataTransfered() override { waitedAt = ++s_clock; }
    Buffers sent() const { return recorder->taken(); }

    inline static std::atomic<int> s_clock{0};
    std::shared_ptr<Recorder> recorder = std::make_shared<Recorder>();
    int affinity = -1;
    std::uint64_t compressed = 0;
    int resets = 0;
    int waitedAt = 0;  // s_clock at the last waitAllDataTransfered(), 0 if never
};

// Serves the script in order, then the generator's buffers; with neither a read throws.
// recvAvailable serves the next entry of batches buffers at once (one when none is scripted).
// Buffers added from outside join the script. Readable while the script is not empty.
class ScriptedReceiver : public klNetReceiver {
public:
    explicit ScriptedReceiver(const Buffers& buffers = {})
        : script(buffers.begin(), buffers.end()) {}

    void recv(Buffer& buffer) override {
        ++calls;
        buffer = next();
    }
    void recvAvailable(std::queue<Buffer>& queue) override {
        ++calls;
        std::size_t count = 1;
        if (!batches.empty()) {
            count = batches.front();
            batches.pop_front();
        }
        while (count-- > 0) {
            queue.push(next());
        }
    }
    void addToRecvQueue(const Buffer& buffer) override { script.push_back(buffer); }
    bool isReadable() override { return !script.empty(); }

    std::deque<Buffer> script;
    std::deque<std::size_t> batches;
    std::function<Buffer()> generator;
    int calls = 0;  // recv and recvAvailable calls

private:
    Buffer next() {
        if (script.empty() && !generator) {
            throw std::logic_error("read beyond the scripted buffers");
        }
        if (script.empty()) {
            return generator();
        }
        auto buffer = script.front();
        script.pop_front();
        return buffer;
    }
};

// How sender->waitAllDataTransfered() ended (see outcomeWithin()).
inline std::string drained(const std::shared_ptr<klNetSender>& sender) {
    return outcomeWithin([sender] { sender->waitAllDataTransfered(); });
}

// A buffer as a sending stream would have stamped it.
inline Buffer makeBuffer(const Bytes& payload, klNetMessageType type, unsigned source,
                         unsigned destination, unsigned sequence = 0, unsigned messageId = 0,
                         unsigned messageCount = 0) {
    auto buffer = bufferWith(payload);
    buffer->setCompression(klNetCompressionNone, payload.size());
    buffer->setType(type);
    buffer->setSource(source);
    buffer->setDestination(destination);
    buffer->setSequence(sequence);
    buffer->setMessageId(messageId);
    buffer->setMessageBufferCount(messageCount);
    buffer->setSendMode(klNetSendModeDefault);
    return buffer;
}

// A message buffer of size payload bytes (pattern bytes, first byte tag) for destination.
inline Buffer taggedBuffer(std::size_t size, unsigned int destination, unsigned char tag = 0) {
    Bytes bytes = pattern(size);
    if (size > 0) {
        bytes[0] = tag;
    }
    return makeBuffer(bytes, klNetMessageTypeMessage, 0, destination);
}

}  // namespace kltest
