#include <klNetBase/service/klNetServiceStatus.h>

#include <klNetBase/service/klNetUtils.h>

#include <klNetBase/core/klNetError.h>
#include <klNetBase/serial/klNetSerializer.h>

#include <klVersionInfo.h>

#include <charconv>
#include <cstdint>
#include <cstdlib>
#include <limits>
#include <sstream>

namespace {

const char* const kIsRunning = "IsRunning";
const char* const kNumberOfClusterServers = "NumberOfClusterServers";
const char* const kCPUUsage = "CPUUsage";
const char* const kFreeMemory = "FreeMemory";
const char* const kVersion = "Version";
const char* const kBookingIds = "BookingIds";

// atol where long is 32 bits: saturates at the 32-bit range; the caller sign-extends.
std::int32_t long32Value(const std::string& text) {
    const long long value = std::strtoll(text.c_str(), nullptr, 10);
    if (value > std::numeric_limits<std::int32_t>::max()) {
        return std::numeric_limits<std::int32_t>::max();
    }
    if (value < std::numeric_limits<std::int32_t>::min()) {
        return std::numeric_limits<std::int32_t>::min();
    }
    return std::int32_t(value);
}

void checkCount(std::uint64_t count) {
    if (count > klNetServiceStatus::kMaxCount) {
        throw klNetError(std::ostringstream()
                         << "Service status: too many entries (" << count << ", at most "
                         << klNetServiceStatus::kMaxCount << ")");
    }
}

// The serializer's string, cut at the first zero byte as the peers write it.
void putText(klNetSerializer& serializer, const std::string& text) {
    serializer.putValue(text.c_str());
}

}  // namespace

bool klNetServiceStatus::getIsRunning() const {
    return getValue(kIsRunning, "false") == "true";
}

void klNetServiceStatus::setIsRunning(bool running) {
    m_values[kIsRunning] = running ? "true" : "false";
}

int klNetServiceStatus::getNumberOfClusterServers() const {
    return std::atoi(getValue(kNumberOfClusterServers, "0").c_str());
}

void klNetServiceStatus::setNumberOfClusterServers(int count) {
    m_values[kNumberOfClusterServers] = std::to_string(count);
}

float klNetServiceStatus::getCPUUsage() const {
    return float(klNetUtils::decimalValue(getValue(kCPUUsage, "0")));
}

void klNetServiceStatus::setCPUUsage(float usage) {
    // "%f" of the value widened to double, independent of the locale.
    char text[400];
    const auto result =
        std::to_chars(text, text + sizeof(text), double(usage), std::chars_format::fixed, 6);
    m_values[kCPUUsage] = std::string(text, result.ptr);
}

std::uint64_t klNetServiceStatus::getFreeMemory() const {
    return std::uint64_t(std::int64_t(long32Value(getValue(kFreeMemory, "0"))));
}

void klNetServiceStatus::setFreeMemory(std::uint64_t bytes) {
    m_values[kFreeMemory] = std::to_string(bytes);
}

std::string klNetServiceStatus::getVersion() const {
    return getValue(kVersion, "unknown");
}

void klNetServiceStatus::setVersion(const std::string& version) {
    m_values[kVersion] = version;
}

std::vector<std::string> klNetServiceStatus::getBookingIds() const {
    return getList(kBookingIds);
}

void klNetServiceStatus::setBookingIds(const std::vector<std::string>& ids) {
    m_lists[kBookingIds] = ids;
}

void klNetServiceStatus::putValue(klNetSerializer& serializer) const {
    putText(serializer, klVersionInfo::the().getVersionString());
    serializer.putValue(std::uint64_t(m_values.size()));
    for (const auto& [key, value] : m_values) {
        putText(serializer, key);
        putText(serializer, value);
    }
    serializer.putValue(std::uint64_t(m_lists.size()));
    for (const auto& [key, list] : m_lists) {
        putText(serializer, key);
        serializer.putValue(std::uint64_t(list.size()));
        for (const std::string& element : list) {
            putText(serializer, element);
        }
    }
}

void klNetServiceStatus::getValue(klNetSerializer& serializer) {
    std::string text;
    serializer.getValue(text);  // the writer's version: the service protocol checks versions itself

    m_values.clear();
    std::uint64_t count = 0;
    serializer.getValue(count);
    checkCount(count);
    for (std::uint64_t i = 0; i < count; ++i) {
        std::string key;
        serializer.getValue(key);
        serializer.getValue(m_values[key]);
    }

    m_lists.clear();
    serializer.getValue(count);
    checkCount(count);
    for (std::uint64_t i = 0; i < count; ++i) {
        std::string key;
        serializer.getValue(key);
        std::uint64_t elements = 0;
        serializer.getValue(elements);
        checkCount(elements);
        std::vector<std::string>& list = m_lists[key];
        list.clear();
        for (std::uint64_t e = 0; e < elements; ++e) {
            serializer.getValue(text);
            list.push_back(text);
        }
    }
}

std::string klNetServiceStatus::getValue(const std::string& key,
                                         const std::string& defaultValue) const {
    const auto found = m_values.find(key);
    return found == m_values.end() ? defaultValue : found->second;
}

std::vector<std::string> klNetServiceStatus::getList(const std::string& key) const {
    const auto found = m_lists.find(key);
    return found == m_lists.end() ? std::vector<std::string>() : found->second;
}
