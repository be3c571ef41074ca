// klNetMultiLinkReceiver: reads several links at once, without a thread per link.
//
// One poll waits on every link; each link that reports anything (data, hang-up or error) hands
// over what it can read, links served in their order. A poll pass lasts at most 4 seconds; when
// nothing came, every link is checked alive, so a vanished peer surfaces as its link's error
// instead of an endless wait. Buffers already read stay pending across an error and are handed out
// by later calls.
//
// Thread safety: one reading thread at a time; shutdown() from any thread.
#pragma once

#include <klNetBase/recv/klNetReceiver.h>

#include <exception>

class KLNETBASE_EXPORT klNetMultiLinkReceiver : public klNetReceiver {
public:
    static constexpr int kPollMilliseconds = 4000;

    explicit klNetMultiLinkReceiver(std::vector<std::shared_ptr<klNetLink>>& links);

    // One link: a klNetLinkReceiver over it; otherwise a multi-link receiver over the links.
    static std::shared_ptr<klNetReceiver> create(std::vector<std::shared_ptr<klNetLink>>& links);

    void recv(std::shared_ptr<klNetBuffer>& buffer) override;
    // Hands over everything the last poll pass read (at least one buffer), in arrival order.
    void recvAvailable(std::queue<std::shared_ptr<klNetBuffer>>& queue) override;

private:
    void getLinks(std::vector<std::shared_ptr<klNetLink>>& links) override;
    // Blocks until at least one buffer is pending. Without links (a configuration error that
    // create() does not check) nothing ever is: it waits for ever, one poll pass after another.
    void pollBuffers();

    std::vector<std::shared_ptr<klNetLink>> m_links;
    std::queue<std::shared_ptr<klNetBuffer>> m_pending;
};
