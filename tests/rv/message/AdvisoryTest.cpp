#include "rv/error/rvAdvisory.h"
#include "rv/message/AdvisorySubjects.h"
#include "rv/message/RvMsg.h"
#include "rv/message/rvSubject.h"

namespace {

struct Advisory {
    std::uint8_t body[kvx::advisory::kBodyCapacity] = {};
    std::uint8_t subject[kvx::advisory::kSubjectCapacity] = {};

    int build(const char* advClass, const char* source, const char* name,
              const char* why = nullptr) {
        return rv_BuildAdvisory(body, sizeof body, advClass, source, name, why, subject,
                                sizeof subject);
    }
    std::string text() const { return kvx::SubjectView::trusted(subject).text(); }
    std::string field(const char* name) {
        char value[64];
        const RvStatus status = RvMsg(static_cast<rvmsg_Msg>(body)).get(name, value, sizeof value);
        return status == 0 ? value : "none";
    }
};

kvx::SubjectView view(const char* text) {
    static std::optional<kvx::Subject> subject;
    subject = kvx::Subject::fromText(text);
    return *subject;
}

}  // namespace

TEST(Advisory, HasASubjectAndABodyOfItsTexts) {
    Advisory advisory;
    ASSERT_EQ(advisory.build("WARN", "SYSTEM", kvx::advisory::kDisconnectedName), 0);
    EXPECT_EQ(advisory.text(), kvx::advisory::kDisconnectedSubject);
    EXPECT_EQ(advisory.field("ADV_CLASS"), "WARN");
    EXPECT_EQ(advisory.field("ADV_SOURCE"), "SYSTEM");
    EXPECT_EQ(advisory.field("ADV_NAME"), "RVD.DISCONNECTED");
    EXPECT_EQ(advisory.field("ADV_DESC"), "none");
    ASSERT_EQ(advisory.build("INFO", "APP", "X", "why"), 0);
    EXPECT_EQ(advisory.field("ADV_DESC"), "why");
}

TEST(Advisory, RefusesWhatCannotBeOne) {
    Advisory advisory;
    const std::string half(200, 'x');
    EXPECT_EQ(advisory.build("WARN", "SYSTEM", nullptr), 3);
    EXPECT_EQ(advisory.build("WARN", "", "X"), 3);
    EXPECT_EQ(advisory.build("A.B", "SYSTEM", "X"), 9);
    EXPECT_EQ(advisory.build("WARN", "S", std::string(485, 'x').c_str()), 3);
    EXPECT_EQ(advisory.build("WARN", "S", (half + "." + half).c_str()), 8);
    for (const char* source : {"SYSTEM", "APP"}) {
        EXPECT_EQ(rv_BuildAppAdvisory(advisory.body, sizeof advisory.body, "WARN", source, "X",
                                      nullptr, advisory.subject, sizeof advisory.subject),
                  source[0] == 'S' ? 3 : 0);
    }
}

TEST(Advisory, KnowsReservedAndReportableSubjects) {
    using kvx::advisory::coversSystemSubject;
    using kvx::advisory::isReportable;
    using kvx::advisory::isSystemSubject;
    for (const char* text : {"_RV.WARN.SYSTEM", "_RV.ERROR.SYSTEM.X", "_RV.INFO.SYSTEM.A.B"}) {
        EXPECT_TRUE(isSystemSubject(view(text))) << text;
    }
    for (const char* text : {"_RV.WARN.APP.X", "_RV.SYSTEM", "_RV.WARN", "A.WARN.SYSTEM"}) {
        EXPECT_FALSE(isSystemSubject(view(text))) << text;
    }
    for (const char* text : {"_RV.*.SYSTEM", "_RV.>", "_RV.WARN.*", "_RV.WARN.>", "_RV.*.*.X"}) {
        EXPECT_FALSE(isSystemSubject(view(text))) << text;
        EXPECT_TRUE(coversSystemSubject(view(text))) << text;
    }
    EXPECT_TRUE(coversSystemSubject(view("_RV.INFO.SYSTEM.>")));
    for (const char* text : {">", "*.WARN.SYSTEM", "_RV.*", "_RV.*.APP.>", "_RV.X.*", "_RV.>.*"}) {
        EXPECT_FALSE(coversSystemSubject(view(text))) << text;
    }
    EXPECT_TRUE(isReportable(view("_RV.WARN")));
    EXPECT_TRUE(isReportable(view("_RV.ERROR.APP.X")));
    EXPECT_FALSE(isReportable(view("_RV.INFO.SYSTEM.X")));
    EXPECT_FALSE(isReportable(view("_RV")));
}
