// kvx doctor: looks at everything that a process needs of its host and of the bus, and says what to
// mend. A reader adds a check as one function and one row.

#include <cstdlib>

#include "tools/kvx/Examination.h"

namespace kvx::tool {

namespace {

// In this order: a check may use what those before it have found.
constexpr Check kChecks[] = {
    {"environment", checkEnvironment}, {"configuration", checkConfiguration},
    {"limits", checkLimits},           {"clocks", checkClocks},
    {"versions", checkVersions},       {"agent", checkAgent},
    {"daemon", checkDaemon},           {"session", checkSession, true},
    {"status", checkStatus},           {"services", checkServices},
    {"bridges", checkBridges},
};

constexpr platform::Milliseconds kOwnTime = 1'000;  // of a check, beside what it waits for

}  // namespace

int doctor(const DoctorOptions& options) {
    Examination examination(options);
    const auto waitMs = static_cast<platform::Milliseconds>(options.waitSeconds * 1000);
    for (const Check& check : kChecks) {
        examination.begin(check.name,
                          examination.timeout() + kOwnTime + (check.listens ? waitMs : 0));
        check.run(examination);
    }
    return examination.exitStatus();
}

}  // namespace kvx::tool
