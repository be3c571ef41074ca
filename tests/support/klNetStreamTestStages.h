// In-memory pipeline stages for the stream and receiver tests: a sender that records what it is
// given, a receiver that serves a scripted list of buffers, a link that counts its shutdowns, and
// buffers with a chosen header.
#pragma once

#include <support/klNetTestSupport.h>

#include <cstdint>
#include <deque>
#include <functional>
#include <memory>
#include <queue>
#include <set>
#include <stdexcept>
#include <vector>

namespace kltest {

using Buffers = std::vector<std::shared_ptr<klNetBuffer>>;

// A buffer as a sending stream would have stamped it.
inline std::shared_ptr<klNetBuffer> makeBuffer(const Bytes& payload, klNetMessageType type,
                                               unsigned source, unsigned destination,
                                               unsigned sequence, unsigned messageId = 0,
                                               unsigned messageCount = 0) {
    auto buffer = bufferWith(payload);
    buffer->setCompression(klNetCompressionNone, payload.size());
    buffer->setType(type);
    buffer->setSource(source);
    buffer->setDestination(destination);
    buffer->setSequence(sequence);
    buffer->setMessageId(messageId);
    buffer->setMessageBufferCount(messageCount);
    return buffer;
}

inline Bytes headerOf(const klNetBuffer& buffer) {
    return Bytes(buffer.getBuffer(), buffer.getBuffer() + klNetBuffer::getHeaderSize());
}

// Keeps every buffer it is given, in order.
class RecordingSender : public klNetSender {
public:
    explicit RecordingSender(const std::set<unsigned int>& destinations = {})
        : klNetSender(destinations) {}
    void send(const std::shared_ptr<klNetBuffer>& buffer) override { sent.push_back(buffer); }
    void resetStatistics() override { ++resets; }

    Buffers sent;
    int resets = 0;
};

// Serves the scripted buffers in order, then those of the generator; with neither left a read is
// a test fault and throws. recvAvailable serves the next entry of batches buffers at once (one
// when no batch is scripted). Buffers added from outside are recorded and served after the
// script. Readable while scripted buffers remain.
class ScriptedReceiver : public klNetReceiver {
public:
    explicit ScriptedReceiver(const Buffers& buffers = {})
        : script(buffers.begin(), buffers.end()) {}

    void recv(std::shared_ptr<klNetBuffer>& buffer) override {
        ++calls;
        buffer = next();
    }
    void recvAvailable(std::queue<std::shared_ptr<klNetBuffer>>& queue) override {
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
    void addToRecvQueue(const std::shared_ptr<klNetBuffer>& buffer) override {
        added.push_back(buffer);
        script.push_back(buffer);
    }
    bool isReadable() override { return !script.empty(); }

    std::deque<std::shared_ptr<klNetBuffer>> script;
    std::deque<std::size_t> batches;
    std::function<std::shared_ptr<klNetBuffer>()> generator;
    Buffers added;
    int calls = 0;  // recv and recvAvailable calls

private:
    std::shared_ptr<klNetBuffer> next() {
        if (!script.empty()) {
            auto buffer = script.front();
            script.pop_front();
            return buffer;
        }
        if (generator) {
            return generator();
        }
        throw std::logic_error("read beyond the scripted buffers");
    }
};

// A link that carries nothing and counts how often it was shut down.
class CountingLink : public klNetLink {
public:
    void send(const std::shared_ptr<klNetBuffer>&) override { throw klConnectionClosed(); }
    void recv(std::shared_ptr<klNetBuffer>&) override { throw klConnectionClosed(); }
    void shutdown() override { ++shutdowns; }
    unsigned int getRecvHandle() override { return 0; }
    void checkAlive() override {}

    int shutdowns = 0;
};

}  // namespace kltest
