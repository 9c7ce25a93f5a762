// Arguments that live inside what an operation changes, frees or moves: each operation, each
// argument, with room to spare and without. Meant to be run under the address sanitizer.

#include <cstring>

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

struct MessageCase {
    const char* what;
    void (*change)(RvMsg& message);
    const char* result;
};

constexpr const char* kBefore = R"({ word="name" m={ in="x"} path="m.new"})";

const MessageCase kMessageCases[] = {
    {"append: the name", [](RvMsg& m) { m.append(at(m, "word"), 7); },
     R"({ word="name" m={ in="x"} path="m.new" name=7})"},
    {"append: the value", [](RvMsg& m) { m.append("copy", at(m, "path")); },
     R"({ word="name" m={ in="x"} path="m.new" copy="m.new"})"},
    {"append: name and value", [](RvMsg& m) { m.append(at(m, "word"), at(m, "word")); },
     R"({ word="name" m={ in="x"} path="m.new" name="name"})"},
    {"append: a path behind what moves", [](RvMsg& m) { m.append(at(m, "path"), 7); },
     R"({ word="name" m={ in="x" new=7} path="m.new"})"},
    {"append: path and value behind what moves",
     [](RvMsg& m) { m.append(at(m, "path"), at(m, "path")); },
     R"({ word="name" m={ in="x" new="m.new"} path="m.new"})"},
    {"append: the message itself", [](RvMsg& m) { m.append("all", m); },
     R"({ word="name" m={ in="x"} path="m.new" all={ word="name" m={ in="x"} path="m.new"}})"},
    {"append: the message below itself", [](RvMsg& m) { m.append(at(m, "path"), m); },
     R"({ word="name" m={ in="x" new={ word="name" m={ in="x"} path="m.new"}} path="m.new"})"},
    {"append: a field of a walk",
     [](RvMsg& m) {
         const std::unique_ptr<RvMsgIterator> fields(m.newIterator());
         m.append(*fields->next());
     },
     R"({ word="name" m={ in="x"} path="m.new" word="name"})"},
    {"assign: a nested message of a walk",
     [](RvMsg& m) {
         const std::unique_ptr<RvMsgIterator> fields(m.newIterator());
         fields->next();
         m = *dynamic_cast<const RvMsg*>(fields->next());
         EXPECT_STREQ(m.name(), "m");
     },
     R"({ in="x"})"},
    {"assign: a wrapped nested message", [](RvMsg& m) { m = RvMsg(nested(m, "m")); },
     R"({ in="x"})"},
    {"assign: the message wrapped", [](RvMsg& m) { m = RvMsg(const_cast<void*>(m.data())); },
     kBefore},
    {"assign as a datum",
     [](RvMsg& m) {
         const RvDatum inner(RVMSG_MSG, 0, nested(m, "m"));
         static_cast<RvDatum&>(m) = inner;
     },
     R"({ in="x"})"},
    {"set", [](RvMsg& m) { m.set(at(m, "word"), RVMSG_MSG, 0, nested(m, "m")); }, R"({ in="x"})"},
    {"attach", [](RvMsg& m) { EXPECT_TRUE(m.attach(nested(m, "m")) == 0); }, R"({ in="x"})"},
    {"attach: the message",
     [](RvMsg& m) { EXPECT_TRUE(m.attach(const_cast<void*>(m.data())) == 0); }, kBefore},
    {"get into itself", [](RvMsg& m) { EXPECT_TRUE(m.get("m", m) == 0); }, R"({ in="x"})"},
    {"get: the name",
     [](RvMsg& m) {
         RvDatum found("word", RVMSG_NONE, 0, nullptr);
         EXPECT_TRUE(m.get(found.name(), found) == 0);
         EXPECT_STREQ(found.name(), "word");
         const RvDatum owned(found);
         found = owned;
         EXPECT_TRUE(m.get(static_cast<const char*>(found.data()), found).isMessage(11));
     },
     kBefore},
};

struct DatumCase {
    const char* what;
    void (*change)(RvDatum& datum);
    const char* name;
    const char* text;
};

const char* text(const RvDatum& datum) {
    return static_cast<const char*>(datum.data());
}

// The datum owns its name "name" and its data "text".
const DatumCase kDatumCases[] = {
    {"set: its name", [](RvDatum& d) { d.set(d.name() + 1, RVMSG_STRING, 0, "new"); }, "ame",
     "new"},
    {"set: its data", [](RvDatum& d) { d.set("a longer name", RVMSG_STRING, 0, text(d)); },
     "a longer name", "text"},
    {"set: inside its data", [](RvDatum& d) { d.set(text(d), RVMSG_STRING, 4, text(d) + 1); },
     "text", "ext"},
    {"set: its name as data", [](RvDatum& d) { d.set("xy", RVMSG_STRING, 0, d.name() + 1); }, "xy",
     "ame"},
    {"set: name and data exchanged", [](RvDatum& d) { d.set(text(d), RVMSG_STRING, 5, d.name()); },
     "text", "name"},
    {"assign: its data", [](RvDatum& d) { d = RvDatum("n", RVMSG_STRING, 0, text(d) + 1); }, "n",
     "ext"},
    {"assign: its name as data", [](RvDatum& d) { d = RvDatum("xy", RVMSG_STRING, 5, d.name()); },
     "xy", "name"},
};

}  // namespace

TEST(Alias, MessagesTakeArgumentsThatLieInThem) {
    for (const MessageCase& step : kMessageCases) {
        for (const unsigned long room : {0UL, 4096UL}) {
            RvMsg inner;
            inner.append("in", "x");
            RvMsg source;
            source.append("word", "name");
            source.append("m", inner);
            source.append("path", "m.new");
            RvMsg message(source);  // as large as what it holds, so that it must grow
            message.reserve(room);
            step.change(message);
            EXPECT_EQ(printed(message.data()), step.result) << step.what << ", room " << room;
            EXPECT_EQ(rvmsg_Validate(message.data(), message.size()), 0) << step.what;
            EXPECT_TRUE(message.append("more", 1) == 0) << step.what;
        }
    }
}

TEST(Alias, DatumsTakeArgumentsThatLieInThem) {
    for (const DatumCase& step : kDatumCases) {
        RvDatum datum;
        datum = RvDatum("name", RVMSG_STRING, 5, "text");
        step.change(datum);
        EXPECT_STREQ(datum.name(), step.name) << step.what;
        EXPECT_STREQ(text(datum), step.text) << step.what;
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
