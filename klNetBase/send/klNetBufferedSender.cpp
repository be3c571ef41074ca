#include <klNetBase/send/klNetBufferedSender.h>

#include <klNetBase/runtime/klNetAffinityManager.h>

namespace {

std::uint64_t wireSize(const klNetBuffer& buffer) {
    return buffer.getDataSize() + klNetBuffer::getHeaderSize();
}

}  // namespace

klNetBufferedSender::klNetBufferedSender(const std::vector<std::shared_ptr<klNetSender>>& senders,
                                         int capacity, Bound bound)
    : klNetSender(senders), m_capacity(capacity > 0 ? capacity : kDefaultCapacity), m_bound(bound) {
    m_workers.reserve(getChildren().size());
    try {
        for (const auto& child : getChildren()) {
            m_workers.push_back(
                std::make_shared<std::thread>(&klNetBufferedSender::sendTo, this, child));
        }
    } catch (...) {
        // Stop the workers that did start, or destroying them would end the process.
        stopWorkers();
        throw;
    }
}

klNetBufferedSender::~klNetBufferedSender() {
    stopWorkers();
}

void klNetBufferedSender::stopWorkers() noexcept {
    std::deque<Batch> discarded;
    {
        std::lock_guard<std::mutex> lock(m_mutex);
        discarded.swap(m_batches);
        m_pending -= m_waiting;
        m_waiting = 0;
        m_waitingRuns = 0;
        m_stopping = true;
    }
    m_work.notify_all();
    discarded.clear();
    for (const auto& worker : m_workers) {
        worker->join();
    }
}

std::shared_ptr<klNetSender> klNetBufferedSender::create(
    const std::vector<std::shared_ptr<klNetSender>>& senders, int capacity) {
    return std::make_shared<klNetBufferedSender>(senders, capacity);
}

std::shared_ptr<klNetSender> klNetBufferedSender::create(const std::shared_ptr<klNetSender>& sender,
                                                         int capacity) {
    return create(std::vector<std::shared_ptr<klNetSender>>{sender}, capacity);
}

std::shared_ptr<klNetSender> klNetBufferedSender::create(
    const std::vector<std::shared_ptr<klNetSender>>& senders, int capacity, Bound bound) {
    return std::make_shared<klNetBufferedSender>(senders, capacity, bound);
}

bool klNetBufferedSender::full() const {
    return (m_bound == Bound::Buffers ? m_waiting : m_waitingRuns) >= m_capacity;
}

void klNetBufferedSender::send(const std::shared_ptr<klNetBuffer>& buffer) {
    rethrowError();
    std::unique_lock<std::mutex> lock(m_mutex);
    if (full()) {
        ++m_blockedSenders;
        m_room.wait(lock, [this] { return !full() || failed(); });
        --m_blockedSenders;
        if (failed()) {
            return;  // the queue was emptied for the error; it shows at the next call
        }
    }
    if (m_batches.empty() || m_batches.back().closed) {
        m_batches.emplace_back();
    }
    Batch& batch = m_batches.back();
    if (batch.runs.empty() ||
        !klNetBuffer::tryAddToRun(batch.runs.back().buffer, batch.runs.back().packed, buffer)) {
        batch.runs.push_back({buffer, false});
        ++m_waitingRuns;
    }
    batch.bytes += wireSize(*buffer);
    ++batch.buffers;
    batch.closed = batch.bytes >= kBatchLimit || buffer->getDataSize() == 0;
    ++m_waiting;
    ++m_pending;
    // Only a worker that sleeps needs the system call of a wake-up; a busy one finds the batch
    // when it comes back.
    const bool wake = m_idleWorkers > 0;
    lock.unlock();
    if (wake) {
        m_work.notify_one();
    }
}

void klNetBufferedSender::waitAllDataTransfered() {
    {
        std::unique_lock<std::mutex> lock(m_mutex);
        m_drained.wait(lock, [this] { return m_pending == 0 || failed(); });
    }
    rethrowError();
    klNetSender::waitAllDataTransfered();
}

void klNetBufferedSender::fail(std::exception_ptr error) {
    std::deque<Batch> discarded;
    {
        std::lock_guard<std::mutex> lock(m_mutex);
        m_error = std::move(error);
        m_failed.store(true, std::memory_order_release);
        // Frees callers blocked on a full queue; they see the error at their next call.
        discarded.swap(m_batches);
        m_waiting = 0;
        m_waitingRuns = 0;
    }
    m_room.notify_all();
    m_drained.notify_all();
    m_work.notify_all();
}

void klNetBufferedSender::rethrowError() {
    if (!failed()) {
        return;
    }
    std::exception_ptr error;
    {
        std::lock_guard<std::mutex> lock(m_mutex);
        error = m_error;
    }
    std::rethrow_exception(error);
}

bool klNetBufferedSender::takeBatch(Batch& batch) {
    std::unique_lock<std::mutex> lock(m_mutex);
    ++m_idleWorkers;
    m_work.wait(lock, [this] { return !m_batches.empty() || m_stopping || failed(); });
    --m_idleWorkers;
    if (m_batches.empty() || failed()) {
        return false;
    }
    batch = std::move(m_batches.front());
    m_batches.pop_front();
    m_waiting -= batch.buffers;
    m_waitingRuns -= std::int64_t(batch.runs.size());
    const bool wake = m_blockedSenders > 0;
    lock.unlock();
    if (wake) {
        m_room.notify_all();
    }
    return true;
}

void klNetBufferedSender::sendTo(std::shared_ptr<klNetSender> child) {
    try {
        klNetAffinityManager::setNodeAffinity(child->getNodeAffinity());
        for (Batch batch; takeBatch(batch);) {
            for (const Run& run : batch.runs) {
                if (failed()) {
                    return;
                }
                if (run.buffer->getDataSize() == 0) {
                    break;  // a stop signal ends its batch and this worker
                }
                child->send(run.buffer);
            }
            const bool stop = batch.runs.back().buffer->getDataSize() == 0;
            const std::int64_t passed = batch.buffers;
            batch = Batch();  // lets go of the sent buffers before they count as passed on
            std::lock_guard<std::mutex> lock(m_mutex);
            if ((m_pending -= passed) == 0) {
                m_drained.notify_all();
            }
            if (stop) {
                return;
            }
        }
    } catch (...) {
        fail(std::current_exception());
    }
}
