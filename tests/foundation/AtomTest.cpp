// Atoms and texts: what they own, what they give out, and what their kinds do to one another.

#include "foundation/CVekAtom.h"
#include "foundation/CVekString.h"
#include "tests/foundation/Owned.h"
#include "tests/support/Atoms.h"

namespace kvx::test {
namespace {

TEST(Atom, CopiesTextsAndTakesAllocatedOnesHoweverItIsMade) {
    char buffer[] = "on the stack";
    const CVekAtom array(buffer);
    const CVekAtom copied(static_cast<const char*>(buffer));
    buffer[0] = 'X';
    EXPECT_STREQ(array.RAString(), "on the stack");
    EXPECT_STREQ(copied.RAString(), "on the stack");
    char* const given = strdup("given");
    const CVekAtom taken = given;
    EXPECT_EQ(taken.RAString(), given);
    EXPECT_STREQ(std::make_unique<CVekAtom>(strdup("forwarded"))->RAString(), "forwarded");
    EXPECT_STREQ(CVekAtom(static_cast<const char*>(nullptr)).RAString(), "");
    EXPECT_STREQ(CVekAtom(static_cast<char*>(nullptr)).RAString(), "");
    EXPECT_STREQ(CVekAtom(nullptr).RAString(), "");
    EXPECT_STREQ(CVekAtom(std::string_view("up to\0here", 10)).RAString(), "up to");
}

TEST(Atom, CopiesBytesTakesAllocatedOnesAndTellsEmptyFromNone) {
    const std::string raw("\x00\x7f\xff", 3);
    const std::unique_ptr<CVekAtom> copied(bytesAtom(raw));
    EXPECT_EQ(copied->RAType(), 5);
    EXPECT_EQ(bytesOf(*copied), raw);
    unsigned char array[] = {1, 2};
    EXPECT_EQ(bytesOf(CVekAtom(array, 2)), "\x01\x02");
    auto* const given = static_cast<unsigned char*>(std::calloc(3, 1));
    const CVekAtom taken(given, 3);
    unsigned char* bytes = nullptr;
    int length = 0;
    EXPECT_EQ(taken.RAUChar(&bytes, &length), 1);
    EXPECT_EQ(bytes, given);

    const CVekAtom empty(static_cast<const unsigned char*>(nullptr), 0);
    EXPECT_EQ(empty.RAUChar(&bytes, &length), 1);
    EXPECT_NE(bytes, nullptr);
    EXPECT_EQ(length, 0);
    const CVekAtom none(static_cast<unsigned char*>(nullptr), 7);
    const CVekAtom text("text");
    for (const CVekAtom* atom : {&none, &text}) {
        bytes = array;
        length = 7;
        EXPECT_EQ(atom->RAUChar(&bytes, &length), -220532);
        EXPECT_EQ(bytes, nullptr);
        EXPECT_EQ(length, 0);
    }
}

TEST(Atom, CopiesAreDeepAndSurviveTheirSource) {
    auto source = std::make_unique<CVekAtom>("deep");
    CVekAtom copy(*source);
    CVekAtom assigned(1);
    assigned = *source;
    source.reset();
    const CVekAtom& itself = assigned;
    assigned = itself;
    EXPECT_STREQ(copy.RAString(), "deep");
    EXPECT_STREQ(assigned.RAString(), "deep");
}

TEST(Atom, HasATextFormForEveryKind) {
    EXPECT_EQ(take(CVekAtom("as it is").RAStrRep()), "as it is");
    EXPECT_EQ(take(CVekAtom(-17).RAStrRep()), "-17");
    EXPECT_EQ(take(CVekAtom(std::numeric_limits<long long>::min()).RAStrRep()),
              "-9223372036854775808");
    const std::unique_ptr<CVekAtom> bytes(bytesAtom("\x0a\xff"));
    EXPECT_EQ(take(bytes->RAStrRep()), "0aff");
    EXPECT_EQ(bytes->RAString(), nullptr);
}

TEST(Atom, KeepsItsIntegerWidthWhenSet) {
    CVekAtom narrow(1);
    CVekAtom wide(1LL << 40);
    CVekAtom text("12");
    EXPECT_EQ(wide.RAInt64(), 1LL << 40);
    EXPECT_EQ(text.RAInt(), 0);
    for (CVekAtom* atom : {&narrow, &wide, &text}) {
        atom->RASet(-5);
        EXPECT_EQ(atom->RAInt(), -5);
        EXPECT_EQ(atom->RAInt64(), -5);
        EXPECT_EQ(atom->RAType(), atom == &wide ? VEK_TYPE_INT64 : VEK_TYPE_INT);
    }
}

}  // namespace
}  // namespace kvx::test

// CVekString: building a text and handing it over.

using kvx::test::take;

TEST(Text, AppendsTextsCharactersAndNumbers) {
    CVekString text("host");
    text.RSStrCat('.');
    text.RSStrCat(-3);
    text.RSStrCat(4L);
    text.RSStrCat(1LL << 40);
    text.RSStrCat(7UL);
    EXPECT_EQ(text.RSStrCat("!"), 1);
    EXPECT_EQ(text.RSStrCat(static_cast<const char*>(nullptr)), -220552);
    EXPECT_EQ(text.RSStrCat('\0'), -220552);  // would hide what follows
    EXPECT_STREQ(text.RSString(), "host.-3410995116277767!");
    const CVekAtom number(42);
    EXPECT_STREQ(CVekString(&number).RSString(), "42");
    EXPECT_STREQ(CVekString(static_cast<const CVekAtom*>(nullptr)).RSString(), "");
}

TEST(Text, AppendsItselfAcrossItsOwnGrowth) {
    CVekString text("ab");
    for (int i = 0; i < 10; ++i) text.RSStrCat(text.RSString());
    EXPECT_EQ(text.RSLength(), 2048U);
    EXPECT_EQ(std::string(text.RSString()).substr(2044), "abab");
}

TEST(Text, HandsItsBufferOverAndStartsAnew) {
    CVekString text("first");
    const char* buffer = text.RSString();
    char* taken = text.RSTakeString();
    EXPECT_EQ(taken, buffer);
    EXPECT_EQ(take(taken), "first");
    EXPECT_STREQ(text.RSString(), "");
    EXPECT_EQ(take(text.RSTakeString()), "");
    text.RSStrCat("second");
    EXPECT_EQ(take(text.RSStringCopy()), "second");
    EXPECT_STREQ(text.RSString(), "second");
}

TEST(Text, CopiesAreIndependent) {
    CVekString original("one");
    CVekString copy(original);
    original.RSStrCat("+");
    CVekString assigned;
    assigned = original;
    original = CVekString("two");
    EXPECT_STREQ(copy.RSString(), "one");
    EXPECT_STREQ(assigned.RSString(), "one+");
    EXPECT_STREQ(original.RSString(), "two");
}
