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
// fails as klNetReadAheadReceiver says and ends. Without any child, recv() throws
// klConnectionClosed.
//
// Ownership: the children are shared (std::shared_ptr). The destructor shuts down every link
// below the receiver, which ends every worker's recv(), discards undelivered buffers and joins
// the workers; it never throws.
//
// Thread safety: recv() and recvAvailable() for one reader thread at a time; shutdown() from any
// thread.
#pragma once

#include <klNetBase/recv/klNetReadAheadReceiver.h>

#include <atomic>
#include <memory>
#include <thread>
#include <vector>

class KLNETBASE_EXPORT klNetBufferedReceiver : public klNetReadAheadReceiver {
public:
    // At most 256 buffers read ahead: a hostile peer cannot make the receiver queue without limit.
    static constexpr int kDefaultCapacity = 256;

    explicit klNetBufferedReceiver(const std::vector<std::shared_ptr<klNetReceiver>>& receivers);
    ~klNetBufferedReceiver() override;

    klNetBufferedReceiver(const klNetBufferedReceiver&) = delete;
    klNetBufferedReceiver& operator=(const klNetBufferedReceiver&) = delete;

    static std::shared_ptr<klNetReceiver> create(
        const std::vector<std::shared_ptr<klNetReceiver>>& receivers);

private:
    bool nothingMoreToCome() const override { return m_running.load() == 0; }
    void recvFrom(std::shared_ptr<klNetReceiver> child);
    // Shuts the links down and joins every worker started so far.
    void stopWorkers() noexcept;

    // Workers that have not failed yet.
    std::atomic<int> m_running{0};
    // Workers whose thread body has returned.
    std::atomic<int> m_exited{0};

    // Constant after construction; joined by the destructor.
    std::vector<std::shared_ptr<std::thread>> m_workers;
};
