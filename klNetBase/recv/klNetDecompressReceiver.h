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
// Errors: a failing thread (a link's error, or decompress() throwing) fails as
// klNetReadAheadReceiver says. Nothing more can arrive once every reading thread has ended and no
// compressed buffer is still in the works.
//
// Ownership: the compressor and children are shared (std::shared_ptr). The destructor shuts down
// every link below the receiver, joins the reading threads, discards buffers waiting for
// decompression, stops and joins the decompressing threads; it never throws.
//
// Thread safety: recv(), recvAvailable() and isReadable() for one reader thread at a time;
// addToRecvQueue() and shutdown() from any thread. The compressor's decompress() runs on several
// threads at once.
#pragma once

#include <klNetBase/recv/klNetReadAheadReceiver.h>
#include <klNetBase/send/klNetCompressorBase.h>

#include <atomic>
#include <cstdint>
#include <memory>
#include <thread>
#include <vector>

class KLNETBASE_EXPORT klNetDecompressReceiver : public klNetReadAheadReceiver {
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

    void addToRecvQueue(const std::shared_ptr<klNetBuffer>& buffer) override;
    // Whether recv() would return without waiting; never waits itself.
    bool isReadable() override;

private:
    void recvFrom(std::shared_ptr<klNetReceiver> child);
    void decompressLoop(int index);
    // Shuts the links down and joins every thread started so far.
    void stopWorkers() noexcept;
    bool nothingMoreToCome() const override;
    static unsigned int decompressThreadCount();

    // Constant after construction.
    std::shared_ptr<klNetCompressorBase> m_compressor;

    Queue m_compressed;
    // Reading and decompressing threads that have not failed.
    std::atomic<int> m_readers{0};
    std::atomic<int> m_decompressors{0};
    // Compressed buffers taken from a child and not yet on the output queue.
    std::atomic<std::int64_t> m_inFlight{0};

    // Constant after construction; joined by the destructor.
    std::vector<std::thread> m_readingWorkers;
    std::vector<std::thread> m_decompressWorkers;
};
