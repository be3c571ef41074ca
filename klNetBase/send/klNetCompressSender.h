// klNetCompressSender: compresses buffers on worker threads before its target sends them.
//
// send() asks the compressor whether a buffer is to be compressed (shouldCompress). Those that
// are go onto a bounded queue (256 buffers; send() waits while it is full) from which one worker
// per hardware thread takes them, compresses them and hands the result to the target. All other
// buffers bypass the workers: the target sends them at once on the caller's thread. The workers
// start with the first buffer to compress, so a pipeline that never compresses costs no threads.
// An empty buffer to compress queues in order with the others and, like the destructor's stop
// signal, ends the worker that takes it: it is not sent, waitAllDataTransfered() does not wait
// for it, and the other workers carry on.
//
// Order is not kept: a bypassing buffer can overtake compressed ones sent before it, and the
// workers finish in any order. The receiving side puts buffers back in order by sequence number;
// serialising the paths here would cost the parallelism the stage exists for.
//
// Every buffer passed on adds its data size + 24 header bytes to getCompressedBytes(), compressed
// or not, so the counter measures the volume that actually travels.
//
// Errors: a worker's exception (from compress() or the target) is stored and rethrown by every
// later send() and waitAllDataTransfered(); the stage does not recover. The worker that failed
// discards the queued buffers, releasing callers waiting for room, and ends. A bypassing
// buffer's error reaches the caller directly.
//
// Ownership: compressor and target are shared (std::shared_ptr). The destructor discards queued
// buffers, stops and joins the workers (each finishes the buffer in hand first; shut the links
// down first if a worker may be blocked sending on one); it never throws.
//
// Thread safety: the target must accept concurrent send() calls, since workers and bypassing
// callers reach it at the same time (put a locked, buffered or multi sender behind this stage).
// send() itself is safe for concurrent callers as far as the target is; waitAllDataTransfered()
// and the statistics from any thread.
#pragma once

#include <klNetBase/send/klNetCompressorBase.h>
#include <klNetBase/send/klNetSender.h>

#include <tbb/concurrent_queue.h>

#include <atomic>
#include <cstdint>
#include <exception>
#include <memory>
#include <mutex>
#include <thread>
#include <vector>

class KLNETBASE_EXPORT klNetCompressSender : public klNetSender {
public:
    static constexpr int kDefaultCapacity = 256;
    static constexpr int kShutdownCapacity = 10000;

    klNetCompressSender(const std::shared_ptr<klNetCompressorBase>& compressor,
                        const std::shared_ptr<klNetSender>& target);
    ~klNetCompressSender() override;

    klNetCompressSender(const klNetCompressSender&) = delete;
    klNetCompressSender& operator=(const klNetCompressSender&) = delete;

    static std::shared_ptr<klNetSender> create(
        const std::shared_ptr<klNetCompressorBase>& compressor,
        const std::shared_ptr<klNetSender>& target);

    void send(const std::shared_ptr<klNetBuffer>& buffer) override;
    // Resets this stage's counter only.
    void resetStatistics() override;
    // Bytes this stage passed on (data size + 24 per buffer); children are not added.
    std::uint64_t getCompressedBytes() override;
    // Waits (spinning with yields) until every queued buffer has been passed on, then waits for
    // the target; rethrows a worker's error.
    void waitAllDataTransfered() override;

private:
    void startWorkers();
    void compressLoop();
    // Discards queued buffers until the queue is empty or a stop signal turns up, which is put
    // back for the next worker.
    void stopProcedure();
    void addStatistics(const std::shared_ptr<klNetBuffer>& buffer);
    void storeError(std::exception_ptr error);
    void rethrowError();
    bool failed() const { return m_failed.load(std::memory_order_acquire); }

    // Constant after construction.
    std::shared_ptr<klNetCompressorBase> m_compressor;
    std::shared_ptr<klNetSender> m_target;

    tbb::concurrent_bounded_queue<std::shared_ptr<klNetBuffer>> m_queue;
    std::atomic<std::uint64_t> m_compressedBytes{0};
    // Buffers queued for compression and not yet passed on.
    std::atomic<std::int64_t> m_pending{0};

    // Every error stored, the last one current; at most one per thread. Replaced errors are kept
    // until the stage goes, so that the thread replacing one never frees an exception that a
    // caller is still looking at.
    std::mutex m_errorMutex;
    std::vector<std::exception_ptr> m_errors;
    std::atomic<bool> m_failed{false};

    // Filled once, under m_startOnce; joined by the destructor.
    std::once_flag m_startOnce;
    std::vector<std::thread> m_workers;
};
