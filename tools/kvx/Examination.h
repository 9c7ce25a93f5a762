#pragma once

#include <condition_variable>
#include <memory>
#include <mutex>
#include <nlohmann/json.hpp>
#include <string>
#include <thread>
#include <vector>

#include "mom/mom.h"
#include "platform/Clock.h"
#include "tools/beats/BeatTable.h"
#include "tools/kvx/Commands.h"
#include "tools/kvx/ServicesView.h"

namespace kvx::tool {

/// What one check says.
struct Finding {
    enum class State { Ok, Warning, Failure };
    std::string check;
    State state = State::Ok;
    std::string text;
    std::string mend;  ///< empty when all is well
};

/// One run of `kvx doctor`: where the checks report, and what they know from one another.
///
/// No check takes longer than its limit: the run then ends with what the check expects, as a
/// failure, and the process with 1. Main thread only, unless stated otherwise.
class Examination {
  public:
    using Milliseconds = platform::Milliseconds;

    /// What was heard on the bus.
    struct Bus {
        std::vector<beats::Service> services;
        std::vector<Answer> answers;
        /// What the daemon says of itself, or in `noStatus` why there is none.
        nlohmann::ordered_json status = nlohmann::ordered_json::object();
        std::string noStatus;
        /// What the bridge says; null without one.
        nlohmann::ordered_json hosts;
    };

    explicit Examination(const DoctorOptions& given);
    ~Examination();
    Examination(const Examination&) = delete;
    Examination& operator=(const Examination&) = delete;

    /// What follows is of this check.
    void begin(const char* check, Milliseconds limit);
    /// The current check waits for something that may never come: its failure then.
    void expect(std::string text, std::string mend);

    void ok(std::string text);
    void warn(std::string text, std::string mend);
    void fail(std::string text, std::string mend);

    /// 1 after a failure, else 0.
    [[nodiscard]] int exitStatus() const;
    [[nodiscard]] Milliseconds timeout() const;

    const DoctorOptions options;
    const bool startsDaemons;  ///< what the environment says; this process starts none

    // What earlier checks have found.
    DaemonAddress address;  ///< by the options, the file and the defaults
    std::string agentPort;  ///< of the file; empty when it has none
    bool daemonAnswers = false;
    std::unique_ptr<Bus> bus;  ///< null when there was no session

  private:
    void tell(const Finding& finding);
    void print(const Finding& finding) const;
    void watch();

    std::mutex lock_;
    std::condition_variable changed_;
    // Guarded by lock_.
    std::string check_;
    Finding expected_;
    Milliseconds endsAt_ = 0;  // 0: no check runs
    bool hasFailed_ = false;
    bool isOver_ = false;

    std::thread watcher_;
};

/// Checks, each reports at least one finding unless what it looks at is not there.
struct Check {
    const char* name;
    void (*run)(Examination& examination);
    bool listens = false;  ///< for beats: it takes that much longer
};

/// The version of this program.
const char* kvxVersion();

// DoctorHost.cpp: this host, without the bus.
void checkEnvironment(Examination& examination);
void checkConfiguration(Examination& examination);
void checkLimits(Examination& examination);
void checkClocks(Examination& examination);
void checkVersions(Examination& examination);

// DoctorDaemon.cpp: who listens.
void checkAgent(Examination& examination);
void checkDaemon(Examination& examination);

// DoctorBus.cpp: over a session. `checkSession` listens, the others look at what it heard.
void checkSession(Examination& examination);
void checkStatus(Examination& examination);
void checkServices(Examination& examination);
void checkBridges(Examination& examination);

}  // namespace kvx::tool
