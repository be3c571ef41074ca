// Runtime support: progress reporting, memory copies and figures, CPU affinity, and the runtime
// singleton.
#include <support/klNetTestSupport.h>

#include <klNetBase/runtime/klNetRuntimeBase.h>

#include <sched.h>
#include <unistd.h>
#include <sstream>

using kltest::Bytes;

namespace {

using Calls = std::vector<std::string>;

// Records every handler call as text ("begin copy 100", "12.5") and counts the hook's calls;
// every test leaves the process-wide reporter as it found it.
class klNetProgressTest : public ::testing::Test, public klNetProgress::Handler {
protected:
    void SetUp() override {
        klNetProgress::setHook([this] { ++hookCalls; });
    }
    void TearDown() override {
        klNetProgress::reset();
        klNetProgress::setHook({});
    }
    void begin(const std::string& text, double maximum) override {
        add("begin " + text + " ", maximum);
    }
    void progress(double value) override { add("", value); }
    void add(const std::string& prefix, double value) {
        std::ostringstream text;
        text << prefix << value;
        calls.push_back(text.str());
    }
    Calls calls;
    int hookCalls = 0;
};

}  // namespace

TEST_F(klNetProgressTest, ReportsPercentOnlyWhenItsHundredthChangesAndScalesBelowOneAsUnknown) {
    klNetProgress::set(this);
    klNetProgress::start("scan", 200);
    klNetProgress::add(1);
    klNetProgress::add(0.001);  // the same hundredth: no handler call, but the hook runs
    klNetProgress::set(100.0);
    klNetProgress::set(100.0);
    klNetProgress::start("thirds", 3.9);  // truncates to 3 > 0, scaled by 3.9 itself
    klNetProgress::add(1);
    klNetProgress::start("wait", 0.5);  // truncates to 0: indeterminate
    EXPECT_EQ((Calls{"begin scan 100", "0", "0.5", "50", "begin thirds 100", "0", "25.64",
                     "begin wait 0", "-1"}),
              calls);
    EXPECT_EQ(5, hookCalls);
}

TEST_F(klNetProgressTest, WithoutHandlerNothingIsCalledAndSettingOrResettingClearsTheAbortFlag) {
    klNetProgress::set(this);
    klNetProgress::set(nullptr);
    klNetProgress::start("quiet", 10);
    klNetProgress::add(5);
    klNetProgress::set(7.0);
    klNetProgress::set(this);
    klNetProgress::reset();
    klNetProgress::add(5);
    EXPECT_TRUE(calls.empty());
    EXPECT_EQ(0, hookCalls);

    EXPECT_FALSE(klNetProgress::isAborting());
    for (const auto clear : {+[] { klNetProgress::set(3.0); }, +[] { klNetProgress::reset(); },
                             +[] { klNetProgress::set(static_cast<Handler*>(nullptr)); }}) {
        klNetProgress::abort();
        klNetProgress::add(1);  // adding keeps the request
        EXPECT_TRUE(klNetProgress::isAborting());
        clear();
        EXPECT_FALSE(klNetProgress::isAborting());
    }

    // Installing a handler restarts the raw value: the next add counts from 0.
    klNetProgress::set(this);
    klNetProgress::start("again", 10);
    klNetProgress::add(9);
    klNetProgress::set(this);
    klNetProgress::add(1);
    EXPECT_EQ((Calls{"begin again 100", "0", "90", "10"}), calls);
}

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

namespace {

struct Runtime : klNetRuntimeBase {
    void startRuntime() override { ++starts; }
    void stopRuntime() override {}
    bool isRuntimeRunning() override { return starts > 0; }
    int starts = 0;
};

constexpr const char* kNone = "No cluster runtime service available";

}  // namespace

TEST(klNetRuntimeBase, TheLatestConstructedInstanceIsRegisteredAndAnyDestructionClearsIt) {
    KL_EXPECT_THROW_TEXT(klNetRuntimeBase::the(), klNetError, kNone);
    {
        Runtime first;
        EXPECT_FALSE(first.getLocalHost());
        first.initialize(true);
        EXPECT_TRUE(first.getLocalHost());
        EXPECT_EQ(1, first.starts);
        Runtime copy(first);  // a copy takes the setting but not the registration
        EXPECT_TRUE(copy.getLocalHost());
        EXPECT_EQ(&first, &klNetRuntimeBase::the());
        {
            Runtime second;
            EXPECT_EQ(&second, &klNetRuntimeBase::the());
            second = first;
            EXPECT_TRUE(second.getLocalHost());
        }
        KL_EXPECT_THROW_TEXT(klNetRuntimeBase::the(), klNetError, kNone);
    }
    Runtime registered;
    {
        Runtime unregistered(registered);
    }  // destroying an unregistered copy clears the registration all the same
    KL_EXPECT_THROW_TEXT(klNetRuntimeBase::the(), klNetError, kNone);
}
