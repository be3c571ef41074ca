// klNetServiceStatus: the cluster service's answer to a status request.
//
// A small string store rather than a fixed structure: every scalar is held as text under a key,
// every list as a list of texts under a key, and typed getters and setters convert on the way in
// and out. A reader finds the keys it knows and falls back to defaults for the rest; keys it does
// not know are kept and written out again, so a record passes unchanged through a program that
// knows fewer keys.
//
//   key                       store   typed as  read as                               default
//   "IsRunning"               scalar  bool      true only for the exact text "true"   "false"
//   "NumberOfClusterServers"  scalar  int       atoi                                  "0"
//   "CPUUsage"                scalar  float     atof; written as printf "%f"          "0"
//   "FreeMemory"              scalar  uint64    atol of a 32-bit long: saturates at   "0"
//                                               INT32_MAX / INT32_MIN, sign-extended
//   "Version"                 scalar  string    as stored                             "unknown"
//   "BookingIds"              list    strings   as stored                             empty
//
// "FreeMemory" is written as a full 64-bit decimal but read through a 32-bit conversion, as the
// peers this record is exchanged with do: 5000000000 reads back as 2147483647. Numbers are written
// and read in the C locale whatever the process locale is.
//
// Wire form (serializer encodings; a string is a u32 length counting the terminating zero, the
// bytes up to the first zero, and the zero):
//
//   string   the writing library's version text (not the "Version" key)
//   u64      number of scalar entries
//            per entry, in ascending byte-wise key order: string key, string value
//   u64      number of list entries
//            per entry, in ascending key order: string key, u64 element count, the elements
//
// Reading discards the leading version text and replaces both stores. A count above kMaxCount is
// refused with "Service status: too many entries (<count>, at most 65536)" before anything is
// read for it; a truncated record fails in the serializer and may leave the record partly filled.
//
// Thread safety: a plain value; concurrent reads are safe, writes need the caller's lock.
#pragma once

#include <klNetBase/klNetBaseExport.h>

#include <cstddef>
#include <cstdint>
#include <map>
#include <string>
#include <vector>

class klNetSerializer;

class KLNETBASE_EXPORT klNetServiceStatus {
public:
    // Most entries of either store, and most elements of one list, that a record read may hold.
    static constexpr std::size_t kMaxCount = 65536;

    klNetServiceStatus() = default;
    klNetServiceStatus(const klNetServiceStatus&) = default;
    klNetServiceStatus(klNetServiceStatus&&) = default;
    klNetServiceStatus& operator=(const klNetServiceStatus&) = default;
    klNetServiceStatus& operator=(klNetServiceStatus&&) = default;
    virtual ~klNetServiceStatus() = default;

    bool getIsRunning() const;
    void setIsRunning(bool running);
    int getNumberOfClusterServers() const;
    void setNumberOfClusterServers(int count);
    float getCPUUsage() const;
    void setCPUUsage(float usage);
    std::uint64_t getFreeMemory() const;
    void setFreeMemory(std::uint64_t bytes);
    std::string getVersion() const;
    void setVersion(const std::string& version);
    std::vector<std::string> getBookingIds() const;
    // Replaces the whole list; an empty vector keeps the key with an empty list.
    void setBookingIds(const std::vector<std::string>& ids);

    // Writes the record in the wire form above.
    virtual void putValue(klNetSerializer& serializer) const;
    // Reads a record written by putValue, replacing this one's contents.
    virtual void getValue(klNetSerializer& serializer);

private:
    std::string getValue(const std::string& key, const std::string& defaultValue) const;
    std::vector<std::string> getList(const std::string& key) const;

    std::map<std::string, std::string> m_values;
    std::map<std::string, std::vector<std::string>> m_lists;
};
