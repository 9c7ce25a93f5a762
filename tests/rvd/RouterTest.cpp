#include "rvd/Router.h"

#include <malloc.h>

#include "tests/support/FailingNew.h"

namespace kvx::rvd {
namespace {

// Somebody whom messages reach, known by one letter.
struct Named final : Receiver {
    explicit Named(const char* letter) : name(letter) {}
    void deliver(const PayloadRef& /*message*/) override {}
    void dismiss() override { isDismissed = true; }
    std::string name;
    bool isDismissed = false;
};

class Routing : public testing::Test {
  protected:
    // A new session of the default space that listens to these subjects.
    Router::Session& join(const char* name, std::initializer_list<const char*> subjects = {}) {
        auto& session = joinSpace(name, "", "");
        for (const char* subject : subjects) listen(session, subject);
        return session;
    }
    Router::Session& joinSpace(const char* name, const char* service, const char* network) {
        names.push_back(std::make_unique<Named>(name));
        return router.join(service, network, *names.back());
    }
    void listen(Router::Session& session, const char* subject) {
        EXPECT_TRUE(router.listen(session, *Subject::fromText(subject)));
    }
    void cancel(Router::Session& session, const char* subject) {
        router.cancel(session, *Subject::fromText(subject));
    }
    // The names of those that a message reaches, one letter each. `steps` at a time, and what
    // `between` does.
    std::string reached(
        Router::Session& from, const char* subject, std::size_t steps = 1'000'000,
        const std::function<void()>& between = [] {}) {
        const auto encoded = *Subject::fromText(subject);
        const auto known = router.lastMatch(from, encoded);
        const std::string expected = known ? namesOf(*known) : "";
        Router::Match match(router, from, encoded);
        std::string text;
        while (!match.isDone()) {
            text += namesOf(match.advance(encoded, steps));
            between();
        }
        std::ranges::sort(text);
        EXPECT_TRUE(!known || expected == text) << "the last match of " << subject;
        return text;
    }
    static std::string namesOf(std::span<Receiver* const> receivers) {
        std::string text;
        for (const auto* receiver : receivers) text += dynamic_cast<const Named&>(*receiver).name;
        std::ranges::sort(text);
        return text;
    }

    Counters counters;
    Router router{counters};
    std::vector<std::unique_ptr<Named>> names;
};

TEST_F(Routing, ReachesEachListenerOnceItselfIncluded) {
    auto& a = join("a", {"X.Y", "X.*", ">"});
    auto& b = join("b", {"X.Y"});
    EXPECT_EQ(reached(a, "X.Y"), "ab");
    EXPECT_EQ(reached(b, "X.Z"), "a");
    EXPECT_EQ(reached(b, "Z"), "a");
    EXPECT_EQ(reached(b, "*.Y"), "ab") << "a pattern reaches what it covers";
    const auto isKnown = [&](Router::Session& from) {
        return router.lastMatch(from, *Subject::fromText("*.Y")).has_value();
    };
    EXPECT_TRUE(isKnown(a));
    EXPECT_FALSE(isKnown(joinSpace("c", "1", "")));
    listen(b, "X.Y");
    EXPECT_TRUE(isKnown(a)) << "it was listened to";
    cancel(b, "X.Y");
    cancel(b, "X.Y");
    EXPECT_FALSE(isKnown(a));
    EXPECT_EQ(reached(b, "*.Y"), "a");
    listen(b, "X.Y");
    EXPECT_EQ(reached(b, "*.Y"), "ab");
    EXPECT_TRUE(isKnown(b));
    router.leave(b);
    EXPECT_FALSE(isKnown(a));
}

TEST_F(Routing, StaysInsideASpace) {
    auto& a = joinSpace("a", "7500", "lan");
    auto& b = joinSpace("b", "", "lan");
    auto& c = joinSpace("c", "7500", "");
    auto& d = joinSpace("d", "7501", "lan");
    for (auto* session : {&a, &b, &c, &d}) listen(*session, "X");
    EXPECT_EQ(reached(a, "X"), "ab");  // an empty service is 7500
    EXPECT_EQ(reached(c, "X"), "c");   // an empty network is a space of its own
    EXPECT_EQ(reached(d, "X"), "d");
    EXPECT_TRUE(b.isIn("7500", "lan"));
    EXPECT_FALSE(b.isIn("7500", ""));
}

TEST_F(Routing, CountsListensAndForgetsASessionThatLeavesAndItsEmptySpace) {
    auto& a = join("a", {"X", "X"});
    auto& b = join("b", {"X"});
    cancel(a, "Y");
    cancel(a, "X");
    EXPECT_EQ(reached(a, "X"), "ab");
    cancel(a, "X");
    cancel(a, "X");
    EXPECT_EQ(reached(a, "X"), "b");
    EXPECT_EQ(counters[Counter::ListensOpen], 1U);
    router.leave(b);
    EXPECT_EQ(reached(a, "X"), "");
    EXPECT_EQ(counters[Counter::ListensOpen], 0U);
    router.leave(a);
    EXPECT_EQ(router.spaces(), 0U);
    EXPECT_EQ(counters[Counter::SessionsOpen], 0U);
}

TEST_F(Routing, ClearsUpAfterASessionOfManyListensInSteps) {
    auto& a = join("a", {});
    auto& b = join("b", {});
    for (int i = 0; i < 1000; ++i) listen(a, ("X." + std::to_string(i)).c_str());
    router.leave(a);
    EXPECT_EQ(reached(b, "X.7"), "");
    EXPECT_EQ(counters[Counter::ListensOpen], 0U);
    router.leave(b);
    EXPECT_EQ(router.spaces(), 1U);
    const std::size_t orphaned = router.orphanedBytes();
    EXPECT_GT(orphaned, 0U);
    int steps = 1;
    for (; router.clearUp(100); ++steps) EXPECT_EQ(router.orphanedBytes(), orphaned);
    EXPECT_EQ(steps, 11);
    EXPECT_EQ(router.spaces() + router.orphanedBytes(), 0U);
}

TEST_F(Routing, WhoListensUndoesWhatSessionsThatCameAndWentHaveLeft) {
    std::uint64_t leftByOne = 0;
    for (int i = 0; i < 20; ++i) {
        auto& session = join("a");
        for (int k = 0; k < 1'000; ++k) listen(session, ("A." + std::to_string(k)).c_str());
        EXPECT_EQ(router.orphanedBytes(), 0U) << "of the one before";
        router.leave(session);
        leftByOne = std::max(leftByOne, router.orphanedBytes());
    }
    EXPECT_EQ(leftByOne, router.orphanedBytes());
    EXPECT_GT(leftByOne, 0U);
}

// Other messages are matched, and sessions come and go, between any two steps of a match.
TEST_F(Routing, ReachesEachListenerOnceInTurnsOfOneStep) {
    auto& a = join("a", {"X.Y", "X.*", ">", "*.Y", "*.*"});
    auto* b = &join("b", {"X.Y", "X.>"});
    join("c", {"X.*", "*.Y"});
    EXPECT_EQ(reached(a, "X.Y", 1, [&] { EXPECT_EQ(reached(a, "X.Z"), "abc"); }), "abc");
    EXPECT_EQ(reached(a, "X.*", 1, [&] { EXPECT_EQ(reached(a, "X.*", 2), "abc"); }), "abc");
    bool isReplaced = false;
    const auto replaceB = [&] {
        if (std::exchange(isReplaced, true)) return;
        router.leave(*b);
        b = &join("d", {"X.Y", "X.>"});
        for (int i = 0; i < 64; ++i) listen(*b, ("Z.*." + std::to_string(i)).c_str());
        listen(*b, "*.Y");  // in a tree that the match has not reached
    };
    EXPECT_EQ(reached(a, "X.Y", 1, replaceB), "ac") << "b leaves before, d joins after it began";
}

// Beyond some of them, they are in a tree of their own.
TEST_F(Routing, FindsASessionOfManyPatternsOnceAndForgetsWhatItCancels) {
    auto& a = join("a", {"X.1", "Z.1"});
    auto& b = join("b", {});
    const auto pattern = [](int i) { return "*." + std::to_string(i); };
    for (int i = 0; i < 300; ++i) listen(a, pattern(i).c_str());
    listen(a, "*.299");
    for (const char* subject : {"X.1", "Y.1", "Y.299", "*.299"}) {
        EXPECT_EQ(reached(b, subject), "a") << subject;
        EXPECT_EQ(reached(b, subject, 1), "a") << subject;
    }
    EXPECT_EQ(reached(b, "Y.300"), "");
    for (int i = 0; i < 300; ++i) cancel(a, pattern(i).c_str());
    EXPECT_EQ(reached(b, "Y.1"), "");
    EXPECT_EQ(reached(b, "Y.299"), "a") << "listened to twice";
    EXPECT_EQ(reached(b, ">"), "a") << "it covers a literal subject";
    cancel(a, "*.299");
    EXPECT_EQ(counters[Counter::ListensOpen], 2U);
    for (int i = 0; i < 300; ++i) listen(a, pattern(i).c_str());
    bool hasLeft = false;
    const auto leaveOnce = [&] {
        if (!std::exchange(hasLeft, true)) router.leave(a);
        (void)router.clearUp(50);
    };
    EXPECT_EQ(reached(b, "*.*", 66, leaveOnce), "a") << "it leaves while its tree is searched";
    router.leave(b);
    while (router.clearUp(100)) {
    }
    EXPECT_EQ(router.spaces(), 0U);
}

// The n-th has a "*" at each bit of n; all fit but for the last element.
TEST_F(Routing, DismissesASessionWhosePatternsCostAMessageTooMuch) {
    auto& a = join("a", {});
    auto& b = join("b", {"a.>"});
    for (unsigned i = 0; i < 4096; ++i) {
        std::string pattern;
        for (unsigned bit = 1; bit < 4096; bit *= 2) pattern += (i & bit) != 0 ? "*." : "a.";
        listen(a, (pattern + "z").c_str());
    }
    EXPECT_EQ(reached(b, "a.a.a.a.a.a.a.a.a.a.a.a.z"), "ab") << "one hit is enough";
    EXPECT_EQ(reached(b, "*.*.*.*.*.*.*.*.*.*.*.*.y"), "") << "covers none";
    EXPECT_FALSE(names[0]->isDismissed);
    EXPECT_EQ(reached(b, "a.a.a.a.a.a.a.a.a.a.a.a.y", 100), "b");
    EXPECT_TRUE(names[0]->isDismissed);
    router.leave(a);
    while (router.clearUp(100)) {
    }
    EXPECT_EQ(reached(b, "a.a.a.a.a.a.a.a.a.a.a.a.y"), "b");
}

TEST_F(Routing, IsUnchangedByAJoinOrAListenWithoutMemory) {
    const auto isDone = [](long news, const auto& step) {
        test::newsBeforeFailure = news;
        try {
            step();
        } catch (const std::bad_alloc&) {
            return false;
        }
        test::newsBeforeFailure = -1;
        return true;
    };
    Named a("a");
    Router::Session* session = nullptr;
    const auto join = [&] { session = &router.join("", "a network with a long name", a); };
    for (long news = 0; !isDone(news, join); ++news) EXPECT_EQ(router.spaces(), 0U);
    const auto subject = *Subject::fromText("A.SUBJECT.OF.MORE.THAN.A.FEW.CHARACTERS");
    const auto listen = [&] { EXPECT_TRUE(router.listen(*session, subject)); };
    for (long news = 0; !isDone(news, listen); ++news) router.cancel(*session, subject);
    EXPECT_EQ(reached(*session, "A.SUBJECT.OF.MORE.THAN.A.FEW.CHARACTERS"), "a");
    EXPECT_EQ(counters[Counter::ListensOpen], 1U);
}

std::size_t heapBytes() {
    return mallinfo2().uordblks + mallinfo2().hblkhd;
}

// The most that a listen may take.
std::size_t allowedFor(const Subject& subject) {
    return 4 * std::size_t{26U + subject.view().length()} + 256;
}

constexpr std::size_t kFirstBlocks = 80'000;  // of a space

// Subjects of which little is shared, of many short elements, and such as need two nodes each.
TEST_F(Routing, AListenCostsLittleAndIsGivenBackWithItsSession) {
    std::string elements;
    for (int i = 0; i < 40; ++i) elements += "a.";
    const auto bits = [](unsigned i) {
        std::string text;
        for (unsigned bit = 1; bit < 4096; bit *= 2) text += (i & bit) != 0 ? "a." : "*.";
        return text;
    };
    using Text = std::function<std::string(unsigned)>;
    for (const Text& text :
         {Text([](unsigned i) { return std::to_string(i); }),
          Text([&](unsigned i) { return elements + std::to_string(i); }),
          Text([&](unsigned i) { return std::to_string(i) + "." + elements + "*"; }),
          Text([&](unsigned i) { return bits(i) + std::to_string(i) + ".*"; }),
          Text([&](unsigned i) { return std::to_string(i / 2) + "." + bits(i % 2) + ">"; })}) {
        join("a");
        auto& session = join("b");
        const std::size_t before = heapBytes();
        std::size_t allowed = 0;
        for (unsigned i = 0; i < 4096; ++i) {
            const auto subject = *Subject::fromText(text(i).c_str());
            EXPECT_TRUE(router.listen(session, subject));
            allowed += allowedFor(subject);
            ASSERT_LE(heapBytes(), before + allowed + kFirstBlocks) << i << ' ' << text(i);
        }
        router.leave(session);
        while (router.clearUp(100)) {
        }
        EXPECT_LE(heapBytes(), before + kFirstBlocks) << text(1);
    }
}

// Patterns that end within one another, of which only the longest stays.
TEST_F(Routing, ACancelGivesBackWhatOnlyItsListenNeeded) {
    auto& session = join("a");
    const std::size_t before = heapBytes();
    std::size_t allowed = kFirstBlocks;
    for (int i = 0; i < 2048; ++i) {
        std::string text = std::to_string(i);
        for (int elements = 0; elements < 20; ++elements) {
            listen(session, (text + ".*").c_str());
            text += ".a";
        }
        listen(session, (text + ".*").c_str());
        allowed += allowedFor(*Subject::fromText((text + ".*").c_str()));
        for (; text.find('.') != std::string::npos; text.resize(text.size() - 2)) {
            cancel(session, (text.substr(0, text.size() - 2) + ".*").c_str());
        }
    }
    EXPECT_LE(heapBytes(), before + allowed);
    EXPECT_EQ(counters[Counter::ListensOpen], 2048U);
}

TEST_F(Routing, TakesInboxMessagesOnlyToInboxListensAndNoPlainWildcardToAdvisoryListens) {
    join("a", {"_INBOX.A.>"});
    auto& b = join("b", {">", "*.A.1"});
    join("c", {"_INBOX.*.1"});
    join("d", {"_RV.>"});
    EXPECT_EQ(reached(b, "_INBOX.A.1"), "ac");
    EXPECT_EQ(reached(b, "_INBOX.A.2"), "a");
    EXPECT_EQ(reached(b, "_RV.INFO.APP.X"), "bd");
    EXPECT_EQ(reached(b, ">"), "b");
}

}  // namespace
}  // namespace kvx::rvd
