#include "examples/modeld/store/Store.h"

#include <gtest/gtest.h>

#include <filesystem>
#include <fstream>

#include "examples/modeld/oql/Parse.h"
#include "tests/support/TemporaryDirectory.h"

namespace modeld {
namespace {

class StoreTest : public ::testing::Test {
  protected:
    void SetUp() override {
        Refusal refusal;
        store_ = Store::open(directory_.file("model.db"), Store::Access::ReadWrite, refusal);
        ASSERT_NE(store_, nullptr) << refusal.message;
    }

    std::string csv(const std::string& name, const std::string& content) {
        const std::string path = directory_.file(name);
        std::ofstream(path, std::ios::binary) << content;
        return path;
    }

    void load(const std::string& content, const std::string& key = "") {
        const auto refusal = store_->load({{csv("data.csv", content)}, "devices", key}, {});
        ASSERT_FALSE(refusal) << refusal->message;
    }

    std::optional<Refusal> run(const std::string& text) {
        answer_.clear();
        auto parsed = oql::parse(text);
        EXPECT_TRUE(std::holds_alternative<oql::Query>(parsed)) << text;
        std::uint64_t rows = 0;
        return store_->run(
            std::get<oql::Query>(parsed),
            [this](const Row& row) {
                for (int i = 0; i < row.size(); ++i) {
                    answer_ += row.kind(i) == ValueKind::Null ? "-" : std::string(row.text(i));
                    answer_ += i + 1 == row.size() ? ";" : ",";
                }
                return true;
            },
            rows);
    }

    kvx::test::TemporaryDirectory directory_;
    std::unique_ptr<Store> store_;
    std::string answer_;
};

constexpr const char* kDevices =
    "\xef\xbb\xbfName,Port Count,Serial\r\n"
    "core-1,48,0017\r\n"
    "\"edge, \"\"north\"\"\",24,0018\r\n"
    "edge-2,,\r\n";

TEST_F(StoreTest, AnswersQueriesOverWhatItLoaded) {
    load(kDevices, "name");
    EXPECT_FALSE(run("select name, serial from devices where port_count > 24"));
    EXPECT_EQ(answer_, "core-1,0017;");
    EXPECT_FALSE(run("select NAME from devices where name like 'EDGE%' order by name desc"));
    EXPECT_EQ(answer_, "edge-2;edge, \"north\";");
    EXPECT_FALSE(run("select * from devices where port_count is null or serial = '0018' limit 5"));
    EXPECT_EQ(answer_, "edge, \"north\",24,0018;edge-2,-,-;");
    EXPECT_FALSE(run("select name from devices where not (name like '%2' or port_count <= 24)"));
    EXPECT_EQ(answer_, "core-1;");
    EXPECT_FALSE(run("select name from devices where name = 'x'' or 1=1 --'"));
    EXPECT_EQ(answer_, "");
}

TEST_F(StoreTest, SaysWhichNameOrComparisonDoesNotFit) {
    load(kDevices);
    struct Case {
        const char* text;
        StoreError error;
        oql::Position position;
    };
    for (const auto& [text, error, position] : {
             Case{"select * from nothing", StoreError::NoTable, 15},
             Case{"select * from sqlite_schema", StoreError::NoTable, 15},
             Case{"select name, colour from devices", StoreError::NoColumn, 14},
             Case{"select name from devices order by size", StoreError::NoColumn, 35},
             Case{"select * from devices where port_count = 'x'", StoreError::TypeMismatch, 29},
             Case{"select * from devices where name = 5", StoreError::TypeMismatch, 29},
             Case{"select * from devices where port_count like '2%'", StoreError::TypeMismatch, 29},
         }) {
        const auto refusal = run(text);
        ASSERT_TRUE(refusal) << text;
        EXPECT_EQ(refusal->error, error) << text;
        EXPECT_EQ(refusal->position, position) << text;
    }
}

TEST_F(StoreTest, KeepsTheOldTableWhenItsSourceIsBad) {
    load(kDevices);
    const std::string missing = directory_.file("missing.csv");
    const std::pair<std::string, const char*> sources[] = {
        {missing, "cannot be read"},
        {csv("short.csv", "a,b\n1\n"), "line 2 has 1 fields where 2 are expected"},
        {csv("open.csv", "a,b\n1,\"2\n3,4\n"), "line 2: a quote is not closed"},
        {csv("twice.csv", "a,A\n1,2\n"), "column 2 has no name of its own"},
        {csv("empty.csv", ""), "is empty"},
    };
    for (const auto& [path, message] : sources) {
        const auto refusal = store_->load({{path}, "devices", ""}, {});
        ASSERT_TRUE(refusal) << path;
        EXPECT_NE(refusal->message.find(message), std::string::npos) << refusal->message;
    }
    EXPECT_FALSE(run("select name from devices limit 1"));
    EXPECT_EQ(answer_, "core-1;");
}

TEST_F(StoreTest, RefusesADatabaseThatIsNotThere) {
    Refusal refusal;
    EXPECT_EQ(Store::open(directory_.file("none.db"), Store::Access::ReadOnly, refusal), nullptr);
    EXPECT_EQ(refusal.error, StoreError::NoDatabase);
}

}  // namespace
}  // namespace modeld
