#include <support/klNetPipelineSupport.h>

using namespace kltest;

TEST(klNetActionManager, RunBlocksOnlyWhileTheBoundIsReached) {
    // {max, reduceMaxRunning() calls, resulting bound (0: none: four run together)}
    const int cases[][3] = {{2, 0, 2}, {0, 0, 0}, {-3, 0, 0}, {3, 1, 2},
                            {1, 1, 1}, {0, 1, 0}, {-5, 1, 1}};
    for (const auto& c : cases) {
        SCOPED_TRACE(::testing::Message() << "max " << c[0] << ", reduced " << c[1]);
        auto manager = std::make_shared<klNetActionManager>(c[0]);
        if (c[1] != 0) {
            manager->reduceMaxRunning();
        }
        const int free = c[2] > 0 ? c[2] : 4;
        std::vector<std::shared_ptr<Gate>> gates;
        const auto runNext = [&] {
            gates.push_back(std::make_shared<Gate>());
            return std::make_unique<Task>(
                [manager, gate = gates.back()] { manager->run([gate] { gate->pass(); }); });
        };
        for (int i = 0; i < free; ++i) {
            ASSERT_TRUE(runNext()->finishedWithin(kBound)) << "run " << i + 1;
            ASSERT_TRUE(gates.back()->waitArrived());
        }
        if (c[2] > 0) {
            const auto held = runNext();
            EXPECT_FALSE(held->finishedWithin(kQuiet)) << "run " << free + 1 << " was not held";
            gates.front()->open();
            EXPECT_TRUE(held->finishedWithin(kBound));
        }
        for (const auto& gate : gates) {
            gate->open();
        }
        EXPECT_EQ("returned", outcomeWithin([manager] { manager->waitAll(); }));
    }
}

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
    KL_EXPECT_THROW_TEXT(wait.get(), std::runtime_error, "second");
    EXPECT_EQ("returned", outcomeWithin([manager] { manager->waitAll(); })) << "rethrown twice";
}
