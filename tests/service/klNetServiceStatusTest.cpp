// The service status record: its exact bytes, the texts its setters store, how odd texts read,
// keys it does not know, and hostile counts.
#include <support/klNetTestSupport.h>

#include <klNetBase/service/klNetServiceStatus.h>

#include <gtest/gtest.h>

#include <cstdint>
#include <cstring>
#include <string>
#include <utility>
#include <vector>

namespace {

using kltest::Bytes;

Bytes str(const std::string& text) {
    const std::uint32_t length = std::uint32_t(text.size() + 1);
    Bytes bytes(4 + length, 0);
    std::memcpy(bytes.data(), &length, 4);
    std::memcpy(bytes.data() + 4, text.data(), text.size());
    return bytes;
}

Bytes u64(std::uint64_t value) {
    Bytes bytes(8);
    std::memcpy(bytes.data(), &value, 8);
    return bytes;
}

Bytes join(std::initializer_list<Bytes> parts) {
    Bytes all;
    for (const Bytes& part : parts) {
        all.insert(all.end(), part.begin(), part.end());
    }
    return all;
}

Bytes bytesOf(const klNetServiceStatus& status) {
    klNetMessage message;
    status.putValue(message);
    return kltest::concatPayloads(message.takeSendBuffers());
}

klNetServiceStatus recordFrom(const Bytes& bytes) {
    klNetMessage written;
    written.putBytes(bytes.data(), bytes.size());
    klNetMessage reader;
    reader.setRecvBuffers(written.takeSendBuffers());
    klNetServiceStatus status;
    status.getValue(reader);
    return status;
}

// A record with the given scalars and no lists, as a peer would send it.
Bytes scalars(const std::vector<std::pair<std::string, std::string>>& entries) {
    Bytes bytes = join({str("9.2"), u64(entries.size())});
    for (const auto& [key, value] : entries) {
        bytes = join({bytes, str(key), str(value)});
    }
    return join({bytes, u64(0)});
}

TEST(klNetServiceStatusTest, DefaultAndSetRecordsHaveTheirExactBytes) {
    const klNetServiceStatus defaults;
    EXPECT_EQ(join({str("10.0"), u64(0), u64(0)}), bytesOf(defaults));
    EXPECT_FALSE(defaults.getIsRunning());
    EXPECT_EQ(0, defaults.getNumberOfClusterServers());
    EXPECT_EQ(0.0f, defaults.getCPUUsage());
    EXPECT_EQ(0u, defaults.getFreeMemory());
    EXPECT_EQ("unknown", defaults.getVersion());
    EXPECT_TRUE(defaults.getBookingIds().empty());

    // Set in an order other than the keys' so that the written order is the map's.
    klNetServiceStatus status;
    status.setVersion("9.2");
    status.setIsRunning(true);
    status.setNumberOfClusterServers(-3);
    status.setFreeMemory(5000000000);
    status.setCPUUsage(12.5f);
    status.setBookingIds({});
    const Bytes expected =
        join({str("10.0"), u64(5), str("CPUUsage"), str("12.500000"), str("FreeMemory"),
              str("5000000000"), str("IsRunning"), str("true"), str("NumberOfClusterServers"),
              str("-3"), str("Version"), str("9.2"), u64(1), str("BookingIds"), u64(0)});
    ASSERT_EQ(expected, bytesOf(status));

    const klNetServiceStatus read = recordFrom(expected);
    EXPECT_TRUE(read.getIsRunning());
    EXPECT_EQ(-3, read.getNumberOfClusterServers());
    EXPECT_EQ(12.5f, read.getCPUUsage());
    EXPECT_EQ(2147483647u, read.getFreeMemory()) << "read through a 32-bit long";
    EXPECT_EQ("9.2", read.getVersion());
    EXPECT_EQ(expected, bytesOf(read));
}

TEST(klNetServiceStatusTest, ReadsOddTextsKeepsUnknownKeysAndRefusesHugeCounts) {
    struct Case {
        std::string key, text;
        std::uint64_t freeMemory;
        bool running;
        int servers;
    } cases[] = {
        {"IsRunning", "True", 0, false, 0},
        {"IsRunning", "true ", 0, false, 0},
        {"FreeMemory", "-5", 0xFFFFFFFFFFFFFFFBu, false, 0},
        {"FreeMemory", "-5000000000", 0xFFFFFFFF80000000u, false, 0},
        {"FreeMemory", "123abc", 123, false, 0},
        {"NumberOfClusterServers", "x7", 0, false, 0},
        {"NumberOfClusterServers", " 42", 0, false, 42},
    };
    for (const Case& c : cases) {
        SCOPED_TRACE(c.key + "=" + c.text);
        const klNetServiceStatus status = recordFrom(scalars({{c.key, c.text}}));
        EXPECT_EQ(c.freeMemory, status.getFreeMemory());
        EXPECT_EQ(c.running, status.getIsRunning());
        EXPECT_EQ(c.servers, status.getNumberOfClusterServers());
    }

    // Keys this program does not know, and a repeated one, pass through; the last value wins.
    const Bytes foreign = join({str("11.0"), u64(3), str("Zeta"), str("1"), str("Alpha"), str("x"),
                                str("Zeta"), str("2"), u64(2), str("BookingIds"), u64(2), str("a"),
                                str(""), str("GPUs"), u64(1), str("0")});
    EXPECT_EQ(join({str("10.0"), u64(2), str("Alpha"), str("x"), str("Zeta"), str("2"), u64(2),
                    str("BookingIds"), u64(2), str("a"), str(""), str("GPUs"), u64(1), str("0")}),
              bytesOf(recordFrom(foreign)));

    KL_EXPECT_THROW_TEXT(recordFrom(join({str("10.0"), u64(65537)})), klNetError,
                         "Service status: too many entries (65537, at most 65536)");
    KL_EXPECT_THROW_TEXT(
        recordFrom(join({str("10.0"), u64(0), u64(1), str("BookingIds"), u64(~0ull)})), klNetError,
        "Service status: too many entries (18446744073709551615, at most 65536)");
}

}  // namespace
