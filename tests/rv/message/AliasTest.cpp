// Arguments that live inside what an operation changes, frees or moves: each operation, each
// argument, with room to spare and without. Meant to be run under the address sanitizer.

#include "Bytes.h"
#include "rv/error/rvAdvisory.h"
#include "rv/message/RvMsgIterator.h"
#include "rv/message/rvSubject.h"

namespace {

// The text of a field, where it lies in the message.
const char* at(const RvMsg& message, const char* name) {
    RvDatum found;
    EXPECT_TRUE(message.get(name, found) == 0) << name;
    return static_cast<const char*>(found.data());
}

rvmsg_Msg nested(const RvMsg& message, const char* name) {
    return const_cast<char*>(at(message, name));
}

constexpr const char* kInner = R"({ in="x"})";

using Change = void (*)(RvMsg& message);

// Each change and the message after it; "~" stands for the fields of before.
const std::pair<Change, std::string> kMessageCases[] = {
    {[](RvMsg& m) { m.append(at(m, "word"), 7); }, "{~ name=7}"},
    {[](RvMsg& m) { m.append("copy", at(m, "path")); }, R"({~ copy="m.new"})"},
    {[](RvMsg& m) { m.append(at(m, "word"), at(m, "word")); }, R"({~ name="name"})"},
    // A path, and a value, behind what moves.
    {[](RvMsg& m) { m.append(at(m, "path"), 7); },
     R"({ word="name" m={ in="x" new=7} path="m.new"})"},
    {[](RvMsg& m) { m.append(at(m, "path"), at(m, "path")); },
     R"({ word="name" m={ in="x" new="m.new"} path="m.new"})"},
    // The message in itself, and below itself.
    {[](RvMsg& m) { m.append("all", m); }, "{~ all={~}}"},
    {[](RvMsg& m) { m.append(at(m, "path"), m); },
     R"({ word="name" m={ in="x" new={~}} path="m.new"})"},
    // The fields of a walk.
    {[](RvMsg& m) { m.append(*std::unique_ptr<RvMsgIterator>(m.newIterator())->next()); },
     R"({~ word="name"})"},
    {[](RvMsg& m) {
         const std::unique_ptr<RvMsgIterator> fields(m.newIterator());
         fields->next();
         m = *dynamic_cast<const RvMsg*>(fields->next());
         EXPECT_STREQ(m.name(), "m");
     },
     kInner},
    {[](RvMsg& m) { m = RvMsg(nested(m, "m")); }, kInner},
    {[](RvMsg& m) { m = RvMsg(const_cast<void*>(m.data())); }, "{~}"},
    {[](RvMsg& m) { static_cast<RvDatum&>(m) = RvDatum(RVMSG_MSG, 0, nested(m, "m")); }, kInner},
    {[](RvMsg& m) { m.set(at(m, "word"), RVMSG_MSG, 0, nested(m, "m")); }, kInner},
    {[](RvMsg& m) { EXPECT_TRUE(m.attach(nested(m, "m")) == 0); }, kInner},
    {[](RvMsg& m) { EXPECT_TRUE(m.attach(const_cast<void*>(m.data())) == 0); }, "{~}"},
    {[](RvMsg& m) { EXPECT_TRUE(m.get("m", m) == 0); }, kInner},
    {[](RvMsg& m) {  // the name in what is found
         RvDatum found("word", RVMSG_NONE, 0, nullptr);
         EXPECT_TRUE(m.get(found.name(), found) == 0);
         EXPECT_STREQ(found.name(), "word");
         const RvDatum owned(found);
         found = owned;
         EXPECT_TRUE(m.get(static_cast<const char*>(found.data()), found).isMessage(11));
     },
     "{~}"},
};

std::string withFields(std::string text) {
    for (auto at = text.find('~'); at != std::string::npos; at = text.find('~'))
        text.replace(at, 1, R"( word="name" m={ in="x"} path="m.new")");
    return text;
}

const char* text(const RvDatum& datum) {
    return static_cast<const char*>(datum.data());
}

struct DatumCase {
    void (*change)(RvDatum& datum);
    const char* name;
    const char* text;
};

// The datum owns its name "name" and its data "text".
const DatumCase kDatumCases[] = {
    {[](RvDatum& d) { d.set(d.name() + 1, RVMSG_STRING, 0, "new"); }, "ame", "new"},
    {[](RvDatum& d) { d.set("long name", RVMSG_STRING, 0, text(d)); }, "long name", "text"},
    {[](RvDatum& d) { d.set(text(d), RVMSG_STRING, 4, text(d) + 1); }, "text", "ext"},
    {[](RvDatum& d) { d.set("xy", RVMSG_STRING, 0, d.name() + 1); }, "xy", "ame"},
    {[](RvDatum& d) { d.set(text(d), RVMSG_STRING, 5, d.name()); }, "text", "name"},
    {[](RvDatum& d) { d = RvDatum("n", RVMSG_STRING, 0, text(d) + 1); }, "n", "ext"},
    {[](RvDatum& d) { d = RvDatum("xy", RVMSG_STRING, 5, d.name()); }, "xy", "name"},
};

}  // namespace

TEST(Alias, MessagesTakeArgumentsThatLieInThem) {
    for (const auto& [change, after] : kMessageCases) {
        for (const unsigned long room : {0UL, 4096UL}) {
            SCOPED_TRACE(after + ", room " + std::to_string(room));
            RvMsg inner;
            inner.append("in", "x");
            RvMsg source;
            source.append("word", "name");
            source.append("m", inner);
            source.append("path", "m.new");
            RvMsg message(source);  // as large as what it holds, so that it must grow
            message.reserve(room);
            change(message);
            EXPECT_EQ(printed(message.data()), withFields(after));
            EXPECT_EQ(rvmsg_Validate(message.data(), message.size()), 0);
            EXPECT_TRUE(message.append("more", 1) == 0);
        }
    }
}

TEST(Alias, DatumsTakeArgumentsThatLieInThem) {
    for (const DatumCase& step : kDatumCases) {
        RvDatum datum;
        datum = RvDatum("name", RVMSG_STRING, 5, "text");
        step.change(datum);
        EXPECT_STREQ(datum.name(), step.name);
        EXPECT_STREQ(text(datum), step.text);
    }
}

TEST(Alias, AdvisoriesTakeTextsThatLieInTheirBuffers) {
    for (const bool areInBody : {true, false}) {
        Bytes body(256);
        Bytes subject(256);
        auto* const texts = reinterpret_cast<char*>((areInBody ? body : subject).data());
        std::memcpy(texts + 4, "WARN\0SOURCE\0NAME.a\0what", 24);
        EXPECT_EQ(rv_BuildAdvisory(body.data(), 256, texts + 4, texts + 9, texts + 16, texts + 23,
                                   subject.data(), 256),
                  0);
        EXPECT_EQ(printed(body.data()),
                  R"({ ADV_CLASS="WARN" ADV_SOURCE="SOURCE" ADV_NAME="NAME.a" ADV_DESC="what"})");
        char dotted[256];
        EXPECT_STREQ(rvSubject_ToText(dotted, sizeof dotted, subject.data()),
                     "_RV.WARN.SOURCE.NAME.a");
    }
    char small[64] = "WARN";
    EXPECT_EQ(rvmsg_AppendAdvisoryFields(small, sizeof small, small, small, small, small), 8);
    EXPECT_STREQ(small, "WARN");
}

TEST(Alias, SubjectsAndConversionsWorkInPlace) {
    char bytes[64] = "....A.bc.d";
    EXPECT_EQ(rvSubject_FromText(bytes, sizeof bytes, bytes + 4), 13);
    EXPECT_EQ(rvSubject_AppendElement(bytes, sizeof bytes, rvSubject_Element(bytes, 2)), 17);
    EXPECT_STREQ(rvSubject_ToText(bytes + 2, sizeof bytes - 2, bytes), "A.bc.d.bc");
    EXPECT_EQ(rvSubject_FromText(bytes, sizeof bytes, "a..b"), -1);
    EXPECT_STREQ(bytes + 2, "A.bc.d.bc");
    EXPECT_EQ(rvmsg_Convert(RVMSG_STRING, 10, bytes + 4, RVMSG_STRING, 10, bytes + 2), 0);
    EXPECT_STREQ(bytes + 4, "A.bc.d.bc");
}
