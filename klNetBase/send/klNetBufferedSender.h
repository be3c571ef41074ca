// klNetBufferedSender: decouples callers from the network.
//
// send() only puts the buffer on a bounded concurrent queue (it blocks while the queue is full)
// and returns. One worker thread per child takes batches of up to 65536 bytes off the queue,
// packs small buffers of a batch into bundles and sends them on through its child; with several
// children (several links to one peer) the workers compete for the queue, spreading the load.
// Buffers of one batch keep their order; batches taken by different workers may overtake each
// other, which the receiving side's sort stage puts right.
//
// A buffer of data size 0 is a stop signal: the worker that takes it ends, and it is not sent.
// A worker's error is kept and rethrown to callers by every later send() and by
// waitAllDataTransfered(); a failed buffered sender stays failed. The destructor discards buffers
// still queued, stops and joins every worker (a worker finishes its current batch first); shut the
// links down first if a worker may be blocked on one.
//
// Thread safety: send() from any number of threads at once; waitAllDataTransfered() from any
// thread.
#pragma once

#include <klNetBase/send/klNetSender.h>

#include <tbb/cache_aligned_allocator.h>
#include <tbb/concurrent_queue.h>

#include <atomic>
#include <cstdint>
#include <exception>
#include <memory>
#include <mutex>
#include <queue>
#include <thread>
#include <vector>

class KLNETBASE_EXPORT klNetBufferedSender : public klNetSender {
public:
    static constexpr int kDefaultCapacity = 256;
    static constexpr std::uint64_t kBatchLimit = 0x10000;
    static constexpr int kShutdownCapacity = 10000;

    // capacity: queued buffers before send() blocks; 0 or less gives 256.
    klNetBufferedSender(const std::vector<std::shared_ptr<klNetSender>>& senders, int capacity);
    ~klNetBufferedSender() override;

    klNetBufferedSender(const klNetBufferedSender&) = delete;
    klNetBufferedSender& operator=(const klNetBufferedSender&) = delete;

    static std::shared_ptr<klNetSender> create(
        const std::vector<std::shared_ptr<klNetSender>>& senders, int capacity);
    static std::shared_ptr<klNetSender> create(const std::shared_ptr<klNetSender>& sender,
                                               int capacity);

    void send(const std::shared_ptr<klNetBuffer>& buffer) override;
    // Waits (spinning with yields) until every accepted buffer has been passed on, then waits for
    // the children; rethrows a worker's error.
    void waitAllDataTransfered() override;

private:
    using Queue =
        tbb::concurrent_bounded_queue<std::shared_ptr<klNetBuffer>,
                                      tbb::cache_aligned_allocator<std::shared_ptr<klNetBuffer>>>;

    void sendTo(std::shared_ptr<klNetSender> child);
    void popUntilMaxSize(std::queue<std::shared_ptr<klNetBuffer>>& batch, std::uint64_t maxSize);
    void storeError(std::exception_ptr error);
    void rethrowError();
    bool failed() const { return m_failed.load(std::memory_order_acquire); }

    Queue m_queue;
    // Buffers accepted by send() whose batch has not yet been passed on completely.
    std::atomic<std::int64_t> m_pending{0};

    // The last worker error; written once per failure, read by callers.
    std::mutex m_errorMutex;
    std::exception_ptr m_error;
    std::atomic<bool> m_failed{false};

    // Constant after construction; joined by the destructor.
    std::vector<std::shared_ptr<std::thread>> m_workers;
};
