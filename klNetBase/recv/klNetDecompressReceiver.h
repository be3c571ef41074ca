// klNetDecompressReceiver: restores compressed buffers on worker threads before delivery.
//
// The receiving mirror of klNetCompressSender. One reading thread per child takes buffers from
// it: buffers that arrive uncompressed go straight to the output queue, compressed ones to a
// queue served by one decompressing thread per hardware thread, whose results join the same
// output. The reader takes buffers in completion order: an uncompressed buffer can overtake a
// compressed one, and decompressed buffers leave as the workers finish. The sort stage further
// out restores the sender's order by sequence number.
//
// Buffers produced on this node can be injected with addToRecvQueue(). With image compression
// method 4 selected, those the compressor finds compressible are compressed on the way in and
// reach the reader in compressed form, unlike buffers from the links; every other injected
// buffer is delivered as it is.
//
// Both queues keep the queue's default (unbounded) capacity: a thread that injects buffers may
// be the reader itself, which must never wait for room that only it can make, and a reading
// thread never waits for decompressing threads that may have failed.
//
// Errors: a failing thread (a link's error, or decompress() throwing) stores its exception and
// posts a wake-up buffer of data size 0 behind what is already in the output; the reader gets
// the exception when it reaches it, and again at every later wake-up buffer. Once nothing more
// can arrive (every reading thread has ended and no compressed buffer is still in the works),
// recv() rethrows the stored exception instead of waiting.
//
// Ownership: the compressor and children are shared (std::shared_ptr). The destructor shuts down
// every link below the receiver, joins the reading threads, discards buffers waiting for
// decompression, stops and joins the decompressing threads; it never throws.
//
// Thread safety: recv(), recvAvailable() and isReadable() for one reader thread at a time;
// addToRecvQueue() and shutdown() from any thread. The compressor's decompress() runs on several
// threads at once.
#pragma once

#include <klNetBase/recv/klNetReceiver.h>
#include <klNetBase/send/klNetCompressorBase.h>

#include <tbb/concurrent_queue.h>

#include <atomic>
#include <exception>
#include <memory>
#include <mutex>
#include <queue>
#include <thread>
#include <vector>

class KLNETBASE_EXPORT klNetDecompressReceiver : public klNetReceiver {
public:
    // The image compression method whose locally injected buffers are compressed too.
    static constexpr klNetCompression kLocalImageCompression = klNetCompression(4);

    klNetDecompressReceiver(const std::shared_ptr<klNetCompressorBase>& compressor,
                            std::vector<std::shared_ptr<klNetReceiver>>& receivers);
    ~klNetDecompressReceiver() override;

    klNetDecompressReceiver(const klNetDecompressReceiver&) = delete;
    klNetDecompressReceiver& operator=(const klNetDecompressReceiver&) = delete;

    static std::shared_ptr<klNetReceiver> create(
        const std::shared_ptr<klNetCompressorBase>& compressor,
        std::vector<std::shared_ptr<klNetReceiver>>& receivers);

    void recv(std::shared_ptr<klNetBuffer>& buffer) override;
    // Hands over at least one buffer, then everything the last wait brought in.
    void recvAvailable(std::queue<std::shared_ptr<klNetBuffer>>& queue) override;
    void addToRecvQueue(const std::shared_ptr<klNetBuffer>& buffer) override;
    // Whether recv() would return without waiting; never waits itself.
    bool isReadable() override;

private:
    using Queue = tbb::concurrent_bounded_queue<std::shared_ptr<klNetBuffer>>;

    void recvFrom(std::shared_ptr<klNetReceiver> child);
    void decompressLoop(int index);
    // Shuts the links down and joins every thread started so far.
    void stopWorkers() noexcept;
    // Stores error, counts the calling thread out of running and posts a wake-up buffer.
    void fail(std::exception_ptr error, std::atomic<int>& running);
    [[noreturn]] void rethrowError();
    bool failed() const { return m_failed.load(std::memory_order_acquire); }
    // True when no thread can put anything more on the output queue.
    bool drained() const;

    // Constant after construction.
    std::shared_ptr<klNetCompressorBase> m_compressor;

    Queue m_output;
    Queue m_compressed;
    // Reading and decompressing threads that have not failed; a failing one stores its error,
    // counts itself out, then posts its wake-up buffer.
    std::atomic<int> m_readers{0};
    std::atomic<int> m_decompressors{0};
    // Compressed buffers taken from a child and not yet on the output queue.
    std::atomic<std::int64_t> m_inFlight{0};

    // Every error stored, the last one current; at most one per thread. Replaced errors are kept
    // until the stage goes, so that the thread replacing one never frees an exception that a
    // caller is still looking at.
    std::mutex m_errorMutex;
    std::vector<std::exception_ptr> m_errors;
    std::atomic<bool> m_failed{false};

    // Touched only by the reader thread.
    std::queue<std::shared_ptr<klNetBuffer>> m_local;

    // Constant after construction; joined by the destructor.
    std::vector<std::thread> m_readingWorkers;
    std::vector<std::thread> m_decompressWorkers;
};
