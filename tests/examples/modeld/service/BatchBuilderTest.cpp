// Blocks compressed on helper threads and those of one transport are the same packets.

#include "examples/modeld/service/BatchBuilder.h"

#include <fstream>

#include "examples/modeld/oql/Parse.h"
#include "examples/modeld/service/RowRecord.h"
#include "tests/support/Packets.h"
#include "tests/support/TemporaryDirectory.h"

namespace modeld {
namespace {

namespace test = kvx::test;

// A table of devices, every seventh of which has no site.
struct BatchBuilderTest : testing::Test {
    void SetUp() override {
        const std::string path = directory_.file("devices.csv");
        std::ofstream csv(path);
        csv << "name,ports,site\n";
        for (int i = 0; i < 3005; ++i) {
            csv << "device-" << i << ',' << i % 48 << ',' << (i % 7 == 0 ? "" : "north") << '\n';
        }
        csv.close();
        Refusal refusal;
        store_ = Store::open(directory_.file("model.db"), Store::Access::ReadWrite, refusal);
        ASSERT_FALSE(store_->load({{path}, "devices", ""}, {})) << refusal.message;
    }

    void eachRow(unsigned count, const std::function<void(const Row&)>& visit) {
        auto parsed = oql::parse("select * from devices limit " + std::to_string(count));
        std::uint64_t rows = 0;
        const auto show = [&visit](const Row& row) { return visit(row), true; };
        ASSERT_FALSE(store_->run(std::get<oql::Query>(parsed), show, rows));
        ASSERT_EQ(rows, count);
    }

    test::TemporaryDirectory directory_;
    std::unique_ptr<Store> store_;
};

std::vector<std::string> packetsIn(CVekTransport& transport, EVekTransHdr version) {
    transport.RTSetError(STORE_NO_INDEX);
    EXPECT_EQ(transport.RTCreatePackets(version, true), 1);
    return test::packetsOf(transport);
}

TEST_F(BatchBuilderTest, MakesThePacketsOfOneTransportWhoeverCompressesThem) {
    for (const auto version : {VEK_TRANS_V0, VEK_TRANS_V1}) {
        for (const unsigned count : {0, 1, 10, 11, 100, 101, 200, 250, 3005}) {
            CVekTransport one(nullptr);
            eachRow(count, [&](const Row& row) {
                CVekBaseRecord record;
                addColumns(record, row);
                one.RTAddRecord(&record);
                one.RTPreparePayloads(version);
            });
            const auto expected = packetsIn(one, version);
            EXPECT_EQ(expected.empty(), count == 0);
            for (const unsigned helpers : {0U, 1U, 3U}) {
                BatchBuilder batch(version, helpers);
                eachRow(count, [&](const Row& row) { batch.add(row); });
                CVekTransport many(nullptr);
                batch.finish(many);
                EXPECT_TRUE(packetsIn(many, version) == expected)
                    << count << " rows, version " << version << ", " << helpers << " helpers";
            }
        }
    }
}

TEST_F(BatchBuilderTest, MayBeDroppedWhileItsHelpersWork) {
    BatchBuilder batch(VEK_TRANS_V1, 3);
    eachRow(1050, [&](const Row& row) { batch.add(row); });
}

}  // namespace
}  // namespace modeld
