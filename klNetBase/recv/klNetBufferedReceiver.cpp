#include <klNetBase/recv/klNetBufferedReceiver.h>

#include <klNetBase/runtime/klNetAffinityManager.h>

klNetBufferedReceiver::klNetBufferedReceiver(
    const std::vector<std::shared_ptr<klNetReceiver>>& receivers)
    : klNetReadAheadReceiver(receivers, kDefaultCapacity, receivers.size()) {
    m_workers.reserve(getChildren().size());
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
    m_output.clear();
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
        if (!m_output.try_pop(discarded)) {
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

void klNetBufferedReceiver::recvFrom(std::shared_ptr<klNetReceiver> child) {
    try {
        klNetAffinityManager::setNodeAffinity(child->getNodeAffinity());
        for (;;) {
            std::shared_ptr<klNetBuffer> buffer;
            child->recv(buffer);
            deliver(std::move(buffer));
        }
    } catch (...) {
        fail(std::current_exception(), m_running);
    }
    ++m_exited;
}
