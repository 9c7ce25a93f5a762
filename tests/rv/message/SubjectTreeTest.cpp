// The matcher as client and daemon use it.

#include "rv/message/SubjectTree.h"

#include "tests/support/FailingNew.h"

namespace {

struct Listener {
    std::string pattern;
};

kvx::Subject subject(const std::string& text) {
    auto encoded = kvx::Subject::fromText(text.c_str());
    EXPECT_TRUE(encoded.has_value()) << text;
    return *encoded;
}

class SubjectTreeTest : public testing::Test {
  protected:
    Listener& listen(const std::string& pattern) {
        Listener& listener = listeners_.emplace_back(Listener{pattern});
        tree_.add(subject(pattern), &listener);
        return listener;
    }
    void listenTo(std::initializer_list<const char*> patterns) {
        for (const char* pattern : patterns) listen(pattern);
    }
    bool cancel(const Listener& listener) {
        return tree_.remove(subject(listener.pattern), &listener);
    }

    // The patterns reached, in order, separated by blanks.
    std::string reached(const std::string& text) { return reached(text, kvx::SubjectMatch::kAny); }
    std::string reachedByPattern(const std::string& text) {
        return reached(text, kvx::SubjectMatch::kCovered);
    }
    std::string reached(const std::string& text, kvx::SubjectMatch how) {
        return collected([&](auto visit) { tree_.match(subject(text), how, visit); });
    }
    template <class Ask>
    static std::string collected(Ask ask) {
        std::string patterns;
        ask([&patterns](Listener& listener) {
            patterns += patterns.empty() ? listener.pattern : " " + listener.pattern;
        });
        return patterns;
    }

    kvx::SubjectTree<Listener> tree_;
    std::list<Listener> listeners_;
};

// What the rules say, one element after the other: whether `wide` matches `narrow`, or, when that
// is a pattern, every subject that `narrow` matches.
bool matches(const std::string& wide, const std::string& narrow, bool isPattern) {
    const auto wide_end = wide.find('.');
    const auto narrow_end = narrow.find('.');
    const std::string element = wide.substr(0, wide_end);
    const std::string other = narrow.substr(0, narrow_end);
    const bool isLast = wide_end == std::string::npos || narrow_end == std::string::npos;
    if (element == ">" && wide_end == std::string::npos) return true;
    if (isPattern && other == ">" && narrow_end == std::string::npos) return false;
    if (element != "*" && element != other) return false;
    if (isLast) return wide_end == narrow_end;
    return matches(wide.substr(wide_end + 1), narrow.substr(narrow_end + 1), isPattern);
}

}  // namespace

TEST_F(SubjectTreeTest, PlainWildcardsHearReservedSubjectsButNotAtALiteralRoot) {
    listenTo({">", "*.X", "_INBOX.S.>", "_INBOX.S.1", "_INBOX.*.1"});
    EXPECT_EQ(reached("_RV.X"), "> *.X");
    EXPECT_EQ(reached("_INBOX.S.1", kvx::SubjectMatch::kLiteralRoot),
              "_INBOX.S.> _INBOX.S.1 _INBOX.*.1");
    EXPECT_EQ(reached("_INBOX.S.1", kvx::SubjectMatch::kExact), "_INBOX.S.1");
}

TEST_F(SubjectTreeTest, APatternReachesReservedRootsOnlyByTheirName) {
    listenTo({"_RV.>", "_INBOX.S.1", "A.B", ">", "_RV.WARN.X"});
    EXPECT_EQ(reachedByPattern(">"), "A.B >");
    EXPECT_EQ(reachedByPattern("*.*"), "A.B");
    EXPECT_EQ(reachedByPattern("_RV.*.*"), "_RV.WARN.X");
    EXPECT_EQ(reachedByPattern("_INBOX.>"), "_INBOX.S.1");
    EXPECT_EQ(reachedByPattern("A.>"), "A.B");
}

TEST_F(SubjectTreeTest, CountsOnePointerAsOftenAsItWasAdded) {
    Listener& twice = listen("A");
    tree_.add(subject("A"), &twice);
    EXPECT_EQ(reached("A"), "A A");
    EXPECT_TRUE(cancel(twice));
    EXPECT_EQ(reached("A"), "A");
    EXPECT_TRUE(cancel(twice));
    EXPECT_FALSE(cancel(twice));
    EXPECT_FALSE(tree_.remove(subject("B"), &twice));
    EXPECT_EQ(tree_.size(), 0U);
}

TEST_F(SubjectTreeTest, AVisitMayAskAgainAndEndTheMatch) {
    listenTo({"A", "A", "*", "B"});
    Listener& leaving = listen("A");
    std::string inner;
    const auto visited = tree_.match(subject("A"), [&](Listener&) {
        if (inner.empty()) {
            EXPECT_TRUE(cancel(leaving));
            inner = reached("A") + " " + reached("B");
            return true;
        }
        return false;
    });
    EXPECT_EQ(visited, 2U);
    EXPECT_EQ(inner, "A A * * B");
}

TEST_F(SubjectTreeTest, TellsLongElementsApart) {
    const std::string stem(249, 'x');
    for (const char* last : {"a", "b", "c"}) listen(stem + last + ".y");
    EXPECT_EQ(reached(stem + "b.y"), stem + "b.y");
    EXPECT_EQ(reached(stem + "d.y"), "");
    EXPECT_TRUE(cancel(listeners_.front()));
    listen(stem + "d.y");
    EXPECT_EQ(reached(stem + "d.y"), stem + "d.y");
}

// Enough of them for every table to grow, each tried with its first allocation failing, its second
// and so on; leaving never needs memory.
TEST_F(SubjectTreeTest, WithoutMemoryAddingChangesNothingAndLeavingWorks) {
    const std::string longText(100, 'x');
    std::vector<kvx::Subject> encoded;
    unsigned failures = 0;
    for (int i = 0; i < 150; ++i) {
        const std::string number = std::to_string(i);
        for (const std::string& pattern :
             {"A.B." + number, number + ".*." + number, longText + "." + number, longText + ".>"}) {
            encoded.push_back(subject(pattern));
            Listener& listener = listeners_.emplace_back(Listener{pattern});
            const std::size_t before = tree_.size();
            for (long failing = 0; tree_.size() == before; ++failing) {
                try {
                    kvx::test::newsBeforeFailure = failing;
                    tree_.add(encoded.back(), &listener);
                } catch (const std::bad_alloc&) {
                    ++failures;
                }
                kvx::test::newsBeforeFailure = -1;
            }
        }
    }
    EXPECT_GT(failures, 0U);
    EXPECT_EQ(reached("7.x.7") + reached("A.B.7"), "7.*.7A.B.7");
    kvx::test::newsFailForGood = true;
    kvx::test::newsBeforeFailure = 0;
    std::size_t removed = 0;
    for (const Listener& listener : listeners_)
        removed += tree_.remove(encoded[removed], &listener) ? 1 : 0;
    kvx::test::newsBeforeFailure = -1;
    kvx::test::newsFailForGood = false;
    EXPECT_EQ(removed, listeners_.size());
    EXPECT_EQ(tree_.size(), 0U);
    EXPECT_EQ(reachedByPattern(">"), "");
}

class RandomListeners : public SubjectTreeTest {
  protected:
    std::string anyOf(const std::string& elements) {
        std::string text(1, elements[random_() % elements.size()]);
        for (auto more = random_() % 7; more > 0; --more)
            text += {'.', elements[random_() % elements.size()]};
        return text;
    }
    void come() { present_.push_back(&listen(anyOf("aab**>"))); }
    void leave(std::size_t which) {
        const Listener* leaving = present_[which];
        ASSERT_TRUE(cancel(*leaving));
        EXPECT_FALSE(cancel(*leaving));
        present_.erase(present_.begin() + static_cast<long>(which));
        std::erase(due_, leaving);
    }
    void comeAndGo() {
        while (random_() % 4 < 3 || present_.size() < 20) come();
        while (random_() % 4 < 3 && !present_.empty()) leave(random_() % present_.size());
    }
    // Makes those present due that a message on `text` reaches.
    void expect(const std::string& text, kvx::SubjectMatch how) {
        const bool isPattern = how == kvx::SubjectMatch::kCovered;
        for (Listener* listener : present_) {
            const std::string& pattern = listener->pattern;
            if (isPattern ? matches(text, pattern, true) : matches(pattern, text, false))
                due_.push_back(listener);
        }
    }

    std::mt19937 random_{7};  // NOLINT(cert-msc51-cpp,bugprone-random-generator-seed)
    std::vector<Listener*> present_;
    std::vector<const Listener*> due_;
};

// Random listeners come and go, also during a visit: what leaves before its turn is not visited any
// more, what comes is not visited yet. Every answer is held against the rules.
TEST_F(RandomListeners, AreReachedInOrderAsTheRulesSay) {
    for (int step = 0; step < 1500; ++step) {
        comeAndGo();
        const auto how = step % 2 == 0 ? kvx::SubjectMatch::kAny : kvx::SubjectMatch::kCovered;
        const std::string text = anyOf(step % 2 == 0 ? "abc>" : "ab**>");
        expect(text, how);
        const auto visited = tree_.match(subject(text), how, [&](const Listener& listener) {
            ASSERT_FALSE(due_.empty()) << text;
            EXPECT_EQ(&listener, due_.front()) << text;
            due_.erase(due_.begin());
            const auto self = std::ranges::find(present_, &listener) - present_.begin();
            if (random_() % 16 == 0) leave(static_cast<std::size_t>(self));
            if (random_() % 16 == 0) comeAndGo();
        });
        ASSERT_TRUE(due_.empty()) << text << ": " << visited << " visited";
    }
    while (!present_.empty()) leave(0);
    EXPECT_EQ(tree_.size(), 0U);
}

// Several searches at once, a few steps each in turn, while listeners come and go between them.
TEST_F(RandomListeners, AreReachedOnceByASearchInTurns) {
    struct Running {
        Running(kvx::SubjectTree<Listener>& tree, std::string subject, kvx::SubjectMatch how)
            : text(std::move(subject)), search(tree, how) {}
        std::string text;
        kvx::SubjectTree<Listener>::Search search;
        std::vector<const Listener*> due;
    };
    std::list<Running> running;
    for (int step = 0; step < 2000; ++step) {
        comeAndGo();
        if (running.size() < 5) {
            const auto how =
                random_() % 2 == 0 ? kvx::SubjectMatch::kAny : kvx::SubjectMatch::kCovered;
            const std::string text = anyOf(how == kvx::SubjectMatch::kAny ? "abc>" : "ab**>");
            expect(text, how);
            running.emplace_back(tree_, text, how).due = std::exchange(due_, {});
        }
        for (auto at = running.begin(); at != running.end();) {
            std::erase_if(at->due, [&](const Listener* listener) {
                return std::ranges::find(present_, listener) == present_.end();
            });
            std::size_t steps = random_() % 12;
            const bool isDone =
                at->search.advance(subject(at->text), steps, [&](const Listener& listener) {
                    ASSERT_EQ(std::erase(at->due, &listener), 1U) << at->text;
                });
            EXPECT_TRUE(isDone || steps == 0U);
            ASSERT_TRUE(!isDone || at->due.empty()) << at->text;
            at = isDone || random_() % 64 == 0 ? running.erase(at) : std::next(at);
        }
    }
    running.clear();
    while (!present_.empty()) leave(0);
    EXPECT_EQ(reachedByPattern(">"), "");
}
