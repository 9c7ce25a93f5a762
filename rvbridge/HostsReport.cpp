#include "rvbridge/HostsReport.h"

#include <map>
#include <nlohmann/json.hpp>
#include <utility>

namespace kvx::bridge {

std::string hostsReport(const Exchange& exchange, Receiver& receiver, const Routes& routes,
                        bool isUp) {
    using Json = nlohmann::ordered_json;
    Json hosts = Json::array();
    const auto traffic = [](std::uint64_t messages, std::uint64_t bytes) {
        return Json{{"messages", messages}, {"bytes", bytes}};
    };
    Traffic in;
    Traffic out;
    Losses losses{};
    const auto lossesOf = [](const Losses& counted) {
        Json object = Json::object();
        for (std::size_t i = 0; i < kBridgeLossCauses; ++i) {
            if (counted[i] != 0) object[textOf(static_cast<LossCause>(i))] = counted[i];
        }
        return object;
    };
    std::map<std::string, std::pair<Traffic, Losses>> counted;
    receiver.eachPeer(
        [&counted](const std::string& host, const Traffic& received, const Losses& lost) {
            auto& [sum, sumLost] = counted[host];
            sum.messages += received.messages;
            sum.bytes += received.bytes;
            for (std::size_t i = 0; i < kBridgeLossCauses; ++i) sumLost[i] += lost[i];
        });
    exchange.eachHost([&](const HostState& host) {
        const auto& [received, lost] = counted[host.name];
        const Traffic sent = routes.sentTo(host.name);
        in.messages += received.messages;
        in.bytes += received.bytes;
        out.messages += sent.messages;
        out.bytes += sent.bytes;
        for (std::size_t i = 0; i < kBridgeLossCauses; ++i) losses[i] += lost[i];
        hosts.push_back({{"host", host.name},
                         {"up", host.up},
                         {"since", host.since},
                         {"rtt_us", host.roundTrip ? Json(*host.roundTrip) : Json()},
                         {"subjects", host.subjects},
                         {"in", traffic(received.messages, received.bytes)},
                         {"out", traffic(sent.messages, sent.bytes)},
                         {"lost", lossesOf(lost)}});
    });
    const BridgeIdentity& self = exchange.identity();
    hosts.insert(hosts.begin(), Json{{"host", self.host},
                                     {"self", true},
                                     {"up", isUp},
                                     {"since", self.since},
                                     {"rtt_us", Json()},
                                     {"subjects", exchange.ownSubjects()},
                                     {"in", traffic(in.messages, in.bytes)},
                                     {"out", traffic(out.messages, out.bytes)},
                                     {"lost", lossesOf(losses)}});
    return hosts.dump(-1, ' ', false, Json::error_handler_t::replace);
}

}  // namespace kvx::bridge
