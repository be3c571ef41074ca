#include <support/klNetTestSupport.h>

#include <gtest/gtest.h>

#include <cerrno>
#include <fstream>
#include <sstream>
#include <type_traits>

TEST(klNetError, ErrorStringIsNumberColonSystemText) {
    errno = ECONNREFUSED;
    EXPECT_EQ("111:Connection refused", klNetError::getLastErrorString());
    errno = 0;
    EXPECT_EQ("", klNetError::getLastErrorString());
    EXPECT_EQ("104:Connection reset by peer", klNetError::getErrorString(ECONNRESET));
    // Numbers without a system text keep the number and the colon alone, printed unsigned.
    EXPECT_EQ("4294967295:", klNetError::getErrorString(-1));
    EXPECT_EQ("4000:", klNetError::getErrorString(4000));
}

TEST(klNetError, MessageComesFromTextOrFromAFilledStringStream) {
    EXPECT_STREQ("plain", klNetError(std::string("plain")).what());
    EXPECT_STREQ("send error. 111:Connection refused",
                 klNetError(std::ostringstream() << "send error. "
                                                 << "111:Connection refused")
                     .what());
    std::stringstream twoWay;
    twoWay << "Unable to connect to " << 8889;
    EXPECT_STREQ("Unable to connect to 8889", klNetError(twoWay).what());
    EXPECT_STREQ("", klNetError(std::ofstream()).what());
}

TEST(klNetError, SubclassesCarryFixedTextsAndAreklNetErrorsButNotEachOther) {
    KL_EXPECT_THROW_TEXT(throw klConnectionClosed(), klNetError, "Connection closed");
    KL_EXPECT_THROW_TEXT(
        throw klConnectionTimeout(), klNetError,
        "recv error: Connected party did not properly respond after a period of time.");
    EXPECT_FALSE((std::is_base_of_v<klConnectionClosed, klConnectionTimeout>));
    EXPECT_FALSE((std::is_base_of_v<klConnectionTimeout, klConnectionClosed>));
}
