#include <klNetBase/recv/klNetLinkReceiver.h>

klNetLinkReceiver::klNetLinkReceiver(const std::shared_ptr<klNetLink>& link) : m_link(link) {}

std::shared_ptr<klNetReceiver> klNetLinkReceiver::create(const std::shared_ptr<klNetLink>& link) {
    return std::make_shared<klNetLinkReceiver>(link);
}

void klNetLinkReceiver::getLinks(std::vector<std::shared_ptr<klNetLink>>& links) {
    links.push_back(m_link);
}
