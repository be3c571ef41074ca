#include <klNetBase/recv/klNetDecompressReceiver.h>

#include <klNetBase/core/klConnectionClosed.h>
#include <klNetBase/core/klNetBufferPool.h>
#include <klNetBase/core/klNetOptions.h>
#include <klNetBase/runtime/klNetAffinityManager.h>

#include <algorithm>

klNetDecompressReceiver::klNetDecompressReceiver(
    const std::shared_ptr<klNetCompressorBase>& compressor,
    std::vector<std::shared_ptr<klNetReceiver>>& receivers)
    : klNetReadAheadReceiver(receivers, 0, receivers.size() + decompressThreadCount()),
      m_compressor(compressor) {
    const unsigned int count = decompressThreadCount();
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

unsigned int klNetDecompressReceiver::decompressThreadCount() {
    // At least one, even where the machine cannot tell its thread count: compressed buffers would
    // otherwise wait for ever.
    return std::max(1u, std::thread::hardware_concurrency());
}

bool klNetDecompressReceiver::nothingMoreToCome() const {
    // Every thread counts a buffer or itself out before it posts the result or wake-up buffer. A
    // reader that still sees something counted may therefore wait: a buffer is yet to come. One
    // that sees nothing counted knows that every error is stored; anything posted meanwhile is
    // handed out by later calls.
    return failed() && m_readers.load() == 0 &&
           (m_inFlight.load() == 0 || m_decompressors.load() == 0);
}

void klNetDecompressReceiver::addToRecvQueue(const std::shared_ptr<klNetBuffer>& buffer) {
    if (klNetOptions::getImageCompression() == kLocalImageCompression &&
        m_compressor->isCompressible(buffer)) {
        deliver(m_compressor->compress(buffer));
    } else {
        deliver(buffer);
    }
}

bool klNetDecompressReceiver::isReadable() {
    return takeReady();
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
                deliver(std::move(buffer));
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
            // Counted out before it goes, like a wake-up buffer (see nothingMoreToCome()).
            --m_inFlight;
            deliver(std::move(out));
        }
    } catch (...) {
        fail(std::current_exception(), m_decompressors);
    }
}
