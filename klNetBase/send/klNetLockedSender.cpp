#include <klNetBase/send/klNetLockedSender.h>

#include <klNetBase/send/klNetBufferedSender.h>

klNetLockedSender::klNetLockedSender(const std::shared_ptr<klNetSender>& target)
    : klNetSender(target), m_target(target) {}

std::shared_ptr<klNetSender> klNetLockedSender::create(const std::shared_ptr<klNetSender>& sender) {
    if (std::dynamic_pointer_cast<klNetBufferedSender>(sender)) {
        return sender;
    }
    return std::shared_ptr<klNetSender>(new klNetLockedSender(sender));
}

void klNetLockedSender::sendFrom(const klNetHeader& header, const void* payload) {
    std::lock_guard<std::mutex> lock(m_mutex);
    m_target->sendFrom(header, payload);
}

void klNetLockedSender::send(const std::shared_ptr<klNetBuffer>& buffer) {
    std::lock_guard<std::mutex> lock(m_mutex);
    m_target->send(buffer);
}
