#include <support/klNetTestSupport.h>

#include <klNetBase/runtime/klNetRuntimeBase.h>

#include <gtest/gtest.h>

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
