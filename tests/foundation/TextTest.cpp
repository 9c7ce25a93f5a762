// CVekString: building a text and handing it over.

#include "foundation/CVekString.h"

#include "foundation/CVekAtom.h"
#include "tests/foundation/Owned.h"

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
