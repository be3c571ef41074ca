// The service status record: its exact bytes, how odd texts read, keys it does not know, and
// hostile counts.
#include <support/klNetTestSupport.h>

using namespace kltest;

namespace {

using Count = std::uint64_t;

// In the expected bytes, texts travel as length, bytes and zero byte; counts as 8 bytes.
const auto wire = [](const auto&... values) { return wireOfValues(values...); };

TEST(klNetServiceStatusTest, DefaultAndSetRecordsHaveTheirExactBytes) {
    const klNetServiceStatus defaults;
    EXPECT_EQ(wire("10.0", Count(0), Count(0)), wireOfRecord(defaults));
    EXPECT_EQ("unknown", defaults.getVersion());

    // Set in an order other than the keys' so that the written order is the map's.
    klNetServiceStatus status;
    status.setVersion("9.2");
    status.setIsRunning(true);
    status.setNumberOfClusterServers(-3);
    status.setFreeMemory(5000000000);
    status.setCPUUsage(12.5f);
    status.setBookingIds({});
    const Bytes expected = wire("10.0", Count(5), "CPUUsage", "12.500000", "FreeMemory",
                                "5000000000", "IsRunning", "true", "NumberOfClusterServers", "-3",
                                "Version", "9.2", Count(1), "BookingIds", Count(0));
    ASSERT_EQ(expected, wireOfRecord(status));

    const klNetServiceStatus read = readRecord<klNetServiceStatus>(expected);
    EXPECT_TRUE(read.getIsRunning());
    EXPECT_EQ(-3, read.getNumberOfClusterServers());
    EXPECT_EQ(12.5f, read.getCPUUsage());
    EXPECT_EQ(2147483647u, read.getFreeMemory()) << "read through a 32-bit long";
    EXPECT_EQ("9.2", read.getVersion());
    EXPECT_EQ(expected, wireOfRecord(read));
}

TEST(klNetServiceStatusTest, ReadsOddTextsKeepsUnknownKeysAndRefusesHugeCounts) {
    const struct {
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
    for (const auto& c : cases) {
        SCOPED_TRACE(c.key + "=" + c.text);
        const klNetServiceStatus status =
            readRecord<klNetServiceStatus>(wire("9.2", Count(1), c.key, c.text, Count(0)));
        EXPECT_EQ(c.freeMemory, status.getFreeMemory());
        EXPECT_EQ(c.running, status.getIsRunning());
        EXPECT_EQ(c.servers, status.getNumberOfClusterServers());
    }

    // Keys this program does not know, and a repeated one, pass through; the last value wins.
    EXPECT_EQ(wire("10.0", Count(2), "Alpha", "x", "Zeta", "2", Count(2), "BookingIds", Count(2),
                   "a", "", "GPUs", Count(1), "0"),
              wireOfRecord(readRecord<klNetServiceStatus>(
                  wire("11.0", Count(3), "Zeta", "1", "Alpha", "x", "Zeta", "2", Count(2),
                       "BookingIds", Count(2), "a", "", "GPUs", Count(1), "0"))));

    KL_EXPECT_THROW_TEXT(readRecord<klNetServiceStatus>(wire("10.0", Count(65537))), klNetError,
                         "Service status: too many entries (65537, at most 65536)");
    KL_EXPECT_THROW_TEXT(
        readRecord<klNetServiceStatus>(wire("10.0", Count(0), Count(1), "BookingIds", ~Count(0))),
        klNetError, "Service status: too many entries (18446744073709551615, at most 65536)");
}

}  // namespace
