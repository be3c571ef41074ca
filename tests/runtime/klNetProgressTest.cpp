#include <support/klNetTestSupport.h>

#include <sstream>

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
