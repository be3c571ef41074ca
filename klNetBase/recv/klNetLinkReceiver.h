// klNetLinkReceiver: reads buffers from one link.
// Thread safety: one reading thread at a time.
#pragma once

#include <klNetBase/recv/klNetReceiver.h>

class KLNETBASE_EXPORT klNetLinkReceiver : public klNetReceiver {
public:
    explicit klNetLinkReceiver(const std::shared_ptr<klNetLink>& link);

    static std::shared_ptr<klNetReceiver> create(const std::shared_ptr<klNetLink>& link);

    void recv(std::shared_ptr<klNetBuffer>& buffer) override { m_link->recv(buffer); }
    bool recvInto(void* target, std::size_t room, klNetMessageType type, klNetHeader& header,
                  std::shared_ptr<klNetBuffer>& buffer) override {
        return m_link->recvInto(target, room, type, header, buffer);
    }
    bool isReadable() override { return m_link->isReadable(); }
    std::string getLinkName() override { return m_link->getLinkName(); }
    int getNodeAffinity() override { return m_link->getNodeAffinity(); }

private:
    void getLinks(std::vector<std::shared_ptr<klNetLink>>& links) override;

    std::shared_ptr<klNetLink> m_link;
};
