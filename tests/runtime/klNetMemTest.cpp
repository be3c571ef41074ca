#include <support/klNetTestSupport.h>

#include <klNetBase/runtime/klNetAffinityManager.h>
#include <klNetBase/runtime/klNetMem.h>

#include <gtest/gtest.h>

#include <sched.h>
#include <unistd.h>

#include <thread>

using kltest::Bytes;

namespace {

constexpr unsigned char kUntouched = 0xEE;

// How many leading bytes of an n-byte copy into a 0xEE-filled target (with 16 spare bytes behind
// it) hold the source's bytes; every byte after them must still be 0xEE.
template <class Copy>
std::size_t copiedPrefix(std::size_t n, Copy copy) {
    const Bytes source = kltest::pattern(n + 16);
    Bytes target(n + 16, kUntouched);
    EXPECT_EQ(target.data(), copy(target.data(), source.data(), n));
    std::size_t copied = 0;
    while (copied < n && target[copied] == source[copied]) {
        ++copied;
    }
    for (std::size_t i = copied; i < target.size(); ++i) {
        EXPECT_EQ(kUntouched, target[i]) << "byte " << i << " of " << n;
    }
    return copied;
}

cpu_set_t ownMask() {
    cpu_set_t mask;
    CPU_ZERO(&mask);
    EXPECT_EQ(0, sched_getaffinity(0, sizeof(mask), &mask));
    return mask;
}

}  // namespace

TEST(klNetMem, CopyIsExactOnBothSidesOfTheParallelThreshold) {
    EXPECT_EQ(1000000u, copiedPrefix(1000000, klNetMem::copy));
    // Above the threshold the parallel copy leaves n % parts bytes: none below 16 threads.
    const unsigned threads = std::thread::hardware_concurrency();
    const std::size_t parts = threads < 16 ? 1 : threads / 8;
    EXPECT_EQ(1000001 - 1000001 % parts, copiedPrefix(1000001, klNetMem::copy));
}

struct PartsCase {
    unsigned threads;
    std::size_t n;
    std::size_t copied;
};

class klNetMemParallelCopy : public ::testing::TestWithParam<PartsCase> {};

TEST_P(klNetMemParallelCopy, CopiesOnePartPerEightThreadsOfNOverPartsBytes) {
    const PartsCase& c = GetParam();
    EXPECT_EQ(c.copied, copiedPrefix(c.n, [&](void* dst, const void* src, std::size_t n) {
                  return klNetMem::parallelCopy(dst, src, n, c.threads);
              }));
}

INSTANTIATE_TEST_SUITE_P(Threads, klNetMemParallelCopy,
                         ::testing::Values(PartsCase{32, 10, 8},  // 4 parts of 2 bytes
                                           PartsCase{24, 10, 9}, PartsCase{16, 11, 10},
                                           PartsCase{15, 10, 10}, PartsCase{8, 13, 13},
                                           PartsCase{0, 10, 10}, PartsCase{64, 7, 0},
                                           PartsCase{2, 0, 0}));

TEST(klNetMem, MemoryFiguresArePlausibleAndFollowUse) {
    const std::uint64_t physical =
        std::uint64_t(sysconf(_SC_PHYS_PAGES)) * std::uint64_t(sysconf(_SC_PAGESIZE));
    const std::uint64_t available = klNetMem::getAvailableMemory();
    EXPECT_GT(available, 0u);
    EXPECT_LE(available, physical);

    const std::uint64_t before = klNetMem::getUsedMemory();
    EXPECT_GT(before, 0u);
    constexpr std::size_t kTouched = std::size_t(64) << 20;
    std::unique_ptr<unsigned char[]> block(new unsigned char[kTouched]);
    std::memset(block.get(), 0x5A, kTouched);
    const std::uint64_t after = klNetMem::getUsedMemory();
    EXPECT_GE(after, before + kTouched * 3 / 4) << "touched 64 MiB, resident set barely moved";
    EXPECT_LT(after, physical);
    EXPECT_EQ(0x5A, block[kTouched - 1]);
}

TEST(klNetAffinityManager, NegativeNodesDoNothingOthersBindToTheFirstCpuAndSaySo) {
    const cpu_set_t original = ownMask();
    if (!CPU_ISSET(0, &original)) {
        GTEST_SKIP() << "CPU 0 is not available to this process";
    }
    cpu_set_t unbound, bound0, bound3;
    ::testing::internal::CaptureStdout();
    std::thread([&] {  // a thread of its own, so the test thread stays unpinned
        klNetAffinityManager::setNodeAffinity(-1);
        unbound = ownMask();
    })
        .join();
    EXPECT_EQ("", ::testing::internal::GetCapturedStdout());
    EXPECT_TRUE(CPU_EQUAL(&original, &unbound));

    ::testing::internal::CaptureStdout();
    std::thread([&] {
        klNetAffinityManager::setNodeAffinity(3);
        bound3 = ownMask();
    }).join();
    std::thread([&] {
        klNetAffinityManager::setNodeAffinity(0);
        bound0 = ownMask();
    }).join();
    EXPECT_EQ("setaffinity 1\nsetaffinity 1\n", ::testing::internal::GetCapturedStdout());
    for (const cpu_set_t* mask : {&bound3, &bound0}) {
        EXPECT_EQ(1, CPU_COUNT(mask));
        EXPECT_TRUE(CPU_ISSET(0, mask));
    }
    const cpu_set_t mine = ownMask();
    EXPECT_TRUE(CPU_EQUAL(&original, &mine));
}
