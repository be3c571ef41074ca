#include <klNetBase/core/klNetBufferPool.h>

#include <cstring>
#include <new>

klNetBufferPool klNetBufferPool::s_instance;

klNetBufferPool::~klNetBufferPool() {
    Allocator allocator;
    klNetBuffer* buffer = nullptr;
    while (m_free.try_pop(buffer)) {
        buffer->~klNetBuffer();
        allocator.deallocate(buffer, 1);
    }
}

void klNetBufferPool::addBuffer() {
    klNetBuffer* memory = Allocator().allocate(1);
    std::memset(static_cast<void*>(memory), 0, sizeof(klNetBuffer));
    m_free.push(new (memory) klNetBuffer());
}

std::shared_ptr<klNetBuffer> klNetBufferPool::get() {
    klNetBuffer* buffer = nullptr;
    // Another thread may take a freshly added buffer first; then add another.
    while (!m_free.try_pop(buffer)) {
        addBuffer();
    }
    return std::shared_ptr<klNetBuffer>(buffer, [this](klNetBuffer* b) { m_free.push(b); });
}

void klNetBufferPool::getMany(int n, std::vector<std::shared_ptr<klNetBuffer>>& out) {
    if (n < 1) {
        return;
    }
    out.reserve(out.size() + std::size_t(n));
    for (int i = 0; i < n; ++i) {
        out.push_back(get());
    }
}
