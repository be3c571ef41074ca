// klNetReadAheadReceiver: what the stages that read ahead on threads of their own share with
// their reader (klNetBufferedReceiver, klNetDecompressReceiver).
//
// The stage's threads put buffers on one output queue. The reader takes them from there, draining
// whatever is there into a local queue in one go, so that it touches the shared queue once per
// burst rather than once per buffer.
//
// Errors: a thread that fails calls fail(), which stores its exception, counts the thread out and
// posts a wake-up buffer of data size 0 behind what the thread already queued. The reader gets
// the stored exception when it reaches a wake-up buffer, and again at every later one. Once the
// subclass says that nothing more can arrive and the queue is empty, recv() rethrows the stored
// exception instead of waiting (klConnectionClosed when none was stored). A zero-size buffer is
// handed out as it is while no error is stored.
//
// Thread safety: recv(), recvAvailable() and takeReady() for one reader thread at a time;
// deliver() and fail() from the stage's threads.
#pragma once

#include <klNetBase/recv/klNetReceiver.h>

#include <tbb/concurrent_queue.h>

#include <atomic>
#include <cstddef>
#include <exception>
#include <memory>
#include <mutex>
#include <queue>
#include <vector>

class KLNETBASE_EXPORT klNetReadAheadReceiver : public klNetReceiver {
public:
    klNetReadAheadReceiver(const klNetReadAheadReceiver&) = delete;
    klNetReadAheadReceiver& operator=(const klNetReadAheadReceiver&) = delete;

    void recv(std::shared_ptr<klNetBuffer>& buffer) override;
    // Hands over at least one buffer, then everything the last wait brought in.
    void recvAvailable(std::queue<std::shared_ptr<klNetBuffer>>& queue) override;

protected:
    using Queue = tbb::concurrent_bounded_queue<std::shared_ptr<klNetBuffer>>;

    // capacity bounds the output queue (a thread that delivers waits while it is full); 0 leaves
    // it unbounded. errorSlots is the number of threads that may fail: storing an error then
    // never allocates.
    klNetReadAheadReceiver(const std::vector<std::shared_ptr<klNetReceiver>>& children,
                           std::size_t capacity, std::size_t errorSlots);
    ~klNetReadAheadReceiver() override;

    // True when no thread can put anything more on the output queue. Asked before the reader
    // looks at the queue: while a thread still counts, a buffer or wake-up buffer is yet to come,
    // so waiting is safe; once none does, every error is already stored.
    virtual bool nothingMoreToCome() const = 0;

    // For the stage's threads.
    void deliver(std::shared_ptr<klNetBuffer> buffer) { m_output.push(std::move(buffer)); }
    // Stores error, counts the calling thread out of running and posts a wake-up buffer.
    void fail(std::exception_ptr error, std::atomic<int>& running) noexcept;
    bool failed() const { return m_failed.load(std::memory_order_acquire); }

    // For the reader: whether a buffer is ready, taking one from the output queue if needed.
    bool takeReady();

    // Emptied by the subclass's destructor once its threads have ended.
    Queue m_output;

private:
    [[noreturn]] void rethrowError();

    // Every error stored, the last one current; at most one per thread. Replaced errors are kept
    // until the stage goes, so that the thread replacing one never frees an exception that a
    // caller is still looking at.
    std::mutex m_errorMutex;
    std::vector<std::exception_ptr> m_errors;
    std::atomic<bool> m_failed{false};

    // Touched only by the reader thread.
    std::queue<std::shared_ptr<klNetBuffer>> m_local;
};
