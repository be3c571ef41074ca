// klNetLinkSender: the leaf of a send pipeline; writes each buffer to its link.
// Thread safety: as the link's send (one sender thread at a time).
#pragma once

#include <klNetBase/send/klNetSender.h>

class KLNETBASE_EXPORT klNetLinkSender : public klNetSender {
public:
    klNetLinkSender(const std::shared_ptr<klNetLink>& link,
                    const std::set<unsigned int>& destinations);

    static std::shared_ptr<klNetSender> create(const std::shared_ptr<klNetLink>& link);
    static std::shared_ptr<klNetSender> create(const std::shared_ptr<klNetLink>& link,
                                               const std::set<unsigned int>& destinations);

    void send(const std::shared_ptr<klNetBuffer>& buffer) override { m_link->send(buffer); }
    void sendFrom(const klNetHeader& header, const void* payload) override {
        m_link->sendFrom(header, payload);
    }
    // The link's affinity.
    int getNodeAffinity() override { return m_link->getNodeAffinity(); }

protected:
    void getLinks(std::vector<std::shared_ptr<klNetLink>>& links) override;

private:
    std::shared_ptr<klNetLink> m_link;
};
