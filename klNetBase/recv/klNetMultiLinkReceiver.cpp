#include <klNetBase/recv/klNetMultiLinkReceiver.h>

#include <klNetBase/core/klNetError.h>
#include <klNetBase/recv/klNetLinkReceiver.h>

#include <poll.h>

#include <cerrno>

klNetMultiLinkReceiver::klNetMultiLinkReceiver(std::vector<std::shared_ptr<klNetLink>>& links)
    : m_links(links) {}

std::shared_ptr<klNetReceiver> klNetMultiLinkReceiver::create(
    std::vector<std::shared_ptr<klNetLink>>& links) {
    if (links.size() == 1) {
        return klNetLinkReceiver::create(links.front());
    }
    return std::make_shared<klNetMultiLinkReceiver>(links);
}

void klNetMultiLinkReceiver::getLinks(std::vector<std::shared_ptr<klNetLink>>& links) {
    links.insert(links.end(), m_links.begin(), m_links.end());
}

void klNetMultiLinkReceiver::pollBuffers() {
    std::vector<pollfd> polls(m_links.size());
    while (m_pending.empty()) {
        for (std::size_t i = 0; i < m_links.size(); ++i) {
            // A shut link's handle reads as -1, which poll skips; the alive check reports it.
            polls[i] = pollfd{int(m_links[i]->getRecvHandle()), POLLIN | POLLRDHUP, 0};
        }
        // Without links this only sleeps out the pass: nothing can arrive, the wait is endless.
        const int ready = ::poll(polls.data(), polls.size(), kPollMilliseconds);
        if (ready < 0) {
            if (errno == EINTR) {
                continue;
            }
            throw klNetError("poll error:" + klNetError::getLastErrorString());
        }
        for (std::size_t i = 0; i < m_links.size(); ++i) {
            if (polls[i].revents != 0) {
                m_links[i]->recvAvailable(m_pending);
            }
        }
        if (m_pending.empty() && ready == 0) {
            for (const auto& link : m_links) {
                link->checkAlive();
            }
        }
    }
}

void klNetMultiLinkReceiver::recv(std::shared_ptr<klNetBuffer>& buffer) {
    if (m_pending.empty()) {
        pollBuffers();
    }
    buffer = std::move(m_pending.front());
    m_pending.pop();
}

void klNetMultiLinkReceiver::recvAvailable(std::queue<std::shared_ptr<klNetBuffer>>& queue) {
    std::shared_ptr<klNetBuffer> buffer;
    recv(buffer);
    queue.push(std::move(buffer));
    while (!m_pending.empty()) {
        recv(buffer);
        queue.push(std::move(buffer));
    }
}
