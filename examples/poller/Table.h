#pragma once

#include <kvx/kvx.h>

#include <map>
#include <mutex>
#include <vector>

/// What the agents said last, a row an object, and the changes of it.
///
/// Every poller hears every report and has the same table; the active one tells the changes, and
/// answers. A change that could not be told is not made, so the next report makes it.
class Table {
  public:
    explicit Table(kvx::Service& service) : service_(service) {
        service.changes().setKey("", {"agent", "object"});
        service.onQuery([this](const auto& question, auto& reply) { answer(question, reply); });
    }

    /// Has reports of this agent taken, before the service runs; others are ignored.
    void expect(const std::string& agent) { agents_[agent]; }

    /// Takes a report: "agent", "poller", "state" ("up" or "down") and of one that is up all its
    /// objects; those of one that is down stay as they were. Main thread.
    void take(const kvx::Message& report) {
        const auto agent = agents_.find(report.get<std::string>("agent").value_or(""));
        if (agent == agents_.end()) return;
        Known after = merged(agent->second, report);
        const auto changes = differences(agent->second.rows, after.rows);
        const auto apply = [&]() -> kvx::Result<> {
            const std::lock_guard guard(mutex_);
            agent->second = std::move(after);
            return {};
        };
        const bool isTold = !changes.empty() && service_.isActive();
        static_cast<void>(isTold ? service_.changes().commit(changes, apply) : apply());
    }

  private:
    using Rows = std::map<std::string, kvx::Record, std::less<>>;  // by object
    struct Known {
        Rows rows;
        std::int64_t upTime = 0;
    };

    // The time since the start always changes: only that it is smaller, after a start, is news.
    static Known merged(const Known& before, const kvx::Message& report) {
        const bool isUp = report.get<std::string>("state") == "up";
        Known after{isUp ? Rows() : before.rows, before.upTime};
        for (const auto& [object, value] : report) {
            if (object == "agent" || (!isUp && object != "state" && object != "poller")) continue;
            after.rows[std::string(object)] =
                kvx::Record{{"agent", report["agent"]}, {"object", object}, {"value", value}};
        }
        if (isUp) after.upTime = report.get<std::int64_t>("sysUpTime").value_or(before.upTime);
        const auto old = before.rows.find("sysUpTime");
        const bool isOld = old != before.rows.end() && after.upTime >= before.upTime;
        if (isOld) after.rows[old->first] = old->second;
        return after;
    }

    static std::vector<kvx::Record> differences(const Rows& before, const Rows& after) {
        std::vector<kvx::Record> changes;
        for (const auto& [object, row] : after) {
            const auto old = before.find(object);
            if (old != before.end() && old->second == row) continue;
            const auto kind = old == before.end() ? kvx::Change::Inserted : kvx::Change::Changed;
            changes.push_back(kvx::changeRecord(kind, row));
        }
        for (const auto& [object, row] : before) {
            if (after.contains(object)) continue;
            changes.push_back(kvx::changeRecord(kvx::Change::Deleted, row));
        }
        return changes;
    }

    // The rows of the agent that the question names; of all for "*".
    void answer(const kvx::Question& question, kvx::Reply& reply) const {
        std::map<std::string, Known> now;
        const auto stamp = service_.changes().read([&] {
            const std::lock_guard guard(mutex_);
            now = agents_;
        });
        reply.asOf(stamp, service_.changes().source());
        for (const auto& [agent, known] : now) {
            if (question.text != "*" && question.text != agent) continue;
            for (const auto& [object, row] : known.rows) reply.row(row);
        }
    }

    kvx::Service& service_;
    mutable std::mutex mutex_;
    std::map<std::string, Known> agents_;  // guarded by mutex_; changed by the main thread
};
