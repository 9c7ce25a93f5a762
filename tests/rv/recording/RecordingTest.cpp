#include "rv/recording/RecordFormat.h"
#include "rv/recording/RecordingReader.h"
#include "tests/support/LinkEnd.h"
#include "tests/support/TemporaryDirectory.h"

namespace kvx::recording {
namespace {

class RecordingTest : public testing::Test {
  protected:
    explicit RecordingTest(std::size_t capacity = 8'192) : memory_(kFileHeadBytes + capacity) {}

    // Records the next message: four are of one origin, whose time is the number of the first. Of
    // every other one the subject is in front of the message.
    void record(std::size_t bytes = 100, std::size_t kept = ~std::size_t{0}) {
        if (number_ % 4 == 0) begin();
        const auto subject = *Subject::fromText(("A." + std::to_string(number_)).c_str());
        const std::string text(bytes, 'x');
        const auto message =
            wire::buildData(subject.view().bytes(), nullptr, 0, {RVMSG_STRING, 0, text.c_str()});
        const auto whole = message.message.view();
        const auto within = wire::readRouting(whole).subject;
        writer_.add(number_ % 2 == 0 ? subject.view() : SubjectView::trusted(within.data()),
                    whole.first(std::min(whole.size(), kept)),
                    static_cast<std::uint32_t>(whole.size()));
        ++number_;
    }
    void begin() { writer_.begin({number_ / 4 * 4, 7, "7500", "eth0"}); }
    // The numbers that are read, each with all that belongs to it.
    std::vector<std::uint64_t> read(std::size_t fileBytes = ~std::size_t{0}) {
        const std::string path = directory_.file("ring");
        std::ofstream(path, std::ios::binary)
            .write(reinterpret_cast<const char*>(memory_.data()),
                   static_cast<std::streamsize>(std::min(fileBytes, memory_.size())));
        RecordingReader reader(path);
        problem_ = reader.problem();
        std::vector<std::uint64_t> numbers;
        while (const auto entry = reader.next()) {
            numbers.push_back(std::stoull(std::string(entry->subject[1])));
            EXPECT_EQ(entry->time, numbers.back() / 4 * 4);
            EXPECT_NE(isWholeMessage(*entry), entry->message.size() < entry->messageSize);
            EXPECT_EQ(entry->session, 7U);
            EXPECT_EQ(entry->service, "7500");
            EXPECT_EQ(entry->network, "eth0");
        }
        damaged_ = reader.damaged();
        return numbers;
    }
    static std::vector<std::uint64_t> range(std::uint64_t from, std::uint64_t to) {
        std::vector<std::uint64_t> numbers(to - from);
        std::iota(numbers.begin(), numbers.end(), from);
        return numbers;
    }

    test::TemporaryDirectory directory_;
    std::vector<std::uint8_t> memory_;
    RecordingWriter writer_{memory_, 12'345, 1};
    std::uint64_t number_ = 0;
    std::string problem_;
    std::uint64_t damaged_ = 0;
};

TEST_F(RecordingTest, HasTheLastMessagesWithoutAGapAtEveryPlaceOfItsEnd) {
    EXPECT_EQ(read(), range(0, 0));
    std::mt19937 random(3);
    for (int i = 0; i < 600; ++i) {
        record(random() % 900);
        const auto numbers = read();
        ASSERT_FALSE(numbers.empty());
        ASSERT_EQ(numbers, range(numbers.front(), number_)) << i;
        ASSERT_EQ(damaged_, 0U);
        if (number_ > 20) {
            ASSERT_GE(numbers.size(), 6U);
        }
    }
}

TEST_F(RecordingTest, GoesOnBehindItsLastMessage) {
    for (int i = 0; i < 100; ++i) record();
    const auto before = read();
    RecordingReader reader(directory_.file("ring"));
    writer_ = RecordingWriter(memory_, reader.end());
    begin();
    for (int i = 0; i < 3; ++i) record();
    const auto after = read();
    EXPECT_EQ(after, range(after.front(), 103));
    EXPECT_LE(after.front(), before.front() + 4);
}

TEST_F(RecordingTest, LosesOnlyWhatIsTorn) {
    for (int i = 0; i < 10; ++i) record();
    const auto whole = memory_;
    std::set<std::vector<std::uint64_t>> seen;
    for (std::size_t at = kFileHeadBytes; at < kFileHeadBytes + 2'400; ++at) {
        memory_[at] ^= 0x40;
        const auto numbers = read();
        const bool isRun = numbers.size() < 9;
        const auto next = std::ranges::mismatch(numbers, range(0, numbers.size())).in1;
        const auto lost = static_cast<std::uint64_t>(next - numbers.begin());
        EXPECT_GE(numbers.size(), 6U) << "at " << at;
        EXPECT_EQ(isRun ? lost % 4 : 0, 0) << "at " << at << " from " << lost;
        seen.insert(numbers);
        memory_ = whole;
    }
    EXPECT_GE(seen.size(), 10U) << "every one was torn at some place";
    for (std::size_t bytes = 0; bytes < kFileHeadBytes + 2'400; bytes += 7) {
        const auto numbers = read(bytes);
        EXPECT_EQ(numbers, range(0, numbers.size())) << "cut after " << bytes;
        EXPECT_EQ(problem_.empty(), bytes >= kFileHeadBytes);
    }
}

TEST_F(RecordingTest, KeepsTheBeginningOfWhatIsTooLong) {
    record(1'000, 300);
    record(100'000);
    record(10);
    RecordingReader reader((read(), directory_.file("ring")));
    const auto last = reader.next();
    ASSERT_TRUE(last);
    EXPECT_EQ(last->subject.text(), "A.2") << "the one before has taken the whole ring";
    EXPECT_TRUE(isWholeMessage(*last));
    EXPECT_TRUE(isOn(*last, *Subject::fromText("A.*")));
    EXPECT_FALSE(isOn(*last, *Subject::fromText("B.>")));
}

// Runs everywhere, and in them heads that are sound, each of a message that reaches over all that
// follow.
TEST_F(RecordingTest, OfAnEnemyIsReadInOnePass) {
    constexpr std::uint64_t kCapacity = 48U << 20U;
    memory_.assign(kFileHeadBytes + kCapacity, 0);
    writer_ = RecordingWriter(memory_, 1, 1);
    record();
    for (std::uint64_t at = 4'096; at + 256 < kCapacity; at += 48 + kMessageHeadBytes) {
        std::uint8_t* const run = memory_.data() + kFileHeadBytes + at;
        const std::uint64_t position = at + (at % 5 == 0 ? kCapacity * 1'000 : 0);
        storeBig64(run + kAtPosition, position);
        Check check(1, position);
        check.take(run + kAtTime, 48 - kAtTime);
        storeBig64(run + kAtRunCheck, check.value());
        const std::uint64_t numbers = (kCapacity - at - 256) << 32U;
        storeBig64(run + 48 + kAtLength, numbers);
        storeBig32(run + 48 + kAtHeadCheck, headCheck(check.value(), position + 48, numbers));
    }
    const auto begin = std::chrono::steady_clock::now();
    EXPECT_EQ(read(), range(0, 1));
    EXPECT_EQ(damaged_, 0U) << "they are newer than the newest sound one";
    EXPECT_LT(std::chrono::steady_clock::now() - begin, std::chrono::seconds(20));
}

TEST_F(RecordingTest, SaysWhyAFileIsNone) {
    const auto problemOf = [this](std::size_t at, std::uint64_t number) {
        auto before = memory_;
        storeBig64(memory_.data() + at, number);
        EXPECT_TRUE(read().empty());
        memory_ = std::move(before);
        return problem_;
    };
    record();
    for (const std::uint64_t capacity : {0ULL, 8ULL, 4'097ULL, 1ULL << 40U, ~0ULL}) {
        EXPECT_NE(problemOf(kAtCapacity, capacity), "") << capacity;
    }
    EXPECT_NE(problemOf(0, 0), "");
    EXPECT_EQ(problemOf(kAtSeed, 0), "") << "its records are those of another one";
    EXPECT_EQ(RecordingReader(directory_.file("none")).problem(), "there is no such file");
    EXPECT_NE(RecordingReader(directory_.path()).problem(), "");
    EXPECT_NE(RecordingReader("/dev/zero").problem(), "");
}

}  // namespace
}  // namespace kvx::recording
