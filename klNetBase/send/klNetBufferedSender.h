// klNetBufferedSender: decouples callers from the network.
//
// send() packs the buffer into the batches that wait for the workers and returns; one worker
// thread per child takes the oldest batch and sends its buffers on through its child. A batch
// collects buffers in the order they are sent until they reach 64 KiB (counted as data size + 24
// header bytes each) or a stop signal; within it, consecutive small buffers for one destination
// are packed into bundles as they arrive, by exactly the rule of klNetBuffer::tryBundle, so a
// small buffer is copied once at send() and let go at once instead of waiting in a queue. A batch
// that a worker takes before it is full simply ends there: what the workers find is what goes
// out, as if they had taken the batch off a queue. With several children (several links to one
// peer) the workers take turns at the batches, spreading the load; buffers of one batch keep their
// order, batches taken by different workers may overtake each other, which the receiving side's
// sort stage puts right.
//
// send() blocks while the waiting batches (those no worker has taken yet) are at their bound. The
// bound is `capacity` buffers sent into them, or, with Bound::PoolBuffers, `capacity` pool buffers
// held by them: a buffer that waits as it was sent holds one, and so does a bundle of any number
// of packed small buffers (those are let go at send()). The second bounds memory just as well and
// lets a stream of small buffers run far ahead of the workers, so that a sending thread rarely
// has to wait for a worker to wake; a caller that wants it asks for it (klNetSender::createBundle
// keeps the default, 256 buffers).
//
// A buffer of data size 0 is a stop signal: the worker that takes it ends, and it is not sent.
// A worker's error is kept and rethrown to callers by every later send() and by
// waitAllDataTransfered(); a failed buffered sender stays failed, and callers blocked in send()
// return (the error shows at their next call). The destructor discards batches no worker has
// taken, stops and joins every worker (a worker finishes its current batch first); shut the links
// down first if a worker may be blocked on one.
//
// Thread safety: send() from any number of threads at once; waitAllDataTransfered() from any
// thread. One mutex guards the batches and counters; senders hold it while they pack.
#pragma once

#include <klNetBase/send/klNetSender.h>

#include <atomic>
#include <condition_variable>
#include <cstdint>
#include <deque>
#include <exception>
#include <memory>
#include <mutex>
#include <thread>
#include <vector>

class KLNETBASE_EXPORT klNetBufferedSender : public klNetSender {
public:
    static constexpr int kDefaultCapacity = 256;
    static constexpr std::uint64_t kBatchLimit = 0x10000;

    // What capacity counts (above).
    enum class Bound { Buffers, PoolBuffers };

    // capacity: waiting buffers (or pool buffers they hold) before send() blocks; 0 or less gives
    // 256. A worker thread that cannot start: std::system_error, the others stopped first.
    klNetBufferedSender(const std::vector<std::shared_ptr<klNetSender>>& senders, int capacity,
                        Bound bound = Bound::Buffers);
    ~klNetBufferedSender() override;

    klNetBufferedSender(const klNetBufferedSender&) = delete;
    klNetBufferedSender& operator=(const klNetBufferedSender&) = delete;

    static std::shared_ptr<klNetSender> create(
        const std::vector<std::shared_ptr<klNetSender>>& senders, int capacity);
    static std::shared_ptr<klNetSender> create(const std::shared_ptr<klNetSender>& sender,
                                               int capacity);
    static std::shared_ptr<klNetSender> create(
        const std::vector<std::shared_ptr<klNetSender>>& senders, int capacity, Bound bound);

    void send(const std::shared_ptr<klNetBuffer>& buffer) override;
    // Waits until every accepted buffer has been passed on, then waits for the children;
    // rethrows a worker's error.
    void waitAllDataTransfered() override;

private:
    // What goes out in one piece: a buffer as it was sent, or the bundle its run was packed into.
    struct Run {
        std::shared_ptr<klNetBuffer> buffer;
        bool packed;
    };
    struct Batch {
        std::vector<Run> runs;
        std::uint64_t bytes = 0;
        std::int64_t buffers = 0;  // sent into this batch, packed ones included
        bool closed = false;       // full, or ended by a stop signal
    };

    void sendTo(std::shared_ptr<klNetSender> child);
    // Discards the batches no worker has taken, stops and joins every worker started so far.
    void stopWorkers() noexcept;
    // Waits for the oldest batch and takes it; false when the worker is to end instead.
    bool takeBatch(Batch& batch);
    // Whether the waiting batches are at their bound. REQUIRES: m_mutex held.
    bool full() const;
    void fail(std::exception_ptr error);
    void rethrowError();
    bool failed() const { return m_failed.load(std::memory_order_acquire); }

    const std::int64_t m_capacity;
    const Bound m_bound;
    std::mutex m_mutex;
    // Workers wait for batches, senders for room, waitAllDataTransfered for the end of pending.
    std::condition_variable m_work;
    std::condition_variable m_room;
    std::condition_variable m_drained;
    // Guarded by m_mutex: batches no worker has taken, oldest first (the last may still grow);
    // the buffers sent into them and the runs (pool buffers) they hold; the buffers accepted whose
    // batch has not been passed on completely; idle workers and blocked senders (so that nobody
    // is woken in vain); the destructor's call.
    std::deque<Batch> m_batches;
    std::int64_t m_waiting = 0;
    std::int64_t m_waitingRuns = 0;
    std::int64_t m_pending = 0;
    int m_idleWorkers = 0;
    int m_blockedSenders = 0;
    bool m_stopping = false;
    // The last worker error, written under m_mutex; m_failed tells it is there without the lock.
    std::exception_ptr m_error;
    std::atomic<bool> m_failed{false};

    // Constant after construction; joined by the destructor.
    std::vector<std::shared_ptr<std::thread>> m_workers;
};
