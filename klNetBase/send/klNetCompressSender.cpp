#include <klNetBase/send/klNetCompressSender.h>

#include <klNetBase/core/klNetBufferPool.h>

#include <algorithm>

klNetCompressSender::klNetCompressSender(const std::shared_ptr<klNetCompressorBase>& compressor,
                                         const std::shared_ptr<klNetSender>& target)
    : klNetSender(target), m_compressor(compressor), m_target(target) {
    m_queue.set_capacity(kDefaultCapacity);
}

klNetCompressSender::~klNetCompressSender() {
    std::shared_ptr<klNetBuffer> discarded;
    while (m_queue.try_pop(discarded)) {
        --m_pending;
    }
    discarded.reset();
    if (m_workers.empty()) {
        return;
    }
    m_queue.set_capacity(kShutdownCapacity);
    std::shared_ptr<klNetBuffer> stop = klNetBufferPool::pop();
    stop->setDataSize(0);
    for (std::size_t i = 0; i < m_workers.size(); ++i) {
        m_queue.push(stop);
    }
    for (auto& worker : m_workers) {
        worker.join();
    }
    m_queue.clear();
}

std::shared_ptr<klNetSender> klNetCompressSender::create(
    const std::shared_ptr<klNetCompressorBase>& compressor,
    const std::shared_ptr<klNetSender>& target) {
    return std::make_shared<klNetCompressSender>(compressor, target);
}

void klNetCompressSender::send(const std::shared_ptr<klNetBuffer>& buffer) {
    rethrowError();
    if (m_compressor->shouldCompress(buffer)) {
        std::call_once(m_startOnce, &klNetCompressSender::startWorkers, this);
        // An empty buffer queues in order like the others, but is a stop signal to the worker
        // that takes it: never passed on, so nothing waits for it.
        if (buffer->getDataSize() != 0) {
            ++m_pending;
        }
        m_queue.push(buffer);
        return;
    }
    m_target->send(buffer);
    addStatistics(buffer);
}

void klNetCompressSender::resetStatistics() {
    m_compressedBytes.store(0);
}

std::uint64_t klNetCompressSender::getCompressedBytes() {
    return m_compressedBytes.load();
}

void klNetCompressSender::waitAllDataTransfered() {
    while (m_pending.load() != 0 && !failed()) {
        std::this_thread::yield();
    }
    rethrowError();
    klNetSender::waitAllDataTransfered();
}

void klNetCompressSender::startWorkers() {
    // At least one worker even where the machine cannot tell its thread count: queued buffers
    // would otherwise wait for ever.
    const unsigned int count = std::max(1u, std::thread::hardware_concurrency());
    m_workers.reserve(count);
    m_errors.reserve(count);  // storing an error then never allocates
    for (unsigned int i = 0; i < count; ++i) {
        m_workers.emplace_back(&klNetCompressSender::compressLoop, this);
    }
}

void klNetCompressSender::compressLoop() {
    try {
        for (;;) {
            std::shared_ptr<klNetBuffer> buffer;
            m_queue.pop(buffer);
            if (buffer->getDataSize() == 0) {
                return;  // the destructor's stop signal, or an empty buffer sent to compress
            }
            const std::shared_ptr<klNetBuffer> out = m_compressor->compress(buffer);
            buffer.reset();
            m_target->send(out);
            addStatistics(out);
            --m_pending;
        }
    } catch (...) {
        storeError(std::current_exception());
    }
    stopProcedure();
}

void klNetCompressSender::stopProcedure() {
    std::shared_ptr<klNetBuffer> buffer;
    while (m_queue.try_pop(buffer)) {
        if (buffer->getDataSize() == 0) {
            // Only the destructor queues stop signals, after raising the capacity: there is room.
            m_queue.push(std::move(buffer));
            return;
        }
    }
}

void klNetCompressSender::addStatistics(const std::shared_ptr<klNetBuffer>& buffer) {
    m_compressedBytes += buffer->getDataSize() + klNetBuffer::getHeaderSize();
}

void klNetCompressSender::storeError(std::exception_ptr error) {
    std::lock_guard<std::mutex> lock(m_errorMutex);
    m_errors.push_back(std::move(error));
    m_failed.store(true, std::memory_order_release);
}

void klNetCompressSender::rethrowError() {
    if (!failed()) {
        return;
    }
    std::exception_ptr error;
    {
        std::lock_guard<std::mutex> lock(m_errorMutex);
        error = m_errors.back();
    }
    std::rethrow_exception(error);
}
