#include <support/klNetPipelineSupport.h>

#include <klNetBase/runtime/klNetActionManager.h>

#include <gtest/gtest.h>

#include <stdexcept>

using kltest::Gate;
using kltest::kBound;
using kltest::kQuiet;
using kltest::Task;

namespace {

// Actions that wait at gates of their own, counting how many run at once.
struct Actions {
    std::vector<std::shared_ptr<Gate>> gates;
    std::atomic<int> running{0};
    std::atomic<int> peak{0};

    std::function<void()> next() {
        auto gate = std::make_shared<Gate>();
        gates.push_back(gate);
        return [this, gate] {
            const int now = ++running;
            for (int seen = peak; now > seen && !peak.compare_exchange_weak(seen, now);) {
            }
            gate->pass();
            --running;
        };
    }
    void openAll() {
        for (const auto& gate : gates) {
            gate->open();
        }
    }
};

// Runs actions until the bound is met: bound runs return at once, the next one only after an
// earlier action finishes. A bound of 0 means none: four runs all return and run together.
void expectBound(const std::shared_ptr<klNetActionManager>& manager, int bound) {
    auto actions = std::make_shared<Actions>();
    const int free = bound > 0 ? bound : 4;
    for (int i = 0; i < free; ++i) {
        Task run([manager, action = actions->next()] { manager->run(action); });
        ASSERT_TRUE(run.finishedWithin(kBound)) << "run " << i + 1 << " of bound " << bound;
        ASSERT_TRUE(actions->gates.back()->waitArrived());
    }
    if (bound > 0) {
        Task held([manager, action = actions->next()] { manager->run(action); });
        EXPECT_FALSE(held.finishedWithin(kQuiet)) << "run " << bound + 1 << " was not held";
        actions->gates.front()->open();
        EXPECT_TRUE(held.finishedWithin(kBound));
    }
    actions->openAll();
    Task wait([manager] { manager->waitAll(); });
    ASSERT_TRUE(wait.finishedWithin(kBound));
    EXPECT_EQ(free, actions->peak);
}

struct BoundCase {
    int max;
    bool reduced;
    int bound;  // 0: none
};

class klNetActionManagerBound : public ::testing::TestWithParam<BoundCase> {};

}  // namespace

TEST_P(klNetActionManagerBound, RunBlocksOnlyWhileTheBoundIsReached) {
    auto manager = std::make_shared<klNetActionManager>(GetParam().max);
    if (GetParam().reduced) {
        manager->reduceMaxRunning();
    }
    expectBound(manager, GetParam().bound);
}

INSTANTIATE_TEST_SUITE_P(Bounds, klNetActionManagerBound,
                         ::testing::Values(BoundCase{2, false, 2}, BoundCase{0, false, 0},
                                           BoundCase{-3, false, 0}, BoundCase{3, true, 2},
                                           BoundCase{1, true, 1}, BoundCase{0, true, 0},
                                           BoundCase{-5, true, 1}));

TEST(klNetActionManager, WaitAllWaitsForEveryActionAndRethrowsTheLastFailureOnce) {
    auto manager = std::make_shared<klNetActionManager>(1);
    auto gate = std::make_shared<Gate>();
    // With one action at a time, the first failure is stored before the second action starts.
    Task runs([manager, gate] {
        manager->run([] { throw std::runtime_error("first"); });
        manager->run([] { throw std::runtime_error("second"); });
        manager->run([gate] { gate->pass(); });
    });
    ASSERT_TRUE(runs.finishedWithin(kBound));
    Task wait([manager] { manager->waitAll(); });
    EXPECT_FALSE(wait.finishedWithin(kQuiet)) << "waitAll returned while an action ran";
    gate->open();
    ASSERT_TRUE(wait.finishedWithin(kBound));
    ASSERT_TRUE(wait.error());
    KL_EXPECT_THROW_TEXT(std::rethrow_exception(wait.error()), std::runtime_error, "second");

    Task again([manager] { manager->waitAll(); });
    ASSERT_TRUE(again.finishedWithin(kBound));
    EXPECT_FALSE(again.error());
}
