// klNetSwitchSender: chooses between two paths per buffer.
//
//   send mode 1                      -> first
//   send mode 0, dataSize > threshold -> first
//   send mode 0, dataSize <= threshold, or any other mode -> second
//
// Thread safety: as its children.
#pragma once

#include <klNetBase/send/klNetSender.h>

class KLNETBASE_EXPORT klNetSwitchSender : public klNetSender {
public:
    klNetSwitchSender(const std::shared_ptr<klNetSender>& first,
                      const std::shared_ptr<klNetSender>& second, std::uint64_t threshold);

    static std::shared_ptr<klNetSender> create(const std::shared_ptr<klNetSender>& first,
                                               const std::shared_ptr<klNetSender>& second,
                                               std::uint64_t threshold);

    void send(const std::shared_ptr<klNetBuffer>& buffer) override;

private:
    std::shared_ptr<klNetSender> m_first;
    std::shared_ptr<klNetSender> m_second;
    std::uint64_t m_threshold;
};
