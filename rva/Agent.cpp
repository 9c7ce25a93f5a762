// One thread, the main one, is the bus's: it hears beats and advisories and writes down what it has
// heard. The HTTP threads only read that. While the daemon is gone the bus's thread may be busy
// trying to connect; the others go on answering.

#include "rva/Agent.h"

#include <fmt/format.h>

#include <cstdio>
#include <string>
#include <string_view>

#include "rv/session/rvSessionHooks.h"
#include "rva/HttpServer.h"
#include "rva/Metrics.h"
#include "rva/Observations.h"
#include "tools/beats/BeatListener.h"
#include "tools/beats/ServiceJson.h"
#include "tools/bus/Client.h"
#include "tools/bus/Complain.h"
#include "tools/bus/Ticker.h"

namespace kvx::rva {

namespace {

constexpr unsigned long kWatchMs = 1000;
constexpr const char* kJsonType = "application/json; charset=utf-8";

// The bus's advisories, which the session delivers like messages.
class AdvisoryListener : public RvDataCallback {
  public:
    explicit AdvisoryListener(Observations& seen) : seen_(seen) {}
    void onData(const char* subject, RvSender*, const RvDatum&, RvListener*) override {
        seen_.hearAdvisory(subject);
    }

  private:
    Observations& seen_;
};

int onLoss(rv_Session, const void*, void* closure) {
    static_cast<Observations*>(closure)->loseSession();
    bus::complain("the bus daemon is lost");
    return 0;
}

int onReturn(rv_Session, const void*, void* closure) {
    static_cast<Observations*>(closure)->gainSession();
    bus::complain("the bus daemon is back");
    return 0;
}

void watchSession(RvSession& session, Observations& seen) {
    rv_AddHook(session.handle(), RV_HOOK_DISCONNECT, onLoss, &seen);
    rv_AddHook(session.handle(), RV_HOOK_RECONNECT, onReturn, &seen);
    if (rv_IsConnected(session.handle())) seen.gainSession();
}

std::string servicesDocument(Observations& seen) {
    const Milliseconds now = platform::monotonicMs();
    std::string document = "{\"services\":[";
    std::string_view separator = "\n";
    for (const auto& service : seen.services(now)) {
        document.append(separator).append(beats::serviceAsJson(service, now));
        separator = ",\n";
    }
    return document + "\n]}\n";
}

void routePages(HttpServer& server, Observations& seen) {
    using Answer = HttpServer::Answer;
    const std::int64_t start = platform::wallSeconds();
    server.route("/healthz", [] { return Answer{.body = "ok\n"}; });
    server.route("/readyz", [&seen] {
        return seen.isReady() ? Answer{.body = "ready\n"}
                              : Answer{.status = 503, .body = "the bus session is lost\n"};
    });
    server.route("/services.json",
                 [&seen] { return Answer{.type = kJsonType, .body = servicesDocument(seen)}; });
    server.route("/metrics", [&seen, &server, start] {
        return Answer{.type = kMetricsType,
                      .body = metricsText({seen.figures(platform::monotonicMs()), server.requests(),
                                           platform::processFigures(), start})};
    });
}

// The port to serve on: the option, else the configuration file's item, else the default. Returns
// an empty text, or what is wrong with the item.
std::string choosePort(const Options& options, CVekRvNet& net, std::uint16_t& port) {
    const CVekAtom* const configured = net.m_cfgParser.RRCPGetRVAPort();
    port = options.port.value_or(kDefaultPort);
    if (options.port || configured == nullptr) return {};
    return parseListen(configured->RAString(), port);
}

}  // namespace

int run(const Options& options) {
    Observations seen;
    bus::Client client(options.connection);
    if (!client.isUp()) {
        bus::complain("no session with the bus daemon");
        return kFailure;
    }
    std::uint16_t port = 0;
    if (const auto problem = choosePort(options, client.net(), port); !problem.empty()) {
        bus::complain("configuration item rva: " + problem);
        return kUsage;
    }
    watchSession(client.session(), seen);
    beats::BeatListener beatListener(
        [&seen](auto packet) { seen.hearPacket(packet, platform::monotonicMs()); });
    AdvisoryListener advisories(seen);
    if (!beatListener.listen(client.net()) ||
        client.net().RRNAddExService("_RV.>", &advisories) != 1) {
        bus::complain("cannot listen on the bus");
        return kFailure;
    }
    HttpServer server;
    routePages(server, seen);
    if (!server.start(port)) {
        bus::complain(fmt::format("cannot listen on 127.0.0.1:{}; is the port taken?", port));
        return kFailure;
    }
    const bus::Ticker watch(client.net(), kWatchMs, bus::Ticker::Repeat::Forever, [&] {
        if (server.isServing()) return;
        bus::complain("the HTTP server has ended");
        client.leave(kFailure);
    });
    // Ready from the moment at which a signal ends the process in good order.
    return client.runUntilSignal([&server] {
        fmt::print("rva ready on http://127.0.0.1:{}\n", server.port());
        std::fflush(stdout);
    });
}

}  // namespace kvx::rva
