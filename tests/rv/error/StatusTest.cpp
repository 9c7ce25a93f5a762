// The code tables and the status that reads them.

#include "rv/error/RvStatus.h"
#include "rv/error/rvErrors.h"

TEST(ErrorTexts, NameTheVersionOfTheClient) {
    EXPECT_STREQ(rv_VersionText(), "5.3.2");
}

TEST(ErrorTexts, EachTableHasItsOwnFallback) {
    EXPECT_STREQ(rv_ErrorText(19), "");
    EXPECT_STREQ(rvmsg_ErrorText(5), "");
    EXPECT_STREQ(rvmsg_CoreErrorText(-1), "");
    EXPECT_STREQ(rvevm_ErrorText(12), "Unknown error.");
    EXPECT_STREQ(ipq_ErrorText(9), "An unknown error has occurred.");
    EXPECT_STREQ(rv_SocketErrorText(10053), "***Unknown***");
}

TEST(ErrorTexts, TablesOverlapInTheirStatedOrder) {
    EXPECT_STREQ(rvmsg_ErrorText(1), "Message buffer not initialized");
    EXPECT_STREQ(rvmsg_CoreErrorText(1), "Initialization failed");
    EXPECT_STREQ(rvmsg_ErrorText(3), rvmsg_CoreErrorText(3));
    EXPECT_STREQ(rvmsg_CoreErrorText(11), "The specified field was not found");
    EXPECT_STREQ(rvmsg_ErrorText(20), "");
    EXPECT_STREQ(rv_ErrorText(8), "");
    for (const char* last : {rv_ErrorText(27), rvevm_ErrorText(11), ipq_ErrorText(8)}) {
        EXPECT_GT(std::string(last).size(), 20U) << "each table's last text";
    }
}

TEST(Status, ReadsTheTableOfItsCategory) {
    EXPECT_STREQ(RvStatus(1).text(), "Initialization failed");
    EXPECT_STREQ(RvStatus::eventManager(7).text(), "The interval for a timer event was not valid");
    EXPECT_STREQ(RvStatus::message(1).text(), "Message buffer not initialized");
    EXPECT_STREQ(RvStatus::messageCore(1).text(), "Initialization failed");
    EXPECT_STREQ(RvStatus(99).text(), "");
}

TEST(Status, ComparesByCodeAndCategory) {
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
    RvStatus copy(1);
    copy = RvStatus::eventManager(5);
    EXPECT_EQ(copy.category(), 2U);
    EXPECT_EQ(copy.code(), 5U);
}
