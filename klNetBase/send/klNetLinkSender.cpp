#include <klNetBase/send/klNetLinkSender.h>

klNetLinkSender::klNetLinkSender(const std::shared_ptr<klNetLink>& link,
                                 const std::set<unsigned int>& destinations)
    : klNetSender(destinations), m_link(link) {}

std::shared_ptr<klNetSender> klNetLinkSender::create(const std::shared_ptr<klNetLink>& link) {
    return create(link, {});
}

std::shared_ptr<klNetSender> klNetLinkSender::create(const std::shared_ptr<klNetLink>& link,
                                                     const std::set<unsigned int>& destinations) {
    return std::make_shared<klNetLinkSender>(link, destinations);
}

void klNetLinkSender::getLinks(std::vector<std::shared_ptr<klNetLink>>& links) {
    links.push_back(m_link);
}
