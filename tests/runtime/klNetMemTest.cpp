#include <support/klNetTestSupport.h>

#include <sched.h>
#include <unistd.h>

using kltest::Bytes;

namespace {

// How many leading bytes of an n-byte copy (klNetMem::copy for threads -1, else the parallel copy
// for that many hardware threads) into a 0xEE-filled target with 16 spare bytes behind it hold the
// source's bytes; every byte after them must still be 0xEE.
std::size_t copiedPrefix(std::size_t n, int threads) {
    const Bytes source = kltest::pattern(n + 16);
    Bytes target(n + 16, 0xEE);
    EXPECT_EQ(target.data(), threads < 0 ? klNetMem::copy(target.data(), source.data(), n)
                                         : klNetMem::parallelCopy(target.data(), source.data(), n,
                                                                  unsigned(threads)));
    const std::size_t copied =
        std::mismatch(target.begin(), target.begin() + n, source.begin()).first - target.begin();
    EXPECT_EQ(Bytes(target.size() - copied, 0xEE), Bytes(target.begin() + copied, target.end()));
    return copied;
}

}  // namespace

TEST(klNetMem, ParallelCopyLeavesTheRemainderOfOnePartPerEightThreads) {
    // {hardware threads, n, bytes copied}: n / parts bytes per part, the last n % parts left.
    const std::size_t cases[][3] = {{32, 10, 8}, {24, 10, 9}, {16, 11, 10}, {15, 10, 10},
                                    {8, 13, 13}, {0, 10, 10}, {64, 7, 0},   {2, 0, 0}};
    for (const auto& c : cases) {
        EXPECT_EQ(c[2], copiedPrefix(c[1], int(c[0]))) << c[0] << " threads";
    }
    // copy() goes parallel only above 1000000 bytes.
    EXPECT_EQ(1000000u, copiedPrefix(1000000, -1));
    const unsigned threads = std::thread::hardware_concurrency();
    const std::size_t parts = threads < 16 ? 1 : threads / 8;
    EXPECT_EQ(1000001 - 1000001 % parts, copiedPrefix(1000001, -1));
}

TEST(klNetMem, MemoryFiguresAreInBytesAndFollowUse) {
    const std::uint64_t before = klNetMem::getUsedMemory();
    const Bytes block(std::size_t(64) << 20, 0x5A);
    EXPECT_GE(klNetMem::getUsedMemory(), before + block.size() * 3 / 4) << "touched 64 MiB";
    EXPECT_EQ(0x5A, block.back());
    const std::uint64_t kB = std::uint64_t(sysconf(_SC_PHYS_PAGES)) * sysconf(_SC_PAGESIZE) / 1024;
    EXPECT_GT(klNetMem::getAvailableMemory(), kB) << "at most all physical memory, in kB";
}

TEST(klNetAffinityManager, NegativeNodesDoNothingOthersBindToTheFirstCpuAndSaySo) {
    const auto maskAfter = [](int node) {  // on a thread of its own: the test thread stays free
        cpu_set_t mask;
        std::thread([&] {
            klNetAffinityManager::setNodeAffinity(node);
            EXPECT_EQ(0, sched_getaffinity(0, sizeof(mask), &mask));
        }).join();
        return mask;
    };
    ::testing::internal::CaptureStdout();
    const cpu_set_t unbound = maskAfter(-1);
    EXPECT_EQ("", ::testing::internal::GetCapturedStdout()) << "node -1 did something";
    if (!CPU_ISSET(0, &unbound)) {
        GTEST_SKIP() << "CPU 0 is not available to this process";
    }
    ::testing::internal::CaptureStdout();
    for (int node : {3, 0}) {
        const cpu_set_t bound = maskAfter(node);
        EXPECT_EQ(1, CPU_COUNT(&bound));
        EXPECT_TRUE(CPU_ISSET(0, &bound));
    }
    EXPECT_EQ("setaffinity 1\nsetaffinity 1\n", ::testing::internal::GetCapturedStdout());
}
