// Atoms: what they own, what they give out, and what their kinds do to one another.

#include <cstring>
#include <limits>

#include "tests/foundation/Owned.h"
#include "tests/support/Atoms.h"

namespace kvx::test {
namespace {

unsigned char* allocated(const std::string& bytes) {
    auto* copy = static_cast<unsigned char*>(std::malloc(bytes.size()));
    std::memcpy(copy, bytes.data(), bytes.size());
    return copy;
}

TEST(Atom, CopiesConstantTextsAndTakesAllocatedOnes) {
    char buffer[] = "volatile";
    const CVekAtom copied(static_cast<const char*>(buffer));
    buffer[0] = 'X';
    EXPECT_STREQ(copied.RAString(), "volatile");

    char* given = strdup("given");
    const CVekAtom taken(given);
    EXPECT_EQ(taken.RAString(), given);
    EXPECT_STREQ(CVekAtom(static_cast<const char*>(nullptr)).RAString(), "");
    EXPECT_STREQ(CVekAtom(static_cast<char*>(nullptr)).RAString(), "");
    EXPECT_STREQ(CVekAtom(std::string_view("up to\0here", 10)).RAString(), "up to");
}

TEST(Atom, CopiesConstantBytesAndTakesAllocatedOnes) {
    const std::string raw("\x00\x7f\xff", 3);
    const std::unique_ptr<CVekAtom> copied(bytesAtom(raw));
    EXPECT_EQ(copied->RAType(), 5);
    EXPECT_EQ(bytesOf(*copied), raw);

    unsigned char* given = allocated(raw);
    const CVekAtom taken(given, 3);
    unsigned char* bytes = nullptr;
    int length = 0;
    EXPECT_EQ(taken.RAUChar(&bytes, &length), 1);
    EXPECT_EQ(bytes, given);
}

TEST(Atom, CopiesArraysAndTakesPointersHoweverItIsMade) {
    char text[] = "on the stack";
    unsigned char bytes[] = {1, 2};
    EXPECT_STREQ(CVekAtom(text).RAString(), "on the stack");
    EXPECT_EQ(bytesOf(CVekAtom(bytes, 2)), "\x01\x02");
    char* const given = strdup("given");
    const CVekAtom implicit = given;
    EXPECT_EQ(implicit.RAString(), given);
    EXPECT_STREQ(std::make_unique<CVekAtom>(strdup("forwarded"))->RAString(), "forwarded");
    EXPECT_STREQ(CVekAtom(nullptr).RAString(), "");
}

TEST(Atom, TellsAnEmptyByteStringFromNone) {
    unsigned char* bytes = nullptr;
    int length = -1;
    const CVekAtom empty(static_cast<const unsigned char*>(nullptr), 0);
    EXPECT_EQ(empty.RAUChar(&bytes, &length), 1);
    EXPECT_NE(bytes, nullptr);
    EXPECT_EQ(length, 0);

    const CVekAtom none(static_cast<unsigned char*>(nullptr), 7);
    EXPECT_EQ(none.RAUChar(&bytes, &length), -220532);
    EXPECT_EQ(bytes, nullptr);
    EXPECT_EQ(length, 0);

    EXPECT_EQ(CVekAtom("text").RAUChar(&bytes, &length), -220532);
    EXPECT_EQ(bytes, nullptr);
}

TEST(Atom, CopiesAreDeepAndSurviveTheirSource) {
    auto source = std::make_unique<CVekAtom>("deep");
    CVekAtom copy(*source);
    CVekAtom assigned(1);
    assigned = *source;
    EXPECT_NE(copy.RAString(), source->RAString());
    source.reset();
    EXPECT_STREQ(copy.RAString(), "deep");
    EXPECT_STREQ(assigned.RAString(), "deep");
    const CVekAtom& itself = assigned;
    assigned = itself;
    EXPECT_STREQ(assigned.RAString(), "deep");
}

TEST(Atom, HasATextFormForEveryKind) {
    EXPECT_EQ(take(CVekAtom("as it is").RAStrRep()), "as it is");
    EXPECT_EQ(take(CVekAtom(-17).RAStrRep()), "-17");
    EXPECT_EQ(take(CVekAtom(std::numeric_limits<long long>::min()).RAStrRep()),
              "-9223372036854775808");
    const CVekAtom bytes(reinterpret_cast<const unsigned char*>("\x0a\xff"), 2);
    EXPECT_EQ(take(bytes.RAStrRep()), "0aff");
    EXPECT_EQ(bytes.RAString(), nullptr);
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
    }
    EXPECT_EQ(narrow.RAType(), VEK_TYPE_INT);
    EXPECT_EQ(wide.RAType(), VEK_TYPE_INT64);
    EXPECT_EQ(text.RAType(), VEK_TYPE_INT);
}

}  // namespace
}  // namespace kvx::test
