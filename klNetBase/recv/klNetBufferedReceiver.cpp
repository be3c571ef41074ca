#include <klNetBase/recv/klNetBufferedReceiver.h>

#include <klNetBase/core/klConnectionClosed.h>
#include <klNetBase/core/klNetBufferPool.h>
#include <klNetBase/runtime/klNetAffinityManager.h>

klNetBufferedReceiver::klNetBufferedReceiver(
    const std::vector<std::shared_ptr<klNetReceiver>>& receivers)
    : klNetReceiver(receivers) {
    m_queue.set_capacity(kDefaultCapacity);
    m_workers.reserve(getChildren().size());
    m_errors.reserve(getChildren().size());  // storing an error then never allocates
    for (const auto& child : getChildren()) {
        ++m_running;
        try {
            m_workers.push_back(
                std::make_shared<std::thread>(&klNetBufferedReceiver::recvFrom, this, child));
        } catch (...) {
            // Stop the workers that did start, or destroying them would end the process.
            --m_running;
            stopWorkers();
            throw;
        }
    }
}

klNetBufferedReceiver::~klNetBufferedReceiver() {
    stopWorkers();
    m_queue.clear();
}

void klNetBufferedReceiver::stopWorkers() noexcept {
    try {
        shutdown();
    } catch (...) {
        // A link that fails to shut down still ends its worker's recv() with an error.
    }
    // A worker may be waiting for room on the full queue rather than in recv(): keep the queue
    // empty until every worker has posted its wake-up buffer and ended.
    std::shared_ptr<klNetBuffer> discarded;
    while (m_exited.load() < int(m_workers.size())) {
        if (!m_queue.try_pop(discarded)) {
            std::this_thread::yield();
        }
    }
    for (const auto& worker : m_workers) {
        worker->join();
    }
    m_workers.clear();
}

std::shared_ptr<klNetReceiver> klNetBufferedReceiver::create(
    const std::vector<std::shared_ptr<klNetReceiver>>& receivers) {
    return std::make_shared<klNetBufferedReceiver>(receivers);
}

void klNetBufferedReceiver::recv(std::shared_ptr<klNetBuffer>& buffer) {
    if (m_local.empty()) {
        // Counted before looking at the queue: a worker that is still counted posts its wake-up
        // buffer later, so waiting is safe; with none counted, every error is already stored.
        const bool ended = m_running.load() == 0;
        std::shared_ptr<klNetBuffer> next;
        if (!m_queue.try_pop(next)) {
            if (ended) {
                if (failed())
                    rethrowError();
                throw klConnectionClosed();  // no child to read from at all
            }
            m_queue.pop(next);
        }
        m_local.push(std::move(next));
        while (m_queue.try_pop(next)) {
            m_local.push(std::move(next));
        }
    }
    buffer = std::move(m_local.front());
    m_local.pop();
    if (buffer->getDataSize() == 0 && failed()) {
        rethrowError();
    }
}

void klNetBufferedReceiver::recvAvailable(std::queue<std::shared_ptr<klNetBuffer>>& queue) {
    std::shared_ptr<klNetBuffer> buffer;
    recv(buffer);
    queue.push(std::move(buffer));
    while (!m_local.empty()) {
        recv(buffer);
        queue.push(std::move(buffer));
    }
}

void klNetBufferedReceiver::recvFrom(std::shared_ptr<klNetReceiver> child) {
    try {
        klNetAffinityManager::setNodeAffinity(child->getNodeAffinity());
        for (;;) {
            std::shared_ptr<klNetBuffer> buffer;
            child->recv(buffer);
            m_queue.push(std::move(buffer));
        }
    } catch (...) {
        storeError(std::current_exception());
        // Counted out before the wake-up buffer goes: a reader that still counts this worker
        // waits, and the wake-up buffer is yet to come; one that does not finds the error stored.
        --m_running;
        try {
            std::shared_ptr<klNetBuffer> wakeUp = klNetBufferPool::pop();
            wakeUp->setDataSize(0);
            m_queue.push(std::move(wakeUp));
        } catch (...) {
            // The reader still learns of the error once it finds no worker left.
        }
    }
    ++m_exited;
}

void klNetBufferedReceiver::storeError(std::exception_ptr error) {
    std::lock_guard<std::mutex> lock(m_errorMutex);
    m_errors.push_back(std::move(error));
    m_failed.store(true, std::memory_order_release);
}

void klNetBufferedReceiver::rethrowError() {
    std::exception_ptr error;
    {
        std::lock_guard<std::mutex> lock(m_errorMutex);
        error = m_errors.back();
    }
    std::rethrow_exception(error);
}
