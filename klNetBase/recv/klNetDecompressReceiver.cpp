#include <klNetBase/recv/klNetDecompressReceiver.h>

#include <klNetBase/core/klConnectionClosed.h>
#include <klNetBase/core/klNetBufferPool.h>
#include <klNetBase/core/klNetOptions.h>
#include <klNetBase/runtime/klNetAffinityManager.h>

#include <algorithm>

klNetDecompressReceiver::klNetDecompressReceiver(
    const std::shared_ptr<klNetCompressorBase>& compressor,
    std::vector<std::shared_ptr<klNetReceiver>>& receivers)
    : klNetReceiver(receivers), m_compressor(compressor) {
    // At least one decompressing thread, even where the machine cannot tell its thread count:
    // compressed buffers would otherwise wait for ever.
    const unsigned int count = std::max(1u, std::thread::hardware_concurrency());
    // Storing an error then never allocates.
    m_errors.reserve(getChildren().size() + count);
    try {
        m_readingWorkers.reserve(getChildren().size());
        for (const auto& child : getChildren()) {
            ++m_readers;
            m_readingWorkers.emplace_back(&klNetDecompressReceiver::recvFrom, this, child);
        }
        m_decompressWorkers.reserve(count);
        for (unsigned int i = 0; i < count; ++i) {
            ++m_decompressors;
            m_decompressWorkers.emplace_back(&klNetDecompressReceiver::decompressLoop, this,
                                             int(i));
        }
    } catch (...) {
        // A thread could not be started: stop those that were, or destroying them would end the
        // process.
        stopWorkers();
        throw;
    }
}

klNetDecompressReceiver::~klNetDecompressReceiver() {
    stopWorkers();
    m_compressed.clear();
    m_output.clear();
}

void klNetDecompressReceiver::stopWorkers() noexcept {
    try {
        shutdown();
    } catch (...) {
        // A link that fails to shut down still ends its reading thread with an error.
    }
    for (auto& worker : m_readingWorkers) {
        worker.join();
    }
    m_readingWorkers.clear();
    std::shared_ptr<klNetBuffer> discarded;
    while (m_compressed.try_pop(discarded)) {
    }
    discarded.reset();
    if (!m_decompressWorkers.empty()) {
        std::shared_ptr<klNetBuffer> stop = klNetBufferPool::pop();
        stop->setDataSize(0);
        for (std::size_t i = 0; i < m_decompressWorkers.size(); ++i) {
            m_compressed.push(stop);
        }
        for (auto& worker : m_decompressWorkers) {
            worker.join();
        }
        m_decompressWorkers.clear();
    }
}

std::shared_ptr<klNetReceiver> klNetDecompressReceiver::create(
    const std::shared_ptr<klNetCompressorBase>& compressor,
    std::vector<std::shared_ptr<klNetReceiver>>& receivers) {
    return std::make_shared<klNetDecompressReceiver>(compressor, receivers);
}

bool klNetDecompressReceiver::drained() const {
    // Every thread counts a buffer or itself out before it posts the result or wake-up buffer. A
    // reader that still sees something counted may therefore wait: a buffer is yet to come. One
    // that sees nothing counted knows that every error is stored; anything posted meanwhile is
    // handed out by later calls.
    return m_readers.load() == 0 && (m_inFlight.load() == 0 || m_decompressors.load() == 0);
}

void klNetDecompressReceiver::recv(std::shared_ptr<klNetBuffer>& buffer) {
    if (m_local.empty()) {
        // Asked before looking at the queue: while anything is still to come, a wake-up buffer or
        // a result follows, so waiting is safe; once not, every error is already stored.
        const bool ended = failed() && drained();
        std::shared_ptr<klNetBuffer> next;
        if (!m_output.try_pop(next)) {
            if (ended)
                rethrowError();
            m_output.pop(next);
        }
        m_local.push(std::move(next));
        while (m_output.try_pop(next)) {
            m_local.push(std::move(next));
        }
    }
    buffer = std::move(m_local.front());
    m_local.pop();
    if (buffer->getDataSize() == 0 && failed()) {
        rethrowError();
    }
}

void klNetDecompressReceiver::recvAvailable(std::queue<std::shared_ptr<klNetBuffer>>& queue) {
    std::shared_ptr<klNetBuffer> buffer;
    recv(buffer);
    queue.push(std::move(buffer));
    while (!m_local.empty()) {
        recv(buffer);
        queue.push(std::move(buffer));
    }
}

void klNetDecompressReceiver::addToRecvQueue(const std::shared_ptr<klNetBuffer>& buffer) {
    if (klNetOptions::getImageCompression() == kLocalImageCompression &&
        m_compressor->isCompressible(buffer)) {
        m_output.push(m_compressor->compress(buffer));
    } else {
        m_output.push(buffer);
    }
}

bool klNetDecompressReceiver::isReadable() {
    if (!m_local.empty()) {
        return true;
    }
    std::shared_ptr<klNetBuffer> next;
    if (!m_output.try_pop(next)) {
        return false;
    }
    m_local.push(std::move(next));
    return true;
}

void klNetDecompressReceiver::recvFrom(std::shared_ptr<klNetReceiver> child) {
    try {
        klNetAffinityManager::setNodeAffinity(child->getNodeAffinity());
        for (;;) {
            std::shared_ptr<klNetBuffer> buffer;
            child->recv(buffer);
            if (buffer->getCompression() != klNetCompressionNone) {
                ++m_inFlight;
                m_compressed.push(std::move(buffer));
            } else {
                m_output.push(std::move(buffer));
            }
        }
    } catch (...) {
        fail(std::current_exception(), m_readers);
    }
}

void klNetDecompressReceiver::decompressLoop(int /*index*/) {
    try {
        for (;;) {
            std::shared_ptr<klNetBuffer> buffer;
            m_compressed.pop(buffer);
            if (buffer->getDataSize() == 0) {
                // The destructor's stop signal.
                throw klConnectionClosed();
            }
            std::shared_ptr<klNetBuffer> out;
            try {
                out = m_compressor->decompress(buffer);
            } catch (...) {
                --m_inFlight;
                throw;
            }
            // Counted out before it goes, like a wake-up buffer (see drained()).
            --m_inFlight;
            m_output.push(std::move(out));
        }
    } catch (...) {
        fail(std::current_exception(), m_decompressors);
    }
}

void klNetDecompressReceiver::fail(std::exception_ptr error, std::atomic<int>& running) {
    {
        std::lock_guard<std::mutex> lock(m_errorMutex);
        m_errors.push_back(std::move(error));
        m_failed.store(true, std::memory_order_release);
    }
    // Counted out before the wake-up buffer goes: a reader that still counts this thread waits,
    // and the wake-up buffer is yet to come; one that does not finds the error stored.
    --running;
    try {
        std::shared_ptr<klNetBuffer> wakeUp = klNetBufferPool::pop();
        wakeUp->setDataSize(0);
        m_output.push(std::move(wakeUp));
    } catch (...) {
        // Without a wake-up buffer the reader still learns of the error once nothing more can
        // arrive.
    }
}

void klNetDecompressReceiver::rethrowError() {
    std::exception_ptr error;
    {
        std::lock_guard<std::mutex> lock(m_errorMutex);
        error = m_errors.back();
    }
    std::rethrow_exception(error);
}
