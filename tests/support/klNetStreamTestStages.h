// In-memory pipeline stages for the stream and receiver tests: a sender that records what it is
// given, a receiver that serves a scripted list of buffers, a link that counts its shutdowns, and
// buffers with a chosen header.
#pragma once

#include <support/klNetTestSupport.h>

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

// Serves the script in order, then the generator's buffers; with neither a read throws.
// recvAvailable serves the next entry of batches buffers at once (one when none is scripted).
// Buffers added from outside join the script. Readable while the script is not empty.
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
        script.push_back(buffer);
    }
    bool isReadable() override { return !script.empty(); }

    std::deque<std::shared_ptr<klNetBuffer>> script;
    std::deque<std::size_t> batches;
    std::function<std::shared_ptr<klNetBuffer>()> generator;
    int calls = 0;  // recv and recvAvailable calls

private:
    std::shared_ptr<klNetBuffer> next() {
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
