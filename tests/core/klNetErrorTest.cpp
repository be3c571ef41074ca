#include <support/klNetTestSupport.h>

#include <klNetBase/core/klConnectionClosed.h>
#include <klNetBase/core/klConnectionTimeout.h>
#include <klNetBase/core/klNetError.h>

#include <gtest/gtest.h>

#include <cerrno>
#include <fstream>
#include <sstream>
#include <string>

namespace {

const char* const kTimeoutText =
    "recv error: Connected party did not properly respond after a period of time.";

// The text seen by a handler that catches Caught, or "<not caught>".
template <class Caught, class Thrown>
std::string whatWhenCaughtAs(const Thrown& error) {
    try {
        throw error;
    } catch (const Caught& caught) {
        return caught.what();
    } catch (...) {
        return "<not caught>";
    }
}

}  // namespace

TEST(klNetError, ErrorStringIsNumberColonSystemText) {
    EXPECT_EQ("", klNetError::getErrorString(0));
    EXPECT_EQ("111:Connection refused", klNetError::getErrorString(ECONNREFUSED));
    EXPECT_EQ("104:Connection reset by peer", klNetError::getErrorString(ECONNRESET));
    // Numbers without a system text keep the number and the colon alone, printed unsigned.
    EXPECT_EQ("4294967295:", klNetError::getErrorString(-1));
    EXPECT_EQ("4000:", klNetError::getErrorString(4000));

    errno = 0;
    EXPECT_EQ("", klNetError::getLastErrorString());
    errno = ECONNREFUSED;
    EXPECT_EQ("111:Connection refused", klNetError::getLastErrorString());
    errno = 0;
}

TEST(klNetError, MessageComesFromTextOrFromAFilledStringStream) {
    EXPECT_STREQ("plain text", klNetError(std::string("plain text")).what());

    const klNetError fromTemporary(std::ostringstream()
                                   << "send error. " << klNetError::getErrorString(ECONNREFUSED));
    EXPECT_STREQ("send error. 111:Connection refused", fromTemporary.what());

    std::stringstream twoWay;
    twoWay << "Unable to connect to " << 8889;
    EXPECT_STREQ("Unable to connect to 8889", klNetError(twoWay).what());

    std::ofstream notAStringStream;
    EXPECT_STREQ("", klNetError(notAStringStream).what());

    const klNetError copy = fromTemporary;
    EXPECT_STREQ(fromTemporary.what(), copy.what());
}

TEST(klNetError, SubclassesCarryFixedTextsAndAreCaughtThroughTheirBases) {
    EXPECT_EQ("Connection closed", whatWhenCaughtAs<klConnectionClosed>(klConnectionClosed()));
    EXPECT_EQ("Connection closed", whatWhenCaughtAs<klNetError>(klConnectionClosed()));
    EXPECT_EQ("Connection closed", whatWhenCaughtAs<std::exception>(klConnectionClosed()));
    EXPECT_EQ(kTimeoutText, whatWhenCaughtAs<klNetError>(klConnectionTimeout()));
    EXPECT_EQ(kTimeoutText, whatWhenCaughtAs<std::runtime_error>(klConnectionTimeout()));
    EXPECT_EQ(kTimeoutText, whatWhenCaughtAs<std::exception>(klConnectionTimeout()));
    EXPECT_EQ("x", whatWhenCaughtAs<std::exception>(klNetError(std::string("x"))));
    // The two conditions stay distinguishable from each other and from a plain error.
    EXPECT_EQ("<not caught>", whatWhenCaughtAs<klConnectionClosed>(klConnectionTimeout()));
    EXPECT_EQ("<not caught>", whatWhenCaughtAs<klConnectionTimeout>(klNetError(std::string("x"))));
}
