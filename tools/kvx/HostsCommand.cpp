// kvx hosts: asks the bridge of this host who is joined. The answer is a JSON array, one object a
// host, of which `--json` prints each on its line.

#include <fmt/format.h>

#include <string>
#include <vector>

#include "tools/bus/Client.h"
#include "tools/bus/Complain.h"
#include "tools/bus/HostsQuestion.h"
#include "tools/kvx/Commands.h"
#include "tools/kvx/DaemonAnswers.h"
#include "tools/kvx/Table.h"

namespace kvx::tool {

namespace {

using Json = bus::HostsQuestion::Json;

constexpr const char* kUnreadable = "the bridge's answer cannot be read";

std::string trafficText(const Json& traffic) {
    return fmt::format("{} / {}", traffic.value("messages", std::uint64_t{0}),
                       traffic.value("bytes", std::uint64_t{0}));
}

std::vector<std::string> cellsOf(const Json& host) {
    const bool isSelf = host.value("self", false);
    const std::string lost = bus::lostText(host);
    const Json roundTrip = host.value("rtt_us", Json());
    return {host.value("host", ""),
            isSelf ? (host.value("up", false) ? "this host" : "this host, no engine")
                   : (host.value("up", false) ? "up" : "gone"),
            host.value("since", ""),
            roundTrip.is_number() ? fmt::format("{:.1f} ms", roundTrip.get<double>() / 1000) : "-",
            trafficText(host.value("in", Json::object())),
            trafficText(host.value("out", Json::object())),
            lost.empty() ? "-" : lost};
}

void printTable(const Json& hosts) {
    Table table({"HOST", "STATE", "SINCE", "ROUND TRIP", "IN (MESSAGES / BYTES)",
                 "OUT (MESSAGES / BYTES)", "LOST"});
    for (const auto& host : hosts) table.add(cellsOf(host));
    table.print();
}

int print(const Json& hosts, bool asJson) {
    try {
        if (asJson) {
            printRows(hosts);
        } else {
            printTable(hosts);
        }
    } catch (const Json::exception&) {
        bus::complain(kUnreadable);
        return kFailure;
    }
    return kSuccess;
}

}  // namespace

int hosts(const HostsOptions& options) {
    bus::Client client(options.connection);
    if (!client.isUp()) return kFailure;
    using Outcome = bus::HostsQuestion::Outcome;
    bus::HostsQuestion question(client, [&](Outcome outcome, const Json& hosts) {
        if (outcome == Outcome::Hosts) return client.leave(print(hosts, options.connection.json));
        bus::complain(outcome == Outcome::Silence
                          ? fmt::format("no bridge answers within {:g} s: is rvbridge running at "
                                        "this daemon, in this service and network?",
                                        options.timeoutSeconds)
                          : kUnreadable);
        client.leave(kFailure);
    });
    client.leaveWithoutDaemon();
    return client.run([&] {
        const auto timeoutMs = static_cast<unsigned long>(options.timeoutSeconds * 1000);
        if (!question.ask(timeoutMs)) client.leave(kFailure);
    });
}

}  // namespace kvx::tool
