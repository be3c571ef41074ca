// klNetBufferedReceiver: reads ahead of its reader on threads of its own.
//
// One worker thread per child calls the child's recv() in a loop and puts every buffer on one
// shared bounded queue (256 buffers; a worker waits while it is full, which holds the peer back
// through the connection's flow control instead of queuing without limit). The reader takes
// buffers from that queue, draining whatever is there into a local queue in one go, so the
// reader never waits on a socket itself and several children (one link receiver per link to the
// same peer) are read in parallel. Buffers of different children interleave in arrival order.
//
// Errors: a worker whose child throws (typically klConnectionClosed once its link is shut down)
// stores the exception, posts a wake-up buffer of data size 0 behind the buffers it already
// queued and ends. The reader receives those buffers first and gets the stored exception when it
// reaches the wake-up buffer, and again at every later one. Once every worker has ended and
// everything queued has been handed out, recv() rethrows the stored exception instead of waiting
// for data that can no longer come (without any child, it throws klConnectionClosed). A zero-size
// buffer sent by a peer is handed out as it is while no error is stored.
//
// Ownership: the children are shared (std::shared_ptr). The destructor shuts down every link
// below the receiver, which ends every worker's recv(), discards undelivered buffers and joins
// the workers; it never throws.
//
// Thread safety: recv() and recvAvailable() for one reader thread at a time; shutdown() from any
// thread.
#pragma once

#include <klNetBase/recv/klNetReceiver.h>

#include <tbb/concurrent_queue.h>

#include <atomic>
#include <exception>
#include <memory>
#include <mutex>
#include <queue>
#include <thread>
#include <vector>

class KLNETBASE_EXPORT klNetBufferedReceiver : public klNetReceiver {
public:
    static constexpr int kDefaultCapacity = 256;

    explicit klNetBufferedReceiver(const std::vector<std::shared_ptr<klNetReceiver>>& receivers);
    ~klNetBufferedReceiver() override;

    klNetBufferedReceiver(const klNetBufferedReceiver&) = delete;
    klNetBufferedReceiver& operator=(const klNetBufferedReceiver&) = delete;

    static std::shared_ptr<klNetReceiver> create(
        const std::vector<std::shared_ptr<klNetReceiver>>& receivers);

    void recv(std::shared_ptr<klNetBuffer>& buffer) override;
    // Hands over at least one buffer, then everything the last wait brought in.
    void recvAvailable(std::queue<std::shared_ptr<klNetBuffer>>& queue) override;

private:
    void recvFrom(std::shared_ptr<klNetReceiver> child);
    // Shuts the links down and joins every worker started so far.
    void stopWorkers() noexcept;
    void storeError(std::exception_ptr error);
    [[noreturn]] void rethrowError();
    bool failed() const { return m_failed.load(std::memory_order_acquire); }

    tbb::concurrent_bounded_queue<std::shared_ptr<klNetBuffer>> m_queue;
    // Workers that have not failed yet; a failing worker stores its error, counts itself out
    // here, then posts its wake-up buffer.
    std::atomic<int> m_running{0};
    // Workers whose thread body has returned.
    std::atomic<int> m_exited{0};

    // Every error stored, the last one current; at most one per thread. Replaced errors are kept
    // until the stage goes, so that the thread replacing one never frees an exception that a
    // caller is still looking at.
    std::mutex m_errorMutex;
    std::vector<std::exception_ptr> m_errors;
    std::atomic<bool> m_failed{false};

    // Touched only by the reader thread.
    std::queue<std::shared_ptr<klNetBuffer>> m_local;

    // Constant after construction; joined by the destructor.
    std::vector<std::shared_ptr<std::thread>> m_workers;
};
