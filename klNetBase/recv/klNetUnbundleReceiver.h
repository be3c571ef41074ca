// klNetUnbundleReceiver: splits bundles arriving from its child back into their parts and hands
// them out one by one, in bundle order; every other buffer passes as it is.
// Thread safety: one reader thread at a time.
#pragma once

#include <klNetBase/recv/klNetReceiver.h>

class KLNETBASE_EXPORT klNetUnbundleReceiver : public klNetReceiver {
public:
    explicit klNetUnbundleReceiver(const std::shared_ptr<klNetReceiver>& child);

    static std::shared_ptr<klNetReceiver> create(const std::shared_ptr<klNetReceiver>& child);

    void recv(std::shared_ptr<klNetBuffer>& buffer) override;

private:
    std::shared_ptr<klNetReceiver> m_child;
    // Parts of the last bundle not yet handed out.
    std::queue<std::shared_ptr<klNetBuffer>> m_parts;
};
