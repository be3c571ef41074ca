#include <klNetBase/send/klNetBufferedSender.h>

#include <klNetBase/core/klNetBufferPool.h>
#include <klNetBase/runtime/klNetAffinityManager.h>

namespace {

std::uint64_t wireSize(const klNetBuffer& buffer) {
    return buffer.getDataSize() + klNetBuffer::getHeaderSize();
}

}  // namespace

klNetBufferedSender::klNetBufferedSender(const std::vector<std::shared_ptr<klNetSender>>& senders,
                                         int capacity)
    : klNetSender(senders) {
    m_queue.set_capacity(capacity > 0 ? capacity : kDefaultCapacity);
    m_workers.reserve(getChildren().size());
    for (const auto& child : getChildren()) {
        m_workers.push_back(
            std::make_shared<std::thread>(&klNetBufferedSender::sendTo, this, child));
    }
}

klNetBufferedSender::~klNetBufferedSender() {
    std::shared_ptr<klNetBuffer> discarded;
    while (m_queue.try_pop(discarded)) {
        --m_pending;
    }
    discarded.reset();
    m_queue.set_capacity(kShutdownCapacity);
    std::shared_ptr<klNetBuffer> stop = klNetBufferPool::pop();
    stop->setDataSize(0);
    for (std::size_t i = 0; i < m_workers.size(); ++i) {
        m_queue.push(stop);
    }
    for (const auto& worker : m_workers) {
        m_queue.push(stop);
        worker->join();
    }
    m_queue.clear();
}

std::shared_ptr<klNetSender> klNetBufferedSender::create(
    const std::vector<std::shared_ptr<klNetSender>>& senders, int capacity) {
    return std::make_shared<klNetBufferedSender>(senders, capacity);
}

std::shared_ptr<klNetSender> klNetBufferedSender::create(const std::shared_ptr<klNetSender>& sender,
                                                         int capacity) {
    return create(std::vector<std::shared_ptr<klNetSender>>{sender}, capacity);
}

void klNetBufferedSender::send(const std::shared_ptr<klNetBuffer>& buffer) {
    rethrowError();
    ++m_pending;
    m_queue.push(buffer);
}

void klNetBufferedSender::waitAllDataTransfered() {
    while (m_pending.load() != 0 && !failed()) {
        std::this_thread::yield();
    }
    rethrowError();
    klNetSender::waitAllDataTransfered();
}

void klNetBufferedSender::storeError(std::exception_ptr error) {
    std::lock_guard<std::mutex> lock(m_errorMutex);
    m_error = std::move(error);
    m_failed.store(true, std::memory_order_release);
}

void klNetBufferedSender::rethrowError() {
    if (!failed()) {
        return;
    }
    std::exception_ptr error;
    {
        std::lock_guard<std::mutex> lock(m_errorMutex);
        error = m_error;
    }
    std::rethrow_exception(error);
}

void klNetBufferedSender::popUntilMaxSize(std::queue<std::shared_ptr<klNetBuffer>>& batch,
                                          std::uint64_t maxSize) {
    std::shared_ptr<klNetBuffer> buffer;
    // Spin briefly before sleeping: waking a sleeping worker costs the producer a system call per
    // buffer, and a worker that sleeps between short bursts sends many small bundles.
    bool taken = false;
    for (int spin = 0; spin < 64 && !(taken = m_queue.try_pop(buffer)); ++spin) {
        std::this_thread::yield();
    }
    if (!taken) {
        m_queue.pop(buffer);
    }
    std::uint64_t total = wireSize(*buffer);
    bool stop = buffer->getDataSize() == 0;
    batch.push(std::move(buffer));
    while (!failed() && total < maxSize && !stop && m_queue.try_pop(buffer)) {
        total += wireSize(*buffer);
        stop = buffer->getDataSize() == 0;
        batch.push(std::move(buffer));
    }
}

void klNetBufferedSender::sendTo(std::shared_ptr<klNetSender> child) {
    try {
        klNetAffinityManager::setNodeAffinity(child->getNodeAffinity());
        for (;;) {
            std::queue<std::shared_ptr<klNetBuffer>> batch;
            popUntilMaxSize(batch, kBatchLimit);
            const std::int64_t taken = std::int64_t(batch.size());
            std::shared_ptr<klNetBuffer> out;
            while (klNetBuffer::tryBundle(batch, out)) {
                if (failed() || out->getDataSize() == 0) {
                    return;
                }
                child->send(out);
            }
            m_pending -= taken;
        }
    } catch (...) {
        storeError(std::current_exception());
        // Release callers blocked on a full queue; they see the error at their next call.
        std::shared_ptr<klNetBuffer> discarded;
        while (m_queue.try_pop(discarded) && discarded->getDataSize() != 0) {
        }
    }
}
