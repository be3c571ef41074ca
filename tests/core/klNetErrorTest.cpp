#include <support/klNetTestSupport.h>

#include <cerrno>
#include <fstream>
#include <sstream>

TEST(klNetError, TextsAreExactAndErrorStringsAreNumberColonSystemText) {
    errno = ECONNREFUSED;
    EXPECT_EQ("111:Connection refused", klNetError::getLastErrorString());
    errno = 0;
    EXPECT_EQ("", klNetError::getLastErrorString());
    EXPECT_EQ("104:Connection reset by peer", klNetError::getErrorString(ECONNRESET));
    // Numbers without a system text keep the number and the colon alone, printed unsigned.
    EXPECT_EQ("4294967295:", klNetError::getErrorString(-1));
    EXPECT_EQ("4000:", klNetError::getErrorString(4000));

    // A two-way string stream gives its text too; a stream of another kind gives none.
    std::stringstream twoWay;
    twoWay << "Unable to connect to " << 8889;
    EXPECT_STREQ("Unable to connect to 8889", klNetError(twoWay).what());
    EXPECT_STREQ("", klNetError(std::ofstream()).what());
    KL_EXPECT_THROW_TEXT(throw klConnectionClosed(), klNetError, "Connection closed");
    KL_EXPECT_THROW_TEXT(
        throw klConnectionTimeout(), klNetError,
        "recv error: Connected party did not properly respond after a period of time.");
}
