// Subjects as text and encoded, the check of what comes from outside, and advisories.

#include "Bytes.h"
#include "rv/error/rvAdvisory.h"
#include "rv/message/AdvisorySubjects.h"
#include "rv/message/RvMsg.h"
#include "rv/message/SubjectView.h"
#include "rv/message/rvSubject.h"

namespace {

std::string repeated(const std::string& element, int count) {
    std::string text = element;
    for (int i = 1; i < count; ++i) text += "." + element;
    return text;
}

int encode(const std::string& text, unsigned capacity = 1000) {
    std::uint8_t out[2000];
    return rvSubject_FromText(out, capacity, text.c_str());
}

bool parses(const Bytes& bytes) {
    return kvx::SubjectView::parse(bytes.data(), bytes.size()).has_value();
}

}  // namespace

TEST(Subject, EncodesElementsWithTheirLengthsAndGoesBackToText) {
    Bytes out(13);
    char text[64];
    ASSERT_EQ(rvSubject_FromText(out.data(), 13, "ab.*.>"), 13);
    EXPECT_EQ(out, (Bytes{0, 13, 3, 4, 'a', 'b', 0, 3, '*', 0, 3, '>', 0}));
    EXPECT_STREQ(rvSubject_ToText(text, sizeof text, out.data()), "ab.*.>");
    EXPECT_EQ(rvSubject_ToText(text, rvSubject_Length(out.data()) - 1, out.data()), nullptr);
    EXPECT_EQ(rvSubject_Count(out.data()), 3U);
    EXPECT_STREQ(rvSubject_Element(out.data(), 1), "ab");
    EXPECT_STREQ(rvSubject_Element(out.data(), 3), ">");
    for (const unsigned none : {0U, 4U}) EXPECT_EQ(rvSubject_Element(out.data(), none), nullptr);
}

TEST(Subject, FollowsTheRulesForTexts) {
    for (const char* invalid : {"", ".", ".a", "a.", "a..b"}) EXPECT_EQ(encode(invalid), -1);
    EXPECT_EQ(encode(std::string(250, 'x')), 255);
    EXPECT_EQ(encode(std::string(251, 'x')), -1);
    EXPECT_GT(encode(repeated("x", 102)), 0);
    EXPECT_EQ(encode(repeated("x", 103)), -1);
    EXPECT_EQ(encode("a.b", 9), 9);
    EXPECT_EQ(encode("a.b", 8), -1);
    EXPECT_EQ(encode(repeated(std::string(247, 'x'), 4), 2000), 999);
    EXPECT_EQ(encode(repeated(std::string(248, 'x'), 4), 2000), -1);
}

TEST(Subject, GrowsAndShrinksAtItsEnd) {
    std::uint8_t encoded[16];
    char text[16];
    EXPECT_EQ(rvSubject_InitEmpty(encoded, 2), -1);
    EXPECT_EQ(rvSubject_InitEmpty(encoded, sizeof encoded), 3);
    EXPECT_EQ(rvSubject_AppendElement(encoded, 6, "a"), -1);
    EXPECT_EQ(rvSubject_AppendElement(encoded, 7, "a"), 6);
    EXPECT_EQ(rvSubject_AppendElement(encoded, 16, "b.c"), -1);
    EXPECT_EQ(rvSubject_AppendElement(encoded, 16, "bc"), 10);
    EXPECT_STREQ(rvSubject_ToText(text, sizeof text, encoded), "a.bc");
    EXPECT_EQ(rvSubject_RemoveLast(encoded), 6);
    EXPECT_EQ(rvSubject_RemoveLast(encoded), 3);
    EXPECT_EQ(rvSubject_RemoveLast(encoded), -1);
}

TEST(SubjectView, RefusesMalformedBytes) {
    EXPECT_TRUE(parses({0, 6, 1, 3, 'a', 0}));
    const std::vector<std::pair<const char*, Bytes>> malformed = {
        {"nothing", {}},
        {"an empty subject", {0, 3, 0}},
        {"longer than its bytes", {0, 7, 1, 3, 'a', 0}},
        {"too few elements", {0, 6, 2, 3, 'a', 0}},
        {"too many elements", {0, 9, 1, 3, 'a', 0, 3, 'b', 0}},
        {"an empty element", {0, 5, 1, 2, 0}},
        {"an element past the end", {0, 6, 1, 9, 'a', 0}},
        {"no terminator", {0, 6, 1, 3, 'a', 'b'}},
        {"a zero inside", {0, 8, 1, 5, 'a', 0, 'b', 0}},
        {"a full stop inside", {0, 8, 1, 5, 'a', '.', 'b', 0}},
        {"an element of 251", Bytes{1, 0, 1, 253} + Bytes(251, 'x') + Bytes{0}},
    };
    for (const auto& [what, bytes] : malformed) {
        EXPECT_FALSE(parses(bytes)) << what;
        if (bytes.size() < 3 || bytes[1] > bytes.size()) continue;
        char text[300];
        rvSubject_ToText(text, sizeof text, bytes.data());  // safe, whatever it makes of it
        rvSubject_Element(bytes.data(), 2);
    }
}

TEST(SubjectView, KnowsWildcards) {
    const auto hasWildcards = [](const char* text) {
        return kvx::Subject::fromText(text)->view().hasWildcards();
    };
    EXPECT_TRUE(hasWildcards("*"));
    EXPECT_TRUE(hasWildcards("A.*.B"));
    EXPECT_TRUE(hasWildcards("A.>"));
    EXPECT_FALSE(hasWildcards("A.>.B"));
    EXPECT_FALSE(hasWildcards("A.**.B>"));
}

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
