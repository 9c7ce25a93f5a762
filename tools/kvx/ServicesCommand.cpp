// kvx services: every service's query subject is asked one harmless question; whoever answers, with
// rows or with a refusal, is there.

#include <fmt/format.h>

#include <chrono>
#include <deque>
#include <memory>
#include <set>

#include "tools/bus/Client.h"
#include "tools/bus/Complain.h"
#include "tools/kvx/Commands.h"
#include "tools/kvx/DatumJson.h"
#include "tools/kvx/Query.h"

namespace kvx::tool {

namespace {

constexpr const char* kProbeText = "select * from services limit 0";

// The probes of one look around, from the question to the table.
class LookAround {
  public:
    LookAround(bus::Client& client, unsigned long waitMs) : client_(client) {
        std::set<std::string> subjects;
        for (const auto& service : CVekServiceToSubjectMapper::ms_ServiceEnumMap) {
            const char* subject =
                CVekServiceToSubjectMapper::ServiceEnumToQuerySubject(service.value);
            if (subjects.insert(subject).second) add(service.name, subject, waitMs);
        }
    }

    int run() {
        return client_.run([this] {
            begin_ = Clock::now();
            for (auto& probe : probes_) {
                if (!probe.query->ask(probe.subject, kProbeText)) finish(probe);
            }
        });
    }

    void print(bool json) const {
        if (!json) fmt::print("{:<16} {:>10}  {}\n", "SERVICE", "ANSWER", "QUERY SUBJECT");
        for (const auto& probe : probes_) {
            if (!probe.query->isComplete()) continue;
            if (json) {
                fmt::print("{{\"service\":{},\"subject\":{},\"milliseconds\":{:.1f}}}\n",
                           jsonString(probe.name), jsonString(probe.subject), probe.milliseconds);
            } else {
                fmt::print("{:<16} {:>7.1f} ms  {}\n", probe.name, probe.milliseconds,
                           probe.subject);
            }
        }
    }

    std::size_t answered() const {
        std::size_t count = 0;
        for (const auto& probe : probes_) count += probe.query->isComplete() ? 1 : 0;
        return count;
    }

  private:
    using Clock = std::chrono::steady_clock;

    struct Probe {
        std::string name;
        std::string subject;
        std::unique_ptr<Query> query;
        double milliseconds = 0;
    };

    void add(const char* name, const char* subject, unsigned long waitMs) {
        Probe& probe = probes_.emplace_back();
        probe.name = name;
        probe.subject = subject;
        probe.query =
            std::make_unique<Query>(client_.net(), waitMs, [this, &probe] { finish(probe); });
    }

    void finish(Probe& probe) {
        const std::chrono::duration<double, std::milli> spent = Clock::now() - begin_;
        probe.milliseconds = spent.count();
        if (++finished_ == probes_.size()) client_.leave(kSuccess);
    }

    bus::Client& client_;
    std::deque<Probe> probes_;  // a deque, since the queries' callbacks point into it
    Clock::time_point begin_;
    std::size_t finished_ = 0;
};

}  // namespace

int services(const ServicesOptions& options) {
    const auto waitMs = static_cast<unsigned long>(options.waitSeconds * 1000);
    bus::Client client(options.connection, waitMs);
    if (!client.isUp()) return kFailure;
    LookAround around(client, waitMs);
    around.run();
    around.print(options.connection.json);
    if (around.answered() == 0) bus::complain("no service answered");
    return kSuccess;
}

}  // namespace kvx::tool
