// klNetInterfaceOptions: how one connection between nodes is set up.
//
// A plain value record: parallel channel counts per kind of connection, an interconnect device
// and port, encryption, and the NUMA node its threads run on. Records are merged with add() and
// sent to the peer with putValue()/getValue(). Wire form (little-endian, no padding):
//
//   offset 0      4      8        8+L    12+L   16+L   20+L   24+L
//          +------+------+--------+------+------+------+------+---+
//          | node |  L   | device | ib   | sync | image| low  |enc|
//          |  aff |      | + NUL  | port | chan | chan | lat  |   |
//          +------+------+--------+------+------+------+------+---+
//            i32    u32    L bytes  i32    i32    i32    i32    u8
//
// L counts the device text up to its first NUL plus the terminator, so an empty device travels as
// L = 1 and one zero byte: a default record is 26 bytes.
//
// Thread safety: none; it is a value.
#pragma once

#include <klNetBase/core/klNetTypes.h>
#include <klNetBase/klNetBaseExport.h>

#include <string>

class klNetSerializer;

class KLNETBASE_EXPORT klNetInterfaceOptions {
public:
    klNetInterfaceOptions() = default;

    int getNodeAffinity() const { return m_nodeAffinity; }
    void setNodeAffinity(int node) { m_nodeAffinity = node; }
    std::string getIbDevice() const { return m_ibDevice; }
    void setIbDevice(const std::string& device) { m_ibDevice = device; }
    int getIbPort() const { return m_ibPort; }
    void setIbPort(int port) { m_ibPort = port; }
    int getSyncChannels() const { return m_syncChannels; }
    void setSyncChannels(int channels) { m_syncChannels = channels; }
    int getImageChannels() const { return m_imageChannels; }
    void setImageChannels(int channels) { m_imageChannels = channels; }
    int getLowLatencyChannels() const { return m_lowLatencyChannels; }
    void setLowLatencyChannels(int channels) { m_lowLatencyChannels = channels; }
    bool getEncrypted() const { return m_encrypted; }
    void setEncrypted(bool encrypted) { m_encrypted = encrypted; }

    // Channels to open for a connection of the given kind; an unset (not positive) count falls
    // back to the klNetOptions default, an unknown kind gets 4.
    int getChannels(klNodeConnectionType type) const;

    // Merges what o sets into this record. Node affinity and ib port count as set from 0 up, the
    // channel counts only above 0. o's low-latency count raises this record's image channels;
    // this record's own low-latency count is never changed. Encryption is only ever switched on.
    void add(const klNetInterfaceOptions& o);

    void putValue(klNetSerializer& s) const;
    // Overwrites every field with the record read from s.
    void getValue(klNetSerializer& s);

private:
    int m_nodeAffinity = -1;
    std::string m_ibDevice;
    int m_ibPort = -1;
    int m_syncChannels = -1;
    int m_imageChannels = -1;
    int m_lowLatencyChannels = -1;
    bool m_encrypted = false;
};
