#include <klNetBase/send/klNetSwitchSender.h>

klNetSwitchSender::klNetSwitchSender(const std::shared_ptr<klNetSender>& first,
                                     const std::shared_ptr<klNetSender>& second,
                                     std::uint64_t threshold)
    : klNetSender(first, second), m_first(first), m_second(second), m_threshold(threshold) {}

std::shared_ptr<klNetSender> klNetSwitchSender::create(const std::shared_ptr<klNetSender>& first,
                                                       const std::shared_ptr<klNetSender>& second,
                                                       std::uint64_t threshold) {
    return std::make_shared<klNetSwitchSender>(first, second, threshold);
}

void klNetSwitchSender::send(const std::shared_ptr<klNetBuffer>& buffer) {
    const klNetBufferSendMode mode = buffer->getSendMode();
    if (mode == klNetSendModeFirstStage ||
        (mode == klNetSendModeDefault && buffer->getDataSize() > m_threshold)) {
        m_first->send(buffer);
    } else {
        m_second->send(buffer);
    }
}
