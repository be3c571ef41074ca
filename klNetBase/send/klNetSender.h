// klNetSender: a stage of a send pipeline.
//
// A pipeline is a tree of stages; a buffer handed to the root's send() travels down until a
// klNetLinkSender writes it to its link. Every stage knows the node ids reachable through it (its
// destinations, filled once from its children at construction; 0 marks a multicast buffer and is
// never a destination). Stages are made by the static create() functions of the subclasses and
// held by std::shared_ptr; a child may be shared by several parents.
//
// No stage catches exceptions: a link's error reaches the caller of send() unchanged.
//
// Thread safety: send() of the simple stages must not be called from several threads at once;
// klNetLockedSender and klNetBufferedSender are the stages that make a sub-tree safe for
// concurrent callers. The destination set is not synchronised with send().
#pragma once

#include <klNetBase/core/klNetBuffer.h>
#include <klNetBase/klNetBaseExport.h>
#include <klNetBase/link/klNetLink.h>

#include <cstdint>
#include <memory>
#include <set>
#include <vector>

class KLNETBASE_EXPORT klNetSender {
public:
    klNetSender() = default;
    explicit klNetSender(const std::set<unsigned int>& destinations);
    explicit klNetSender(const std::shared_ptr<klNetSender>& child);
    klNetSender(const std::shared_ptr<klNetSender>& a, const std::shared_ptr<klNetSender>& b);
    explicit klNetSender(const std::vector<std::shared_ptr<klNetSender>>& children);
    klNetSender(const klNetSender&) = default;
    klNetSender& operator=(const klNetSender&) = default;
    virtual ~klNetSender();

    // The first non-negative affinity of the children, or -1.
    virtual int getNodeAffinity();
    virtual void send(const std::shared_ptr<klNetBuffer>& buffer) = 0;
    // Sends one buffer whose payload (header.dataSize bytes) is at payload, in the caller's memory,
    // which may change once this returns. The default copies it into a pool buffer (send mode 0)
    // and sends that; a stage that can pass the caller's memory on at once overrides it.
    virtual void sendFrom(const klNetHeader& header, const void* payload);
    virtual void resetStatistics();
    // Bytes saved by compressing stages below this one.
    virtual std::uint64_t getCompressedBytes();
    // Returns once every background stage below has passed on everything sent so far.
    virtual void waitAllDataTransfered();

    const std::set<unsigned int>& getDestinations() const { return m_destinations; }
    // This stage's own set; children are not asked.
    bool hasDestination(unsigned int id) const { return m_destinations.count(id) != 0; }
    // Erases id from this stage's own set only.
    void removeDestination(unsigned int id) { m_destinations.erase(id); }
    // Every link below this stage, in tree order.
    std::vector<std::shared_ptr<klNetLink>> getLinks();
    // Shuts down every link below this stage; sends then fail with the links' errors.
    void shutdown();

    // One sender over the links: a link sender per link, all with the given destinations, behind a
    // buffered sender bounded by the pool buffers its waiting batches hold (buffered) or a balanced
    // sender (one link: that link's sender itself).
    static std::shared_ptr<klNetSender> createBundle(std::vector<std::shared_ptr<klNetLink>> links,
                                                     bool buffered,
                                                     const std::set<unsigned int>& destinations);

protected:
    virtual void getLinks(std::vector<std::shared_ptr<klNetLink>>& links);
    std::vector<std::shared_ptr<klNetSender>>& getChildren() { return m_children; }

private:
    std::vector<std::shared_ptr<klNetSender>> m_children;
    std::set<unsigned int> m_destinations;
};
