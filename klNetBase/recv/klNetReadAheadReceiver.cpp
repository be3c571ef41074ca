#include <klNetBase/recv/klNetReadAheadReceiver.h>

#include <klNetBase/core/klConnectionClosed.h>
#include <klNetBase/core/klNetBufferPool.h>

klNetReadAheadReceiver::klNetReadAheadReceiver(
    const std::vector<std::shared_ptr<klNetReceiver>>& children, std::size_t capacity,
    std::size_t errorSlots)
    : klNetReceiver(children) {
    if (capacity > 0) {
        m_output.set_capacity(std::ptrdiff_t(capacity));
    }
    m_errors.reserve(errorSlots);
}

klNetReadAheadReceiver::~klNetReadAheadReceiver() = default;

void klNetReadAheadReceiver::recv(std::shared_ptr<klNetBuffer>& buffer) {
    if (m_local.empty()) {
        const bool ended = nothingMoreToCome();
        std::shared_ptr<klNetBuffer> next;
        if (!m_output.try_pop(next)) {
            if (ended) {
                if (failed())
                    rethrowError();
                throw klConnectionClosed();  // no thread to read from at all
            }
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

void klNetReadAheadReceiver::recvAvailable(std::queue<std::shared_ptr<klNetBuffer>>& queue) {
    std::shared_ptr<klNetBuffer> buffer;
    recv(buffer);
    queue.push(std::move(buffer));
    while (!m_local.empty()) {
        recv(buffer);
        queue.push(std::move(buffer));
    }
}

bool klNetReadAheadReceiver::takeReady() {
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

void klNetReadAheadReceiver::fail(std::exception_ptr error, std::atomic<int>& running) noexcept {
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

void klNetReadAheadReceiver::rethrowError() {
    std::exception_ptr error;
    {
        std::lock_guard<std::mutex> lock(m_errorMutex);
        error = m_errors.back();
    }
    std::rethrow_exception(error);
}
