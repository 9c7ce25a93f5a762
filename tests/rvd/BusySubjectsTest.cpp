#include "rvd/BusySubjects.h"

#include <malloc.h>

#include <cmath>

#include "tests/support/LinkEnd.h"
#include "tests/support/Sanitizer.h"

namespace kvx::rvd {
namespace {

class Nobody : public Receiver {
    void deliver(const PayloadRef&) override {}
};

class BusySubjectsTest : public testing::Test {
  protected:
    void publish(const std::string& subject, std::uint64_t sender = 1) {
        ++published;
        if (!busy.isNext()) return;
        const auto encoded = test::encodedSubject(subject);
        const auto message = wire::buildData(encoded, nullptr, 0, {RVMSG_STRING, 0, "text"});
        const auto view = SubjectView::parse(encoded.data(), encoded.size());
        (void)busy.count(session, sender, *view, message.message.view(), 0);
    }
    const BusySubjects::Entry* find(const std::string& subject) {
        for (const auto place : busy.byRate()) {
            if (SubjectView::trusted(busy[place].subject.data()).text() == subject) {
                return &busy[place];
            }
        }
        return nullptr;
    }

    Counters counters;
    Router router{counters};
    Nobody nobody;
    Router::Session& session = router.join("", "", nobody);
    BusySubjects busy;
    std::uint64_t published = 0;
};

TEST_F(BusySubjectsTest, KnowsWhoSendsMuchAmongAMillionSubjectsInOneMiB) {
    const std::string tail(230, 'x');
    const std::string longTail = '.' + tail + '.' + tail;
    const std::size_t before = mallinfo2().uordblks;
    for (int i = 0; i < 1'000'000; ++i) {
        publish("S." + std::to_string(i) + longTail);
        if (i % 50 == 0) publish("HEAVY");
        if (i % 400 == 0) publish("LIGHT", static_cast<std::uint64_t>(i));
        if (i % 100'000 == 0) busy.tick(1'000);
    }
    const std::size_t after = mallinfo2().uordblks;
    if (!test::kIsWatched) {
        EXPECT_LE(after - before, 1U << 20U);
    }
    const auto* const heavy = find("HEAVY");
    ASSERT_NE(heavy, nullptr);
    const double noise = 4 * std::sqrt(20'000.0 * busy.every());
    EXPECT_LE(heavy->messages, 20'000 + noise);
    EXPECT_GE(heavy->messages + heavy->missed, 20'000 - noise);
    const auto* const light = find("LIGHT");
    ASSERT_NE(light, nullptr) << "one message in 400 is more than one in kSubjects";
    EXPECT_TRUE(light->hasMoreSenders);
    EXPECT_GT(busy.every(), 1U);
}

TEST_F(BusySubjectsTest, CountsAllWhileItIsQuietAndForgetsWhatWasBusyOnce) {
    for (int i = 0; i < 3'000; ++i) publish("ONCE");
    busy.tick(1'000);
    EXPECT_EQ(find("ONCE")->messages, 3'000);
    EXPECT_EQ(find("ONCE")->missed, 0);
    for (int minute = 0; minute < 12; ++minute) {
        for (int i = 0; i < 700; ++i) publish("NOW." + std::to_string(i));
        busy.tick(60'000);
    }
    EXPECT_EQ(find("ONCE"), nullptr);
    EXPECT_EQ(busy.byRate().size(), BusySubjects::kSubjects);
}

}  // namespace
}  // namespace kvx::rvd
