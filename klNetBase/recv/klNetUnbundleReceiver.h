// klNetUnbundleReceiver: splits bundles arriving from its child back into their parts and hands
// them out one by one, in bundle order; every other buffer passes as it is.
//
// Parts are cut from the bundle only as they are asked for, so the receiver holds the bundle and
// nothing else: a bundle from a peer may carry up to 5483 records (empty ones of a 24-byte header
// each), and splitting it at once would take that many pool buffers.
//
// Thread safety: one reader thread at a time.
#pragma once

#include <klNetBase/recv/klNetReceiver.h>

#include <cstddef>

class KLNETBASE_EXPORT klNetUnbundleReceiver : public klNetReceiver {
public:
    explicit klNetUnbundleReceiver(const std::shared_ptr<klNetReceiver>& child);

    static std::shared_ptr<klNetReceiver> create(const std::shared_ptr<klNetReceiver>& child);

    void recv(std::shared_ptr<klNetBuffer>& buffer) override;

private:
    std::shared_ptr<klNetReceiver> m_child;
    // The bundle whose records are being handed out, let go after its last record.
    std::shared_ptr<klNetBuffer> m_bundle;
    // Where the bundle's next record starts.
    std::size_t m_position = 0;
};
