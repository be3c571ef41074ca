#include <klNetBase/runtime/klNetRuntimeBase.h>

#include <klNetBase/core/klNetError.h>

std::atomic<klNetRuntimeBase*> klNetRuntimeBase::s_the{nullptr};

klNetRuntimeBase::klNetRuntimeBase() {
    s_the.store(this);
}

klNetRuntimeBase::klNetRuntimeBase(const klNetRuntimeBase& other)
    : m_localHost(other.m_localHost) {}

klNetRuntimeBase& klNetRuntimeBase::operator=(const klNetRuntimeBase& other) {
    m_localHost = other.m_localHost;
    return *this;
}

klNetRuntimeBase::~klNetRuntimeBase() {
    s_the.store(nullptr);
}

klNetRuntimeBase& klNetRuntimeBase::the() {
    klNetRuntimeBase* instance = s_the.load();
    if (instance == nullptr) {
        throw klNetError("No cluster runtime service available");
    }
    return *instance;
}

void klNetRuntimeBase::initialize(bool localHost) {
    m_localHost = localHost;
    startRuntime();
}
