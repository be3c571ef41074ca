// klNetLockedSender: makes a sub-tree safe for concurrent callers by holding one mutex for the
// whole of the target's send(). The mutex is released on every path, also when the target throws.
// Thread safety: send() from any thread.
#pragma once

#include <klNetBase/send/klNetSender.h>

#include <mutex>

class KLNETBASE_EXPORT klNetLockedSender : public klNetSender {
public:
    // A buffered sender is returned as it is (its send() is already safe for concurrent callers);
    // any other sender, a locked one included, is wrapped in a new locked sender.
    static std::shared_ptr<klNetSender> create(const std::shared_ptr<klNetSender>& sender);

    void send(const std::shared_ptr<klNetBuffer>& buffer) override;
    void sendFrom(const klNetHeader& header, const void* payload) override;

private:
    explicit klNetLockedSender(const std::shared_ptr<klNetSender>& target);

    std::shared_ptr<klNetSender> m_target;
    // Held for the whole of m_target->send().
    std::mutex m_mutex;
};
