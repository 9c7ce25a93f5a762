// kvx hosts: asks the bridge of this host who is joined. The answer is a JSON array, one object a
// host, of which `--json` prints each on its line.

#include <fmt/format.h>

#include <algorithm>
#include <array>
#include <string>
#include <vector>

#include "tools/bus/Client.h"
#include "tools/bus/Complain.h"
#include "tools/bus/Output.h"
#include "tools/kvx/Commands.h"
#include "tools/kvx/HostsQuestion.h"

namespace kvx::tool {

namespace {

using Json = HostsQuestion::Json;

constexpr const char* kUnreadable = "the bridge's answer cannot be read";
using Cells = std::array<std::string, 7>;

std::string countText(const Json& traffic) {
    return fmt::format("{} / {}", traffic.value("messages", std::uint64_t{0}),
                       traffic.value("bytes", std::uint64_t{0}));
}

std::string lossText(const Json& lost) {
    std::string text;
    for (const auto& [cause, messages] : lost.items()) {
        text +=
            fmt::format("{}{} {}", text.empty() ? "" : ", ", messages.get<std::uint64_t>(), cause);
    }
    return text.empty() ? "-" : text;
}

Cells cellsOf(const Json& host) {
    const bool isSelf = host.value("self", false);
    const Json roundTrip = host.value("rtt_us", Json());
    return {host.value("host", ""),
            isSelf ? (host.value("up", false) ? "this host" : "this host, no engine")
                   : (host.value("up", false) ? "up" : "gone"),
            host.value("since", ""),
            roundTrip.is_number() ? fmt::format("{:.1f} ms", roundTrip.get<double>() / 1000) : "-",
            countText(host.value("in", Json::object())),
            countText(host.value("out", Json::object())),
            lossText(host.value("lost", Json::object()))};
}

void printTable(const Json& hosts) {
    std::vector<Cells> lines{{"HOST", "STATE", "SINCE", "ROUND TRIP", "IN (MESSAGES / BYTES)",
                              "OUT (MESSAGES / BYTES)", "LOST"}};
    for (const auto& host : hosts) lines.push_back(cellsOf(host));
    std::array<std::size_t, std::tuple_size_v<Cells>> widths{};
    for (const auto& cells : lines) {
        for (std::size_t i = 0; i < cells.size(); ++i) {
            widths[i] = std::max(widths[i], cells[i].size());
        }
    }
    for (const auto& cells : lines) {
        std::string line;
        for (std::size_t i = 0; i < cells.size(); ++i)
            line += fmt::format("{:{}}  ", cells[i], widths[i]);
        line.erase(line.find_last_not_of(' ') + 1);
        bus::printLine(line);
    }
}

int print(const Json& hosts, bool asJson) {
    try {
        if (asJson) {
            for (const auto& host : hosts) bus::printLine(host.dump());
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
    using Outcome = HostsQuestion::Outcome;
    HostsQuestion question(client, [&](Outcome outcome, const Json& hosts) {
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
