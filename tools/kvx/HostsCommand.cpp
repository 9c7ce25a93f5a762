// kvx hosts: asks the bridge of this host who is joined. The answer is a JSON array, one object a
// host, of which `--json` prints each on its line.

#include <fmt/format.h>

#include <algorithm>
#include <array>
#include <memory>
#include <nlohmann/json.hpp>
#include <optional>
#include <string>
#include <vector>

#include "tools/bus/Client.h"
#include "tools/bus/Complain.h"
#include "tools/bus/Output.h"
#include "tools/kvx/Commands.h"

namespace kvx::tool {

namespace {

using Json = nlohmann::ordered_json;

constexpr const char* kSubject = "_RVD.HOSTS";
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

class HostsAnswer : public RvDataCallback {
  public:
    HostsAnswer(bus::Client& client, const HostsOptions& options)
        : client_(client), options_(options) {}

    void onData(const char*, RvSender*, const RvDatum& data, RvListener*) override {
        if (std::exchange(isOver_, true)) return;
        client_.leave(print(data));
    }
    void onTimeout(RvListener*) override {
        if (isOver_) return;
        bus::complain(
            fmt::format("no bridge answers within {:g} s: is rvbridge running at this "
                        "daemon, in this service and network?",
                        options_.timeoutSeconds));
        client_.leave(kFailure);
    }

  private:
    int print(const RvDatum& data) const {
        const auto* const text = static_cast<const char*>(data.data());
        const Json hosts = data.type() == RVMSG_STRING ? Json::parse(text, nullptr, false)
                                                       : Json(Json::value_t::discarded);
        if (!hosts.is_array()) {
            bus::complain("the bridge's answer cannot be read");
            return kFailure;
        }
        try {
            if (options_.connection.json) {
                for (const auto& host : hosts) bus::printLine(host.dump());
            } else {
                printTable(hosts);
            }
        } catch (const Json::exception&) {
            bus::complain("the bridge's answer cannot be read");
            return kFailure;
        }
        return kSuccess;
    }

    bus::Client& client_;
    const HostsOptions& options_;
    bool isOver_ = false;
};

}  // namespace

int hosts(const HostsOptions& options) {
    bus::Client client(options.connection);
    if (!client.isUp()) return kFailure;
    const std::unique_ptr<RvSender> sender(client.session().newSender(kSubject));
    if (!sender) return kFailure;
    HostsAnswer answer(client, options);
    std::unique_ptr<RvListener> listener;
    client.leaveWithoutDaemon();
    return client.run([&] {
        const auto timeoutMs = static_cast<unsigned long>(options.timeoutSeconds * 1000);
        listener.reset(
            sender->sendRequest(RvDatum(RVMSG_STRING, 0, ""), timeoutMs, &answer, nullptr));
        if (!listener) client.leave(kFailure);
    });
}

}  // namespace kvx::tool
