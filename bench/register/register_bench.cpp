// How fast a whole table reaches a querier.
//
// Baseline: the same SELECT read from the same SQLite file in this process, every value copied into
// a string. Measured: the query through the bus, from its sending until every record is decoded in
// this process; the daemon and the service are separate processes. Rounds alternate; the table
// shows the median of each and the ratio of the medians.
//
// The service's queue has a tick of 100 ms. Rounds in direct succession would always start at the
// same phase of the tick, so each waits a little longer than the last, which spreads the rounds
// evenly over it.

#include <fmt/format.h>
#include <sqlite3.h>

#include <algorithm>
#include <chrono>
#include <cstdlib>
#include <filesystem>
#include <fstream>
#include <memory>
#include <thread>

#include "kvx/Client.h"
#include "platform/Memory.h"
#include "tests/support/ChildProcess.h"

namespace {

using Clock = std::chrono::steady_clock;

constexpr int kRounds = 20;
constexpr std::chrono::milliseconds kTick{100};
constexpr const char* kRegister = "/usr/share/ieee-data/";
constexpr const char* kText = "select * from vendors";

double secondsSince(Clock::time_point begin) {
    return std::chrono::duration<double>(Clock::now() - begin).count();
}

double median(std::vector<double> values) {
    std::sort(values.begin(), values.end());
    return values[values.size() / 2];
}

struct Reading {
    std::size_t rows = 0;
    double seconds = 0;
};

Reading readFromSqlite(const std::string& path) {
    sqlite3* database = nullptr;
    sqlite3_open_v2(path.c_str(), &database, SQLITE_OPEN_READONLY, nullptr);
    const auto begin = Clock::now();
    sqlite3_stmt* statement = nullptr;
    sqlite3_prepare_v2(database, kText, -1, &statement, nullptr);
    std::vector<std::vector<std::string>> rows;
    while (sqlite3_step(statement) == SQLITE_ROW) {
        auto& row = rows.emplace_back();
        for (int i = 0; i < sqlite3_column_count(statement); ++i) {
            const auto* text = reinterpret_cast<const char*>(sqlite3_column_text(statement, i));
            row.emplace_back(text != nullptr ? text : "");
        }
    }
    sqlite3_finalize(statement);
    const Reading reading{rows.size(), secondsSince(begin)};
    sqlite3_close(database);
    return reading;
}

// Sends one query and decodes the answer.
Reading readOverTheBus(kvx::Client& client) {
    const auto begin = Clock::now();
    const auto rows = client.query("Model", kText, std::chrono::minutes(1));
    return {rows ? rows->size() : 0, secondsSince(begin)};
}

bool answers(kvx::Client& client) {
    return kvx::test::eventually([&client] {
        return client.query("Model", "select * from vendors limit 1", std::chrono::seconds(1))
            .has_value();
    });
}

int measure(kvx::Client& client, const std::string& database) {
    std::vector<double> sqlite;
    std::vector<double> bus;
    Reading reading;
    for (int round = 0; round < kRounds; ++round) {
        const Reading local = readFromSqlite(database);
        std::this_thread::sleep_for(round * kTick / kRounds);
        reading = readOverTheBus(client);
        if (reading.rows != local.rows) {
            fmt::print(stderr, "{} rows over the bus, {} in the file\n", reading.rows, local.rows);
            return 1;
        }
        sqlite.push_back(static_cast<double>(local.rows) / local.seconds);
        bus.push_back(static_cast<double>(reading.rows) / reading.seconds);
    }
    fmt::print("whole-register query, {} rows, {} rounds\n", reading.rows, kRounds);
    fmt::print("  {:<34} {:>12.0f} rows/s\n", "SELECT from SQLite in-process", median(sqlite));
    fmt::print("  {:<34} {:>12.0f} rows/s\n", "query through the bus", median(bus));
    fmt::print("  ratio {:.3f} (wanted: at least 0.35)\n", median(bus) / median(sqlite));
    return 0;
}

}  // namespace

int main() {
    kvx::platform::keepFreedMemory();  // as in kvx, whose receiving side this is
    const kvx::test::TemporaryDirectory home;
    std::filesystem::create_directory(home.file("etc"));
    setenv("KVX_HOME", home.path().c_str(), 1);
    kvx::test::ChildProcess daemon(KVX_BIN_DIR "/rvd", {"-listen", "tcp:0"});
    const std::string ready = daemon.awaitOutput("ready");
    std::ofstream(home.file("etc/Calvorine.rvd.cfg"))
        << "rendezvous session = { \"daemon\" = \"" << ready.substr(ready.rfind(' ') + 1)
        << "\" };\n";
    const std::string database = home.file("register.db");
    kvx::test::ChildProcess model(
        KVX_BIN_DIR "/modeld",
        {"--standalone", "--db", database, "--table", "vendors", "--load",
         kRegister + std::string("oui.csv"), kRegister + std::string("mam.csv"),
         kRegister + std::string("oui36.csv")});
    if (model.awaitError("answering").empty()) {
        fmt::print(stderr, "{}", model.errors());
        return 1;
    }
    auto client = kvx::Client::onThisThread(kvx::Client::Options());
    if (!client || !answers(*client)) return 1;
    return measure(*client, database);
}
