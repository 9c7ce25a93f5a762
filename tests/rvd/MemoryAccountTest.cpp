#include "rvd/MemoryAccount.h"

namespace kvx::rvd {
namespace {

// Holds pieces of one size, and notes when it is asked for them.
struct Piecewise final : MemoryHolder {
    Piecewise(MemoryAccount& account, std::string letter, std::size_t count, std::string& log)
        : MemoryHolder(account), name(std::move(letter)), pieces(count), asked(log) {
        charge(Holding::Incoming, count * kPiece);
    }
    bool giveUp() override {
        asked += name;
        if (pieces == 0) return false;
        --pieces;
        discharge(Holding::Incoming, kPiece);
        return true;
    }
    static constexpr std::size_t kPiece = 100;
    std::string name;
    std::size_t pieces;
    std::string& asked;
};

TEST(MemoryAccount, TakesFromTheLargestAndEndsWhoHasNothingToGive) {
    MemoryAccount account(1'000);
    std::string asked;
    Piecewise a(account, "a", 3, asked);
    Piecewise b(account, "b", 6, asked);
    auto c = std::make_unique<Piecewise>(account, "c", 0, asked);
    for (const std::size_t bytes : {50U, 500U, 450U}) c->setCharge(Holding::Incoming, bytes);
    account.relieve();  // 1,350 of 1,000
    EXPECT_EQ(asked, "bbc") << "the 450 bytes go with their holder";
    c.reset();
    EXPECT_EQ(account.used(), 700U);
    account.relieve();
    EXPECT_EQ(asked, "bbc");
}

TEST(MemoryAccount, NobodyPaysForWhatIsBeingFreedAlthoughItCounts) {
    MemoryAccount account(1'000);
    std::string asked;
    const Piecewise a(account, "a", 9, asked);
    account.setOrphaned(600);
    account.relieve();
    EXPECT_EQ(account.used(), 1'500U);
    EXPECT_EQ(asked, "");
    account.setOrphaned(0);
    EXPECT_EQ(account.used(), 900U);
}

TEST(MemoryAccount, AlwaysAsksTheLargestWhateverCameAndWent) {
    constexpr std::size_t kHolders = 40;
    MemoryAccount account(kHolders * 500);
    std::mt19937 random(1);
    std::string asked;
    std::vector<std::unique_ptr<Piecewise>> all(kHolders);
    for (int step = 0; step < 20'000; ++step) {
        auto& one = all[random() % kHolders];
        const std::size_t pieces = random() % 12;
        if (pieces == 0) one.reset();
        if (!one) one = std::make_unique<Piecewise>(account, "x", 0, asked);
        one->charge(Holding::Incoming, pieces * Piecewise::kPiece);
        one->pieces += pieces;
        std::size_t most = 0;
        for (const auto& holder : all) most = std::max(most, holder ? holder->pieces : 0);
        const bool isOver = account.used() > account.limit();
        account.relieve();
        ASSERT_LE(account.used(), account.limit());
        std::size_t left = 0;
        for (const auto& holder : all) left = std::max(left, holder ? holder->pieces : 0);
        // At most 11 pieces were too many: of the largest, one after another.
        ASSERT_TRUE(isOver ? left < most || asked.size() < 11 : left == most);
        asked.clear();
    }
}

}  // namespace
}  // namespace kvx::rvd
