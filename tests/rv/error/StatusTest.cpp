// The code tables and the status that reads them.

#include "rv/error/RvStatus.h"
#include "rv/error/rvErrors.h"

TEST(ErrorTexts, EachTableHasItsOwnFallbackAndTwoOverlapInTheirStatedOrder) {
    EXPECT_STREQ(rv_VersionText(), "5.3.2");
    for (const char* none : {rv_ErrorText(8), rv_ErrorText(19), rvmsg_ErrorText(5),
                             rvmsg_ErrorText(20), rvmsg_CoreErrorText(-1)}) {
        EXPECT_STREQ(none, "");
    }
    EXPECT_STREQ(rvevm_ErrorText(12), "Unknown error.");
    EXPECT_STREQ(ipq_ErrorText(9), "An unknown error has occurred.");
    EXPECT_STREQ(rv_SocketErrorText(10053), "***Unknown***");
    EXPECT_STREQ(rvmsg_ErrorText(3), rvmsg_CoreErrorText(3));
    EXPECT_STREQ(rvmsg_CoreErrorText(11), "The specified field was not found");
    for (const char* last : {rv_ErrorText(27), rvevm_ErrorText(11), ipq_ErrorText(8)})
        EXPECT_GT(std::string(last).size(), 20U) << "each table's last text";
}

TEST(Status, ReadsTheTableOfItsCategoryAndComparesByBoth) {
    EXPECT_STREQ(RvStatus(1).text(), "Initialization failed");
    EXPECT_STREQ(RvStatus::eventManager(7).text(), "The interval for a timer event was not valid");
    EXPECT_STREQ(RvStatus::message(1).text(), "Message buffer not initialized");
    EXPECT_STREQ(RvStatus::messageCore(1).text(), "Initialization failed");
    EXPECT_STREQ(RvStatus(99).text(), "");
    EXPECT_TRUE(RvStatus(0) == RvStatus::eventManager(0));
    EXPECT_TRUE(RvStatus::message(3) == RvStatus::messageCore(3));
    EXPECT_FALSE(RvStatus(3) == RvStatus::message(3));
    EXPECT_FALSE(RvStatus(3) == RvStatus(4));
    EXPECT_TRUE(RvStatus(3) == 3);
    EXPECT_FALSE(RvStatus::message(3) == 3);
    EXPECT_TRUE(RvStatus::eventManager(0) == 0);
    EXPECT_TRUE(RvStatus::messageCore(3).isMessage(3));
    EXPECT_FALSE(RvStatus(3).isMessage(3));
    EXPECT_TRUE(RvStatus(0).isMessage(0));
    EXPECT_EQ(RvStatus::eventManager(5).category(), 2U);
    EXPECT_EQ(RvStatus::eventManager(5).code(), 5U);
}
