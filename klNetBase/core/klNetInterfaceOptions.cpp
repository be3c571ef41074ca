#include <klNetBase/core/klNetInterfaceOptions.h>

#include <klNetBase/core/klNetOptions.h>
#include <klNetBase/serial/klNetSerializer.h>

#include <cstdint>

int klNetInterfaceOptions::getChannels(klNodeConnectionType type) const {
    switch (type) {
        case klNodeConnectionSync:
            return m_syncChannels > 0 ? m_syncChannels : klNetOptions::getSyncChannels();
        case klNodeConnectionImage:
            return m_imageChannels > 0 ? m_imageChannels : klNetOptions::getImageChannels();
        case klNodeConnectionLowLatency:
            return m_lowLatencyChannels > 0 ? m_lowLatencyChannels
                                            : klNetOptions::getLowLatencyChannels();
    }
    return 4;
}

void klNetInterfaceOptions::add(const klNetInterfaceOptions& o) {
    if (o.m_nodeAffinity >= 0) {
        m_nodeAffinity = o.m_nodeAffinity;
    }
    if (&o != this && !o.m_ibDevice.empty()) {
        m_ibDevice = o.m_ibDevice;
    }
    if (o.m_ibPort >= 0) {
        m_ibPort = o.m_ibPort;
    }
    if (o.m_syncChannels > 0) {
        m_syncChannels = o.m_syncChannels;
    }
    if (o.m_imageChannels > 0) {
        m_imageChannels = o.m_imageChannels;
    }
    // A low-latency count requested by o widens this record's image channels; the record's own
    // low-latency count stays as it was.
    if (o.m_lowLatencyChannels > 0) {
        m_imageChannels = o.m_lowLatencyChannels;
    }
    if (o.m_encrypted) {
        m_encrypted = true;
    }
}

void klNetInterfaceOptions::putValue(klNetSerializer& s) const {
    s.putValue(std::int32_t(m_nodeAffinity));
    s.putValue(m_ibDevice.c_str());
    s.putValue(std::int32_t(m_ibPort));
    s.putValue(std::int32_t(m_syncChannels));
    s.putValue(std::int32_t(m_imageChannels));
    s.putValue(std::int32_t(m_lowLatencyChannels));
    s.putValue(m_encrypted);
}

void klNetInterfaceOptions::getValue(klNetSerializer& s) {
    s.getValue(m_nodeAffinity);
    s.getValue(m_ibDevice);
    s.getValue(m_ibPort);
    s.getValue(m_syncChannels);
    s.getValue(m_imageChannels);
    s.getValue(m_lowLatencyChannels);
    s.getValue(m_encrypted);
}
