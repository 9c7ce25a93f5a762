#include "examples/modeld/store/Store.h"

#include "examples/modeld/oql/Parse.h"
#include "tests/support/TemporaryDirectory.h"

namespace modeld {
namespace {

struct StoreTest : testing::Test {
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
        const auto add = [this](const Row& row) {
            for (int i = 0; i < row.size(); ++i) {
                answer_ += row.kind(i) == ValueKind::Null ? "-" : std::string(row.text(i));
                answer_ += i + 1 == row.size() ? ";" : ",";
            }
            return true;
        };
        return store_->run(std::get<oql::Query>(parsed), add, rows);
    }
    // The rows of a query that is none to refuse.
    std::string answer(const std::string& text) {
        const auto refused = run(text);
        return refused ? refused->message : answer_;
    }

    // "+" inserted, "*" changed, "-" deleted, and the row.
    static std::string describe(Change change, const Row& row) {
        std::string notice(1, "+*-"[static_cast<int>(change)]);
        for (int i = 0; i < row.size(); ++i) {
            notice += std::string(i == 0 ? "" : ",") + std::string(row.text(i));
        }
        return notice;
    }
    // How many rows a refresh changes; its notices stay in the database.
    std::uint64_t refreshOnly(Store& store, const std::string& content) {
        Refreshed done;
        EXPECT_FALSE(
            store.refresh({{csv("data.csv", content)}, "devices", "name"}, &describe, done));
        return done.all();
    }
    // What a refresh from `content` tells.
    std::string refresh(const std::string& content, const std::string& key = "name") {
        told_.clear();
        Refreshed done;
        const auto refusal =
            store_->refresh({{csv("data.csv", content)}, "devices", key}, &describe, done);
        if (refusal) return refusal->message;
        take(*store_);
        EXPECT_EQ(std::count(told_.begin(), told_.end(), ';'), static_cast<int>(done.all()));
        return told_;
    }

    // Why a table of that content, or of that name, is refused.
    std::string refusal(const std::string& content, const std::string& table = "devices") {
        const auto refused = store_->load({{csv("data.csv", content)}, table, ""}, {});
        return refused ? refused->message : "";
    }

    static std::string openingFails(const std::string& path, Store::Access access) {
        Refusal refusal;
        EXPECT_EQ(Store::open(path, access, refusal), nullptr);
        EXPECT_EQ(refusal.error, StoreError::NoDatabase);
        return refusal.message;
    }

    void take(Store& store) {
        std::int64_t last = 0;
        EXPECT_FALSE(store.readNotices(0, [&](std::int64_t number, const auto& notices) {
            last = number;
            for (const std::string& notice : notices) (told_ += notice) += ";";
            return true;
        }));
        EXPECT_FALSE(store.readNotices(last, [](auto...) {
            ADD_FAILURE() << "a notice more";
            return true;
        }));
        EXPECT_FALSE(store.forgetNotices(last));
    }

    kvx::test::TemporaryDirectory directory_;
    std::unique_ptr<Store> store_;
    std::string told_;
    std::string answer_;
};

constexpr const char* kDevices =
    "\xef\xbb\xbfName,Port Count,Serial\r\n"
    "core-1,48,0017\r\n"
    "\"edge, \"\"north\"\"\",24,0018\r\n"
    "edge-2,,\r\n";

TEST_F(StoreTest, NamesTheDatabaseAndTheReason) {
    const std::string missing = directory_.file("no/such.db");
    const std::string garbage = csv("garbage.db", std::string(2000, 'x'));
    using enum Store::Access;
    EXPECT_EQ(openingFails(missing, ReadOnly),
              missing + ": unable to open database file (No such file or directory)");
    EXPECT_EQ(openingFails(directory_.path(), ReadWrite).find(directory_.path() + ": "), 0U);
    for (const auto access : {ReadOnly, ReadWrite}) {
        EXPECT_EQ(openingFails(garbage, access), garbage + ": file is not a database");
    }
    EXPECT_EQ(openingFails("", ReadWrite), "a database needs a file name");
}

TEST_F(StoreTest, KeepsHeadingsOfAnyScriptAndRefusesWhatIsNoText) {
    load("Gerät,Order,Größe (cm),名前\nx,7,2,y\nit's,7,2,z\n");
    EXPECT_EQ(answer("select 名前 from devices where gerät = 'it''s'"), "z;");
    EXPECT_EQ(answer(R"(select 名前, "Order", größe__cm_ from devices where gerät = "x")"),
              "y,7,2;");
    const std::string file = directory_.file("data.csv");
    EXPECT_EQ(refusal("a,gr\xf6\xdf\n1,2\n"), file + ": column 2 has a name that is not UTF-8");
    EXPECT_EQ(refusal("a,b\xc2\x85\n1,2\n"), "") << "a control character is an underline";
    EXPECT_EQ(refusal("a,\n1,2\n"), file + ": column 2 has no name");
}

TEST_F(StoreTest, RefusesTablesThatAreNotTheUsers) {
    for (const char* table : {"", "sqlite_master", "_MODELD_notices"}) {
        EXPECT_EQ(refusal("a\n1\n", table),
                  std::string("'") + table + "' cannot be the name of a table");
    }
    EXPECT_EQ(refusal("a\n1\n", "or;der"), "");
    EXPECT_EQ(answer(R"(select a from "or;der")"), "1;");
}

TEST_F(StoreTest, RefusesASourceWithoutItsKeyBeforeItFillsTheTable) {
    std::string rows = "name\n";
    for (int i = 0; i < 2000; ++i) rows += "x\n";
    std::uint64_t filled = 0;
    const auto refused = store_->load({{csv("data.csv", rows)}, "devices", "Nme"},
                                      [&](std::uint64_t, std::uint64_t all) { filled += all; });
    ASSERT_TRUE(refused);
    EXPECT_EQ(refused->message, "no column 'Nme' to index");
    EXPECT_EQ(filled, 0U);
}

TEST_F(StoreTest, AnswersQueriesOverWhatItLoaded) {
    load(kDevices, "name");
    for (const auto& [rest, rows] : std::initializer_list<std::pair<const char*, const char*>>{
             {"where port_count > 24", "core-1,48,0017;"},
             {"where NAME like 'EDGE%' order by name desc", "edge-2,-,-;edge, \"north\",24,0018;"},
             {"where port_count is null or serial = '0018' limit 5",
              "edge, \"north\",24,0018;edge-2,-,-;"},
             {"where not (name like '%2' or port_count <= 24)", "core-1,48,0017;"},
             {"where name = 'x'' or 1=1 --'", ""},
             {"where port_count = 48 or port_count = 24 and serial = 'x'", "core-1,48,0017;"},
             {"where port_count > -30.5 and port_count < 24.5", "edge, \"north\",24,0018;"},
             {"where port_count <> 7 order by port_count desc, name;",
              "core-1,48,0017;edge, \"north\",24,0018;"},
             {"where serial is not null order by serial desc limit 1",
              "edge, \"north\",24,0018;"}}) {
        EXPECT_EQ(answer(std::string("select * from devices ") + rest), rows) << rest;
    }
    EXPECT_EQ(answer("select SERIAL, name from devices limit 1"), "0017,core-1;");
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
        const auto refused = run(text).value_or(Refusal{});
        EXPECT_EQ(refused.error, error) << text;
        EXPECT_EQ(refused.position, position) << text;
    }
}

TEST_F(StoreTest, KeepsTheOldTableAndSaysWhyWhenItsSourceIsBad) {
    load(kDevices);
    const std::pair<std::string, const char*> sources[] = {
        {directory_.file("missing.csv"), ": cannot be read: No such file or directory"},
        {csv("empty", ""), ": is empty"},
        {directory_.path(), ": is not a regular file"},
        {"/dev/zero", ": is not a regular file"},
        {csv("short.csv", "a,b\n1\n"), "line 2 has 1 fields where 2 are expected"},
        {csv("open.csv", "a,b\n1,\"2\n3,4\n"), "line 2: a quote is not closed"},
        {csv("twice.csv", "a,A\n1,2\n"), "column 2 has the name of another one"},
    };
    for (const auto& [path, message] : sources) {
        const auto refused = store_->load({{path}, "devices", ""}, {});
        ASSERT_TRUE(refused) << path;
        EXPECT_EQ(refused->message.find(path), 0U) << refused->message;
        EXPECT_NE(refused->message.find(message), std::string::npos) << refused->message;
    }
    EXPECT_LT(refusal("a\n1,2,3\n").size(), 200U);
    EXPECT_EQ(answer("select name from devices limit 1"), "core-1;");
}

TEST_F(StoreTest, RefreshTellsAndChangesExactlyTheRowsThatDiffer) {
    load("name,ports\na,1\nb,2\nc,\nd,4\n", "name");
    struct Step {
        const char* what;
        const char* content;
        const char* told;
        const char* rows;
    };
    for (const auto& [what, content, told, rows] : {
             Step{"nothing", "name,ports\na,1\nb,2\nc,\nd,4\n", "", "a,1;b,2;c,-;d,4;"},
             Step{"all kinds", "name,ports\na,1\nb,3\nd,\ne,5\n", "-c,;*b,3;*d,;+e,5;",
                  "a,1;b,3;d,-;e,5;"},
             Step{"order only", "name,ports\ne,5\nd,\nb,3\na,1\n", "", "a,1;b,3;d,-;e,5;"},
             Step{"a key twice", "name,ports\na,1\na,2\nb,3\nd,\ne,5\n", "+a,2;",
                  "a,1;b,3;d,-;e,5;a,2;"},
             Step{"a key once less", "name,ports\na,2\nb,3\nd,\ne,5\n", "-a,2;*a,2;",
                  "a,2;b,3;d,-;e,5;"},
             Step{"no key, twice", "name,ports\n,1\n,2\n", "-a,2;-b,3;-d,;-e,5;+,1;+,2;",
                  "-,1;-,2;"},
             Step{"another column", "name,site\nb,north\n", "-,1;-,2;+b,north;", "b,north;"},
             Step{"texts for numbers", "name,site\nb,7\n", "*b,7;", "b,7;"},
             Step{"a row number", "name,rowid\nb,1\nc,1\n", "*b,1;+c,1;", "b,1;c,1;"},
             Step{"a row number changed", "name,rowid\nb,2\nc,1\n", "*b,2;", "b,2;c,1;"},
             Step{"all gone", "name,rowid\n", "-b,2;-c,1;", ""},
         }) {
        EXPECT_EQ(refresh(content), told) << what;
        EXPECT_EQ(answer("select * from devices"), rows) << what;
    }
}

TEST_F(StoreTest, RefreshWithoutAKeyComparesWholeRows) {
    EXPECT_EQ(refresh("name,ports\na,1\na,1\nb,2\n", ""), "+a,1;+a,1;+b,2;") << "no table before";
    EXPECT_EQ(refresh("name,ports\na,1\nb,3\n\"a','b\",1\n", ""), "-a,1;-b,2;+b,3;+a','b,1;");
    EXPECT_EQ(answer("select * from devices"), "a,1;b,3;a','b,1;");
    EXPECT_TRUE(store_->hasTable("devices"));
    EXPECT_FALSE(store_->hasTable("_modeld_notices"));
}

TEST_F(StoreTest, RefreshFromABadSourceChangesAndTellsNothing) {
    load("name,ports\na,1\n", "name");
    EXPECT_NE(refresh("name,ports\na\n").find("line 2 has 1 fields"), std::string::npos);
    EXPECT_NE(refresh("ports\n1\n").find("no column 'name'"), std::string::npos);
    EXPECT_EQ(answer("select * from devices"), "a,1;");
    take(*store_);
    EXPECT_EQ(told_, "");
}

TEST_F(StoreTest, NoticesAreTakenOnceByWhoeverSharesTheDatabaseAndOnlyTheNewestOfARow) {
    load("name,ports\na,1\nb,1\n", "name");
    Refusal refusal;
    const auto other = Store::open(directory_.file("model.db"), Store::Access::ReadWrite, refusal);
    EXPECT_EQ(refreshOnly(*other, "name,ports\na,2\nb,2\n"), 2U);
    EXPECT_EQ(refreshOnly(*store_, "name,ports\na,2\nb,2\n"), 0U) << "the other one has done it";
    EXPECT_EQ(refreshOnly(*other, "name,ports\na,3\nb,2\nb,9\n"), 2U);
    EXPECT_EQ(refreshOnly(*store_, "name,ports\na,4\nb,2\n"), 2U);
    EXPECT_FALSE(store_->dropNotices(std::chrono::seconds(60)));
    take(*store_);
    EXPECT_EQ(told_, "*b,2;-b,9;*a,4;");
    take(*other);
    EXPECT_EQ(told_, "*b,2;-b,9;*a,4;");
    int left = -1;
    EXPECT_FALSE(store_->checkpoint(left));
    EXPECT_EQ(left, 0);
    EXPECT_TRUE(run("select * from _modeld_notices")) << "the store's own table is nobody's";
}

TEST_F(StoreTest, ASnapshotStaysAsItWasWhenItBegan) {
    load("name,ports\na,1\n", "name");
    Refusal refusal;
    const auto other = Store::open(directory_.file("model.db"), Store::Access::ReadWrite, refusal);
    EXPECT_FALSE(store_->beginSnapshot());
    EXPECT_EQ(refreshOnly(*other, "name,ports\na,2\n"), 1U);
    EXPECT_EQ(answer("select * from devices"), "a,1;") << "taken at the begin, not when first used";
    store_->endSnapshot();
    EXPECT_EQ(answer("select * from devices"), "a,2;");
}

TEST_F(StoreTest, NoticesAreReadAHundredAtATimeUntilTheyAreNotWanted) {
    load("name,ports\n", "name");
    std::string rows = "name,ports\n";
    for (int i = 0; i < 250; ++i) rows += std::to_string(i) + ",1\n";
    refreshOnly(*store_, rows);
    std::vector<std::size_t> sizes;
    std::int64_t taken = 0;
    const auto take = [&](std::int64_t last, const auto& notices) {
        sizes.push_back(notices.size());
        taken = last;
        return sizes.size() != 2;
    };
    EXPECT_FALSE(store_->readNotices(0, take));
    EXPECT_EQ(sizes, (std::vector<std::size_t>{100, 100}));
    EXPECT_FALSE(store_->readNotices(taken, take));
    EXPECT_EQ(sizes, (std::vector<std::size_t>{100, 100, 50}));
}

TEST_F(StoreTest, TellsThatAnotherOneWritesFromWhatIsBroken) {
    Refusal refusal;
    const auto other = Store::open(directory_.file("model.db"), Store::Access::ReadWrite, refusal);
    std::optional<Refusal> meanwhile;
    EXPECT_FALSE(store_->load({{csv("data.csv", kDevices)}, "devices", ""},
                              [&](auto...) { meanwhile = other->awaitWriter(); }));
    ASSERT_TRUE(meanwhile && meanwhile->error == StoreError::Busy);
    EXPECT_FALSE(other->awaitWriter());
    EXPECT_TRUE(other->hasTable("devices"));
}

}  // namespace
}  // namespace modeld
