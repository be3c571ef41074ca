// Helpers shared by the unit tests: hex literals, byte snapshots of buffers, exact-error checks,
// and bounded waits that fail a test instead of hanging it.
#pragma once

#include <klNetBase/klNetBase.h>

#include <gtest/gtest.h>

#include <algorithm>
#include <chrono>
#include <cstring>
#include <functional>
#include <future>
#include <memory>
#include <string>
#include <thread>
#include <vector>

namespace kltest {

using Bytes = std::vector<unsigned char>;
using Buffer = std::shared_ptr<klNetBuffer>;
using Buffers = std::vector<Buffer>;
using Clock = std::chrono::steady_clock;
// How long something that must happen may take, however slow the machine.
constexpr auto kBound = std::chrono::seconds(20);
// How long we watch for something that must not happen; too short only weakens the check.
constexpr auto kQuiet = std::chrono::milliseconds(200);

// Bytes from hexadecimal pairs; blanks are ignored: hex("01 00 00 00 00").
inline Bytes hex(std::string text) {
    text.erase(std::remove(text.begin(), text.end(), ' '), text.end());
    Bytes bytes;
    for (std::size_t i = 0; i + 1 < text.size(); i += 2) {
        bytes.push_back(static_cast<unsigned char>(std::stoul(text.substr(i, 2), nullptr, 16)));
    }
    return bytes;
}

inline Bytes headerOf(const klNetBuffer& buffer) {
    return Bytes(buffer.getBuffer(), buffer.getBuffer() + klNetBuffer::getHeaderSize());
}

inline Bytes payloadOf(const klNetBuffer& buffer) {
    return Bytes(buffer.getData(), buffer.getData() + buffer.getDataSize());
}

// The bytes that travel for buffer: header and payload.
inline Bytes wireOf(const klNetBuffer& buffer) {
    return Bytes(buffer.getBuffer(), buffer.getBuffer() + buffer.getBufferSize());
}

inline Bytes concatPayloads(const Buffers& buffers) {
    Bytes all;
    for (const auto& buffer : buffers) {
        all.insert(all.end(), buffer->getData(), buffer->getData() + buffer->getDataSize());
    }
    return all;
}

// The next n bytes a serializer reads; for a message, by default all that is left of it.
inline Bytes readBytes(klNetSerializer& serializer, std::size_t n) {
    Bytes bytes(n);
    serializer.getBytes(bytes.data(), n);
    return bytes;
}
inline Bytes readBytes(klNetMessage& message) {
    return readBytes(message, message.getMessageSize());
}

// The bytes of values written one after the other into a message.
template <class... Values>
Bytes wireOfValues(const Values&... values) {
    klNetMessage message;
    (message << ... << values);
    return concatPayloads(message.takeSendBuffers());
}

// The bytes that record.putValue() writes.
template <class Record>
Bytes wireOfRecord(const Record& record) {
    klNetMessage message;
    record.putValue(message);
    return concatPayloads(message.takeSendBuffers());
}

// A pool buffer holding exactly payload.
inline Buffer bufferWith(const Bytes& payload) {
    auto buffer = klNetBufferPool::pop();
    std::copy(payload.begin(), payload.end(), buffer->getData());
    buffer->setDataSize(payload.size());
    return buffer;
}

// record after record.getValue() has read it from bytes.
template <class Record>
Record readRecord(const Bytes& bytes, Record record = Record()) {
    klNetMessage message;
    message.setRecvBuffer(bufferWith(bytes));
    record.getValue(message);
    return record;
}

// n bytes that differ from their neighbours, with a period that is no power of two.
inline Bytes pattern(std::size_t n) {
    Bytes bytes(n);
    for (std::size_t i = 0; i < n; ++i) {
        bytes[i] = static_cast<unsigned char>(i * 7 + i / 251);
    }
    return bytes;
}

// Leaves the free buffers of the process-wide pool (all of them, while it has no more than count
// free) with a nonsense header and payload, so that a writer that forgets to reset a field is
// caught.
inline void dirtyFreeBuffers(int count = 64) {
    Buffers held;
    klNetBufferPool::popMany(count, held);
    for (const auto& buffer : held) {
        std::memset(buffer->getBuffer(), 0xA5, klNetBuffer::getHeaderSize() + 256);
        buffer->setSendMode(klNetSendModeSecondStage);
    }
}

// How fn ended: "returned", "closed", "timeout", or the text of any other exception.
inline std::string outcome(const std::function<void()>& fn) {
    try {
        fn();
        return "returned";
    } catch (const klConnectionClosed&) {
        return "closed";
    } catch (const klConnectionTimeout&) {
        return "timeout";
    } catch (const std::exception& error) {
        return error.what();
    }
}

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

// How fn ended, as outcome() tells, run on a thread of its own; "still running" after limit. As
// with Task, fn owns what it uses.
inline std::string outcomeWithin(std::function<void()> fn, Clock::duration limit = kBound) {
    auto result = std::make_shared<std::string>("still running");
    Task task([fn, result] { *result = outcome(fn); });
    return task.finishedWithin(limit) ? *result : "still running";
}

// Lets go of owner on a thread of its own, so that a destructor that hangs fails the test instead
// of hanging it: true when the release ended within the bound.
template <class T>
bool releasedWithin(std::shared_ptr<T>&& owner, Clock::duration limit = kBound) {
    return Task([owner = std::move(owner)]() mutable { owner.reset(); }).finishedWithin(limit);
}

// Calls stop unless it is destroyed within limit, so that a call that a fault leaves blocked
// returns and the test fails instead of hanging. Firing fails the test.
class Watchdog {
public:
    explicit Watchdog(std::function<void()> stop, Clock::duration limit = kBound)
        : m_thread([this, stop, limit] {
              if (m_done.get_future().wait_for(limit) != std::future_status::ready) {
                  m_fired = true;
                  stop();
              }
          }) {}
    ~Watchdog() {
        m_done.set_value();
        m_thread.join();
        EXPECT_FALSE(m_fired) << "stopped after the time limit";
    }

private:
    std::promise<void> m_done;
    bool m_fired = false;  // written by m_thread, read after joining it
    std::thread m_thread;
};

}  // namespace kltest

// Expects statement to throw ExceptionType (or a subclass) whose what() is exactly text.
#define KL_EXPECT_THROW_TEXT(statement, ExceptionType, text)                       \
    do {                                                                           \
        try {                                                                      \
            statement;                                                             \
            ADD_FAILURE() << "no exception from: " #statement;                     \
        } catch (const ExceptionType& kl_error_) {                                 \
            EXPECT_EQ(std::string(text), kl_error_.what()) << "from: " #statement; \
        }                                                                          \
    } while (0)
