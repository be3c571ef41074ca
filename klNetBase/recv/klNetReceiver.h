// klNetReceiver: a stage of a receive pipeline.
//
// A reader pulls buffers from the outermost stage with recv(); the innermost stages read links.
// Stages are made by the static create() functions of the subclasses and held by std::shared_ptr.
// No stage catches exceptions: a link's error reaches the reader unchanged.
//
// Thread safety: a pipeline is read by one thread at a time; only stages that run threads of
// their own say otherwise. shutdown() may be called from any thread to end a blocked recv().
#pragma once

#include <klNetBase/core/klNetBuffer.h>
#include <klNetBase/klNetBaseExport.h>
#include <klNetBase/link/klNetLink.h>

#include <memory>
#include <queue>
#include <string>
#include <vector>

class KLNETBASE_EXPORT klNetReceiver {
public:
    klNetReceiver() = default;
    explicit klNetReceiver(const std::shared_ptr<klNetReceiver>& child);
    explicit klNetReceiver(const std::vector<std::shared_ptr<klNetReceiver>>& children);
    klNetReceiver(const klNetReceiver&) = default;
    klNetReceiver& operator=(const klNetReceiver&) = default;
    virtual ~klNetReceiver();

    // The first non-negative affinity of the children, or -1.
    virtual int getNodeAffinity();
    // Blocks until a buffer is available and stores it in buffer.
    virtual void recv(std::shared_ptr<klNetBuffer>& buffer) = 0;
    // Appends at least one buffer to queue; the default receives exactly one.
    virtual void recvAvailable(std::queue<std::shared_ptr<klNetBuffer>>& queue);
    // Receives the next buffer as recv() would. A stage that reads a link itself may put the
    // payload straight into the caller's memory instead, as klNetLink::recvInto says (true); the
    // default receives into buffer (false).
    virtual bool recvInto(void* target, std::size_t room, klNetMessageType type,
                          klNetHeader& header, std::shared_ptr<klNetBuffer>& buffer);
    // Injects a buffer from outside; the default refuses with
    // "Adding buffer to queue not supported by this receiver".
    virtual void addToRecvQueue(const std::shared_ptr<klNetBuffer>& buffer);
    virtual bool isReadable() { return true; }
    virtual std::string getLinkName() { return "unknown"; }

    std::vector<std::shared_ptr<klNetLink>> getLinks();
    // Shuts down every link below this stage.
    void shutdown();

protected:
    virtual void getLinks(std::vector<std::shared_ptr<klNetLink>>& links);
    std::vector<std::shared_ptr<klNetReceiver>>& getChildren() { return m_children; }

private:
    std::vector<std::shared_ptr<klNetReceiver>> m_children;
};
